// Windows detection: every generation and edition list from trees mastered
// as the media of their era are (upper-case 8.3 for text-mode setup and
// Windows 9x, UDF bridge for image-based setup), the key = value parser,
// and media whose marker files are broken, huge or overlong.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "lib/guessGuest/guessWindows.h"
#include "platform/msg/msg.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Case;
using media_corpus::Medium;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

constexpr Medium PLAIN = Medium::Plain;
constexpr Medium RR = Medium::RockJoliet;
constexpr Medium UDF = Medium::Udf;
constexpr GuessResult YES = GUESS_RECOGNIZED;
constexpr GuessResult NO = GUESS_NOT_RECOGNIZED;

// Edition lists as setup names them.
constexpr const char kRetail[] =
    "Windows 10 Pro?Windows 10 Home?Windows 10 Education?Windows 10 Home_Single_Language?";
constexpr const char kChina[] =
    "Windows 10 Pro?Windows 10 Home?Windows 10 Home_China?Windows 10 Education?"
    "Windows 10 Home_Single_Language?";
constexpr const char kNList[] = "Windows 10 Pro_N?Windows 10 Home_N?Windows 10 Education_N?";
constexpr const char kRs3Home[] =
    "Windows 10 Home?Windows 10 Home_N?Windows 10 Home_Single_Language?Windows 10 Education?"
    "Windows 10 Education_N?Windows 10 Pro?Windows 10 Pro_N?";
constexpr const char kRs3Business[] =
    "Windows 10 Education?Windows 10 Education_N?Windows 10 Enterprise?Windows 10 Enterprise_N?"
    "Windows 10 Pro?Windows 10 Pro_N?";
constexpr const char kLongHome[] =
    "Windows 10 Home?Windows 10 Home_N?Windows 10 Home_Single_Language?Windows 10 Education?"
    "Windows 10 Education_N?Windows 10 Pro?Windows 10 Pro_N?Windows 10 Pro_Education?"
    "Windows 10 Pro_Education_N?Windows 10 Pro_for_Workstations?"
    "Windows 10 Pro_N_for_Workstations?";
constexpr const char kLongBusiness[] =
    "Windows 10 Education?Windows 10 Education_N?Windows 10 Enterprise?Windows 10 Enterprise_N?"
    "Windows 10 Pro?Windows 10 Pro_N?Windows 10 Pro_Education?Windows 10 Pro_Education_N?"
    "Windows 10 Pro_for_Workstations?Windows 10 Pro_N_for_Workstations?";
constexpr const char kVirtualDesktops[] =
    "Windows 10 Education?Windows 10 Education_N?Windows 10 Enterprise?Windows 10 Enterprise_N?"
    "Windows 10 Enterprise_for_Virtual_Desktops?Windows 10 Pro?Windows 10 Pro_N?"
    "Windows 10 Pro_Education?Windows 10 Pro_Education_N?Windows 10 Pro_for_Workstations?"
    "Windows 10 Pro_N_for_Workstations?";
constexpr const char kServer2012[] =
    "Windows Server 2012 SERVERSTANDARDCORE?Windows Server 2012 SERVERSTANDARD?"
    "Windows Server 2012 SERVERDATACENTERCORE?Windows Server 2012 SERVERDATACENTER?";
constexpr const char kServer2012R2[] =
    "Windows Server 2012 R2 SERVERSTANDARDCORE?Windows Server 2012 R2 SERVERSTANDARD?"
    "Windows Server 2012 R2 SERVERDATACENTERCORE?Windows Server 2012 R2 SERVERDATACENTER?";
constexpr const char kTp5[] =
    "Windows Server 2016 Technical Preview 5 SERVERSTANDARDCORE?"
    "Windows Server 2016 Technical Preview 5 SERVERSTANDARD?"
    "Windows Server 2016 Technical Preview 5 SERVERDATACENTERCORE?"
    "Windows Server 2016 Technical Preview 5 SERVERDATACENTER?";
constexpr const char kServer2016[] =
    "Windows Server 2016 SERVERSTANDARDCORE?Windows Server 2016 SERVERSTANDARD?"
    "Windows Server 2016 SERVERDATACENTERCORE?Windows Server 2016 SERVERDATACENTER?";
constexpr const char kServer2016Solution[] =
    "Windows Server 2016 SERVERSOLUTION?Windows Server 2016 SERVERSTORAGESTANDARD?"
    "Windows Server 2016 SERVERSTORAGEWORKGROUP?";
