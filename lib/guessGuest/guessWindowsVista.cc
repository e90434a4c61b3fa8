// Windows detector for image-based setup media: Vista to Windows 11, Server
// 2008 to 2025 and Hyper-V Server, from the files of "sources". Besides the
// key it reports the medium's UI languages, the editions it offers and, for
// 8.1 and Server 2012 R2, a display name of its own.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "lib/guessGuest/guessWindows.h"
#include "platform/msg/msg.h"
#include "platform/util/str.h"

namespace {

using guess::ArchKeys;
using guess::Contains;
using guess::Medium;
using guess::MediumFile;
using guess::StartsWith;

bool EndsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Setup keeps its facts in these files; the catalogue files of the older
// media name one edition each: "install_<edition>.clg".
constexpr const char kProductIni[] = "sources/product.ini";
constexpr const char kIdwbInfo[] = "sources/idwbinfo.txt";
constexpr const char kLangIni[] = "sources/lang.ini";
constexpr const char kEiCfg[] = "sources/ei.cfg";
constexpr const char kAppxProvisioning[] =
    "sources/replacementmanifests/microsoft-windows-appx-deployment-server/appxprovisioning.xml";
constexpr std::string_view kCataloguePrefix = "install_";
constexpr std::string_view kCatalogueSuffix = ".clg";
constexpr const char kDefaultLanguage[] = "en-US";
// The product and provisioning files run to tens of kilobytes on real media.
constexpr size_t kProductIniBytes = 256u << 10;
constexpr size_t kAppxBytes = 1u << 20;

// Lists grow only up to the field they are copied into.
constexpr size_t kEditionsLimit = sizeof(GuessInfo::editions);
constexpr size_t kLanguagesLimit = sizeof(GuessInfo::languages);

// Edition lists, each entry followed by "?".
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
constexpr const char kLongTermServicing[] = "Windows 10 Enterprise_LTSC_2019?";
constexpr const char kBusinessVirtualDesktops[] =
    "Windows 10 Education?Windows 10 Education_N?Windows 10 Enterprise?Windows 10 Enterprise_N?"
    "Windows 10 Enterprise_for_Virtual_Desktops?Windows 10 Pro?Windows 10 Pro_N?"
    "Windows 10 Pro_Education?Windows 10 Pro_Education_N?Windows 10 Pro_for_Workstations?"
    "Windows 10 Pro_N_for_Workstations?";
constexpr const char kNList[] = "Windows 10 Pro_N?Windows 10 Home_N?Windows 10 Education_N?";
constexpr const char kChina[] =
    "Windows 10 Pro?Windows 10 Home?Windows 10 Home_China?Windows 10 Education?"
    "Windows 10 Home_Single_Language?";
constexpr const char kRetail[] =
    "Windows 10 Pro?Windows 10 Home?Windows 10 Education?Windows 10 Home_Single_Language?";
constexpr const char kServer2012R2[] =
    "Windows Server 2012 R2 SERVERSTANDARDCORE?Windows Server 2012 R2 SERVERSTANDARD?"
    "Windows Server 2012 R2 SERVERDATACENTERCORE?Windows Server 2012 R2 SERVERDATACENTER?";
constexpr const char kTechPreview5[] =
    "Windows Server 2016 Technical Preview 5 SERVERSTANDARDCORE?"
    "Windows Server 2016 Technical Preview 5 SERVERSTANDARD?"
    "Windows Server 2016 Technical Preview 5 SERVERDATACENTERCORE?"
    "Windows Server 2016 Technical Preview 5 SERVERDATACENTER?";
constexpr const char kTechPreview5Solution[] =
    "Windows Server 2016 Technical Preview 5 SERVERSOLUTION?";
constexpr const char kServer2016[] =
    "Windows Server 2016 SERVERSTANDARDCORE?Windows Server 2016 SERVERSTANDARD?"
    "Windows Server 2016 SERVERDATACENTERCORE?Windows Server 2016 SERVERDATACENTER?";
constexpr const char kServer2016Solution[] =
    "Windows Server 2016 SERVERSOLUTION?Windows Server 2016 SERVERSTORAGESTANDARD?"
    "Windows Server 2016 SERVERSTORAGEWORKGROUP?";
constexpr const char kServer2016SemiAnnual[] =
    "Windows Server 2016 SERVERSTANDARDACORE?Windows Server 2016 SERVERDATACENTERACORE?";
constexpr const char kServer2019[] =
    "Windows Server 2019 SERVERSTANDARDCORE?Windows Server 2019 SERVERSTANDARD?"
    "Windows Server 2019 SERVERDATACENTERCORE?Windows Server 2019 SERVERDATACENTER?";
constexpr const char kSemiAnnual[] =
    "Windows Server SERVERSTANDARDACORE?Windows Server SERVERDATACENTERACORE?";
constexpr const char kServer2022[] =
    "Windows Server 2022 SERVERSTANDARDCORE?Windows Server 2022 SERVERSTANDARD?"
    "Windows Server 2022 SERVERDATACENTERCORE?Windows Server 2022 SERVERDATACENTER?";
constexpr const char kServer2025[] =
    "Windows Server 2025 SERVERSTANDARDCORE?Windows Server 2025 SERVERSTANDARD?"
    "Windows Server 2025 SERVERDATACENTERCORE?Windows Server 2025 SERVERDATACENTER?";

// The Server 2012 editions, named with or without " R2".
constexpr std::array<std::string_view, 4> kServer2012Editions{
    "SERVERSTANDARDCORE", "SERVERSTANDARD", "SERVERDATACENTERCORE", "SERVERDATACENTER"};

enum class Gen {
  None,
  Vista,
  Seven,
  Eight,
  Ten,
  Server2016,
  Server2019,
  Server2022,
  Server2025,
  Eleven
};
// Which edition lists a Windows 10 client medium of a release offers.
enum class ListGroup { Generic, Rs3, Rs4, Rs5, H19, Vb };

// What the medium shows besides its build branch.
struct Facts {
  const Medium &medium;
  bool serverBackground;  // "sources" holds "background_svr.bmp"
  bool nanoReadme;        // "NanoServer" holds "ReadMe.txt"
  bool eiHeld;            // "sources" holds "ei.cfg"
  MediumFile ei;          // "sources/ei.cfg", when it can be read
};

// What a build branch tells: the generation and, for some, the list group,
// marks and the editions it fixes.
struct Outcome {
  Gen gen = Gen::None;
  ListGroup group = ListGroup::Generic;
  bool mark81 = false;        // 8.1 or Server 2012 R2
  bool hyperV = false;        // a Hyper-V Server medium
  bool longTerm2016 = false;  // its long-term servicing edition is the 2016 one
  bool server = false;        // a server medium whatever "product.ini" says
  const char *editions = nullptr;
};

enum class Test { Prefix, Contains, Catalogue };
struct BranchRule {
  Test test;
  std::array<std::string_view, 3> texts;  // any of them; empty ones unused
  Outcome (*outcome)(const Facts &);
};

Outcome Client10(const Facts &) {
  return Outcome{.gen = Gen::Ten};
}
Outcome Client10LongTerm2016(const Facts &) {
  return Outcome{.gen = Gen::Ten, .longTerm2016 = true};
}

// The first rule whose test holds decides; the order is the contract (a
// branch such as "rs1_release_svc" also begins with "rs1_release").
const BranchRule kBranchRules[] = {
    {Test::Prefix, {"vista"}, [](const Facts &) { return Outcome{.gen = Gen::Vista}; }},
    {Test::Prefix, {"lh_sp2rtm"}, [](const Facts &) { return Outcome{.gen = Gen::Vista}; }},
    {Test::Contains, {"win7"}, [](const Facts &) { return Outcome{.gen = Gen::Seven}; }},
    {Test::Contains, {"win8_rtm"}, [](const Facts &) { return Outcome{.gen = Gen::Eight}; }},
    {Test::Prefix,
     {"winblue_"},
     [](const Facts &) { return Outcome{.gen = Gen::Eight, .mark81 = true}; }},
    {Test::Prefix, {"winmain"}, [](const Facts &) { return Outcome{}; }},
    {Test::Catalogue,
     {"install_Windows Vista"},
     [](const Facts &) { return Outcome{.gen = Gen::Vista}; }},
    {Test::Catalogue,
     {"install_Windows 7"},
     [](const Facts &) { return Outcome{.gen = Gen::Seven}; }},
    {Test::Prefix, {"win"}, Client10},
    {Test::Contains, {"th1", "th2_release"}, Client10},
    {Test::Prefix,
     {"fbl_", "th2_"},
     [](const Facts &) {
       return Outcome{.gen = Gen::Ten, .server = true, .editions = kServer2012R2};
     }},
    {Test::Prefix,
     {"rs1_release_svc"},
     [](const Facts &f) {
       return Outcome{.gen = Gen::Server2016,
                      .editions = f.nanoReadme ? kTechPreview5 : kTechPreview5Solution};
     }},
    {Test::Prefix,
     {"rs1_release"},
     [](const Facts &f) {
       if (f.ei.contains("ServerHyper")) {
         return Outcome{.gen = Gen::Server2016, .hyperV = true};
       }
       if (f.nanoReadme) {
         return Outcome{.gen = Gen::Server2016, .editions = kServer2016};
       }
       if (f.serverBackground) {
         return Outcome{.gen = Gen::Server2016, .editions = kServer2016Solution};
       }
       return Client10LongTerm2016(f);
     }},
    {Test::Prefix, {"rs1_"}, Client10LongTerm2016},
    {Test::Prefix, {"rs2_release"}, Client10LongTerm2016},
    {Test::Prefix,
     {"rs3_release"},
     [](const Facts &f) {
       return f.serverBackground
                  ? Outcome{.gen = Gen::Server2016, .editions = kServer2016SemiAnnual}
                  : Outcome{.gen = Gen::Ten, .group = ListGroup::Rs3};
     }},
    {Test::Prefix,
     {"rs4_release"},
     [](const Facts &f) {
       return f.serverBackground
                  ? Outcome{.gen = Gen::Server2016, .editions = kServer2016SemiAnnual}
                  : Outcome{.gen = Gen::Ten, .group = ListGroup::Rs4};
     }},
    {Test::Prefix,
     {"rs5_release"},
     [](const Facts &f) {
       if (!f.serverBackground) {
         return Outcome{.gen = Gen::Ten, .group = ListGroup::Rs5};
       }
       // The semi-annual channel media are the ones that carry "ei.cfg".
       return Outcome{.gen = Gen::Server2019, .editions = f.ei ? kSemiAnnual : kServer2019};
     }},
    {Test::Prefix,
     {"19h1_release"},
     [](const Facts &) { return Outcome{.gen = Gen::Ten, .group = ListGroup::H19}; }},
    {Test::Prefix,
     {"vb_release", "20h1_release", "2004_release"},
     [](const Facts &f) {
       return f.serverBackground ? Outcome{.gen = Gen::Server2019, .editions = kSemiAnnual}
                                 : Outcome{.gen = Gen::Ten, .group = ListGroup::Vb};
     }},
    {Test::Contains,
     {"fe_release"},
     [](const Facts &) { return Outcome{.gen = Gen::Server2022, .editions = kServer2022}; }},
    {Test::Contains,
     {"ge_release"},
     [](const Facts &f) {
       return f.serverBackground ? Outcome{.gen = Gen::Server2025, .editions = kServer2025}
                                 : Outcome{.gen = Gen::Eleven};
     }},
    {Test::Prefix,
     {"co_release", "ni_release"},
     [](const Facts &) { return Outcome{.gen = Gen::Eleven}; }},
};

bool RuleApplies(const BranchRule &rule, const Facts &facts, std::string_view branch) {
  for (std::string_view text : rule.texts) {
    if (text.empty()) {
      continue;
    }
    switch (rule.test) {
      case Test::Prefix:
        if (StartsWith(branch, text)) {
          return true;
        }
        break;
      case Test::Contains:
        if (Contains(branch, text)) {
          return true;
        }
        break;
      case Test::Catalogue:
        if (facts.medium.HasEntryWithPrefix("sources", text)) {
          return true;
        }
        break;
    }
  }
  return false;
}

Outcome FromBranch(const Facts &facts, const std::optional<std::string> &branch) {
  if (!branch) {
    return Outcome{};
  }
  for (const BranchRule &rule : kBranchRules) {
    if (RuleApplies(rule, facts, *branch)) {
      return rule.outcome(facts);
    }
  }
  return Outcome{};
}

// The editions named by the catalogue files of "sources".
std::string CatalogueEditions(const Medium &medium) {
  std::string list;
  Medium::Dir dir = medium.Open("/sources");
  const size_t affixes = kCataloguePrefix.size() + kCatalogueSuffix.size();
  while (const char *entry = dir.Next()) {
    std::string_view name(entry);
    if (name.size() >= affixes && StartsWith(name, kCataloguePrefix) &&
        EndsWith(name, kCatalogueSuffix) && list.size() < kEditionsLimit) {
      list.append(name.substr(kCataloguePrefix.size(), name.size() - affixes));
      list.push_back('?');
    }
  }
  return list;
}

// Where an outcome leaves the medium once its generation's own rules ran.
struct Verdict {
  GuessVersion version = GUESS_VERSION_UNKNOWN;
  bool server = false;
  bool hyperV = false;
  std::string editions;
};

// Windows 8, 8.1, Server 2012 and 2012 R2: "ei.cfg" names the edition or
// channel; server media carry the server background.
void Generation8(const Facts &f, bool mark81, Verdict *v) {
  const std::string point1 = mark81 ? ".1" : "";
  const std::string_view ei = f.ei.text();
  if (!f.serverBackground && !v->server) {
    v->version = mark81 ? GUESS_VERSION_WINDOWS_81_PLAIN : GUESS_VERSION_UNKNOWN;
    const std::string both = "Windows 8" + point1 + " Pro?Windows 8" + point1 + "?";
    if (!f.eiHeld) {
      v->editions = both;
    } else if (Contains(ei, "Enterprise") || Contains(ei, "enterprise")) {
      const bool n = Contains(ei, "EnterpriseN") || Contains(ei, "enterprisen");
      const bool trial = Contains(ei, "EnterpriseEval");
      if (trial) {
        // A trial keeps the catalogue's editions.
        v->version = mark81 ? GUESS_VERSION_WINDOWS_81_TRIAL : GUESS_VERSION_WINDOWS_8_TRIAL;
      } else {
        v->version =
            mark81 ? GUESS_VERSION_WINDOWS_81_ENTERPRISE : GUESS_VERSION_WINDOWS_8_ENTERPRISE;
        v->editions = "Windows 8" + point1 + " Enterprise" + (n ? "_N" : "") + "?";
      }
    } else if (Contains(ei, "Professional")) {
      v->editions =
          "Windows 8" + point1 + " Pro" + (Contains(ei, "ProfessionalN") ? "_N" : "") + "?";
    } else {
      v->editions = both;
    }
    return;
  }

  v->server = true;
  v->version = mark81 ? GUESS_VERSION_WINDOWS_SERVER_2012_R2_PLAIN : GUESS_VERSION_UNKNOWN;
  if (f.eiHeld) {
    if (Contains(ei, "ServerHyper")) {
      v->hyperV = true;
      return;
    }
    if (Contains(ei, "eval") && !Contains(ei, "volume")) {
      v->version = mark81 ? GUESS_VERSION_WINDOWS_SERVER_2012_R2_TRIAL
                          : GUESS_VERSION_WINDOWS_SERVER_2012_TRIAL;
      return;
    }
  }
  v->editions.clear();
  for (std::string_view edition : kServer2012Editions) {
    v->editions += "Windows Server 2012" + std::string(mark81 ? " R2" : "") + " ";
    v->editions.append(edition);
    v->editions += "?";
  }
}

// Media made for China, the only ones with its language, add its edition.
const char *RetailList(std::string_view langIni) {
  return Contains(langIni, "zh-CN") ? kChina : kRetail;
}

// Windows 10 client media: the release's lists, or "ei.cfg" for the
// generic ones, name the editions.
void Generation10Client(const Medium &medium, const Facts &f, const Outcome &o,
                        std::string_view langIni, Verdict *v) {
  v->version = GUESS_VERSION_UNKNOWN;
  const std::string_view ei = f.ei.text();
  const bool enterprise = Contains(ei, "Enterprise") || Contains(ei, "enterprise");
  switch (o.group) {
    case ListGroup::Rs3:
      v->editions = f.ei ? kRs3Business : kRs3Home;
      return;
    case ListGroup::Rs4:
    case ListGroup::H19:
    case ListGroup::Vb:
      v->editions = f.ei ? kLongBusiness : kLongHome;
      return;
    case ListGroup::Rs5:
      v->editions = !f.ei ? kLongHome : enterprise ? kLongTermServicing : kBusinessVirtualDesktops;
      return;
    case ListGroup::Generic:
      break;
  }
  if (!f.ei) {
    // N media are the ones provisioned without the Skype app.
    MediumFile appx = medium.Read(kAppxProvisioning, kAppxBytes);
    v->editions = appx && !appx.contains("Microsoft.SkypeApp") ? kNList : RetailList(langIni);
    return;
  }
  v->version = enterprise ? GUESS_VERSION_WINDOWS_10_ENTERPRISE : GUESS_VERSION_WINDOWS_10_PLAIN;
  const bool n =
      Contains(ei, "EnterpriseN") || Contains(ei, "enterprisen") || Contains(ei, "enterprisesn");
  const bool longTerm = Contains(ei, "EnterpriseS") || Contains(ei, "enterprises");
  if (enterprise) {
    std::string list = "Windows 10 Enterprise";
    list += n ? "_N" : "";
    if (longTerm) {
      list += o.longTerm2016 ? "_2016_LTSB" : "_2015_LTSB";
    }
    v->editions = list + "?";
  } else {
    v->editions = n ? kNList : RetailList(langIni);
  }
}

GuessElfArch ArchOf(std::string_view idwbinfo) {
  std::optional<std::string> arch = GuessValueOf(idwbinfo, "BuildArch=");
  if (arch == "amd64") {
    return GUESS_ARCH_X86_64;
  }
  if (arch == "arm64") {
    return GUESS_ARCH_ARM64;
  }
  return GUESS_ARCH_X86;
}

// Keys by generation and role; the first row that fits wins.
enum class Role { Any, Client, Server, HyperV };
struct KeyRow {
  Gen gen;
  Role role;
  ArchKeys keys;
};
constexpr KeyRow kKeys[] = {
    {Gen::Vista, Role::Client, {"winVista", "winVista-64", "winVista"}},
    {Gen::Vista, Role::Server, {"longhorn", "longhorn-64", "longhorn"}},
    {Gen::Seven, Role::Client, {"windows7", "windows7-64", "windows7"}},
    {Gen::Seven, Role::Server, {"windows7srv-64", "windows7srv-64", "windows7srv-64"}},
    {Gen::Eight, Role::HyperV, {"winHyperV", "winHyperV", "winHyperV"}},
    {Gen::Eight, Role::Server, {"windows8srv-64", "windows8srv-64", "windows8srv-64"}},
    {Gen::Eight, Role::Client, {"windows8", "windows8-64", "windows8"}},
    {Gen::Ten, Role::Any, {"windows9", "windows9-64", "arm-windows9-64"}},
    {Gen::Server2016, Role::HyperV, {"winHyperV", "winHyperV", "winHyperV"}},
    {Gen::Server2016, Role::Any, {"windows9srv-64", "windows9srv-64", "windows9srv-64"}},
    {Gen::Server2019, Role::Any, {"windows2019srv-64", "windows2019srv-64", "windows2019srv-64"}},
    {Gen::Server2022,
     Role::Any,
     {"windows2019srvNext-64", "windows2019srvNext-64", "windows2019srvNext-64"}},
    {Gen::Server2025,
     Role::Any,
     {"windows2022srvNext-64", "windows2022srvNext-64", "windows2022srvNext-64"}},
    {Gen::Eleven, Role::Any, {"windows11-64", "windows11-64", "arm-windows11-64"}},
    // A branch nothing knows: only a server medium is claimed.
    {Gen::None, Role::Server, {"longhorn", "longhorn-64", "longhorn"}},
};

const char *KeyFor(Gen gen, Role role, GuessElfArch arch) {
  for (const KeyRow &row : kKeys) {
    const bool fits = row.role == Role::Any || row.role == role ||
                      (row.role == Role::Server && role == Role::HyperV);
    if (row.gen == gen && fits) {
      return row.keys.For(arch);
    }
  }
  return nullptr;
}

// Languages from the "[Available UI Languages]" section of "lang.ini", lines
// of language = number ended by CR LF; the greatest number is the default.
void ReadLanguages(std::string_view ini, GuessInfo *info) {
  static constexpr std::string_view kHeader = "[Available UI Languages]\r\n";
  static constexpr std::string_view kSectionEnd = "\r\n[Fallback Languages]";
  static constexpr std::string_view kLineEnd = "\r\n";
  std::optional<std::string> best;
  const size_t header = ini.find(kHeader);
  // The header's own line end may be the one that precedes the next section.
  const size_t end = header == std::string_view::npos
                         ? std::string_view::npos
                         : ini.find(kSectionEnd, header + kHeader.size() - kLineEnd.size());
  if (end != std::string_view::npos) {
    const size_t begin = header + kHeader.size();
    std::string_view section = end > begin ? ini.substr(begin, end - begin) : std::string_view();
    std::string list;
    bool complete = true;
    int32_t bestNumber = -1;
    size_t pos = 0;
    while (pos < section.size()) {
      size_t eol = section.find(kLineEnd, pos);
      if (eol == std::string_view::npos) {
        eol = section.size();
      }
      std::string_view line = section.substr(pos, eol - pos);
      pos = eol + kLineEnd.size();
      std::string key;
      std::string value;
      if (line.empty() || !GuessParseKeyValue(line, &key, &value)) {
        continue;
      }
      int32_t number = 0;
      if (!StrUtil_StrToInt(&number, value.c_str())) {
        complete = false;  // a broken section is not listed at all
        break;
      }
      if (list.size() < kLanguagesLimit) {
        list += key;
        list += '?';
      }
      if (number > bestNumber) {
        bestNumber = number;
        best = std::move(key);
      }
    }
    if (complete) {
      guess::SetField(info->languages, list);
    }
  }
  const std::string &language = best ? *best : kDefaultLanguage;
  guess::SetField(info->language, language);
  guess::SetField(info->languageShort, language);
}

void SetDisplayName(GuessInfo *info, const char *message) {
  char *text = Msg_GetString(message);
  if (text != nullptr) {
    guess::SetField(info->displayName, text);
    free(text);
  }
}

}  // namespace

