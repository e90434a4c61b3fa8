// Windows edition display names, the unattended-install support check and
// the account-name check: the decisive rows, and every edition the
// detection corpus reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/autoinstall.h"
#include "platform/msg/msg.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace {

using testing_support::ReadTsv;
using testing_support::Take;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::Unescape;
using testing_support::WriteFile;

std::string Pretty(const std::string &name) {
  return Take(AutoInstall_GetPrettyWindowsName(name.c_str()));
}

class AutoInstallWindowsTest : public ::testing::Test {
 protected:
  void SetUp() override { Msg_ResetCatalog(); }
  void TearDown() override { Msg_ResetCatalog(); }
};

class AutoInstallWindowsPrettyName : public AutoInstallWindowsTest,
                                     public ::testing::WithParamInterface<TsvRow> {};

TEST_P(AutoInstallWindowsPrettyName, IsTheDecisiveName) {
  EXPECT_EQ(Unescape(GetParam().cells[1]), Pretty(Unescape(GetParam().cells[0])));
}

INSTANTIATE_TEST_SUITE_P(Table, AutoInstallWindowsPrettyName,
                         ::testing::ValuesIn(ReadTsv("windows/pretty-names.tsv", 2)),
                         TsvRowNamer());

TEST_F(AutoInstallWindowsTest, LongOrMissingNames) {
  const std::string longProduct(100000, 'W');
  EXPECT_EQ(longProduct + " Pro", Pretty(longProduct + " Pro"));
  EXPECT_EQ(nullptr, AutoInstall_GetPrettyWindowsName(nullptr));
}

// Every edition a corpus medium lists gets a readable name: no identifier
// in capitals left, no "_", and no word of a variant dropped.
TEST_F(AutoInstallWindowsTest, EveryCorpusEditionGetsADisplayName) {
  std::string error;
  size_t checked = 0;
  const std::regex identifier("[A-Z]{5,}");
  for (const auto &row : media_corpus::ReadExpected(testing_support::DataDir().string(), &error)) {
    std::stringstream list(row.editions);
    for (std::string entry; std::getline(list, entry, '?'); ++checked) {
      const std::string pretty = Pretty(entry);
      SCOPED_TRACE(entry + " -> " + pretty);
      EXPECT_FALSE(std::regex_search(pretty, identifier));
      EXPECT_EQ(std::string::npos, pretty.find('_'));
      const std::string edition = entry.substr(entry.rfind(' ') + 1);
      if (!std::regex_search(edition, identifier)) {
        auto words = [](const std::string &s) { return std::count(s.begin(), s.end(), ' '); };
        EXPECT_EQ(words(entry) + std::count(edition.begin(), edition.end(), '_'), words(pretty));
      }
    }
  }
  EXPECT_EQ("", error);
  EXPECT_GT(checked, 100u);
}

TEST_F(AutoInstallWindowsTest, DisplayNamesAreLocalised) {
  TempDir tmp;
  WriteFile(tmp / "fr.cat",
            "msg.autoinstall.winpfx_2k8 = \"Windows Serveur 2008\"\n"
            "msg.autoinstall.winsrv_enterprise = \" Entreprise\"\n"
            "msg.autoinstall.winsfx_v = \" sans Hyper-V\"\n"
            "msg.autoinstall.prettyFormat = \"%1$s%2$s%3$s\"\n"
            "msg.autoinstall.win_homepremium = \" Famille Premium\"\n"
            "msg.autoinstall.bad_windows_name = \"Nom refus\xC3\xA9.|0ASaisissez une autre "
            "valeur.\"\n");
  ASSERT_TRUE(Msg_LoadCatalog((tmp / "fr.cat").c_str()));
  EXPECT_EQ("Windows Serveur 2008 Entreprise sans Hyper-V",
            Pretty("Windows Longhorn SERVERENTERPRISEV"));
  EXPECT_EQ("Windows 7 Famille Premium N", Pretty("Windows 7 HOMEPREMIUMN"));
  char *message = nullptr;
  EXPECT_EQ(AUTOINSTALL_TEXT_BAD_WINDOWS_NAME,
            AutoInstallValidateWindowsText(nullptr, "a/b", AUTOINSTALL_TEXT_KIND_NAME, &message));
  EXPECT_EQ("Nom refus\xC3\xA9.\nSaisissez une autre valeur.", Take(message));

  // The catalogue may reorder the parts of the whole name.
  WriteFile(tmp / "order.cat", "msg.autoinstall.prettyFormat = \"%2$s%3$s (%1$s)\"\n");
  ASSERT_TRUE(Msg_LoadCatalog((tmp / "order.cat").c_str()));
  EXPECT_EQ(" Home Premium N (Windows 7)", Pretty("Windows 7 HOMEPREMIUMN"));
}

