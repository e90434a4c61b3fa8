// Which guests install unattended with which form settings, the Linux
// account-text checks with their messages, and what the answer-file writer
// refuses before it writes anything.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace {

using testing_support::ReadTsv;
using testing_support::Take;
using testing_support::TempDir;
using testing_support::TsvRow;

GuessInfo Info(const char *key, GuessVersion version) {
  GuessInfo info{};
  info.osKey = key;
  info.version = version;
  return info;
}

// A version by its name without "GUESS_VERSION_", or by number.
GuessVersion Version(const std::string &cell) {
  for (GuessVersion v = 0; v < GUESS_VERSION_DUMMY_LAST; ++v) {
    if ("GUESS_VERSION_" + cell == SUB_NAMES[v]) {
      return v;
    }
  }
  return static_cast<GuessVersion>(std::stoul(cell));
}

// "a,b,..." as numbers.
std::vector<unsigned> Numbers(const std::string &cell) {
  std::vector<unsigned> out;
  std::stringstream in(cell);
  for (std::string n; std::getline(in, n, ',');) {
    out.push_back(static_cast<unsigned>(std::stoul(n)));
  }
  return out;
}

class Table : public testing::TestWithParam<TsvRow> {};
std::string RowName(const testing::TestParamInfo<TsvRow> &info) {
  return testing_support::TsvRowName(info.param);
}

using Support = Table;
TEST_P(Support, FamilyAndSupport) {
  const auto &c = GetParam().cells;  // key, version, family, supported
  GuessInfo info = Info(c[0].c_str(), Version(c[1]));
  if (c[0].starts_with("windows")) {
    EXPECT_EQ(c[3] == "yes", AutoInstall_IsSupportedGuest(&info));
    return;
  }
  EXPECT_EQ(std::stoul(c[2]), AutoInstallGetLinuxFamily(info.osKey));
  EXPECT_EQ(c[3] == "yes", AutoInstallIsSupportedLinuxGuest(&info));
  EXPECT_EQ(c[3] == "yes", AutoInstall_IsSupportedGuest(&info));
}
INSTANTIATE_TEST_SUITE_P(LinuxInstall, Support,
                         testing::ValuesIn(ReadTsv("install/support.tsv", 4)), RowName);

using Config = Table;
TEST_P(Config, FormSettings) {
  const auto &c = GetParam().cells;
  GuessInfo info = Info(c[1].c_str(), 0);
  InstallConfigInfo got{};
  ASSERT_TRUE(AutoInstall_GetInstallConfigInfo(c[0].c_str(), &info, &got));
  const std::vector<unsigned> flags(got.familyFlags, got.familyFlags + 4),
      variantFlags(got.variantFlags, got.variantFlags + 2);
  EXPECT_EQ(Numbers(c[2]), (std::vector<unsigned>{got.familyValue1, got.familyValue2}));
  EXPECT_EQ(Numbers(c[3]), flags);
  EXPECT_EQ(Numbers(c[4]), (std::vector<unsigned>{got.variantValue1, got.variantValue2}));
  EXPECT_EQ(Numbers(c[5]), variantFlags);
  auto first = [](const ReservedAccountName *list) { return list ? list[0].name : "-"; };
  EXPECT_STREQ(c[6].c_str(), first(got.familyReservedNames));
  EXPECT_STREQ(c[7].c_str(), first(got.variantReservedNames));
  size_t count = 0;
  while (got.variantReservedNames != nullptr && got.variantReservedNames[count].name) {
    ++count;
  }
  EXPECT_EQ(std::stoul(c[8]), count);
}
INSTANTIATE_TEST_SUITE_P(LinuxInstall, Config, testing::ValuesIn(ReadTsv("install/config.tsv", 9)),
                         RowName);

// A failed lookup leaves the record as it was.
TEST(LinuxInstall, ConfigLookupFailsBeforeWriting) {
  GuessInfo seven = Info("windows7-64", 0), noKey{};
  InstallConfigInfo untouched;
  memset(&untouched, 0x5A, sizeof untouched);
  InstallConfigInfo copy = untouched;
  EXPECT_FALSE(AutoInstall_GetInstallConfigInfo("Windows", &seven, &untouched));
  EXPECT_FALSE(AutoInstall_GetInstallConfigInfo("linux", &noKey, &untouched));
  EXPECT_EQ(0, memcmp(&copy, &untouched, sizeof copy));
  EXPECT_FALSE(AutoInstall_IsSupportedGuest(&noKey) || AutoInstall_IsSupportedGuest(nullptr));
}

