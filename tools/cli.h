// Shared pieces of the guestprep command-line tool. Each subcommand lives in
// its own file, declares its options in `add` and does its work in `run`.
#ifndef GUESTPREP_TOOLS_CLI_H
#define GUESTPREP_TOOLS_CLI_H

#include <CLI/CLI.hpp>

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

}  // namespace cli

#endif
