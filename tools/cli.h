// Shared pieces of the guestprep command-line tool. Each subcommand lives in
// its own file, declares its options in `add` and does its work in `run`.
#ifndef GUESTPREP_TOOLS_CLI_H
#define GUESTPREP_TOOLS_CLI_H

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "guestprep/autoinstall.h"

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
extern const Command kFloppyCommand;
extern const Command kRemasterCommand;
extern const Command kToolsCommand;

// Text for a terminal or a line-oriented reader: a backslash becomes "\\",
// a line feed, tab or carriage return "\n", "\t", "\r", each byte of any other
// control character (C0, DEL, C1) or of invalid UTF-8 "\xNN". Undoing the
// escapes gives back the original bytes, and no value can start a new line.
std::string EscapeText(std::string_view text);

// One line "guestprep: <what>" on stderr, escaped.
void Fail(const std::string &what);

// Keeps the library's latest log line (and still sends it where --log
// said) so that a failed step can say why in its own one line.
void RecordLibraryLog();
// what, followed by the library's latest log line in parentheses when
// there is one; the line is used up.
std::string FailedStep(const std::string &what);

// Progress of a long step on stderr, only on a terminal and without --quiet.
extern bool gQuiet;
void Progress(const std::string &what);

// Detects the installation image for the install commands: kExitOk with
// info (osKey: the key naming the architecture) and family filled, or the
// command's exit code after one line saying why the image cannot be
// prepared. A supported Windows image passes (family none) when windowsToo.
int DetectInstall(const std::string &image, GuessInfo *info, LinuxInstallFamily *family,
                  bool windowsToo = false);

bool IsWindowsKey(const std::string &osKey);

// The Windows templates and host files: given, else the installed ones,
// else those of the source tree the program was built from.
std::string WindowsDataDir(const std::string &given);

// Where AutoInstall_PrepareAnswerFileEx_Linux puts the family's answer file.
std::string AnswerFilePath(const std::string &dir, LinuxInstallFamily family);

// The record as one JSON line, or as "key: value" lines (lists joined by ", ").
void PrintRecord(const nlohmann::ordered_json &record, bool json);

}  // namespace cli

#endif