class AutoInstallWindowsSupport : public ::testing::TestWithParam<TsvRow> {};

TEST_P(AutoInstallWindowsSupport, DependsOnKeyAndVersion) {
  const auto &c = GetParam().cells;
  GuessInfo info{};
  info.osKey = c[0].c_str();
  info.version = static_cast<GuessVersion>(testing_support::VersionByName(c[1]));
  EXPECT_EQ(c[2] == "1", AutoInstallIsSupportedWindowsGuest(&info));
}

INSTANTIATE_TEST_SUITE_P(Table, AutoInstallWindowsSupport,
                         ::testing::ValuesIn(ReadTsv("windows/supported.tsv", 3)), TsvRowNamer());

TEST(AutoInstallWindowsSupportArgs, NoKeyOrInfoIsUnsupported) {
  GuessInfo noKey{};
  EXPECT_FALSE(AutoInstallIsSupportedWindowsGuest(&noKey));
  EXPECT_FALSE(AutoInstallIsSupportedWindowsGuest(nullptr));
}

TEST_F(AutoInstallWindowsTest, AccountNamesRefuseFifteenCharactersOnly) {
  const std::string refused = "/\\[]\":;|<>+=,?*";
  ASSERT_EQ(15u, refused.size());
  const char *accepted[] = {"", "O'Brien-Smith Jr.", "user_name (home) {x} #1 & ~ ! @ $ % ^",
                            "J\xC3\xB6rg M\xC3\xBC"
                            "ller",
                            "tab\there"};
  std::vector<std::pair<std::string, bool>> texts;
  for (char ch : refused) {
    texts.emplace_back(std::string(1, ch), false);
    texts.emplace_back("John" + std::string(1, ch) + "Smith", false);
  }
  for (const char *text : accepted) {
    texts.emplace_back(text, true);
  }
  const AutoInstallTextKind kUnchecked[] = {AUTOINSTALL_TEXT_KIND_PASSWORD,
                                            AUTOINSTALL_TEXT_KIND_SHORT_NAME, 3};
  for (const auto &[text, ok] : texts) {
    SCOPED_TRACE(text);
    char *message = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(ok ? AUTOINSTALL_TEXT_OK : AUTOINSTALL_TEXT_BAD_WINDOWS_NAME,
              AutoInstallValidateWindowsText(nullptr, text.c_str(), AUTOINSTALL_TEXT_KIND_NAME,
                                             &message));
    if (ok) {
      EXPECT_EQ(reinterpret_cast<char *>(0x1), message);  // untouched
    } else {
      EXPECT_EQ(
          "The name must not contain the following characters:\n'/\\[]\":;|<>+=,?*'\n"
          "Enter a new value.",
          Take(message));
    }
    // Passwords, short names and unknown kinds are not checked here.
    for (AutoInstallTextKind kind : kUnchecked) {
      char *untouched = reinterpret_cast<char *>(0x1);
      EXPECT_EQ(AUTOINSTALL_TEXT_OK,
                AutoInstallValidateWindowsText(nullptr, text.c_str(), kind, &untouched));
      EXPECT_EQ(reinterpret_cast<char *>(0x1), untouched);
    }
  }
  // Without a place for the message the status alone comes back.
  EXPECT_EQ(AUTOINSTALL_TEXT_BAD_WINDOWS_NAME,
            AutoInstallValidateWindowsText(nullptr, "a*b", AUTOINSTALL_TEXT_KIND_NAME, nullptr));
  EXPECT_EQ(AUTOINSTALL_TEXT_OK,
            AutoInstallValidateWindowsText(nullptr, nullptr, AUTOINSTALL_TEXT_KIND_NAME, nullptr));
}

}  // namespace
