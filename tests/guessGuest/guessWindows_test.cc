// Windows media built here from a committed tree plus a hostile, huge or
// overlong marker file, through Guess_Guest: every text lands cut to its
// field, and broken files give the defaults.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "platform/msg/msg.h"
#include "support/testSupport.h"

namespace {

using testing_support::TempDir;
using testing_support::WriteFile;

class WindowsMedia : public testing::Test {
 protected:
  // Copies tests/data/media/<base> and returns the root of the copy.
  std::filesystem::path Tree(const std::string &base) {
    std::filesystem::path root = dir_ / base;
    std::filesystem::copy(testing_support::DataDir() / "media" / base, root,
                          std::filesystem::copy_options::recursive);
    return root;
  }
  GuessResult Detect(const std::filesystem::path &root, GuessInfo *info) {
    const std::string image = (dir_ / (root.filename().string() + ".iso")).string();
    auto r = testing_support::RunMasteringTool(
        media_corpus::MasterArgv(root.string(), image, media_corpus::Medium::Udf));
    EXPECT_EQ(0, r.exitCode) << r.output;
    memset(info, 0x5A, sizeof *info);
    return Guess_Guest(image.c_str(), nullptr, info);
  }
  TempDir dir_;
};

std::string CrLf(const std::vector<std::string> &lines) {
  std::string text;
  for (const std::string &line : lines) {
    text += line + "\r\n";
  }
  return text;
}

// The "Localization" value of a text-mode setup medium: quoting, blanks,
// line ends and NUL bytes decide where it begins and ends.
TEST_F(WindowsMedia, LocalizationValueBoundaries) {
  const struct {
    std::string line;
    std::string language;  // "": no value
  } cases[] = {
      {"Localization=  \"a b c\"", "a b c"},
      {"Localization=de 3", "de 3"},
      {"Localization=v\tw", "v"},
      {"Localization=v\"w", "v"},
      {"Localization=\"Windows XP", "Windows XP"},  // unterminated quote
      {"Localization=\r\n  next", "next"},          // value on the next line
      {std::string("Localization=ab\0cd", 18), "ab"},
      {"Localization=\"\"", ""},
      {"Localization=\"", ""},
      {"Localization= \t\r\n", ""},
      {"Localization=\"\r\n", ""},
      {"Localization=" + std::string(3000, 'L'), std::string(sizeof GuessInfo{}.language - 1, 'L')},
  };
  std::filesystem::path root = Tree("win-xp-pro");
  for (const auto &c : cases) {
    SCOPED_TRACE(c.line.substr(0, 40));
    WriteFile(root / "I386/PRODSPEC.INI", "[Product]\r\n" + c.line);
    GuessInfo info;
    ASSERT_EQ(GUESS_RECOGNIZED, Detect(root, &info));
    EXPECT_STREQ("winXPPro", info.osKey);
    EXPECT_EQ(c.language, info.language);
  }
}

TEST_F(WindowsMedia, GarbageOrMissingLangIniGivesTheDefaultLanguage) {
  std::filesystem::path root = Tree("win-10-rs5");
  std::mt19937 random(7);
  std::string garbage(1 << 20, '\0');
  for (char &c : garbage) {
    c = static_cast<char>(random());
  }
  WriteFile(root / "sources/lang.ini", garbage);
  GuessInfo info;
  ASSERT_EQ(GUESS_RECOGNIZED, Detect(root, &info));
  EXPECT_STREQ("windows9-64", info.osKey);
  EXPECT_STREQ("en-US", info.language);
  EXPECT_STREQ("en-US", info.languageShort);
  EXPECT_STREQ("", info.languages);

  std::filesystem::remove(root / "sources/lang.ini");
  ASSERT_EQ(GUESS_NOT_RECOGNIZED, Detect(root, &info));
  EXPECT_STREQ("en-US", info.language);
  EXPECT_STREQ("en-US", info.languageShort);
}

TEST_F(WindowsMedia, HugeLanguageSectionIsTruncatedToTheFields) {
  std::filesystem::path root = Tree("win-10-rs5");
  // A language name longer than every field, then far more languages than
  // the list holds; the long one has the greatest number.
  const std::string longName = "sr-Latn-" + std::string(2000, 'x');
  std::vector<std::string> lines = {"[Available UI Languages]", longName + " = 9"};
  for (int i = 0; i < 3000; ++i) {
    lines.push_back("l" + std::to_string(i) + " = 1");
  }
  lines.push_back("[Fallback Languages]");
  WriteFile(root / "sources/lang.ini", CrLf(lines));
  GuessInfo info;
  ASSERT_EQ(GUESS_RECOGNIZED, Detect(root, &info));
  EXPECT_EQ(longName.substr(0, sizeof info.language - 1), info.language);
  EXPECT_EQ(longName.substr(0, sizeof info.languageShort - 1), info.languageShort);
  EXPECT_EQ(sizeof info.languages - 1, strlen(info.languages));
  EXPECT_EQ(0, strncmp(info.languages, longName.c_str(), 100));
}

TEST_F(WindowsMedia, CatalogueEditionsAreListedAndTruncated) {
  std::filesystem::path root = Tree("win-7-x64");
  // An edition text without a blank and an empty one are entries too.
  WriteFile(root / "sources/install_ULTIMATE.clg", "");
  WriteFile(root / "sources/install_.clg", "");
  WriteFile(root / "sources/install_Windows 7 STARTER.CLG", "");  // suffix differs in case
  GuessInfo info;
  ASSERT_EQ(GUESS_RECOGNIZED, Detect(root, &info));
  std::string editions = info.editions;
  EXPECT_NE(std::string::npos, editions.find("ULTIMATE?"));
  EXPECT_NE(std::string::npos, editions.find("Windows 7 PROFESSIONAL?"));
  EXPECT_EQ(std::string::npos, editions.find("STARTER"));
  EXPECT_TRUE(editions.starts_with("?") || editions.find("??") != std::string::npos) << editions;

  for (int i = 0; i < 40; ++i) {
    WriteFile(root / ("sources/install_Windows 7 EDITION NUMBER " + std::to_string(100 + i) +
                      " OF MANY.clg"),
              "");
  }
  ASSERT_EQ(GUESS_RECOGNIZED, Detect(root, &info));
  EXPECT_EQ(sizeof info.editions - 1, strlen(info.editions));
}

TEST_F(WindowsMedia, LocalisedDisplayNameIsTruncatedToItsField) {
  std::filesystem::path root = Tree("win-81-x64");
  const std::string name(200, 'N');
  WriteFile(dir_ / "catalog.cat", "msg.guessGuest.win8dot1x64.altName = \"" + name + "\"\n");
  ASSERT_TRUE(Msg_LoadCatalog((dir_ / "catalog.cat").c_str()));
  GuessInfo info;
  GuessResult result = Detect(root, &info);
  Msg_ResetCatalog();
  ASSERT_EQ(GUESS_RECOGNIZED, result);
  EXPECT_EQ(name.substr(0, sizeof info.displayName - 1), info.displayName);
}

}  // namespace
