// Kickstart files: every release variant the writer tells apart, written
// end to end and compared with its record in tests/data/answers/; then the
// files' shell through bash -n, their password hashes through libcrypt's
// crypt(), and hostile full names through bash itself.
//
// The records are the reviewed output. To rewrite them after a deliberate
// change, run the suite with GUESTPREP_REGENERATE=1 in the environment
// (each record test then reports itself skipped) and review the diff.
#include <crypt.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace {

using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

constexpr char kUser[] = "jdoe";
constexpr char kFullName[] = "John Doe";
constexpr char kUserPassword[] = "user pa$$ 'word'";
constexpr char kRootPassword[] = "r00t \"secret\" ]]";

constexpr char kKs[] = "ks=cdrom:/ks.cfg";
constexpr char kKsDevice[] = "ks=cdrom:/dev/cdrom:/ks.cfg";

time_t FixedClock(time_t *out) {
  const time_t t = 1700000000;
  if (out != nullptr) {
    *out = t;
  }
  return t;
}

// Fixes the salt for the records, and puts the argument cell in a state no
// write leaves, so each test sees what its own write stored; both are put
// back for the suites that run after.
class KickstartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    autoinstall::SetCryptClockForTesting(FixedClock);
    savedKernelArgs_ = LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs;
    LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs = "unset";
  }
  void TearDown() override {
    LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs = savedKernelArgs_;
    autoinstall::SetCryptClockForTesting(::time);
  }

  // The written ks.cfg, or nullopt when the writer refused.
  static std::optional<std::string> Write(const TempDir &dir, const char *osKey, GuessVersion v,
                                          const std::string &fullName, bool powerOff = false) {
    if (!AutoInstall_PrepareAnswerFileEx_Linux(osKey, v, dir.str().c_str(), kUser, fullName.c_str(),
                                               kUserPassword, kRootPassword, powerOff, false)) {
      return std::nullopt;
    }
    return ReadFile(dir / "ks.cfg");
  }

 private:
  const char *savedKernelArgs_ = nullptr;
};

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// The body of every %post section, up to its %end (active or commented).
std::vector<std::string> PostSections(const std::string &ks) {
  std::vector<std::string> sections;
  std::optional<std::string> current;
  for (const std::string &line : Lines(ks)) {
    if (!current && line.rfind("%post", 0) == 0) {
      current.emplace();
    } else if (current && (line == "%end" || line == "#%end")) {
      sections.push_back(*current);
      current.reset();
    } else if (current) {
      *current += line + "\n";
    }
  }
  EXPECT_FALSE(current) << "a %post section without its end line";
  return sections;
}

// The bodies of the quoted here-documents in a script: the first-boot
// scripts the install leaves behind.
std::vector<std::string> HereDocuments(const std::string &script) {
  static const std::regex opener(R"(<<'([A-Z_]+)'$)");
  std::vector<std::string> docs;
  std::string delimiter;
  std::string body;
  for (const std::string &line : Lines(script)) {
    std::smatch m;
    if (delimiter.empty() && std::regex_search(line, m, opener)) {
      delimiter = m[1];
      body.clear();
    } else if (!delimiter.empty() && line == delimiter) {
      docs.push_back(body);
      delimiter.clear();
    } else if (!delimiter.empty()) {
      body += line + "\n";
    }
  }
  EXPECT_TRUE(delimiter.empty()) << "unterminated here-document " << delimiter;
  return docs;
}

void ExpectSyntax(const char *shell, const std::string &script, const std::string &what) {
  TempDir dir;
  WriteFile(dir / "script.sh", script);
  const auto r = RunCommand({shell, "-n", (dir / "script.sh").string()});
  EXPECT_EQ(r.exitCode, 0) << shell << " on " << what << ":\n" << r.output << "\n" << script;
}

// bash -n over each %post section, and over each first-boot script inside
// one; those run as rc.local under /bin/sh, so dash -n keeps them POSIX.
void ExpectShellParses(const std::string &ks) {
  const auto sections = PostSections(ks);
  ASSERT_EQ(sections.size(), 1u);
  ExpectSyntax("bash", sections[0], "%post");
  const auto docs = HereDocuments(sections[0]);
  EXPECT_EQ(docs.size(), 1u);
  for (const std::string &doc : docs) {
    ExpectSyntax("bash", doc, "first-boot script");
    ExpectSyntax("dash", doc, "first-boot script");
  }
}

