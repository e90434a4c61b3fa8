// Kickstart files: every release variant the writer tells apart, written
// end to end and compared with its record in tests/data/answers/, with
// its kernel argument and its password hashes through libcrypt's crypt();
// then the shell of each template through bash -n and dash -n, and hostile
// full names through bash itself.
#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "guestInstall/answerFileSupport.h"
#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace {

using namespace answer_file_support;
using testing_support::ReadFile;
using testing_support::RunCommand;

// The texts the records were written with.
const Texts kTexts{.rootPassword = "r00t \"secret\" ]]"};

// Puts the argument cell in a state no write leaves, so each test sees
// what its own write stored, and puts it back for the suites that run
// after.
class KickstartTest : public ::testing::Test {
 protected:
  void SetUp() override { LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs = "unset"; }
  void TearDown() override { LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs = saved_; }

 private:
  const char *saved_ = LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs;
};

// The first capture of pattern in text.
std::string Capture(const std::string &text, const char *pattern) {
  std::smatch m;
  EXPECT_TRUE(std::regex_search(text, m, std::regex(pattern))) << pattern;
  return m.empty() ? std::string() : m[1].str();
}

/* Every release variant */

class KickstartVariantTest : public KickstartTest, public ::testing::WithParamInterface<Variant> {};

TEST_P(KickstartVariantTest, EveryReleaseWritesTheRecordAndKernelArgument) {
  const Variant &v = GetParam();
  for (const Release &r : v.releases) {
    SCOPED_TRACE(r.osKey + " version " + std::to_string(r.version));
    TempDir dir;
    const auto file = Write(dir, r.osKey, r.version, kTexts, v.powerOff);
    ASSERT_TRUE(file);
    EXPECT_STREQ(LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs, r.kernelArg.c_str());
    const std::string ks = ReadFile(*file);
    ExpectHashOf(Capture(ks, R"(\nrootpw --iscrypted (\S+)\n)"), kTexts.rootPassword);
    ExpectHashOf(Capture(ks, R"(\n/usr/sbin/usermod -p '([^']+)' jdoe\n)"), kTexts.userPassword);
    ExpectMatchesRecord(*file, v.record);
  }
}

INSTANTIATE_TEST_SUITE_P(Releases, KickstartVariantTest,
                         ::testing::ValuesIn(ReadVariants("ks-variants.tsv")),
                         [](const auto &info) { return RecordTestName(info.param.record); });

/* Hostile full names, in each template */

// The text between the first open and the close after it.
std::string Between(const std::string &text, const std::string &open, const std::string &close) {
  const size_t begin = text.find(open);
  const size_t end = begin == std::string::npos ? begin : text.find(close, begin + open.size());
  EXPECT_NE(end, std::string::npos) << "no " << open << "..." << close << " in:\n" << text;
  return end == std::string::npos ? ""
                                  : text.substr(begin + open.size(), end - begin - open.size());
}

class KickstartHostileNameTest : public KickstartTest,
                                 public ::testing::WithParamInterface<Hostile> {};

// bash -n parses the %post section and, with dash -n (rc.local runs under
// /bin/sh), its first-boot script. Then bash runs the chfn line, with chfn
// a function that prints its full-name argument, in an empty directory
// that must stay empty.
TEST_P(KickstartHostileNameTest, ShellParsesAndBashReadsBackTheExactName) {
  Texts t = kTexts;
  t.fullName = GetParam().text;
  // Tools image, network tools (chfn commented out), distribution tools.
  for (const Release &r : {Release{"rhel6-64", GUESS_VERSION_UNKNOWN},
                           Release{"fedora-64", GUESS_VERSION_FEDORA_22_TO_28},
                           Release{"rhel7-64", GUESS_VERSION_RHEL_SERVER}}) {
    SCOPED_TRACE(r.osKey);
    TempDir dir;
    const auto file = Write(dir, r.osKey, r.version, t);
    ASSERT_TRUE(file);
    const std::string ks = ReadFile(*file);
    const std::string post = Between(ks, "\n%post\n", "%end\n");
    const std::string firstBoot = Between(post, "<<'BRIMLE_FIRST_BOOT'\n", "\nBRIMLE_FIRST_BOOT\n");
    ExpectSyntax("bash", post, "%post");
    ExpectSyntax("bash", firstBoot, "first-boot script");
    ExpectSyntax("dash", firstBoot, "first-boot script");

    // The line as written, less the "#" that comments it out in one template.
    const std::string chfn = "chfn -f \"" + Between(ks, "/usr/bin/chfn -f \"", "\n");
    TempDir scratch;
    const auto run = RunCommand(
        {"bash", "-c",
         "cd '" + scratch.str() + "' || exit 1\n" + "chfn() { printf '%s' \"$2\"; }\n" + chfn});
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_EQ(run.output, t.fullName);
    EXPECT_TRUE(fs::is_empty(scratch.path())) << "the name ran a command";
  }
}

std::vector<Hostile> HostileNames() {
  std::vector<Hostile> names;
  for (const Hostile &h : HostileTexts()) {
    if (h.isName) {
      names.push_back(h);
    }
  }
  return names;
}

INSTANTIATE_TEST_SUITE_P(Names, KickstartHostileNameTest, ::testing::ValuesIn(HostileNames()),
                         [](const auto &info) { return std::string(info.param.label); });

}  // namespace
