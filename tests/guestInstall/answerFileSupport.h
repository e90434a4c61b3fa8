// What the Linux answer-file suites share: the writer called with a fixed
// salt clock, the comparison with the reviewed records, the checks made
// with libcrypt and the shells, and the hostile texts.
//
// The records under tests/data/answers/ are the reviewed output. To rewrite
// them after a deliberate change, run the suites with GUESTPREP_REGENERATE=1
// in the environment (each record test then reports itself skipped) and
// review the diff.
#ifndef GUESTPREP_TESTS_ANSWER_FILE_SUPPORT_H
#define GUESTPREP_TESTS_ANSWER_FILE_SUPPORT_H

#include <crypt.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace answer_file_support {

namespace fs = std::filesystem;
using testing_support::TempDir;

constexpr char kUser[] = "jdoe";

struct Texts {
  std::string fullName = "John Doe";
  std::string userPassword = "user pa$$ 'word'";
  std::string rootPassword = "r00t \"secret\" @root";
};

// One second for every write, so the records hold the same salts each run.
inline time_t FixedClock(time_t *out) {
  if (out != nullptr) {
    *out = 1700000000;
  }
  return 1700000000;
}

// Where each family's file lands below the output directory.
inline fs::path AnswerPath(const TempDir &dir, const std::string &osKey) {
  switch (AutoInstallGetLinuxFamily(osKey.c_str())) {
    case LINUX_FAMILY_REDHAT:
      return dir / "ks.cfg";
    case LINUX_FAMILY_UBUNTU:
      return dir / "custom/preseed.cfg";
    case LINUX_FAMILY_MANDRIVA:
      return dir / "auto_i~1.cfg";
    default:
      return dir / "autoinst.xml";
  }
}

// The written file's path, or nullopt when the writer refused.
inline std::optional<fs::path> Write(const TempDir &dir, const std::string &osKey, GuessVersion v,
                                     const Texts &t = {}, bool powerOff = false,
                                     bool nvme = false) {
  autoinstall::SetCryptClockForTesting(FixedClock);
  const bool written = AutoInstall_PrepareAnswerFileEx_Linux(
      osKey.c_str(), v, dir.str().c_str(), kUser, t.fullName.c_str(), t.userPassword.c_str(),
      t.rootPassword.c_str(), powerOff, nvme);
  autoinstall::SetCryptClockForTesting(nullptr);
  return written ? std::optional(AnswerPath(dir, osKey)) : std::nullopt;
}

// One record under tests/data/answers/ and the releases that write it.
struct Release {
  std::string osKey;
  GuessVersion version;
  std::string kernelArg = "ks=cdrom:/ks.cfg";  // what a kickstart write stores
};
struct Variant {
  std::string record;
  std::vector<Release> releases;
  bool powerOff = false;
  bool nvme = false;
};

// The variants of the table answers/<table> (its header tells the columns).
inline std::vector<Variant> ReadVariants(const std::string &table) {
  std::vector<Variant> out;
  for (const testing_support::TsvRow &row : testing_support::ReadTsv("answers/" + table, 3)) {
    Variant v{row.cells[0], {}};
    for (const std::string &release : testing_support::Split(row.cells[1], ",")) {
      std::vector<std::string> words = testing_support::Split(release, " ");
      words.resize(3);
      v.releases.push_back({words[0], testing_support::VersionByName(words[1])});
      if (!words[2].empty()) {
        v.releases.back().kernelArg = words[2];
      }
    }
    v.powerOff = row.cells[2].find("poweroff") != std::string::npos;
    v.nvme = row.cells[2].find("nvme") != std::string::npos;
    out.push_back(v);
  }
  return out;
}

inline void PrintTo(const Variant &v, std::ostream *os) {
  *os << v.record;
}

// "ks-rhel7-server.cfg" tests as ks_rhel7_server.
inline std::string RecordTestName(std::string record) {
  record.resize(record.rfind('.'));
  std::replace(record.begin(), record.end(), '-', '_');
  return record;
}