constexpr const char kServer2016SemiAnnual[] =
    "Windows Server 2016 SERVERSTANDARDACORE?Windows Server 2016 SERVERDATACENTERACORE?";
constexpr const char kSemiAnnual[] =
    "Windows Server SERVERSTANDARDACORE?Windows Server SERVERDATACENTERACORE?";
constexpr const char kServer2019[] =
    "Windows Server 2019 SERVERSTANDARDCORE?Windows Server 2019 SERVERSTANDARD?"
    "Windows Server 2019 SERVERDATACENTERCORE?Windows Server 2019 SERVERDATACENTER?";
constexpr const char kServer2022[] =
    "Windows Server 2022 SERVERSTANDARDCORE?Windows Server 2022 SERVERSTANDARD?"
    "Windows Server 2022 SERVERDATACENTERCORE?Windows Server 2022 SERVERDATACENTER?";
constexpr const char kServer2025[] =
    "Windows Server 2025 SERVERSTANDARDCORE?Windows Server 2025 SERVERSTANDARD?"
    "Windows Server 2025 SERVERDATACENTERCORE?Windows Server 2025 SERVERDATACENTER?";

// Text-mode setup and 9x media: a key and the "Localization" language.
Case Old(const char *tree, const char *key, const char *language = "", Medium medium = PLAIN) {
  return Case{tree,    medium, key ? YES : NO, key, GUESS_VERSION_UNKNOWN, false,
              nullptr, "",     language};
}

// Image-based setup media, mastered as UDF bridge images.
Case New(const char *tree, const char *key, GuessVersion version = GUESS_VERSION_UNKNOWN,
         const char *editions = "", const char *displayName = "", const char *language = "en-US",
         const char *languages = "en-US?", Medium medium = UDF) {
  return Case{tree,    medium, key ? YES : NO, key,       version,  false,
              nullptr, "",     language,       languages, editions, displayName};
}

Case Languages(const char *tree, const char *language, const char *languages) {
  return New(tree, "windows9-64", GUESS_VERSION_UNKNOWN, kLongHome, "", language, languages);
}

}  // namespace