extern "C" bool Guess_WindowsVistaAndNewer(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  MediumFile product = medium.Read(kProductIni, kProductIniBytes);
  MediumFile idwbinfo = medium.Read(kIdwbInfo);
  MediumFile langIni = medium.Read(kLangIni);
  if (!idwbinfo || !langIni) {
    guess::SetField(info->language, kDefaultLanguage);
    guess::SetField(info->languageShort, kDefaultLanguage);
    return info->osKey != nullptr;
  }

  Verdict verdict;
  verdict.editions = CatalogueEditions(medium);
  std::optional<std::string> type = GuessValueOf(product.text(), "Type=");
  verdict.server = type && Contains(*type, "Server");

  Facts facts{medium, medium.HasEntryWithPrefix("sources", "background_svr.bmp"),
              medium.HasEntryWithPrefix("NanoServer", "ReadMe.txt"),
              medium.HasEntryWithPrefix("sources", "ei.cfg"), medium.Read(kEiCfg)};
  const Outcome outcome = FromBranch(facts, GuessValueOf(idwbinfo.text(), "BuildBranch="));
  verdict.server = verdict.server || outcome.server;
  verdict.hyperV = outcome.hyperV;
  if (outcome.editions != nullptr) {
    verdict.editions = outcome.editions;
  }

  if (outcome.gen == Gen::Eight) {
    Generation8(facts, outcome.mark81, &verdict);
  } else if (outcome.gen == Gen::Ten) {
    if (!verdict.server) {
      Generation10Client(medium, facts, outcome, langIni.text(), &verdict);
    }
    if (medium.HasEntryWithPrefix("sources", "install.esd")) {
      verdict.version = GUESS_VERSION_WINDOWS_10_ESD;
    }
  }
  guess::SetField(info->editions, verdict.editions);

  const GuessElfArch arch = ArchOf(idwbinfo.text());
  const Role role = verdict.hyperV ? Role::HyperV : verdict.server ? Role::Server : Role::Client;
  const char *key = KeyFor(outcome.gen, role, arch);

  ReadLanguages(langIni.text(), info);
  info->osKey = key;
  info->version = verdict.version;

  if (outcome.mark81 && !verdict.hyperV) {
    SetDisplayName(info, verdict.server ? "@&!*@*@(msg.guessGuest.winServer2012R2.altName)"
                                          "Windows Server 2012 R2"
                         : arch == GUESS_ARCH_X86_64
                             ? "@&!*@*@(msg.guessGuest.win8dot1x64.altName)Windows 8.1 x64"
                             : "@&!*@*@(msg.guessGuest.win8dot1.altName)Windows 8.1");
  }
  return info->osKey != nullptr;
}
