// guestprep: command-line front end over libguestprep's C interface.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "cli.h"
#include "guestprep/common.h"

namespace {

// Subcommands, in the order --help lists them.
const cli::Command kCommands[] = {
    cli::kDetectCommand,
};

std::string BuildId() {
  const char *label = BRM_EMBED_LABEL;
  const char *eq = strchr(label, '=');
  return eq != nullptr ? std::string(eq + 1) : std::string(label);
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{
      "guestprep: detect guest OS install images, write unattended-install answer "
      "files, build install floppies and manage guest tools images.",
      "guestprep"};
  app.set_version_flag("--version", "guestprep " + BuildId());
  std::string logPath;
  app.add_option("--log", logPath, "Append the library's log lines to FILE instead of stderr")
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

  // The library logs to stderr; --log points that stream at a file.
  if (!logPath.empty()) {
    int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
      fprintf(stderr, "guestprep: cannot open log file %s: %s\n", logPath.c_str(), strerror(errno));
      return cli::kExitUsage;
    }
    dup2(fd, STDERR_FILENO);
    close(fd);
  }

  for (const auto &[sub, run] : commands) {
    if (sub->parsed()) {
      return run();
    }
  }
  return cli::kExitUsage;
}
