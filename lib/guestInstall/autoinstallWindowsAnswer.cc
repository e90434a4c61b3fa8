/*
 * Windows answer files: "winnt.sif" (the text answer file of the older
 * setup, edited as INI), the unattend XML "autoun~0.xml" (edited through
 * XPath) and "storePwd.ini", prepared from the caller's templates in the
 * virtual machine's configuration directory.
 */
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "guestprep/autoinstall.h"
#include "guestprep/iniutil.h"
#include "lib/guestInstall/autoinstallWindows.h"
#include "platform/file/file.h"
#include "platform/guestos/guestos.h"
#include "platform/log/log.h"
#include "platform/timeutil/timeutil.h"
#include "platform/unicode/unicode.h"
#include "platform/util/str.h"

namespace {

constexpr const char kPrepare[] = "AutoInstall_PrepareAnswerFileEx";

// The namespace of the unattend answer-file schema; every expression below
// reaches the template's elements through the prefix "urn".
constexpr const char kUnattendNs[] = "urn:schemas-microsoft-com:unattend";

const xmlChar *X(const char *s) {
  return reinterpret_cast<const xmlChar *>(s);
}

struct DocFree {
  void operator()(xmlDoc *d) const { xmlFreeDoc(d); }
};
struct ContextFree {
  void operator()(xmlXPathContext *c) const { xmlXPathFreeContext(c); }
};
struct ObjectFree {
  void operator()(xmlXPathObject *o) const { xmlXPathFreeObject(o); }
};
struct XmlCharFree {
  void operator()(xmlChar *s) const { xmlFree(s); }
};
using Doc = std::unique_ptr<xmlDoc, DocFree>;
using Context = std::unique_ptr<xmlXPathContext, ContextFree>;
using Object = std::unique_ptr<xmlXPathObject, ObjectFree>;
using XmlText = std::unique_ptr<xmlChar, XmlCharFree>;

Context NewContext(xmlDoc *doc) {
  Context ctx(xmlXPathNewContext(doc));
  if (ctx && xmlXPathRegisterNs(ctx.get(), X("urn"), X(kUnattendNs)) != 0) {
    ctx.reset();
  }
  return ctx;
}

// The node set an expression selects, or null when it selects nothing.
Object Select(xmlXPathContext *ctx, const char *expr) {
  Object obj(xmlXPathEvalExpression(X(expr), ctx));
  if (!obj || obj->nodesetval == nullptr || obj->nodesetval->nodeNr <= 0 ||
      obj->nodesetval->nodeTab[0] == nullptr) {
    return nullptr;
  }
  return obj;
}

bool SetXmlNodeContent(xmlXPathContext *ctx, const char *expr, const char *text) {
  Object obj = Select(ctx, expr);
  if (!obj) {
    return false;
  }
  // The content is parsed for entity references, so "&" and "<" of the
  // text must arrive escaped: a name can never add an element.
  XmlText escaped(xmlEncodeEntitiesReentrant(nullptr, X(text)));
  if (!escaped) {
    return false;
  }
  xmlNodeSetContent(obj->nodesetval->nodeTab[0], escaped.get());
  return true;
}

bool RemoveXmlNodes(xmlXPathContext *ctx, const char *expr) {
  Object obj = Select(ctx, expr);
  if (!obj) {
    return false;
  }
  xmlNodeSet *set = obj->nodesetval;
  for (int i = 0; i < set->nodeNr; i++) {
    xmlNode *node = set->nodeTab[i];
    if (node == nullptr) {
      continue;
    }
    set->nodeTab[i] = nullptr;  // the set must not reach the freed node
    xmlUnlinkNode(node);
    xmlFreeNode(node);
  }
  return true;
}

bool SetXmlNodeArchitecture(xmlXPathContext *ctx, const char *expr) {
  Object obj = Select(ctx, expr);
  if (!obj) {
    return false;
  }
  xmlSetProp(obj->nodesetval->nodeTab[0], X("processorArchitecture"), X("amd64"));
  return true;
}

constexpr const char kFirstLogonOrders[] =
    "//urn:settings[@pass='oobeSystem']/urn:component[@name='Microsoft-Windows-Shell-Setup']"
    "/urn:FirstLogonCommands/urn:SynchronousCommand/urn:Order";

// Appends one command after the template's last first-logon command,
// numbered one above it.
bool AddFirstLogonCommand(xmlDoc *doc, const char *commandLine) {
  Context ctx = NewContext(doc);
  if (!ctx) {
    return false;
  }
  Object obj(xmlXPathEvalExpression(X(kFirstLogonOrders), ctx.get()));
  if (!obj || obj->nodesetval == nullptr || obj->nodesetval->nodeNr <= 0) {
    return false;
  }
  // The last in document order, whatever the numbers say.
  xmlNode *order = obj->nodesetval->nodeTab[obj->nodesetval->nodeNr - 1];
  if (order == nullptr || order->parent == nullptr || order->parent->parent == nullptr) {
    return false;
  }
  XmlText content(xmlNodeGetContent(order));
  long last = content ? strtol(reinterpret_cast<const char *>(content.get()), nullptr, 10) : 0;
  char next[4] = {};
  snprintf(next, sizeof next, "%d", static_cast<int>(last + 1));

  xmlNode *commands = order->parent->parent;
  xmlNode *command = xmlNewNode(commands->ns, X("SynchronousCommand"));
  if (command == nullptr) {
    return false;
  }
  xmlSetProp(command, X("wcm:action"), X("add"));
  xmlNewTextChild(command, commands->ns, X("CommandLine"), X(commandLine));
  xmlNewChild(command, commands->ns, X("Order"), X(next));
  xmlAddChild(commands, command);
  return true;
}

// The setup script's arguments depend on the edition: the first row whose
// text occurs in the edition name wins.
const char *SetupScriptCommand(const char *editionName) {
  static constexpr struct {
    const char *edition;
    const char *command;
  } kRows[] = {
      {"Windows Server 2008 R2", "%TEMP%\\unattend.cmd noInstallTools"},
      {"Windows Server 2012", "%TEMP%\\unattend.cmd noInstallTools"},
      {"Windows 7", "%TEMP%\\unattend.cmd noInstallTools"},
      {"Windows Server", "%TEMP%\\unattend.cmd noautoreboot"},
  };
  for (const auto &row : kRows) {
    if (strstr(editionName, row.edition) != nullptr) {
      return row.command;
    }
  }
  return "%TEMP%\\unattend.cmd";
}

#define SHELL_OOBE                                   \
  "//urn:settings[@pass='oobeSystem']/urn:component" \
  "[@name='Microsoft-Windows-Shell-Setup']"
#define SETUP_PE "//urn:settings[@pass='windowsPE']/urn:component[@name='Microsoft-Windows-Setup']"
#define INTL_PE                                     \
  "//urn:settings[@pass='windowsPE']/urn:component" \
  "[@name='Microsoft-Windows-International-Core-WinPE']"

}  // namespace

