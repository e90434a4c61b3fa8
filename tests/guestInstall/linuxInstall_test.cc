// Which guests install unattended with which form settings, the Linux
// account-text checks with their messages, and what the answer-file writer
// refuses before it writes anything.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace {

using testing_support::Take;
using testing_support::TempDir;

GuessInfo Info(const char *key, GuessVersion version, const char *versionText = "") {
  GuessInfo info{};
  info.osKey = key;
  info.version = version;
  snprintf(info.versionText, sizeof info.versionText, "%s", versionText);
  return info;
}

TEST(LinuxInstall, FamiliesAndSupport) {
  const struct {
    const char *key;
    GuessVersion version;
    LinuxInstallFamily family;
    bool supported;
  } cases[] = {
      {"rhel2", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_REDHAT, false},
      {"redhat", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_REDHAT, false},
      {"rhel2-64", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_REDHAT, true},
      {"redhat-7", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_REDHAT, true},
      {"centos7-64", GUESS_VERSION_CENTOS_7, LINUX_FAMILY_REDHAT, true},
      {"centos7-64", GUESS_VERSION_CENTOS_7_MINIMAL, LINUX_FAMILY_REDHAT, false},
      {"fedora-64", GUESS_VERSION_FEDORA_LIVE, LINUX_FAMILY_REDHAT, false},
      {"asianux7-64", GUESS_VERSION_ASIANUX_7_LIVE, LINUX_FAMILY_REDHAT, false},
      {"rhel9-64", 60, LINUX_FAMILY_REDHAT, true},
      {"ubuntu-64", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_UBUNTU, false},
      {"ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_1410, LINUX_FAMILY_UBUNTU, false},
      {"ubuntu-64", GUESS_VERSION_UBUNTU_2010_OR_HIGHER, LINUX_FAMILY_UBUNTU, true},
      {"ubuntu", 12, LINUX_FAMILY_UBUNTU, true},
      {"sles10-64", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_SLES10, true},
      {"sles10", GUESS_VERSION_SLES_10_SP2_OR_LOWER, LINUX_FAMILY_SLES10, false},
      {"sles11", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_SUSE, true},
      {"opensuse-64", GUESS_VERSION_OPENSUSE_13_1, LINUX_FAMILY_SUSE, false},
      {"opensuse-64", GUESS_VERSION_OPENSUSE_12, LINUX_FAMILY_SUSE, true},
      {"mandriva", GUESS_VERSION_MANDRIVA_2006, LINUX_FAMILY_MANDRIVA, false},
      {"debian10", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_NONE, false},
      {"RHEL7-64", GUESS_VERSION_UNKNOWN, LINUX_FAMILY_NONE, false},  // case-sensitive
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + std::to_string(c.version));
    GuessInfo info = Info(c.key, c.version);
    EXPECT_EQ(c.family, AutoInstallGetLinuxFamily(c.key));
    EXPECT_EQ(c.supported, AutoInstallIsSupportedLinuxGuest(&info));
    EXPECT_EQ(c.supported, AutoInstall_IsSupportedGuest(&info));
  }
  GuessInfo windows = Info("windows9-64", GUESS_VERSION_UNKNOWN);
  EXPECT_TRUE(AutoInstall_IsSupportedGuest(&windows));
  GuessInfo none{};
  EXPECT_FALSE(AutoInstall_IsSupportedGuest(&none) || AutoInstall_IsSupportedGuest(nullptr));
  EXPECT_EQ(LINUX_FAMILY_NONE, AutoInstallGetLinuxFamily(nullptr));
}