namespace media_corpus {
const std::vector<Case> kWindowsCases = {
    // Text-mode setup: the product name on "wks_id" or "srv_id".
    Old("win-nt4-wks", "winNT", "English"),
    Old("win-nt4-srv", "winNT", "English"),
    Old("win-2000-pro", "win2000Pro", "German"),
    Old("win-2000-srv", "win2000Serv", "English"),
    Old("win-2000-adv", "win2000AdvServ", "English"),
    Old("win-2000-srv-case", nullptr),
    Old("win-xp-pro", "winXPPro", "English"),
    Old("win-xp-pro", "winXPPro", "English", UDF),
    Old("win-xp-home", "winXPHome"),
    Old("win-xp-x64", "winXPPro-64", "French"),
    Old("win-xp-x64-i386", "winXPPro-64", "English"),
    Old("win-2003-std", "winNetStandard", "English"),
    Old("win-2003-ent", "winNetEnterprise", "English"),
    Old("win-2003-web", "winNetWeb", "English"),
    Old("win-2003-std-x64", "winNetStandard-64", "English"),
    Old("win-2003-ent-x64", "winNetEnterprise-64", "Japanese"),
    Old("win-2003-sbs", "winNetBusiness", "English"),
    Old("win-nt-no-id", nullptr),
    Old("win-nt-empty-id", nullptr),
    Old("win-nt-unknown", nullptr),
    Old("win-nt-no-eol", "winXPPro"),
    Old("win-xp-discinfo", "winXPPro", "", RR),
    // Windows 95, 98, Me: the last setup directory found wins.
    Old("win-95", "win95"),
    Old("win-98", "win98"),
    Old("win-me", "winMe"),
    Old("win-98-me", "winMe"),
    Old("win-95-98", "win95"),
    // Vista, 7, Server 2008 and 2008 R2.
    New("win-vista-x86", "winVista", 0, "Windows Vista BUSINESS?Windows Vista ULTIMATE?"),
    New("win-vista-catalog", "winVista", 0, "Windows Vista HOMEPREMIUM?"),
    New("win-2008-x64", "longhorn-64"),
    New("win-2008-nobranch", "longhorn"),
    New("win-2008-unknown", "longhorn"),
    New("win-7-x64", "windows7-64", 0, "Windows 7 PROFESSIONAL?Windows 7 ULTIMATE?"),
    New("win-7-x86", "windows7"),
    New("win-7-arm", "windows7"),
    New("win-7-catalog", "windows7", 0, "Windows 7 HOMEBASIC?"),
    New("win-2008r2", "windows7srv-64"),
    // 8 and 8.1.
    New("win-8-x64", "windows8-64", 0, "Windows 8 Pro?Windows 8?"),
    New("win-8-ent-x86", "windows8", GUESS_VERSION_WINDOWS_8_ENTERPRISE, "Windows 8 Enterprise?"),
    New("win-8-ent-n", "windows8-64", GUESS_VERSION_WINDOWS_8_ENTERPRISE,
        "Windows 8 Enterprise_N?"),
    New("win-8-trial", "windows8-64", GUESS_VERSION_WINDOWS_8_TRIAL,
        "Windows 8 Enterprise Evaluation?"),
    New("win-8-pro", "windows8-64", 0, "Windows 8 Pro?"),
    New("win-8-pro-n", "windows8-64", 0, "Windows 8 Pro_N?"),
    New("win-8-core-ei", "windows8-64", 0, "Windows 8 Pro?Windows 8?"),
    New("win-81-x64", "windows8-64", GUESS_VERSION_WINDOWS_81_PLAIN, "Windows 8.1 Pro?Windows 8.1?",
        "Windows 8.1 x64"),
    New("win-81-x86", "windows8", GUESS_VERSION_WINDOWS_81_PLAIN, "Windows 8.1 Pro?Windows 8.1?",
        "Windows 8.1"),
    New("win-81-ent", "windows8-64", GUESS_VERSION_WINDOWS_81_ENTERPRISE, "Windows 8.1 Enterprise?",
        "Windows 8.1 x64"),
    New("win-81-ent-n-x86", "windows8", GUESS_VERSION_WINDOWS_81_ENTERPRISE,
        "Windows 8.1 Enterprise_N?", "Windows 8.1"),
    New("win-81-trial", "windows8-64", GUESS_VERSION_WINDOWS_81_TRIAL, "", "Windows 8.1 x64"),
    // Server 2012, 2012 R2, Hyper-V Server.
    New("win-2012", "windows8srv-64", 0, kServer2012),
    New("win-2012-product", "windows8srv-64", 0, kServer2012),
    New("win-2012-trial", "windows8srv-64", GUESS_VERSION_WINDOWS_SERVER_2012_TRIAL),
    New("win-2012-volume-eval", "windows8srv-64", 0, kServer2012),
    New("win-2012r2", "windows8srv-64", GUESS_VERSION_WINDOWS_SERVER_2012_R2_PLAIN, kServer2012R2,
        "Windows Server 2012 R2"),
    New("win-2012r2-trial", "windows8srv-64", GUESS_VERSION_WINDOWS_SERVER_2012_R2_TRIAL, "",
        "Windows Server 2012 R2"),
    New("win-hyperv-2012r2", "winHyperV", GUESS_VERSION_WINDOWS_SERVER_2012_R2_PLAIN,
        "Hyper-V Server?"),
    New("win-hyperv-2012-x86", "winHyperV"),
    // 10, generic: retail, China, N, enterprise and long-term media.
    New("win-10-th1", "windows9-64", 0, kRetail),
    New("win-10-x86", "windows9", 0, kRetail),
    New("win-10-china", "windows9-64", 0, kChina, "", "zh-CN", "zh-CN?"),
    New("win-10-n", "windows9-64", 0, kNList),
    New("win-10-appx-skype", "windows9-64", 0, kRetail),
    New("win-10-win-branch", "windows9-64", 0, kRetail),
    New("win-10-ent", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE, "Windows 10 Enterprise?"),
    New("win-10-ent-lower", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE,
        "Windows 10 Enterprise?"),
    New("win-10-ent-n", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE,
        "Windows 10 Enterprise_N?"),
    New("win-10-ltsb2015", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE,
        "Windows 10 Enterprise_2015_LTSB?"),
    New("win-10-ltsb2016", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE,
        "Windows 10 Enterprise_2016_LTSB?"),
    New("win-10-ltsb2016-n", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE,
        "Windows 10 Enterprise_N_2016_LTSB?"),
    New("win-10-rs1-ltsb", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE,
        "Windows 10 Enterprise_2016_LTSB?"),
    New("win-10-rs2", "windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE,
        "Windows 10 Enterprise_2016_LTSB?"),
    New("win-10-pro-ei", "windows9-64", GUESS_VERSION_WINDOWS_10_PLAIN, kRetail),
    New("win-10-esd", "windows9-64", GUESS_VERSION_WINDOWS_10_ESD, kRetail),
    New("win-10-esd-ent", "windows9-64", GUESS_VERSION_WINDOWS_10_ESD, "Windows 10 Enterprise?"),
    New("win-10-fbl-srv", "windows9-64", 0, kServer2012R2),
    New("win-10-th2-srv-esd", "windows9-64", GUESS_VERSION_WINDOWS_10_ESD, kServer2012R2),
    // 10, releases with their own lists.
    New("win-10-rs3", "windows9-64", 0, kRs3Home),
    New("win-10-rs3-ei", "windows9-64", 0, kRs3Business),
    New("win-10-rs4", "windows9", 0, kLongHome),
    New("win-10-rs4-ei", "windows9-64", 0, kLongBusiness),
    New("win-10-rs5", "windows9-64", 0, kLongHome),
    New("win-10-rs5", "windows9-64", 0, kLongHome, "", "en-US", "en-US?", RR),
    New("win-10-rs5-ltsc", "windows9-64", 0, "Windows 10 Enterprise_LTSC_2019?"),
    New("win-10-rs5-ei", "windows9-64", 0, kVirtualDesktops),
    New("win-10-19h1", "windows9-64", GUESS_VERSION_WINDOWS_10_ESD, kLongHome),
    New("win-10-19h1-ei", "windows9-64", 0, kLongBusiness),
    New("win-10-19h1-arm64", "arm-windows9-64", 0, kLongHome),
    New("win-10-vb", "windows9-64", 0, kLongHome),
    New("win-10-20h1-ei", "windows9-64", 0, kLongBusiness),
    New("win-10-2004", "windows9", 0, kLongHome),
    // Server 2016 to 2025.
    New("win-2016-tp5", "windows9srv-64", 0, kTp5),
    New("win-2016-tp5-sol", "windows9srv-64", 0,
        "Windows Server 2016 Technical Preview 5 SERVERSOLUTION?"),
    New("win-2016", "windows9srv-64", 0, kServer2016),
    New("win-2016-sol", "windows9srv-64", 0, kServer2016Solution),
    New("win-hyperv-2016", "winHyperV", 0, "Hyper-V Server 2016?"),
    New("win-2016-rs3", "windows9srv-64", 0, kServer2016SemiAnnual),
    New("win-2016-rs4", "windows9srv-64", 0, kServer2016SemiAnnual),
    New("win-2019", "windows2019srv-64", 0, kServer2019),
    New("win-2019-sac", "windows2019srv-64", 0, kSemiAnnual),
    New("win-2019-vb", "windows2019srv-64", 0, kSemiAnnual),
    New("win-2022", "windows2019srvNext-64", 0, kServer2022),
    New("win-2025", "windows2022srvNext-64", 0, kServer2025),
    // 11.
    New("win-11-ge", "windows11-64"),
    New("win-11-co-arm64", "arm-windows11-64"),
    New("win-11-ni-x86", "windows11-64"),
    // Not recognised: an unknown or development branch, missing setup files.
    New("win-winmain", nullptr),
    New("win-unknown-branch", nullptr),
    New("win-no-idwbinfo", nullptr),
    New("win-no-langini", nullptr),
    // "lang.ini": the default is the language with the greatest number; a
    // section that is not CR LF, not closed or broken lists nothing.
    Languages("win-10-lang-multi", "de-DE", "de-DE?en-US?"),
    Languages("win-10-lang-equal", "fr-FR", "fr-FR?de-DE?it-IT?"),
    Languages("win-10-lang-lf", "en-US", ""),
    Languages("win-10-lang-no-end", "en-US", ""),
    Languages("win-10-lang-nan", "de-DE", ""),
    Languages("win-10-lang-empty", "en-US", ""),
};
}  // namespace media_corpus

