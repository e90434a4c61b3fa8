// Shared pieces of the guestprep command-line tool. Each subcommand lives in
// its own file, declares its options in `add` and does its work in `run`.
#ifndef GUESTPREP_TOOLS_CLI_H
#define GUESTPREP_TOOLS_CLI_H

#include <CLI/CLI.hpp>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

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
extern const Command kPrepareCommand;
extern const Command kToolsCommand;
// Members of the tools group that live in files of their own.
extern const Command kToolsStatusCommand;
extern const Command kToolsSaveCommand;

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

// A fixed-size text field of GuessInfo, up to its zero byte or its end.
template <size_t N>
std::string Field(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

// A "?"-terminated list field of GuessInfo as its entries.
template <size_t N>
std::vector<std::string> ListField(const char (&field)[N]) {
  std::vector<std::string> items;
  std::string text = Field(field);
  size_t start = 0;
  for (size_t q; (q = text.find('?', start)) != std::string::npos; start = q + 1) {
    items.push_back(text.substr(start, q - start));
  }
  if (start < text.size()) {
    items.push_back(text.substr(start));
  }
  return items;
}

// The Windows templates and host files: given, else the installed ones,
// else those of the source tree the program was built from.
std::string WindowsDataDir(const std::string &given);

// Where AutoInstall_PrepareAnswerFileEx_Linux puts the family's answer file.
std::string AnswerFilePath(const std::string &dir, LinuxInstallFamily family);

// The record as one JSON line, or as "key: value" lines (lists joined by ", ").
void PrintRecord(const nlohmann::ordered_json &record, bool json);

}  // namespace cli

#endif
