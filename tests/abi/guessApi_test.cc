// The detection interface as a caller of the shared library sees it: the
// GuessInfo layout is ABI, and the small operations on a record.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "guestprep/guess.h"

namespace {

TEST(GuessInfoLayout, FieldsOffsetsAndSizeArePinned) {
  EXPECT_EQ(0u, offsetof(GuessInfo, osKey));
  EXPECT_EQ(8u, offsetof(GuessInfo, osKey64));
  EXPECT_EQ(16u, offsetof(GuessInfo, version));
  EXPECT_EQ(20u, offsetof(GuessInfo, noIsolinuxCfg));
  EXPECT_EQ(21u, offsetof(GuessInfo, versionText));
  EXPECT_EQ(53u, offsetof(GuessInfo, language));
  EXPECT_EQ(1077u, offsetof(GuessInfo, languageShort));
  EXPECT_EQ(1109u, offsetof(GuessInfo, languages));
  EXPECT_EQ(2133u, offsetof(GuessInfo, editions));
  EXPECT_EQ(2645u, offsetof(GuessInfo, displayName));
  EXPECT_EQ(2712u, sizeof(GuessInfo));
  EXPECT_EQ(4u, sizeof(GuessVersion));
  EXPECT_EQ(1u, sizeof(bool));
  EXPECT_EQ(0u, offsetof(GuessDir, isoDir));
  EXPECT_EQ(8u, offsetof(GuessDir, entry));
  EXPECT_EQ(4128u, sizeof(GuessDir{}.entry));
}

TEST(GuessSubNames, EveryValueNamesItself) {
  for (GuessVersion v = 0; v <= GUESS_VERSION_DUMMY_LAST; ++v) {
    EXPECT_STREQ(SUB_NAMES[v], Guess_GetSubString(v));
    EXPECT_EQ(0, strncmp(SUB_NAMES[v], "GUESS_VERSION_", 14)) << v;
  }
  EXPECT_STREQ("GUESS_VERSION_WINDOWS_10_ESD", SUB_NAMES[55]);
  EXPECT_STREQ("GUESS_VERSION_DUMMY_LAST", SUB_NAMES[60]);
  EXPECT_EQ(nullptr, Guess_GetSubString(61));
}

GuessInfo Record(const char *key, GuessVersion version) {
  GuessInfo info;
  memset(&info, 0, sizeof info);
  info.osKey = key;
  info.version = version;
  return info;
}

std::string VersionString(const char *name, const GuessInfo &info) {
  char *text = Guess_GetVersionString(name, &info);
  std::string out = text != nullptr ? text : "(null)";
  free(text);
  return out;
}

TEST(GuessVersionString, SuffixesFollowTheRecord) {
  struct Row {
    GuessVersion version;
    const char *versionText;
    const char *displayName;
    const char *expected;
  } rows[] = {
      {GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER, "", "", "Ubuntu Server"},
      {GUESS_VERSION_UBUNTU_SERVER_1410, "", "", "Ubuntu Server"},
      {GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER, "", "", "Ubuntu Server"},
      {GUESS_VERSION_UBUNTU_SERVER_1404, "", "", "Ubuntu"},  // 1 and 2 get no suffix
      {GUESS_VERSION_SLED_ALL, "", "", "Ubuntu Desktop"},
      {GUESS_VERSION_SLED_10_SP2_OR_LOWER, "", "", "Ubuntu Desktop"},
      {GUESS_VERSION_MANDRIVA_2006, "2006", "", "Ubuntu 2006"},
      {GUESS_VERSION_UBUNTU_SERVER_1410, "Server 22.04", "", "Ubuntu Server 22.04"},
      {GUESS_VERSION_WINDOWS_81_PLAIN, "x", "Windows 8.1 x64", "Windows 8.1 x64"},
      {GUESS_VERSION_UNKNOWN, "", "", "Ubuntu"},
  };
  for (const Row &row : rows) {
    GuessInfo info = Record("k", row.version);
    strcpy(info.versionText, row.versionText);
    strcpy(info.displayName, row.displayName);
    EXPECT_EQ(row.expected, VersionString("Ubuntu", info)) << row.version;
  }
}

TEST(GuessIsEqual, ComparesWhatDetectionDecides) {
  GuessInfo a = Record("rhel7-64", GUESS_VERSION_RHEL_SERVER);
  GuessInfo b = a;
  std::string key = "rhel7-64";  // equal text at another address
  b.osKey = key.c_str();
  strcpy(b.displayName, "other");    // not compared
  strcpy(b.languageShort, "de-DE");  // not compared
  EXPECT_TRUE(Guess_IsEqual(&a, &b));
  void (*changes[])(GuessInfo *) = {[](GuessInfo *i) { i->osKey = nullptr; },
                                    [](GuessInfo *i) { i->noIsolinuxCfg = true; },
                                    [](GuessInfo *i) { strcpy(i->editions, "Windows 10 Pro?"); },
                                    [](GuessInfo *i) { i->osKey64 = "x"; }};
  for (auto change : changes) {
    b = a;
    change(&b);
    EXPECT_FALSE(Guess_IsEqual(&a, &b));
  }
}

TEST(GuessOsKey, SixtyFourBitKeyWins) {
  GuessInfo info = Record("solaris10", 0);
  EXPECT_STREQ("solaris10", Guess_GetOsKey(&info));
  info.osKey64 = "solaris10-64";
  EXPECT_STREQ("solaris10-64", Guess_GetOsKey(&info));
}

TEST(GuessGuest, UnopenableImagesLeaveAZeroedRecord) {
  GuessInfo info;
  memset(&info, 0x5A, sizeof info);
  EXPECT_EQ(GUESS_OPEN_FAILED, Guess_Guest("/nonexistent/image.iso", nullptr, &info));
  GuessInfo zero;
  memset(&zero, 0, sizeof zero);
  EXPECT_EQ(0, memcmp(&zero, &info, sizeof info));
  EXPECT_EQ(GUESS_OPEN_FAILED, Guess_Guest(nullptr, nullptr, &info));
  EXPECT_EQ(GUESS_OPEN_FAILED, Guess_Guest("/", nullptr, &info));
}

}  // namespace

namespace {

TEST(GuessMediaDeathTest, UnknownMediumKindIsFatal) {
  GuessMedium medium{};  // GUESS_MEDIUM_NONE never reaches the access layer
  EXPECT_DEATH(Guess_OpenDir(&medium, "isolinux"), "NOT_REACHED lib/guessGuest/guess");
}

}  // namespace
