// Shared by the tools version suites: the case directories under
// tests/data/toolsversion, their "args" files, and captured log lines as the
// case files write them.
#ifndef GUESTPREP_TESTS_TOOLSVERSION_MANIFESTFIXTURES_H
#define GUESTPREP_TESTS_TOOLSVERSION_MANIFESTFIXTURES_H

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/testSupport.h"

namespace manifest_fixtures {

// The names of the subdirectories of dir (one case each), sorted.
inline std::vector<std::string> CaseNames(const std::filesystem::path &dir) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(dir)) {
    if (entry.is_directory()) {
      names.push_back(entry.path().filename().string());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A case's "name: value" lines ("#" lines skipped; a line without ":" is a
// name with an empty value).
inline std::map<std::string, std::string> ReadArgs(const std::filesystem::path &file) {
  std::map<std::string, std::string> args;
  for (const std::string &line : testing_support::Split(testing_support::ReadFile(file), "\n")) {
    if (line[0] == '#') {
      continue;
    }
    const size_t colon = line.find(':');
    std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
    if (!value.empty() && value[0] == ' ') {
      value.erase(0, 1);
    }
    args[line.substr(0, colon)] = value;
  }
  return args;
}

// The captured lines without their line feed (a line that lacked one shows
// "<no LF>"), leaving out those that start with one of skipPrefixes.
inline std::vector<std::string> CapturedLines(const testing_support::LogCapture &log,
                                              const std::vector<std::string> &skipPrefixes = {}) {
  std::vector<std::string> out;
  for (const std::string &line : log.lines()) {
    bool skip = false;
    for (const std::string &prefix : skipPrefixes) {
      skip = skip || line.starts_with(prefix);
    }
    if (!skip) {
      out.push_back(line.ends_with("\n") ? line.substr(0, line.size() - 1) : line + "<no LF>");
    }
  }
  return out;
}

// Lines as one table cell writes them: " || " between them.
inline std::string Joined(const std::vector<std::string> &lines) {
  std::string out;
  for (const std::string &line : lines) {
    out += (out.empty() ? "" : " || ") + line;
  }
  return out;
}

}  // namespace manifest_fixtures

#endif