namespace autoinstall {

bool EditUnattendXml(const char *xmlPath, const char *fullName, const char *password,
                     const char *timeZoneName, int guestId, GuessVersion version,
                     const char *language, const char *editionName, bool keepAutoLogon,
                     bool keepSizedPartitions) {
  xmlInitParser();
  // No network, no entity expansion: the template is only ever edited.
  Doc doc(xmlReadFile(xmlPath, nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!doc) {
    return false;
  }
  Context ctx = NewContext(doc.get());
  if (!ctx) {
    return false;
  }
  xmlXPathContext *c = ctx.get();
  bool haveName = fullName != nullptr && *fullName != '\0';
  bool havePassword = password != nullptr && *password != '\0';

  // Each edit finds its element or is skipped: templates need not hold all.
  if (haveName) {
    SetXmlNodeContent(c, SHELL_OOBE "/urn:AutoLogon/urn:Username", fullName);
    SetXmlNodeContent(c, SHELL_OOBE "/urn:UserAccounts/urn:LocalAccounts/urn:LocalAccount/urn:Name",
                      fullName);
  }
  char command[256];
  snprintf(command, sizeof command, "%s", SetupScriptCommand(editionName));
  AddFirstLogonCommand(doc.get(), command);
  AddFirstLogonCommand(doc.get(), "powercfg -setactive 8c5e7fda-e8bf-4a96-9a85-a6e23a8c635c");
  AddFirstLogonCommand(doc.get(), "net accounts /MAXPWAGE:UNLIMITED");
  if (havePassword) {
    SetXmlNodeContent(c, SHELL_OOBE "/urn:AutoLogon/urn:Password/urn:Value", password);
    SetXmlNodeContent(c, SHELL_OOBE "/urn:AutoLogon/urn:Enabled", "true");
    if (!keepAutoLogon) {
      AddFirstLogonCommand(doc.get(),
                           "reg add \"HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\"
                           "Winlogon\" /v AutoAdminLogon /t REG_SZ /d 0 /f");
    }
    SetXmlNodeContent(
        c, SHELL_OOBE "/urn:UserAccounts/urn:LocalAccounts/urn:LocalAccount/urn:Password/urn:Value",
        password);
  }
  if (timeZoneName != nullptr && *timeZoneName != '\0') {
    SetXmlNodeContent(c, SHELL_OOBE "/urn:TimeZone", timeZoneName);
  }
  SetXmlNodeContent(c, INTL_PE "/urn:InputLocale", language);
  SetXmlNodeContent(c, INTL_PE "/urn:SystemLocale", language);
  SetXmlNodeContent(c, INTL_PE "/urn:UILanguage", language);
  SetXmlNodeContent(c, INTL_PE "/urn:UserLocale", language);
  if (GuestOS_Is64Bit(guestId)) {
    SetXmlNodeArchitecture(c, SETUP_PE);
    SetXmlNodeArchitecture(c, INTL_PE);
    SetXmlNodeArchitecture(c, SHELL_OOBE);
    SetXmlNodeArchitecture(c,
                           "//urn:settings[@pass='specialize']/urn:component"
                           "[@name='Microsoft-Windows-Deployment']");
    SetXmlNodeArchitecture(c,
                           "//urn:settings[@pass='specialize']/urn:component"
                           "[@name='Microsoft-Windows-Shell-Setup']");
  }
  SetXmlNodeContent(c,
                    SETUP_PE "/urn:ImageInstall/urn:OSImage/urn:InstallFrom/urn:MetaData/urn:Value",
                    editionName);
  if (!keepSizedPartitions) {
    // Only the partitions without a size stay; the first becomes partition 1.
    RemoveXmlNodes(c, SETUP_PE
                   "/urn:DiskConfiguration/urn:Disk/urn:CreatePartitions"
                   "/urn:CreatePartition[urn:Size]");
    SetXmlNodeContent(c,
                      SETUP_PE
                      "/urn:DiskConfiguration/urn:Disk/urn:CreatePartitions"
                      "/urn:CreatePartition/urn:Order",
                      "1");
    SetXmlNodeContent(c, SETUP_PE "/urn:ImageInstall/urn:OSImage/urn:InstallTo/urn:PartitionID",
                      "1");
  }
  if (version == GUESS_VERSION_WINDOWS_81_PLAIN || version == GUESS_VERSION_WINDOWS_81_TRIAL ||
      version == GUESS_VERSION_WINDOWS_81_ENTERPRISE) {
    AddFirstLogonCommand(doc.get(),
                         "reg.exe add HKLM\\Software\\Policies\\Microsoft\\Windows\\"
                         "EdgeUI /v DisableHelpSticker /t REG_DWORD /d 1");
  }
  xmlSaveFile(xmlPath, doc.get());
  return true;
}

bool SetWindowsProductKey(const char *guestConfigDir, const char *productKey) {
  gp::UniqueText winnt(File_PathJoin(guestConfigDir, "winnt.sif"));
  gp::UniqueText xml(File_PathJoin(guestConfigDir, "autoun~0.xml"));
  if (!winnt || !xml || productKey == nullptr ||
      !IniUtil_WriteIniFileString(winnt.get(), "UserData", "ProductKey", productKey, true)) {
    return false;
  }
  xmlInitParser();
  Doc doc(
      xmlReadFile(xml.get(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  Context ctx = doc ? NewContext(doc.get()) : nullptr;
  if (!ctx ||
      !SetXmlNodeContent(ctx.get(), SETUP_PE "/urn:UserData/urn:ProductKey/urn:Key", productKey)) {
    return false;
  }
  return xmlSaveFile(xml.get(), doc.get()) >= 0;
}

}  // namespace autoinstall

namespace {

// The code page of the texts in "winnt.sif" for a language; exact match.
StringEncoding CodePageFor(const char *language) {
  static constexpr struct {
    const char *language;
    StringEncoding encoding;
  } kRows[] = {
      {"Japanese", STRING_ENCODING_SHIFT_JIS},     {"Russian", STRING_ENCODING_WINDOWS_1251},
      {"Simplified Chinese", STRING_ENCODING_GBK}, {"Traditional Chinese", STRING_ENCODING_BIG5},
      {"Korean", STRING_ENCODING_CP949},
  };
  for (const auto &row : kRows) {
    if (strcmp(language, row.language) == 0) {
      return row.encoding;
    }
  }
  return STRING_ENCODING_WINDOWS_1252;
}

// The text in the code page, or the UTF-8 text itself (logged) when the
// code page cannot hold it.
std::string InCodePage(const char *text, StringEncoding encoding) {
  gp::UniqueText converted(Unicode_GetAllocBytes(text, encoding));
  if (!converted) {
    Log("%s: Failed to perform conversion from UTF-8 to %s\n", kPrepare,
        Unicode_EncodingEnumToName(encoding));
    return text;
  }
  return converted.get();
}

bool CopyTemplate(const char *from, const char *to) {
  if (from == nullptr || to == nullptr || !File_Copy(from, to, true)) {
    Log("%s: File_Copy from=\"%s\" to=\"%s\"\n", kPrepare, from ? from : "", to ? to : "");
    return false;
  }
  return true;
}

bool Prepare(const char *winntTemplatePath, const char *xmlTemplatePath,
             const char *storePwdTemplatePath, const char *fullName, const char *password,
             const char *guestOSKey, GuessVersion version, const char *guestConfigDir,
             const char *language, const char *editionName, bool keepAutoLogon,
             bool keepSizedPartitions, autoinstall::LocalZoneFn localZone) {
  int id = GuestOS_GetOSIDByName(guestOSKey);
  if (id < 0 || !GuestOS_IsWin(id)) {
    Log("%s: GuestOS_IsWin failed for guestID %s\n", kPrepare, guestOSKey ? guestOSKey : "");
    return false;
  }
  const char *lang = language != nullptr && *language != '\0' ? language
                     : GuestOS_IsWinVistaOrHigher(id)         ? "en-US"
                                                              : "English";
  StringEncoding codePage = CodePageFor(lang);

  gp::UniqueText winnt(File_PathJoin(guestConfigDir, "winnt.sif"));
  gp::UniqueText xml(File_PathJoin(guestConfigDir, "autoun~0.xml"));
  gp::UniqueText storePwd(File_PathJoin(guestConfigDir, "storePwd.ini"));
  if (!CopyTemplate(winntTemplatePath, winnt.get()) || !CopyTemplate(xmlTemplatePath, xml.get()) ||
      (storePwdTemplatePath != nullptr && !CopyTemplate(storePwdTemplatePath, storePwd.get()))) {
    return false;
  }

  if (fullName != nullptr && *fullName != '\0') {
    std::string name = InCodePage(fullName, codePage);
    if (!IniUtil_WriteIniFileString(winnt.get(), "UserData", "FullName", name.c_str(), true)) {
      Log("%s: IniUtil_WriteIniFileString unattendFilePath=\"%s\", FullName=\"%s\"\n", kPrepare,
          winnt.get(), fullName);
      return false;
    }
  }
  if (password != nullptr && *password != '\0') {
    std::string secret = InCodePage(password, codePage);
    bool written = IniUtil_WriteIniFileString(winnt.get(), "GuiUnattended", "AdminPassword",
                                              secret.c_str(), true);
    OPENSSL_cleanse(secret.data(), secret.size());
    if (!written) {
      Log("%s: IniUtil_WriteIniFileString unattendFilePath=\"%s\", AdminPassword=\"%s\"\n",
          kPrepare, winnt.get(), password);
      return false;
    }
    if (!IniUtil_WriteIniFileString(winnt.get(), "GuiUnattended", "AutoLogon", "Yes", false)) {
      Log("%s: IniUtil_WriteIniFileString unattendFilePath=\"%s\", AutoLogon=\"Yes\"\n", kPrepare,
          winnt.get());
      return false;
    }
    if (!IniUtil_WriteIniFileString(winnt.get(), "GuiUnattended", "AutoLogonCount", "1", false)) {
      Log("%s: IniUtil_WriteIniFileString unattendFilePath=\"%s\", AutoLogonCount=\"1\"\n",
          kPrepare, winnt.get());
      return false;
    }
    if (storePwdTemplatePath != nullptr &&
        !IniUtil_WriteIniFileString(storePwd.get(), "Autologon", "Enabled",
                                    keepAutoLogon ? "1" : "0", false)) {
      Log("%s: IniUtil_WriteIniFileString storePwdIniPath=\"%s\"", kPrepare, storePwd.get());
      return false;
    }
  }

  char *zoneName = nullptr;
  int zoneIndex = localZone(&zoneName);
  gp::UniqueText zone(zoneName);
  if (zoneIndex >= 0 &&
      !IniUtil_WriteIniFileInt(winnt.get(), "GuiUnattended", "TimeZone", zoneIndex)) {
    Log("%s: IniUtil_WriteIniFileInt unattendFilePath=\"%s\", TimeZone=%d\n", kPrepare, winnt.get(),
        zoneIndex);
    return false;
  }
  return autoinstall::EditUnattendXml(xml.get(), fullName, password, zone.get(), id, version, lang,
                                      editionName, keepAutoLogon, keepSizedPartitions);
}

}  // namespace

bool autoinstall::PrepareWindowsAnswerFiles(
    const char *winntTemplatePath, const char *xmlTemplatePath, const char *storePwdTemplatePath,
    const char *fullName, const char *password, const char *guestOSKey, GuessVersion version,
    const char *guestConfigDir, const char *language, const char *editionName, bool keepAutoLogon,
    bool keepSizedPartitions, LocalZoneFn localZone) {
  if (editionName == nullptr || guestConfigDir == nullptr || localZone == nullptr) {
    return false;
  }
  try {
    return Prepare(winntTemplatePath, xmlTemplatePath, storePwdTemplatePath, fullName, password,
                   guestOSKey, version, guestConfigDir, language, editionName, keepAutoLogon,
                   keepSizedPartitions, localZone);
  } catch (...) {
    return false;
  }
}

extern "C" bool AutoInstall_PrepareAnswerFileEx(
    const char *winntTemplatePath, const char *xmlTemplatePath, const char *storePwdTemplatePath,
    const char *fullName, const char *password, const char *guestOSKey, GuessVersion version,
    const char *guestConfigDir, const char *language, const char *editionName, bool keepAutoLogon,
    bool keepSizedPartitions) {
  return autoinstall::PrepareWindowsAnswerFiles(
      winntTemplatePath, xmlTemplatePath, storePwdTemplatePath, fullName, password, guestOSKey,
      version, guestConfigDir, language, editionName, keepAutoLogon, keepSizedPartitions,
      TimeUtil_GetLocalWindowsTimeZoneIndexAndName);
}
