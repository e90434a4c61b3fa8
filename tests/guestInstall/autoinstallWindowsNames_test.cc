#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "guestprep/autoinstall.h"
#include "platform/guestos/guestos.h"
#include "platform/msg/msg.h"
#include "support/testSupport.h"

namespace {

using testing_support::TempDir;
using testing_support::WriteFile;

// Takes ownership of a returned string.
std::string Take(char *s) {
  std::string out = s == nullptr ? "<null>" : s;
  free(s);
  return out;
}

class AutoInstallWindowsTest : public ::testing::Test {
 protected:
  void SetUp() override { Msg_ResetCatalog(); }
  void TearDown() override { Msg_ResetCatalog(); }
};

std::string Pretty(const char *name) {
  return Take(AutoInstall_GetPrettyWindowsName(name));
}

TEST_F(AutoInstallWindowsTest, DisplayNamesOfEveryDetectedEdition) {
  // Every entry the Windows detector can put into an edition list.
  const struct {
    const char *in;
    const char *want;
  } cases[] = {
      {"Windows 8 Pro", "Windows 8 Pro"},
      {"Windows 8", "Windows 8"},  // "8" is no edition
      {"Windows 8.1 Pro", "Windows 8.1 Pro"},
      {"Windows 8.1", "Windows 8.1"},
      {"Windows 8 Enterprise", "Windows 8 Enterprise"},
      {"Windows 8.1 Enterprise_N", "Windows 8.1 Enterprise N"},
      {"Windows 8 Pro_N", "Windows 8 Pro N"},
      {"Windows 10 Home", "Windows 10 Home"},
      {"Windows 10 Home_N", "Windows 10 Home N"},
      {"Windows 10 Home_Single_Language", "Windows 10 Home Single Language"},
      {"Windows 10 Home_China", "Windows 10 Home Chinese"},
      {"Windows 10 Education", "Windows 10 Education"},
      {"Windows 10 Education_N", "Windows 10 Education N"},
      {"Windows 10 Pro", "Windows 10 Pro"},
      {"Windows 10 Pro_N", "Windows 10 Pro N"},
      {"Windows 10 Pro_Education", "Windows 10 Pro Education"},
      {"Windows 10 Pro_Education_N", "Windows 10 Pro Education N"},
      {"Windows 10 Pro_for_Workstations", "Windows 10 Pro for Workstations"},
      {"Windows 10 Pro_N_for_Workstations", "Windows 10 Pro N for Workstations"},
      {"Windows 10 Enterprise", "Windows 10 Enterprise"},
      {"Windows 10 Enterprise_N", "Windows 10 Enterprise N"},
      {"Windows 10 Enterprise_2015_LTSB", "Windows 10 Enterprise 2015 LTSB"},
      {"Windows 10 Enterprise_N_2015_LTSB", "Windows 10 Enterprise N 2015 LTSB"},
      {"Windows 10 Enterprise_2016_LTSB", "Windows 10 Enterprise 2016 LTSB"},
      {"Windows 10 Enterprise_N_2016_LTSB", "Windows 10 Enterprise N 2016 LTSB"},
      {"Windows 10 Enterprise_LTSC_2019", "Windows 10 Enterprise LTSC 2019"},
      {"Windows 10 Enterprise_for_Virtual_Desktops", "Windows 10 Enterprise for Virtual Desktops"},
      {"Windows Server 2012 SERVERSTANDARDCORE", "Windows Server 2012 Standard Core"},
      {"Windows Server 2012 R2 SERVERSTANDARD", "Windows Server 2012 R2 Standard"},
      {"Windows Server 2012 R2 SERVERDATACENTERCORE", "Windows Server 2012 R2 Datacenter Core"},
      {"Windows Server 2012 SERVERDATACENTER", "Windows Server 2012 Datacenter"},
      {"Windows Server 2016 Technical Preview 5 SERVERSTANDARDCORE",
       "Windows Server 2016 TP5 Standard Core"},
      {"Windows Server 2016 Technical Preview 5 SERVERDATACENTER",
       "Windows Server 2016 TP5 Datacenter"},
      {"Windows Server 2016 Technical Preview 5 SERVERSOLUTION",
       "Windows Server 2016 TP5 Essentials"},
      {"Windows Server 2016 SERVERSOLUTION", "Windows Server 2016 Essentials"},
      {"Windows Server 2016 SERVERSTORAGESTANDARD", "Windows Server 2016 Storage Standard"},
      {"Windows Server 2016 SERVERSTORAGEWORKGROUP", "Windows Server 2016 Storage Workgroup"},
      {"Windows Server 2016 SERVERSTANDARDACORE", "Windows Server 2016 Standard Core"},
      {"Windows Server 2016 SERVERDATACENTERACORE", "Windows Server 2016 Datacenter Core"},
      {"Windows Server SERVERSTANDARDACORE", "Windows Server Standard Core"},
      {"Windows Server SERVERDATACENTERACORE", "Windows Server Datacenter Core"},
      {"Windows Server 2019 SERVERDATACENTERCORE", "Windows Server 2019 Datacenter Core"},
      {"Windows Server 2022 SERVERSTANDARD", "Windows Server 2022 Standard"},
      {"Windows Server 2025 SERVERSTANDARDCORE", "Windows Server 2025 Standard Core"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.in);
    EXPECT_EQ(c.want, Pretty(c.in));
  }
}

TEST_F(AutoInstallWindowsTest, DisplayNamesOfEveryTableRow) {
  const struct {
    const char *in;
    const char *want;
  } cases[] = {
      // Products
      {"Windows Longhorn SERVERENTERPRISE", "Windows Server 2008 Enterprise"},
      {"Windows Server 2008 R2 SERVERSTANDARDCORE", "Windows Server 2008 R2 Standard Core"},
      // Editions
      {"Windows 7 STARTER", "Windows 7 Starter"},
      {"Windows 7 HOMEBASIC", "Windows 7 Home Basic"},
      {"Windows 7 HOMEPREMIUM", "Windows 7 Home Premium"},
      {"Windows 7 PROFESSIONAL", "Windows 7 Professional"},
      {"Windows Vista BUSINESS", "Windows Vista Business"},
      {"Windows 7 ENTERPRISE", "Windows 7 Enterprise"},
      {"Windows 7 ULTIMATE", "Windows 7 Ultimate"},
      {"Windows Longhorn SERVERWEB", "Windows Server 2008 Web Edition"},
      {"Windows Longhorn SERVERSTANDARD", "Windows Server 2008 Standard"},
      {"Windows Server 2008 R2 SERVERDATACENTER", "Windows Server 2008 R2 Datacenter"},
      {"Windows Longhorn SERVERSBSSTANDARD", "Windows Server 2008 Small Business Standard"},
      {"Windows Longhorn SERVERSBSPRIME", "Windows Server 2008 Small Business Foundation"},
      {"Windows Longhorn SERVERSBSPREMIUM", "Windows Server 2008 Small Business Premium"},
      // Suffixes not met above
      {"Windows 7 HOMEPREMIUMN", "Windows 7 Home Premium N"},
      {"Windows Longhorn SERVERENTERPRISEV", "Windows Server 2008 Enterprise without Hyper-V"},
      {"Windows Longhorn SERVERSTANDARDVCORE", "Windows Server 2008 Standard Core without Hyper-V"},
      {"Windows Longhorn SERVERDATACENTERV", "Windows Server 2008 Datacenter without Hyper-V"},
      {"Windows 7 HOMEPREMIUMK", "Windows 7 Home Premium K"},
      {"Windows 7 ULTIMATEKN", "Windows 7 Ultimate KN"},
      {"Windows 10 Pro_Education", "Windows 10 Pro Education"},
      // Prefix matching is case-sensitive but not whole-word
      {"Windows 10 Professional", "Windows 10 Pro"},
      {"Windows 7 ULTIMATEX", "Windows 7 Ultimate"},
      {"Windows 7 ultimate", "Windows 7 ultimate"},
      // A later row fits too: its edition text wins, the earlier suffix stays
      {"Windows Server 2016 SERVERDATACENTERACORE", "Windows Server 2016 Datacenter Core"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.in);
    EXPECT_EQ(c.want, Pretty(c.in));
  }
}

TEST_F(AutoInstallWindowsTest, NamesWithoutEditionComeBackUnchanged) {
  const char *cases[] = {
      "Windows 10 Core",
      "Windows",  // no blank at all
      "",
      "Windows 7 ",                // empty edition part
      "Windows Longhorn UNKNOWN",  // a product row alone changes nothing
      "Windows 10 \xC3\xA9"
      "dition",
  };
  for (const char *in : cases) {
    SCOPED_TRACE(in);
    EXPECT_EQ(in, Pretty(in));
  }
  EXPECT_EQ(nullptr, AutoInstall_GetPrettyWindowsName(nullptr));
  // Format directives in the detected text are data, not a format.
  EXPECT_EQ("%s%n Pro", Pretty("%s%n Pro"));
  EXPECT_EQ("%s%n %d", Pretty("%s%n %d"));
  // A long product part is kept whole.
  std::string longProduct(100000, 'W');
  EXPECT_EQ(longProduct + " Pro", Pretty((longProduct + " Pro").c_str()));
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

TEST_F(AutoInstallWindowsTest, SupportForEveryWindowsKey) {
  // Every Windows key of the host's table must have an answer here, so a
  // key added there is a decision made here too.
  const std::map<std::string, bool> want = {
      {"win95", false},
      {"win98", false},
      {"winMe", false},
      {"winNT", false},
      {"win2000Pro", false},
      {"win2000Serv", false},
      {"win2000AdvServ", false},
      {"winXPHome", false},
      {"winXPPro", false},
      {"winXPPro-64", false},
      {"winNetWeb", false},
      {"winNetStandard", false},
      {"winNetEnterprise", false},
      {"winNetBusiness", false},
      {"winNetStandard-64", false},
      {"winNetEnterprise-64", false},
      {"longhorn", false},  // 32-bit
      {"longhorn-64", true},
      {"winVista", false},
      {"winVista-64", false},  // no supported prefix
      {"windows7", false},
      {"windows7-64", true},
      {"windows7srv-64", true},
      {"winHyperV", false},
      {"windows8", false},
      {"windows8-64", true},
      {"windows8srv-64", true},
      {"windows9", false},
      {"windows9-64", true},
      {"windows9srv-64", true},
      {"windows2019srv-64", true},
      {"windows2019srvNext-64", true},
      {"windows2022srvNext-64", true},
      {"windows11-64", false},  // no supported prefix
      {"arm-windows9-64", false},
      {"arm-windows11-64", false},
  };
  size_t count = 0;
  const GuestOSEntry *table = GuestOS_GetTable(&count);
  for (size_t i = 0; i < count; ++i) {
    SCOPED_TRACE(table[i].key);
    GuessInfo info{};
    info.osKey = table[i].key;
    auto it = want.find(table[i].key);
    if (table[i].family != GUESTOS_FAMILY_WINDOWS) {
      EXPECT_FALSE(AutoInstallIsSupportedWindowsGuest(&info));
      continue;
    }
    ASSERT_NE(want.end(), it) << "no expected answer for this Windows key";
    EXPECT_EQ(it->second, AutoInstallIsSupportedWindowsGuest(&info));
  }
}

TEST_F(AutoInstallWindowsTest, SupportDependsOnVersionAndSpelling) {
  const struct {
    const char *key;
    GuessVersion version;
    bool want;
  } cases[] = {
      {"windows9-64", GUESS_VERSION_UNKNOWN, true},
      {"windows9-64", GUESS_VERSION_WINDOWS_8_TRIAL, false},
      {"windows9-64", GUESS_VERSION_WINDOWS_SERVER_2012_TRIAL, false},
      {"windows9-64", GUESS_VERSION_WINDOWS_81_TRIAL, false},
      {"windows9-64", GUESS_VERSION_WINDOWS_SERVER_2012_R2_TRIAL, false},
      {"windows9-64", GUESS_VERSION_WINDOWS_10_ESD, false},
      {"windows8-64", GUESS_VERSION_WINDOWS_8_ENTERPRISE, true},
      {"windows8-64", GUESS_VERSION_WINDOWS_81_PLAIN, true},
      {"windows8-64", GUESS_VERSION_WINDOWS_81_ENTERPRISE, true},
      {"windows8srv-64", GUESS_VERSION_WINDOWS_SERVER_2012_R2_PLAIN, true},
      {"windows9-64", GUESS_VERSION_WINDOWS_10_PLAIN, true},
      {"windows9-64", GUESS_VERSION_WINDOWS_10_ENTERPRISE, true},
      {"windows9-64", GUESS_VERSION_WINDOWS_10_TRIAL, true},
      {"windows9-64", GUESS_VERSION_DUMMY_LAST, true},
      // The prefix test ignores case, the 64-bit test does not.
      {"WINDOWS9-64", GUESS_VERSION_UNKNOWN, true},
      {"Windows9", GUESS_VERSION_UNKNOWN, true},
      {"Longhorn", GUESS_VERSION_UNKNOWN, true},
      {"windows9", GUESS_VERSION_UNKNOWN, false},
      {"windows9-64x", GUESS_VERSION_UNKNOWN, true},
      {"windows2022", GUESS_VERSION_UNKNOWN, false},
      {"winXPPro", GUESS_VERSION_UNKNOWN, false},
      {"rhel7-64", GUESS_VERSION_UNKNOWN, false},
      {"", GUESS_VERSION_UNKNOWN, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.key) + " version " + std::to_string(c.version));
    GuessInfo info{};
    info.osKey = c.key;
    info.version = c.version;
    EXPECT_EQ(c.want, AutoInstallIsSupportedWindowsGuest(&info));
  }
  GuessInfo noKey{};
  EXPECT_FALSE(AutoInstallIsSupportedWindowsGuest(&noKey));
  EXPECT_FALSE(AutoInstallIsSupportedWindowsGuest(nullptr));
}

const char kBadNameMessage[] =
    "The name must not contain the following characters:\n'/\\[]\":;|<>+=,?*'\nEnter a new value.";

TEST_F(AutoInstallWindowsTest, AccountNamesRefuseFifteenCharacters) {
  const std::string refused = "/\\[]\":;|<>+=,?*";
  ASSERT_EQ(15u, refused.size());
  for (char ch : refused) {
    for (const std::string &text : {std::string(1, ch), "John" + std::string(1, ch) + "Smith",
                                    "Smith" + std::string(1, ch)}) {
      SCOPED_TRACE(text);
      char *message = nullptr;
      EXPECT_EQ(AUTOINSTALL_TEXT_BAD_WINDOWS_NAME,
                AutoInstallValidateWindowsText(nullptr, text.c_str(), AUTOINSTALL_TEXT_KIND_NAME,
                                               &message));
      EXPECT_EQ(kBadNameMessage, Take(message));
      // Passwords and short names are not checked here.
      const AutoInstallTextKind unchecked[] = {AUTOINSTALL_TEXT_KIND_PASSWORD,
                                               AUTOINSTALL_TEXT_KIND_SHORT_NAME, 3};
      for (AutoInstallTextKind kind : unchecked) {
        char *untouched = reinterpret_cast<char *>(0x1);
        EXPECT_EQ(AUTOINSTALL_TEXT_OK,
                  AutoInstallValidateWindowsText(nullptr, text.c_str(), kind, &untouched));
        EXPECT_EQ(reinterpret_cast<char *>(0x1), untouched);
      }
    }
  }
  // Without a place for the message the status alone comes back.
  EXPECT_EQ(AUTOINSTALL_TEXT_BAD_WINDOWS_NAME,
            AutoInstallValidateWindowsText(nullptr, "a*b", AUTOINSTALL_TEXT_KIND_NAME, nullptr));
}

TEST_F(AutoInstallWindowsTest, AccountNamesAcceptEverythingElse) {
  GuessInfo info{};
  info.osKey = "windows9-64";
  const char *accepted[] = {
      "",
      "John Smith",
      "O'Brien-Smith Jr.",
      "user_name (home) {x} #1 & ~ ! @ $ % ^",
      "J\xC3\xB6rg M\xC3\xBCller",  // UTF-8
      "\xE5\xB1\xB1\xE7\x94\xB0",
      "tab\there",
  };
  for (const char *text : accepted) {
    SCOPED_TRACE(text);
    char *untouched = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(AUTOINSTALL_TEXT_OK,
              AutoInstallValidateWindowsText(&info, text, AUTOINSTALL_TEXT_KIND_NAME, &untouched));
    EXPECT_EQ(reinterpret_cast<char *>(0x1), untouched);
  }
  EXPECT_EQ(AUTOINSTALL_TEXT_OK,
            AutoInstallValidateWindowsText(&info, nullptr, AUTOINSTALL_TEXT_KIND_NAME, nullptr));
}

}  // namespace
