// guestprep: command-line front end over libguestprep.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "cli.h"
#include "guestprep/common.h"
#include "platform/log/log.h"

#ifndef GUESTPREP_VERSION
#error "GUESTPREP_VERSION comes from the build"
#endif

namespace {

// Subcommands, in the order --help lists them.
const cli::Command kCommands[] = {
    cli::kDetectCommand, cli::kPrepareCommand,  cli::kAnswerCommand,
    cli::kFloppyCommand, cli::kRemasterCommand, cli::kToolsCommand,
};

// Without --log the library's lines are dropped: each command says what went
// wrong in its own one line, and a Panic still reaches stderr on its own.
void DropLogLine(void *, int, const char *, size_t) {}

int Main(int argc, char **argv) {
  CLI::App app{
      "guestprep: detect guest OS install images, write unattended-install answer "
      "files, build install floppies and manage guest tools images.",
      "guestprep"};
  app.set_version_flag("--version",
                       std::string("guestprep " GUESTPREP_VERSION " (") + BRM_EMBED_LABEL + ")",
                       "Print the version and the build identifier");
  std::string logPath;
  app.add_option("--log", logPath,
                 "Append the library's log lines to FILE (without it they are not shown)")
      ->type_name("FILE");
  app.require_subcommand(1);

  std::vector<std::pair<CLI::App *, int (*)()>> commands;
  for (const cli::Command &command : kCommands) {
    commands.emplace_back(command.add(app), command.run);
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp &e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion &e) {
    return app.exit(e);
  } catch (const CLI::ParseError &e) {
    app.exit(e);
    return cli::kExitUsage;
  }

  if (logPath.empty()) {
    Log_SetSink(DropLogLine, nullptr);
  } else if (!Log_SetFile(logPath.c_str())) {
    fprintf(stderr, "guestprep: cannot open log file %s: %s\n", cli::EscapeText(logPath).c_str(),
            strerror(errno));
    return cli::kExitUsage;
  }
  cli::RecordLibraryLog();

  for (const auto &[sub, run] : commands) {
    if (sub->parsed()) {
      return run();
    }
  }
  return cli::kExitUsage;
}

}  // namespace

// Nothing escapes as an abort: any failure is one line and exit 1.
int main(int argc, char **argv) {
  int code = cli::kExitFailure;
  try {
    code = Main(argc, argv);
  } catch (const std::exception &e) {
    fprintf(stderr, "guestprep: %s\n", cli::EscapeText(e.what()).c_str());
    return cli::kExitFailure;
  } catch (...) {
    fprintf(stderr, "guestprep: unexpected error\n");
    return cli::kExitFailure;
  }
  // Output that did not reach its destination (a full disk, a closed pipe
  // reader) is a failure, not a success.
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "guestprep: cannot write output: %s\n", strerror(errno));
    return cli::kExitFailure;
  }
  return code;
}
