// Windows answer files prepared from the shipped templates, checked with
// xmllint (well-formed, and each edited element read back through XPath),
// configparser and iconv.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "guestprep/iniutil.h"
#include "lib/guestInstall/autoinstallWindows.h"
#include "support/testSupport.h"

namespace fs = std::filesystem;
using testing_support::DataDir;
using testing_support::LogCapture;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::RunCommand;
using testing_support::Split;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::WriteFile;

namespace {

const fs::path kTemplates = fs::path(GUESTPREP_SOURCE_DIR) / "data" / "windows";

// The host zone the answer files get, set per case.
int gZoneIndex = -1;
std::string gZoneName;
int TestZone(char **name) {
  *name = gZoneName.empty() ? nullptr : strdup(gZoneName.c_str());
  return gZoneIndex;
}

struct Prepared {
  TempDir dir;
  bool ok = false;
  fs::path winnt() const { return dir / "winnt.sif"; }
  fs::path xml() const { return dir / "autoun~0.xml"; }
  fs::path storePwd() const { return dir / "storePwd.ini"; }
};

void Prepare(Prepared &out, const std::string &key, const std::string &version,
             const std::string &language, const std::string &edition, const std::string &name,
             const std::string &password, const std::string &options,
             const fs::path &xmlTemplate = kTemplates / "autounattend.xml",
             const fs::path &winntTemplate = kTemplates / "winnt.sif") {
  std::string storePwd = (kTemplates / "storePwd.ini").string();
  out.ok = autoinstall::PrepareWindowsAnswerFiles(
      winntTemplate.c_str(), xmlTemplate.c_str(),
      options.find("no-storepwd") == std::string::npos ? storePwd.c_str() : nullptr, name.c_str(),
      password.c_str(), key.c_str(),
      static_cast<GuessVersion>(testing_support::VersionByName(version)), out.dir.str().c_str(),
      language.c_str(), edition.c_str(), options.find("keep-logon") != std::string::npos,
      options.find("keep-parts") != std::string::npos, TestZone);
}

std::string Xpath(const fs::path &xml, const std::string &expr) {
  auto r = RunCommand({"xmllint", "--xpath", expr, xml.string()});
  if (r.exitCode != 0) {
    return "<xmllint " + std::to_string(r.exitCode) + ">";
  }
  return r.output.ends_with('\n') ? r.output.substr(0, r.output.size() - 1) : r.output;
}

// "A/B/C" as an expression over local names, found anywhere.
std::string LocalPath(const std::string &path) {
  std::string expr;
  for (const std::string &step : Split(path, "/")) {
    expr += (expr.empty() ? "//" : "/") + std::string("*[local-name()='") + step + "']";
  }
  return expr;
}

std::string PythonIni(const fs::path &file, const std::string &section, const std::string &key) {
  if (!fs::exists(file)) {
    return "<nofile>";
  }
  fs::path script = DataDir().parent_path() / "scripts" / "ini_read.py";
  return RunCommand({"python3", script.string(), file.string(), section, key}).output;
}

std::string Trim(const std::string &s) {
  size_t b = s.find_first_not_of(' ');
  size_t e = s.find_last_not_of(' ');
  return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

class WindowsAnswerTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(WindowsAnswerTest, FilesHoldWhatTheCaseAsks) {
  const auto &c = GetParam().cells;
  std::vector<std::string> zone = Split(c[8], " ");
  gZoneIndex = std::stoi(zone.at(0));
  gZoneName = c[8].find(' ') == std::string::npos ? "" : c[8].substr(c[8].find(' ') + 1);
  Prepared p;
  Prepare(p, c[1], c[2], c[3], c[4], c[5], c[6], c[7]);
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(RunCommand({"xmllint", "--noout", p.xml().string()}).output, "");

  for (const std::string &check : Split(c[9], " ; ")) {
    size_t eq = check.find(" = ");
    ASSERT_NE(eq, std::string::npos) << check;
    std::vector<std::string> what = Split(check.substr(0, eq), " ");
    std::string want = check.substr(eq + 3);
    if (want == "\"\"") {
      want.clear();
    }
    SCOPED_TRACE(check);
    if (what[0] == "xml") {
      EXPECT_EQ(Xpath(p.xml(), "string(" + LocalPath(what[1]) + ")"), want);
    } else if (what[0] == "count") {
      EXPECT_EQ(Xpath(p.xml(), "count(" + LocalPath(what[1]) + ")"), want);
    } else if (what[0] == "arch") {
      std::string attrs = Xpath(p.xml(), "//*[local-name()='component']/@processorArchitecture");
      std::string seen;
      for (const std::string &a : Split(attrs, "\n")) {
        seen +=
            (seen.empty() ? "" : ",") + testing_support::Replace(Split(a, "\"").at(1), "\"", "");
      }
      EXPECT_EQ(seen, want);
    } else if (what[0] == "commands") {
      std::vector<std::string> lines = Split(want, " | ");
      EXPECT_EQ(Xpath(p.xml(), "count(" + LocalPath("SynchronousCommand") + ")"),
                std::to_string(lines.size()));
      for (size_t i = 0; i < lines.size(); i++) {
        std::string command = LocalPath("SynchronousCommand") + "[" + std::to_string(i + 1) + "]";
        EXPECT_EQ(Xpath(p.xml(), "string(" + command + "/*[local-name()='CommandLine'])"),
                  Trim(lines[i]));
        EXPECT_EQ(Xpath(p.xml(), "string(" + command + "/*[local-name()='Order'])"),
                  std::to_string(i + 1));
        EXPECT_EQ(Xpath(p.xml(), "string(" + command + "/@*[local-name()='action'])"), "add");
      }
    } else if (what[0] == "ini") {
      EXPECT_EQ(PythonIni(p.winnt(), what[1], what[2]), want);
    } else if (what[0] == "store") {
      EXPECT_EQ(PythonIni(p.storePwd(), what[1], what[2]), want);
    } else {
      ADD_FAILURE() << "unknown check";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Table, WindowsAnswerTest,
                         ::testing::ValuesIn(ReadTsv("windows/answers.tsv", 10)), TsvRowNamer());

std::string Iconv(const std::string &text, const std::string &to) {
  TempDir dir;
  WriteFile(dir / "in", text);
  auto r = RunCommand({"iconv", "-f", "UTF-8", "-t", to, (dir / "in").string()});
  EXPECT_EQ(r.exitCode, 0) << r.output;
  return r.output;
}

// The raw bytes of a key's value in winnt.sif, as setup reads them.
std::string RawValue(const fs::path &winnt, const std::string &key) {
  for (const std::string &line : Split(ReadFile(winnt), "\n")) {
    std::string t = Trim(line);
    if (t.rfind(key + "=", 0) == 0) {
      return t.substr(key.size() + 1);
    }
  }
  return "<missing>";
}

class WindowsCodePageTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(WindowsCodePageTest, TextFileInCodePageXmlInUtf8) {
  const auto &c = GetParam().cells;
  gZoneIndex = -1;
  gZoneName.clear();
  LogCapture log;
  Prepared p;
  Prepare(p, "windows9-64", "WINDOWS_10_PLAIN", c[1], "Windows 10 Pro", c[3], c[4], "-");
  ASSERT_TRUE(p.ok);
  std::string name = c[2] == "-" ? c[3] : Iconv(c[3], c[2]);
  std::string password = c[2] == "-" ? Iconv(c[4], "CP1252") : Iconv(c[4], c[2]);
  if (c[2] == "-" && c[1] == "Japanese") {
    password = Iconv(c[4], "CP932");
  }
  EXPECT_EQ(RawValue(p.winnt(), "FullName"), "\"" + name + "\"");
  EXPECT_EQ(RawValue(p.winnt(), "AdminPassword"), "\"" + password + "\"");
  EXPECT_EQ(Xpath(p.xml(), "string(" + LocalPath("LocalAccount/Name") + ")"), c[3]);
  std::vector<std::string> want;
  if (c[5] != "-") {
    want.push_back("AutoInstall_PrepareAnswerFileEx: Failed to perform conversion from UTF-8 to " +
                   c[5] + "\n");
  }
  EXPECT_EQ(log.lines(), want);
}

INSTANTIATE_TEST_SUITE_P(Table, WindowsCodePageTest,
                         ::testing::ValuesIn(ReadTsv("windows/codepages.tsv", 6)), TsvRowNamer());

// Failures stop at their step with its one line; texts that would add a
// line to winnt.sif are refused there.
TEST(WindowsAnswer, FailuresLogTheirStep) {
  TempDir bad;
  WriteFile(bad / "broken.sif", "[UserData\nFullName=x\n");
  WriteFile(bad / "broken.xml", std::string("<unattend>\0</unattend>", 22));
  WriteFile(bad / "broken-store.ini", "[Autologon\n");
  WriteFile(bad / "huge.sif", "[UserData]\n" + std::string(10 << 20, 'x'));
  gZoneIndex = -1;
  struct Case {
    std::string key, name, password, xml, winnt, store, line;
  } cases[] = {
      {"winXPProX", "J", "", "", "", "", "GuestOS_IsWin failed for guestID winXPProX\n"},
      {"rhel8-64", "J", "", "", "", "", "GuestOS_IsWin failed for guestID rhel8-64\n"},
      {"windows9-64", "J", "", (bad / "none.xml").string(), "", "",
       "File_Copy from=\"" + (bad / "none.xml").string() + "\" to=\"<dir>/autoun~0.xml\"\n"},
      {"windows9-64", "J", "", "", (bad / "broken.sif").string(), "",
       "IniUtil_WriteIniFileString unattendFilePath=\"<dir>/winnt.sif\", FullName=\"J\"\n"},
      {"windows9-64", "J", "", "", (bad / "huge.sif").string(), "",
       "IniUtil_WriteIniFileString unattendFilePath=\"<dir>/winnt.sif\", FullName=\"J\"\n"},
      {"windows9-64", "Jane\n[GuiRunOnce]", "", "", "", "",
       "IniUtil_WriteIniFileString unattendFilePath=\"<dir>/winnt.sif\", FullName=\"Jane\n"
       "[GuiRunOnce]\"\n"},
      {"windows9-64", "J", "pw", "", "", (bad / "broken-store.ini").string(),
       "IniUtil_WriteIniFileString storePwdIniPath=\"<dir>/storePwd.ini\""},
      {"windows9-64", "J", "", (bad / "broken.xml").string(), "", "", ""},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.line);
    TempDir dir;
    LogCapture log;
    fs::path xml = k.xml.empty() ? kTemplates / "autounattend.xml" : fs::path(k.xml);
    fs::path winnt = k.winnt.empty() ? kTemplates / "winnt.sif" : fs::path(k.winnt);
    fs::path store = k.store.empty() ? kTemplates / "storePwd.ini" : fs::path(k.store);
    EXPECT_FALSE(autoinstall::PrepareWindowsAnswerFiles(
        winnt.c_str(), xml.c_str(), store.c_str(), k.name.c_str(), k.password.c_str(),
        k.key.c_str(), GUESS_VERSION_UNKNOWN, dir.str().c_str(), "", "Windows 10 Pro", false, false,
        TestZone));
    std::vector<std::string> want;
    if (!k.line.empty()) {
      want.push_back("AutoInstall_PrepareAnswerFileEx: " +
                     testing_support::Replace(k.line, "<dir>", dir.str()));
    }
    EXPECT_EQ(log.lines(), want);
  }
}

// Commands follow the template's last order in document order; a template
// without first-logon commands gets none and still succeeds.
TEST(WindowsAnswer, CommandOrdersFollowTheLastOne) {
  std::string xml = ReadFile(kTemplates / "autounattend.xml");
  TempDir dir;
  std::string three = xml;
  three = testing_support::Replace(
      three, "<Description>Copy the setup script from the floppy</Description>\n          <Order>1",
      "<Description>Copy the setup script from the floppy</Description>\n          <Order>3");
  WriteFile(dir / "three.xml", three);
  std::string none = xml.substr(0, xml.find("<FirstLogonCommands>")) +
                     xml.substr(xml.find("</FirstLogonCommands>") + 21);
  WriteFile(dir / "none.xml", none);
  gZoneIndex = -1;

  Prepared p3;
  Prepare(p3, "windows9-64", "WINDOWS_10_PLAIN", "", "Windows 10 Pro", "J", "", "-",
          dir / "three.xml");
  ASSERT_TRUE(p3.ok);
  EXPECT_EQ(
      Xpath(p3.xml(), "string(" + LocalPath("SynchronousCommand") + "[4]/*[local-name()='Order'])"),
      "6");
  Prepared p0;
  Prepare(p0, "windows9-64", "WINDOWS_10_PLAIN", "", "Windows 10 Pro", "J", "pw", "-",
          dir / "none.xml");
  ASSERT_TRUE(p0.ok);
  EXPECT_EQ(Xpath(p0.xml(), "count(" + LocalPath("SynchronousCommand") + ")"), "0");
  EXPECT_EQ(Xpath(p0.xml(), "string(" + LocalPath("AutoLogon/Enabled") + ")"), "true");
}

// The product key reaches both files; the CLI checks its form first.
TEST(WindowsAnswer, ProductKeyInBothFiles) {
  gZoneIndex = -1;
  Prepared p;
  Prepare(p, "windows9-64", "WINDOWS_10_PLAIN", "", "Windows 10 Pro", "J", "", "-");
  ASSERT_TRUE(p.ok);
  const char *key = "AAAAA-BBBBB-CCCCC-DDDDD-EEEEE";
  ASSERT_TRUE(autoinstall::SetWindowsProductKey(p.dir.str().c_str(), key));
  EXPECT_EQ(PythonIni(p.winnt(), "UserData", "ProductKey"), "\"" + std::string(key) + "\"");
  EXPECT_EQ(Xpath(p.xml(), "string(" + LocalPath("ProductKey/Key") + ")"), key);
  EXPECT_EQ(RunCommand({"xmllint", "--noout", p.xml().string()}).output, "");
}

}  // namespace
