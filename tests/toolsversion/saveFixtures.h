// Checks shared by the tests of the extended configuration writer: what
// xmllint says of a written file, and the part of it the writer must keep.
#ifndef GUESTPREP_TESTS_TOOLSVERSION_SAVE_FIXTURES_H
#define GUESTPREP_TESTS_TOOLSVERSION_SAVE_FIXTURES_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/testSupport.h"

namespace save_fixtures {

// tests/data/toolsversion/save: the case directories and the shared vm.brx.
inline std::filesystem::path SaveCasesDir() {
  return testing_support::DataDir() / "toolsversion" / "save";
}

// xmllint's canonical form of a file (comments kept): attribute order,
// quoting, empty-element form and the declaration no longer differ.
inline std::string Canonical(const std::filesystem::path &file) {
  testing_support::CommandResult r =
      testing_support::RunCommand({"xmllint", "--c14n", file.string()});
  EXPECT_EQ(0, r.exitCode) << file << ": " << r.output;
  return r.output;
}

// xmllint's complaints about a file: "" when it is well-formed XML with
// well-formed namespaces.
inline std::string XmllintProblems(const std::filesystem::path &file) {
  testing_support::CommandResult r =
      testing_support::RunCommand({"xmllint", "--noout", file.string()});
  return r.exitCode == 0 && r.output.empty()
             ? ""
             : r.output + " (exit " + std::to_string(r.exitCode) + ")";
}

// Where the markup item starting at text[at] ('<') ends; quoted attribute
// values may hold '>'.
inline size_t MarkupEnd(const std::string &text, size_t at) {
  if (text.compare(at, 4, "<!--") == 0) {
    return text.find("-->", at) + 3;
  }
  if (text.compare(at, 2, "<?") == 0) {
    return text.find("?>", at) + 2;
  }
  bool quoted = false;
  for (size_t i = at; i < text.size(); ++i) {
    if (text[i] == '"') {
      quoted = !quoted;
    } else if (text[i] == '>' && !quoted) {
      return i + 1;
    }
  }
  return text.size();
}

inline bool IsOwnedName(const std::string &tag) {
  std::string name = testing_support::Lower(tag.substr(1, tag.find_first_of(" >") - 1));
  return name == "tools-manifest" || name == "update-agent-info" || name == "tools-install-info";
}

// A canonical document without the root's tools elements: what the writer
// must keep. Canonical form writes every element as start and end tag and
// escapes '<' in text, so tags are found by their '<'.
inline std::string WithoutOwned(const std::string &canonical) {
  std::string out;
  int depth = 0;
  size_t i = 0;
  while (i < canonical.size()) {
    if (canonical[i] != '<') {
      out += canonical[i++];
      continue;
    }
    const size_t end = MarkupEnd(canonical, i);
    const std::string item = canonical.substr(i, end - i);
    const bool comment = item[1] == '!' || item[1] == '?';
    const bool closing = item[1] == '/';
    if (!comment && !closing && depth == 1 && IsOwnedName(item)) {
      int inner = 1;
      i = end;
      while (inner > 0 && i < canonical.size()) {
        if (canonical[i] == '<') {
          const size_t next = MarkupEnd(canonical, i);
          if (canonical[i + 1] == '/') {
            --inner;
          } else if (canonical[i + 1] != '!' && canonical[i + 1] != '?') {
            ++inner;
          }
          i = next;
        } else {
          ++i;
        }
      }
      continue;
    }
    if (!comment) {
      depth += closing ? -1 : 1;
    }
    out += item;
    i = end;
  }
  return out;
}

}  // namespace save_fixtures

#endif
