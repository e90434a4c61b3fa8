// Shared by the manifest suites: captured log lines as the case files
// write them.
#ifndef GUESTPREP_TESTS_TOOLSVERSION_MANIFESTFIXTURES_H
#define GUESTPREP_TESTS_TOOLSVERSION_MANIFESTFIXTURES_H

#include <string>
#include <vector>

#include "support/testSupport.h"

namespace manifest_fixtures {

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
