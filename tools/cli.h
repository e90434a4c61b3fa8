// Shared pieces of the guestprep command-line tool. Each subcommand lives in
// its own file, declares its options in `add` and does its work in `run`.
#ifndef GUESTPREP_TOOLS_CLI_H
#define GUESTPREP_TOOLS_CLI_H

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

namespace cli {

enum ExitCode : int {
  kExitOk = 0,
  kExitFailure = 1,
  kExitUsage = 2,
};

struct Command {
  CLI::App *(*add)(CLI::App &app);  // registers the subcommand and its options
  int (*run)();                     // runs it after parsing; returns an ExitCode
};

extern const Command kDetectCommand;
extern const Command kAnswerCommand;

// Text for a terminal or a line-oriented reader: a backslash becomes "\\",
// a line feed, tab or carriage return "\n", "\t", "\r", each byte of any other
// control character (C0, DEL, C1) or of invalid UTF-8 "\xNN". Undoing the
// escapes gives back the original bytes, and no value can start a new line.
std::string EscapeText(std::string_view text);

}  // namespace cli

#endif