using Texts = Table;
TEST_P(Texts, CheckAndMessage) {
  const std::map<unsigned, std::string> kMessages = {
      {1, "The full name does not allow the following characters: ':\"\\,'"},
      {3, "The password must not contain the characters ']]>' in a row."},
      {4, "The full name must not contain the characters ']]>' in a row."},
      {5,
       "The user name must consist only of lowercase US English characters, numbers 0 to 9 "
       "and dashes."},
      {6, "The user name must start with a lowercase US English character."},
  };
  const auto &c = GetParam().cells;  // key, kind, text, status
  GuessInfo info = Info(c[0].c_str(), 0);
  const AutoInstallTextKind kind = std::stoul(c[1]);
  const AutoInstallTextStatus status = std::stoul(c[3]);
  char *message = nullptr;
  EXPECT_EQ(status, AutoInstallValidateLinuxText(&info, c[2].c_str(), kind, &message));
  EXPECT_EQ(status == 0 ? "<null>" : kMessages.at(status) + "\nEnter a new value.", Take(message));
  const auto validate = kind == AUTOINSTALL_TEXT_KIND_PASSWORD     ? AutoInstall_ValidatePassword
                        : kind == AUTOINSTALL_TEXT_KIND_SHORT_NAME ? AutoInstall_ValidateShortName
                                                                   : AutoInstall_ValidateName;
  if (kind <= AUTOINSTALL_TEXT_KIND_NAME) {
    EXPECT_EQ(status, validate("linux", &info, c[2].c_str(), nullptr));
  }
}
INSTANTIATE_TEST_SUITE_P(LinuxInstall, Texts, testing::ValuesIn(ReadTsv("install/texts.tsv", 4)),
                         RowName);

TEST(LinuxInstallDeathTest, WindowsKeysGoToTheWindowsCheckOthersAreFatal) {
  GuessInfo win = Info("windows9-64", 0);
  EXPECT_EQ(AUTOINSTALL_TEXT_BAD_WINDOWS_NAME,
            AutoInstall_ValidateName("windows", &win, "a/b", nullptr));
  GuessInfo info = Info("rhel7-64", 0);
  EXPECT_DEATH(AutoInstall_ValidatePassword("Linux", &info, "pw", nullptr),
               "NOT_REACHED lib/guestInstall/autoinstall");
}

TEST(LinuxInstall, TemplatesTakeDataNotFormats) {
  using autoinstall::FillTemplate;
  EXPECT_EQ("a %s 100% b", FillTemplate("a %s 100%% %s", {"%s", "b"}).value_or("?"));
  EXPECT_FALSE(FillTemplate("%s %s", {"one"}).has_value());
  EXPECT_FALSE(FillTemplate("%s", {"one", "two"}).has_value());
  EXPECT_FALSE(FillTemplate("%d", {}).has_value());
  EXPECT_FALSE(FillTemplate("ends in %", {}).has_value());
  EXPECT_EQ("]]]]><![CDATA[>x]]]]><![CDATA[>", autoinstall::CdataText("]]>x]]>"));
  char *escaped = AutoInstallEscapeQuotes("say \"hi\" $x");
  EXPECT_STREQ("say \\\"hi\\\" $x", escaped);
  free(escaped);
}

// Texts that no answer-file format can carry unchanged are refused before
// anything is written.
TEST(LinuxInstall, WriterRefusesWhatItCannotWriteFaithfully) {
  const std::string longName(33, 'a');
  const struct {
    const char *user, *fullName;
  } cases[] = {
      {"", "Ann"},     {"-rf", "Ann"},      {longName.c_str(), "Ann"},
      {"Ann", "Ann"},  {"ann", "Ann\nLee"}, {"ann", "tab\there"},
      {"ann", "\xff"}, {"ann", "\xc3"},     {"ann", "del\x7f"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.user) + "/" + c.fullName);
    TempDir dir;
    EXPECT_FALSE(AutoInstall_PrepareAnswerFileEx_Linux("rhel7-64", GUESS_VERSION_RHEL_SERVER,
                                                       dir.str().c_str(), c.user, c.fullName, "pw",
                                                       "root", false, false));
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  }
  TempDir dir;
  EXPECT_FALSE(AutoInstall_PrepareAnswerFileEx_Linux("debian10", 0, dir.str().c_str(), "ann", "Ann",
                                                     "pw", "root", false, false));
  EXPECT_FALSE(AutoInstall_PrepareAnswerFileEx_Linux("rhel7-64", 0, dir.str().c_str(), "ann", "Ann",
                                                     "pw", nullptr, false, false));
  // The guests' crypt() would refuse to check a password this long.
  const std::string longPassword(512, 'p');
  EXPECT_FALSE(AutoInstall_PrepareAnswerFileEx_Linux("rhel7-64", 0, dir.str().c_str(), "ann", "Ann",
                                                     "pw", longPassword.c_str(), false, false));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