TEST(LinuxInstall, InstallConfigRows) {
  const struct {
    const char *family, *key;
    uint32_t variantValue1;
    uint8_t variantFlags[2];
    const char *firstVariantName;  // null: no list
  } cases[] = {
      {"linux", "ubuntu-64", 52, {0, 0}, nullptr},
      {"windows", "winNetStandard", 50, {1, 0}, "administra"},
      {"windows", "win2000Pro", 50, {1, 1}, "administra"},
      {"windows", "winXPPro", 50, {1, 1}, "administra"},
      {"windows", "windows7-64", 20, {1, 1}, "administra"},
      {"windows", "win98", 50, {0, 0}, "administra"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.key);
    GuessInfo info = Info(c.key, 0);
    InstallConfigInfo config{};
    ASSERT_TRUE(AutoInstall_GetInstallConfigInfo(c.family, &info, &config));
    const bool linux = std::string(c.family) == "linux";
    EXPECT_EQ(linux ? 32u : 0u, config.familyValue1);
    EXPECT_EQ(127u, config.familyValue2);
    EXPECT_EQ(c.variantValue1, config.variantValue1);
    EXPECT_EQ(0u, config.variantValue2);
    EXPECT_EQ(c.variantFlags[0], config.variantFlags[0]);
    EXPECT_EQ(c.variantFlags[1], config.variantFlags[1]);
    const uint8_t flags[4] = {!linux, linux, linux, linux};
    EXPECT_EQ(0, memcmp(flags, config.familyFlags, 4));
    if (c.firstVariantName == nullptr) {
      EXPECT_EQ(nullptr, config.variantReservedNames);
    } else {
      EXPECT_STREQ(c.firstVariantName, config.variantReservedNames[0].name);
    }
  }
  // The Vista row's list lacks "gast" and "invitado".
  GuessInfo seven = Info("windows7-64", 0), xp = Info("winXPPro", 0);
  InstallConfigInfo a{}, b{};
  ASSERT_TRUE(AutoInstall_GetInstallConfigInfo("windows", &seven, &a));
  ASSERT_TRUE(AutoInstall_GetInstallConfigInfo("windows", &xp, &b));
  EXPECT_EQ(nullptr, a.variantReservedNames[4].name);
  EXPECT_STREQ("invitado", b.variantReservedNames[5].name);
  EXPECT_EQ(nullptr, b.familyReservedNames);
  GuessInfo linuxInfo = Info("rhel7-64", 0);
  ASSERT_TRUE(AutoInstall_GetInstallConfigInfo("linux", &linuxInfo, &a));
  EXPECT_STREQ("root", a.familyReservedNames[0].name);
  EXPECT_FALSE(a.familyReservedNames[0].isPrefix);

  InstallConfigInfo untouched;
  memset(&untouched, 0x5A, sizeof untouched);
  InstallConfigInfo copy = untouched;
  EXPECT_FALSE(AutoInstall_GetInstallConfigInfo("Windows", &seven, &untouched));
  GuessInfo noKey{};
  EXPECT_FALSE(AutoInstall_GetInstallConfigInfo("linux", &noKey, &untouched));
  EXPECT_EQ(0, memcmp(&copy, &untouched, sizeof copy));
}

TEST(LinuxInstall, TextChecksAndMessages) {
  const char *kBadName =
      "The full name does not allow the following characters: ':\"\\,'\nEnter a new value.";
  const char *kBadUser =
      "The user name must consist only of lowercase US English characters, numbers 0 to 9 and "
      "dashes.\nEnter a new value.";
  const char *kBadUbuntu =
      "The user name must start with a lowercase US English character.\nEnter a new value.";
  const struct {
    const char *key;
    AutoInstallTextKind kind;
    const char *text;
    AutoInstallTextStatus status;
    const char *message;
  } cases[] = {
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_SHORT_NAME, "", AUTOINSTALL_TEXT_OK, nullptr},
      {"ubuntu-64", AUTOINSTALL_TEXT_KIND_SHORT_NAME, "", 6, kBadUbuntu},
      {"ubuntu-64", AUTOINSTALL_TEXT_KIND_SHORT_NAME, "1abc", 6, kBadUbuntu},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_SHORT_NAME, "1abc", AUTOINSTALL_TEXT_OK, nullptr},
      {"ubuntu-64", AUTOINSTALL_TEXT_KIND_SHORT_NAME, "John", 6, kBadUbuntu},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_SHORT_NAME, "John", 5, kBadUser},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_SHORT_NAME, "a_b", 5, kBadUser},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_NAME, "Smith, John", 1, kBadName},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_NAME, "a]]>b", 4,
       "The full name must not contain the characters ']]>' in a row.\nEnter a new value."},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_NAME, "a]]>b,", 1, kBadName},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_PASSWORD, "pw]]>", 3,
       "The password must not contain the characters ']]>' in a row.\nEnter a new value."},
      {"rhel7-64", AUTOINSTALL_TEXT_KIND_PASSWORD, "", AUTOINSTALL_TEXT_OK, nullptr},
      {"rhel7-64", 7, "]]>", AUTOINSTALL_TEXT_OK, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + c.text);
    GuessInfo info = Info(c.key, 0);
    char *message = nullptr;
    EXPECT_EQ(c.status, AutoInstallValidateLinuxText(&info, c.text, c.kind, &message));
    EXPECT_EQ(c.message != nullptr ? c.message : "<null>", Take(message));
    // The dispatcher gives the same answers.
    const auto validate = c.kind == AUTOINSTALL_TEXT_KIND_PASSWORD ? AutoInstall_ValidatePassword
                          : c.kind == AUTOINSTALL_TEXT_KIND_SHORT_NAME
                              ? AutoInstall_ValidateShortName
                          : c.kind == AUTOINSTALL_TEXT_KIND_NAME ? AutoInstall_ValidateName
                                                                 : nullptr;
    if (validate != nullptr) {
      EXPECT_EQ(c.status, validate("linux", &info, c.text, nullptr));
    }
  }
  GuessInfo win = Info("windows9-64", 0);
  EXPECT_EQ(AUTOINSTALL_TEXT_BAD_WINDOWS_NAME,
            AutoInstall_ValidateName("windows", &win, "a/b", nullptr));
}

TEST(LinuxInstallDeathTest, UnknownFamilyKeyIsFatal) {
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