namespace {

class WindowsCorpus : public testing::TestWithParam<Case> {};
TEST_P(WindowsCorpus, Detects) {
  media_corpus::CheckCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Media, WindowsCorpus, testing::ValuesIn(media_corpus::kWindowsCases),
                         [](const auto &info) { return media_corpus::CaseName(info.param); });

// ---------------------------------------------------------------------------
// The key = value parser.

struct ParseCase {
  const char *name;
  std::string text;
  bool ok;
  const char *key;
  const char *value;
};

class ParseKeyValue : public testing::TestWithParam<ParseCase> {};
TEST_P(ParseKeyValue, Parses) {
  const ParseCase &c = GetParam();
  std::string key = "unset";
  std::string value = "unset";
  ASSERT_EQ(c.ok, GuessParseKeyValue(c.text, &key, &value));
  if (c.ok) {
    EXPECT_EQ(c.key, key);
    EXPECT_EQ(c.value, value);
  } else {
    EXPECT_EQ("unset", key);  // a failed parse leaves the outputs alone
    EXPECT_EQ("unset", value);
  }
}
INSTANTIATE_TEST_SUITE_P(
    Lines, ParseKeyValue,
    testing::Values(ParseCase{"Plain", "Localization=English\r\nServicePackNumber=0", true,
                              "Localization", "English"},
                    ParseCase{"Quoted", "wks_id = \"Windows XP Professional\"\r\n", true, "wks_id",
                              "Windows XP Professional"},
                    ParseCase{"BlanksKept", "en-US = a b c\r\n", true, "en-US", "a b c"},
                    ParseCase{"NoBlanks", "de-DE=3", true, "de-DE", "3"},
                    ParseCase{"BlankAfterValue", "de-DE=3 x", true, "de-DE", "3 x"},
                    ParseCase{"TabEndsValue", "k=v\tw", true, "k", "v"},
                    ParseCase{"QuoteEndsValue", "k=v\"w", true, "k", "v"},
                    ParseCase{"Unterminated", "k = \"Windows XP", true, "k", "Windows XP"},
                    ParseCase{"ValueOnNextLine", "k=\r\n  next", true, "k", "next"},
                    ParseCase{"EmptyKey", "=3", true, "", "3"},
                    ParseCase{"NulEndsText", std::string("k=ab\0cd", 7), true, "k", "ab"},
                    ParseCase{"NoEquals", "no equals here", false, "", ""},
                    ParseCase{"EmptyQuotes", "k = \"\"", false, "", ""},
                    ParseCase{"QuoteAtEnd", "k = \"", false, "", ""},
                    ParseCase{"OnlyBlanks", "k =  \t\r\n", false, "", ""},
                    ParseCase{"ControlFirst", "k=\"\r\n", false, "", ""},
                    ParseCase{"Empty", "", false, "", ""}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(ParseKeyValue, KeyIsOptional) {
  std::string value;
  ASSERT_TRUE(GuessParseKeyValue("BuildBranch=rs5_release\r\n", nullptr, &value));
  EXPECT_EQ("rs5_release", value);
}

// ---------------------------------------------------------------------------
// Media built here: a committed tree plus hostile or overlong files.

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
    auto r = media_corpus::Master(root.string(), image, media_corpus::Medium::Udf);
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

TEST_F(WindowsMedia, GarbageLangIniGivesTheDefaultLanguage) {
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
}

TEST_F(WindowsMedia, HugeLanguageSectionIsTruncatedToTheFields) {
  std::filesystem::path root = Tree("win-10-rs5");
  // A language name longer than every field, then far more languages than
  // the list holds; the long one has the greatest number.
  const std::string longName = "sr-Latn-" + std::string(2000, 'x');
  std::vector<std::string> lines = {"[Available UI Languages]", longName + " = 9"};
  for (int i = 0; i < 20000; ++i) {
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

TEST_F(WindowsMedia, NoLangIniStillLeavesTheDefaultLanguage) {
  std::filesystem::path root = Tree("win-no-langini");
  GuessInfo info;
  ASSERT_EQ(GUESS_NOT_RECOGNIZED, Detect(root, &info));
  EXPECT_EQ(nullptr, info.osKey);
  EXPECT_STREQ("en-US", info.language);
  EXPECT_STREQ("en-US", info.languageShort);
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

TEST_F(WindowsMedia, LongLocalizationIsTruncated) {
  std::filesystem::path root = Tree("win-xp-pro");
  const std::string language(3000, 'L');
  WriteFile(root / "I386/PRODSPEC.INI", CrLf({"[Product]", "Localization=" + language}));
  GuessInfo info;
  ASSERT_EQ(GUESS_RECOGNIZED, Detect(root, &info));
  EXPECT_STREQ("winXPPro", info.osKey);
  EXPECT_EQ(language.substr(0, sizeof info.language - 1), info.language);
}

}  // namespace