// The one capture of pattern over the lines of ks; fails unless exactly one
// line matches.
std::string OnlyMatch(const std::string &ks, const std::string &pattern) {
  const std::regex re(pattern);
  std::vector<std::string> found;
  for (const std::string &line : Lines(ks)) {
    std::smatch m;
    if (std::regex_match(line, m, re)) {
      found.push_back(m[1]);
    }
  }
  EXPECT_EQ(found.size(), 1u) << pattern;
  return found.empty() ? std::string() : found[0];
}

void ExpectHashOf(const std::string &hash, const char *password) {
  ASSERT_FALSE(hash.empty());
  crypt_data data{};
  const char *again = crypt_r(password, hash.c_str(), &data);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(std::string(again), hash) << "the hash does not verify against its password";
  EXPECT_EQ(hash.rfind("$5$", 0), 0u) << hash;
}

/* Every release variant */

struct Variant {
  const char *name;  // the test's name; the record is ks-<name with - for _>.cfg
  const char *osKey;
  GuessVersion version;
  bool powerOff;
  const char *kernelArg;
};

const Variant kVariants[] = {
    // Legacy installers: langsupport, mouse, --resolvedeps, no %end.
    {"rhel4", "rhel4", GUESS_VERSION_UNKNOWN, false, kKs},
    {"centos4", "centos", GUESS_VERSION_CENTOS_4, false, kKs},
    // Release 5 takes the rows by version value, without the legacy options.
    {"rhel5", "rhel5-64", GUESS_VERSION_UNKNOWN, false, kKs},
    {"centos5", "centos-64", GUESS_VERSION_CENTOS_5, false, kKs},
    {"rhel6", "rhel6-64", GUESS_VERSION_UNKNOWN, false, kKs},
    {"centos6", "centos-64", GUESS_VERSION_CENTOS_6, false, kKs},
    {"rhel7_server", "rhel7-64", GUESS_VERSION_RHEL_SERVER, false, kKs},
    {"rhel7_workstation", "rhel7-64", GUESS_VERSION_RHEL_WORKSTATION, false, kKs},
    {"centos7", "centos7-64", GUESS_VERSION_CENTOS_7, false, kKs},
    // Not RHEL-like: the last row.
    {"centos7_minimal", "centos7-64", GUESS_VERSION_CENTOS_7_MINIMAL, false, kKs},
    {"rhel8_poweroff", "rhel8-64", GUESS_VERSION_UNKNOWN, true, kKs},
    {"centos8", "centos8-64", GUESS_VERSION_CENTOS_8, false, kKs},
    {"asianux3", "asianux3-64", GUESS_VERSION_UNKNOWN, false, kKs},
    {"asianux4", "asianux4-64", GUESS_VERSION_UNKNOWN, false, kKs},
    {"fedora9", "fedora", GUESS_VERSION_FEDORA_9_TO_12, false, kKs},
    {"fedora14", "fedora-64", GUESS_VERSION_FEDORA_14_TO_16, false, kKs},
    {"fedora17", "fedora-64", GUESS_VERSION_FEDORA_17, false, kKsDevice},
    {"fedora18_64", "fedora-64", GUESS_VERSION_FEDORA_18, false, kKsDevice},
    {"fedora18_32", "fedora", GUESS_VERSION_FEDORA_18, false, kKsDevice},
    {"fedora19_32", "fedora", GUESS_VERSION_FEDORA_19_TO_20, false, kKsDevice},
    {"fedora21", "fedora-64", GUESS_VERSION_FEDORA_21, false, kKs},
    {"fedora22", "fedora-64", GUESS_VERSION_FEDORA_22_TO_28, false, kKs},
    {"fedora29", "fedora-64", GUESS_VERSION_FEDORA_29_OR_HIGHER, false, kKs},
    {"fedora_other", "fedora-64", GUESS_VERSION_UNKNOWN, false, kKs},
};

void PrintTo(const Variant &v, std::ostream *os) {
  *os << v.name;
}

class KickstartVariantTest : public KickstartTest, public ::testing::WithParamInterface<Variant> {};

std::filesystem::path RecordPath(const Variant &v) {
  std::string file = std::string("ks-") + v.name + ".cfg";
  for (char &c : file) {
    c = c == '_' ? '-' : c;
  }
  return testing_support::DataDir() / "answers" / file;
}

TEST_P(KickstartVariantTest, MatchesRecordAndKernelArgument) {
  const Variant &v = GetParam();
  TempDir dir;
  const auto ks = Write(dir, v.osKey, v.version, kFullName, v.powerOff);
  ASSERT_TRUE(ks);
  EXPECT_STREQ(LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs, v.kernelArg);

  const char *regenerate = std::getenv("GUESTPREP_REGENERATE");
  if (regenerate != nullptr && std::string(regenerate) == "1") {
    std::filesystem::create_directories(RecordPath(v).parent_path());
    WriteFile(RecordPath(v), *ks);
    GTEST_SKIP() << "record rewritten: " << RecordPath(v);
  }
  EXPECT_EQ(*ks, ReadFile(RecordPath(v))) << "record " << RecordPath(v);
}