inline void ExpectMatchesRecord(const fs::path &file, const std::string &record) {
  const fs::path path = testing_support::DataDir() / "answers" / record;
  const char *regenerate = std::getenv("GUESTPREP_REGENERATE");
  if (regenerate != nullptr && std::string(regenerate) == "1") {
    testing_support::WriteFile(path, testing_support::ReadFile(file));
    GTEST_SKIP() << "record rewritten: " << path;
  }
  EXPECT_EQ(testing_support::ReadFile(file), testing_support::ReadFile(path)) << "record " << path;
}

// The system's crypt(); "<null>" when it refuses the setting.
inline std::string SystemCrypt(const std::string &key, const std::string &setting) {
  crypt_data data{};
  const char *hash = crypt_r(key.c_str(), setting.c_str(), &data);
  return hash != nullptr ? hash : "<null>";
}

inline void ExpectHashOf(const std::string &hash, const std::string &password) {
  EXPECT_EQ(hash.rfind("$5$", 0), 0u) << "not a SHA-256 crypt hash: " << hash;
  EXPECT_EQ(SystemCrypt(password, hash), hash) << "the hash does not verify against its password";
}

// shell is "bash" or "dash".
inline void ExpectSyntax(const char *shell, const std::string &script, const std::string &what) {
  TempDir dir;
  testing_support::WriteFile(dir / "script.sh", script);
  const auto r = testing_support::RunCommand({shell, "-n", (dir / "script.sh").string()});
  EXPECT_EQ(r.exitCode, 0) << shell << " on " << what << ":\n" << r.output << "\n" << script;
}

struct Hostile {
  const char *label;
  std::string text;
  bool isName;  // the writer takes it as a full name too: valid UTF-8, no control character
};

inline void PrintTo(const Hostile &h, std::ostream *os) {
  *os << h.label;
}

// Every class of text an answer file's quoting must carry unchanged, as
// full names and passwords.
inline std::vector<Hostile> HostileTexts() {
  const std::string piece = "$HOME \\$HOME @ARGV \"q\" \\ $(touch x) `touch x` ]]> &<> %s ";
  std::string long4KiB;
  while (long4KiB.size() + piece.size() <= 4096) {
    long4KiB += piece;
  }
  long4KiB.resize(4096, 'x');
  std::string controls;  // every C0 control but NUL, DEL, and CR before LF
  for (char c = 1; c < 0x20; ++c) {
    controls += c;
  }
  return {
      {"variables", "$HOME ${HOME} $0 $1 $@ $$ $_", true},
      {"perl_arrays", "@ARGV @INC @{ARGV} a@b.c", true},
      {"perl_code", "@{[ `touch pwned` ]} ${\\ system('touch pwned') }", true},
      {"double_quotes", "John \"JD\" Doe", true},
      {"backslashes", "C:\\temp \\\\ \\t \\x41 \\$HOME mid\\dle", true},
      {"trailing_backslash", "John Doe\\", true},
      {"command_substitution", "$(touch pwned) Doe", true},
      {"backquotes", "`touch pwned` Doe", true},
      {"single_quotes", "O'Brien '' '", true},
      {"history_and_globs", "!! * ? [a] ~root", true},
      {"cdata_end", "a]]>b ]]]]>> ]]>", true},
      {"markup", "&amp; &<> <![CDATA[ x", true},
      {"printf_conversions", "100%s %d %% %n", true},
      {"utf8", "Zo\xC3\xAB \xC3\x85ngstr\xC3\xB6m \xE6\x9D\x8E", true},
      {"empty", "", true},
      {"long_4KiB", long4KiB, true},
      {"not_utf8", "\xFF\xFE\x80 \xC3(", false},
      {"control_characters", controls + "\x7F first\r\nsecond\r", false},
  };
}

}  // namespace answer_file_support

#endif