TEST_P(KickstartVariantTest, ShellParsesAndHashesVerify) {
  const Variant &v = GetParam();
  TempDir dir;
  const auto ks = Write(dir, v.osKey, v.version, kFullName, v.powerOff);
  ASSERT_TRUE(ks);
  ExpectShellParses(*ks);
  ExpectHashOf(OnlyMatch(*ks, R"(rootpw --iscrypted (\S+))"), kRootPassword);
  ExpectHashOf(OnlyMatch(*ks, "/usr/sbin/usermod -p '([^']+)' jdoe"), kUserPassword);
}

INSTANTIATE_TEST_SUITE_P(Releases, KickstartVariantTest, ::testing::ValuesIn(kVariants),
                         [](const auto &info) { return std::string(info.param.name); });

/* Hostile full names */

struct HostileName {
  const char *label;
  std::string text;
};

std::string LongHostileName() {
  const std::string piece = "$(touch pwned)`touch pwned`\"\\$HOME %s ";
  std::string name;
  while (name.size() + piece.size() <= 4096) {
    name += piece;
  }
  return name + std::string(4096 - name.size(), 'x');
}

const HostileName kHostileNames[] = {
    {"double_quote", "John \"JD\" Doe"},
    {"command_substitution", "$(touch pwned) Doe"},
    {"backquotes", "`touch pwned` Doe"},
    {"home_variable", "$HOME ${HOME} $1 $@ $$"},
    {"backslashes", "C:\\temp \\\\ \\n \\"},
    {"single_quote", "O'Brien"},
    {"printf_conversions", "100%s %d %% %n"},
    {"history_and_globs", "!! * ? [a] ~root"},
    {"utf8", "Zo\xC3\xAB \xC3\x85ngstr\xC3\xB6m \xE6\x9D\x8E"},
    {"empty", ""},
    {"long_4KiB", LongHostileName()},
};

void PrintTo(const HostileName &n, std::ostream *os) {
  *os << n.label;
}

// One key per template: tools image, network tools (chfn commented out),
// distribution tools.
struct TemplateKey {
  const char *osKey;
  GuessVersion version;
};
const TemplateKey kTemplateKeys[] = {
    {"rhel6-64", GUESS_VERSION_UNKNOWN},
    {"fedora-64", GUESS_VERSION_FEDORA_22_TO_28},
    {"rhel7-64", GUESS_VERSION_RHEL_SERVER},
};

// The chfn line, without the "#" that comments it out in one template.
std::string ChfnLine(const std::string &ks) {
  const std::string command = "/usr/bin/chfn -f \"";
  std::vector<std::string> found;
  for (const std::string &line : Lines(ks)) {
    const size_t at = line.rfind(command, 1);
    if (at == 0 || (at == 1 && line[0] == '#')) {
      found.push_back(line.substr(at));
    }
  }
  EXPECT_EQ(found.size(), 1u);
  return found.empty() ? std::string() : found[0];
}

class KickstartHostileNameTest : public KickstartTest,
                                 public ::testing::WithParamInterface<HostileName> {};

// Runs the chfn line with chfn replaced by a function that prints its full
// name argument, in an empty directory that must stay empty.
TEST_P(KickstartHostileNameTest, BashReadsBackTheExactName) {
  const HostileName &name = GetParam();
  for (const TemplateKey &key : kTemplateKeys) {
    SCOPED_TRACE(key.osKey);
    TempDir dir;
    const auto ks = Write(dir, key.osKey, key.version, name.text);
    ASSERT_TRUE(ks);
    ExpectShellParses(*ks);

    std::string chfn = ChfnLine(*ks);
    ASSERT_FALSE(chfn.empty());
    chfn.replace(0, std::string("/usr/bin/chfn").size(), "chfn");
    TempDir scratch;
    const std::string script = "cd '" + scratch.str() +
                               "' || exit 1\n"
                               "chfn() { printf '%s' \"$2\"; }\n" +
                               chfn + "\n";
    const auto r = RunCommand({"bash", "-c", script});
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(r.output, name.text);
    EXPECT_TRUE(std::filesystem::is_empty(scratch.path())) << "the name ran a command";
  }
}

INSTANTIATE_TEST_SUITE_P(Names, KickstartHostileNameTest, ::testing::ValuesIn(kHostileNames),
                         [](const auto &info) { return std::string(info.param.label); });

}  // namespace
