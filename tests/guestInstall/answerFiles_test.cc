// Preseed, AutoYaST and Mandriva answer files: every variant the writer
// tells apart, written end to end and compared with its record in
// tests/data/answers/; then each file through the program that reads it
// (debconf into a scratch database, bash -n, xmllint, perl) with its
// password hashes through libcrypt's crypt(); and hostile texts read back
// by those same programs.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "guestInstall/answerFileSupport.h"
#include "guestprep/autoinstall.h"
#include "support/testSupport.h"

namespace {

using namespace answer_file_support;
using testing_support::RunCommand;
using testing_support::WriteFile;

// The fields of a reader's output, each ended by a NUL.
std::vector<std::string> Fields(const std::string &text) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1) {
    fields.push_back(text.substr(start, end - start));
  }
  return fields;
}

/* Readers */

// Checks and loads a preseed file into a scratch debconf database, as the
// installer loads it, and reads the named answers back as debconf has
// them. The system's own database is never touched.
std::map<std::string, std::string> DebconfAnswers(const fs::path &preseed,
                                                  const std::vector<std::string> &names) {
  TempDir db;
  const fs::path conf = db / "debconf.conf";
  WriteFile(conf,
            "Config: configdb\nTemplates: templatedb\n\n"
            "Name: configdb\nDriver: File\nFilename: " +
                (db / "config.dat").string() + "\n\nName: templatedb\nDriver: File\nFilename: " +
                (db / "templates.dat").string() + "\n");
  const std::string rc = "DEBCONF_SYSTEMRC=" + conf.string();
  // Even --checkonly opens the database: a scratch one, so parallel runs
  // do not wait on the system's lock.
  const auto check =
      RunCommand({"env", rc, "debconf-set-selections", "--checkonly", preseed.string()});
  EXPECT_EQ(check.exitCode, 0) << check.output;
  EXPECT_EQ(check.output, "");
  const auto load = RunCommand({"env", rc, "debconf-set-selections", preseed.string()});
  EXPECT_EQ(load.exitCode, 0) << load.output;
  EXPECT_EQ(load.output, "");

  const std::string readBack =
      "Debconf::Db->load(readonly => 'true'); for (@ARGV) {"
      " my $q = Debconf::Question->get($_) or die \"no question $_\\n\";"
      " print $q->value // '', \"\\0\" }";
  std::vector<std::string> argv = {"env", rc, "perl", "-MDebconf::Db", "-e", readBack};
  argv.insert(argv.end(), names.begin(), names.end());
  const auto read = RunCommand(argv);
  const auto values = Fields(read.output);
  EXPECT_TRUE(read.exitCode == 0 && values.size() == names.size()) << read.output;
  std::map<std::string, std::string> answers;
  for (size_t i = 0; i < names.size() && i < values.size(); ++i) {
    answers[names[i]] = values[i];
  }
  return answers;
}

// The string value of an XPath expression over an XML file, as xmllint
// reads it.
std::string XPathString(const fs::path &xml, const std::string &expr) {
  const auto r = RunCommand({"xmllint", "--xpath", "string(" + expr + ")", xml.string()});
  EXPECT_EQ(r.exitCode, 0) << expr << ": " << r.output;
  std::string out = r.output;
  if (!out.empty() && out.back() == '\n') {
    out.pop_back();  // xmllint ends its answer with a newline
  }
  return out;
}

// The profile's elements sit in the AutoYaST namespace; address them by
// local name.
std::string El(const std::string &name) {
  return "*[local-name()='" + name + "']";
}

/* Checks each format's readers make */

// debconf loads every line and gives back the account: the full name with
// the backslash the writer puts before a double quote, and two blanks in
// front (debconf keeps every blank after the one that ends the type). The
// script ubiquity and debian-installer run is the same for both and
// parses, as does the rc.local it composes.
void CheckPreseed(const fs::path &file, const Texts &t) {
  const std::vector<std::string> names = {"passwd/user-fullname", "passwd/username",
                                          "passwd/user-password-crypted",
                                          "ubiquity/success_command", "preseed/late_command"};
  auto a = DebconfAnswers(file, names);
  ASSERT_EQ(a.size(), names.size());
  std::string quoted;
  for (char c : t.fullName) {
    quoted += c == '"' ? std::string("\\\"") : std::string(1, c);
  }
  EXPECT_EQ(a["passwd/user-fullname"], "  " + quoted);
  EXPECT_EQ(a["passwd/username"], std::string("  ") + kUser);
  ExpectHashOf(a["passwd/user-password-crypted"], t.userPassword);

  const std::string &script = a["ubiquity/success_command"];
  EXPECT_EQ(script, a["preseed/late_command"]);
  EXPECT_EQ(script.find('\n'), std::string::npos) << "debconf gives the script as one line";
  ExpectSyntax("bash", script, "success command");

  static const std::regex rcLocalLine(R"(echo '([^']*)' >> /target/etc/rc\.local)");
  std::string rcLocal;
  for (std::sregex_iterator it(script.begin(), script.end(), rcLocalLine), end; it != end; ++it) {
    rcLocal += (*it)[1].str() + "\n";
  }
  EXPECT_NE(rcLocal.find("rm -rf /opt/brimle-tools-installer"), std::string::npos) << script;
  ExpectSyntax("bash", rcLocal, "first-boot rc.local");
}

// Well-formed XML that gives back the typed full name, "]]>" and markup
// included, whose users carry verifiable hashes and whose scripts parse.
void CheckAutoYast(const fs::path &file, const Texts &t) {
  const auto lint = RunCommand({"xmllint", "--noout", file.string()});
  EXPECT_EQ(lint.exitCode, 0) << lint.output;
  EXPECT_EQ(lint.output, "");

  const std::string users =
      "/" + El("profile") + "/" + El("configure") + "/" + El("users") + "/" + El("user");
  const std::string root = users + "[1]/", user = users + "[2]/";
  EXPECT_EQ(XPathString(file, root + El("username")), "root");
  ExpectHashOf(XPathString(file, root + El("user_password")), t.rootPassword);
  EXPECT_EQ(XPathString(file, user + El("username")), kUser);
  ExpectHashOf(XPathString(file, user + El("user_password")), t.userPassword);
  EXPECT_EQ(XPathString(file, user + El("forename")), t.fullName);

  const int scripts = std::stoi(XPathString(file, "count(//" + El("script") + ")"));
  EXPECT_GE(scripts, 1);
  for (int i = 1; i <= scripts; ++i) {
    const std::string source =
        XPathString(file, "(//" + El("script") + ")[" + std::to_string(i) + "]/" + El("source"));
    EXPECT_EQ(source.rfind("#!/bin/sh\n", 0), 0u) << source;
    ExpectSyntax("bash", source, "profile script " + std::to_string(i));
  }
}

// perl -cw accepts it silently. Evaluated as the installer evaluates it,
// in an empty directory that must stay empty, it holds the typed texts
// themselves and a post-install script that parses.
void CheckMandriva(const fs::path &file, const Texts &t) {
  const auto check = RunCommand({"perl", "-cw", file.string()});
  EXPECT_EQ(check.exitCode, 0) << check.output;
  EXPECT_EQ(check.output, file.string() + " syntax OK\n");

  TempDir scratch;
  const auto r =
      RunCommand({"perl", "-e",
                  "our $o; my ($file, $dir) = @ARGV; chdir $dir or die;"
                  "defined(do $file) or die \"evaluation failed: \", $@ || $!;"
                  "print $_ // '', \"\\0\" for $o->{users}[0]{realname}, $o->{users}[0]{password},"
                  " $o->{superuser}{password}, $o->{postInstall};",
                  file.string(), scratch.str()});
  EXPECT_TRUE(fs::is_empty(scratch.path())) << "evaluating the file ran a command";
  const auto values = Fields(r.output);
  ASSERT_TRUE(r.exitCode == 0 && values.size() == 4) << r.output;
  EXPECT_EQ(values[0], t.fullName);
  EXPECT_EQ(values[1], t.userPassword);
  EXPECT_EQ(values[2], t.rootPassword);
  ExpectSyntax("bash", values[3], "postInstall");
}

void CheckWithReaders(const fs::path &file, const std::string &osKey, const Texts &t) {
  const LinuxInstallFamily family = AutoInstallGetLinuxFamily(osKey.c_str());
  if (family == LINUX_FAMILY_UBUNTU) {
    CheckPreseed(file, t);
  } else if (family == LINUX_FAMILY_MANDRIVA) {
    CheckMandriva(file, t);
  } else {
    CheckAutoYast(file, t);
  }
}

/* Every variant */

class AnswerFileVariantTest : public ::testing::TestWithParam<Variant> {};

TEST_P(AnswerFileVariantTest, EveryReleaseWritesTheRecord) {
  const Variant &v = GetParam();
  for (const Release &r : v.releases) {
    SCOPED_TRACE(r.osKey + " version " + std::to_string(r.version));
    TempDir dir;
    const auto file = Write(dir, r.osKey, r.version, {}, v.powerOff, v.nvme);
    ASSERT_TRUE(file);
    ExpectMatchesRecord(*file, v.record);
  }
}

TEST_P(AnswerFileVariantTest, ReadersAcceptIt) {
  const Release &r = GetParam().releases[0];
  TempDir dir;
  const auto file = Write(dir, r.osKey, r.version, {}, GetParam().powerOff, GetParam().nvme);
  ASSERT_TRUE(file);
  CheckWithReaders(*file, r.osKey, {});
}

INSTANTIATE_TEST_SUITE_P(Releases, AnswerFileVariantTest,
                         ::testing::ValuesIn(ReadVariants("variants.tsv")),
                         [](const auto &info) { return RecordTestName(info.param.record); });

/* Hostile texts */

class AnswerFileHostileTest : public ::testing::TestWithParam<Hostile> {};

// Each format's reader gets back what was typed: perl the full name and
// both passwords, xmllint and debconf the full name; the hashes of the
// passwords verify. Passwords stop short of the 512 bytes the guests'
// crypt() checks.
TEST_P(AnswerFileHostileTest, ReadersGetBackTheTypedTexts) {
  const Hostile &h = GetParam();
  Texts t;
  t.fullName = h.isName ? h.text : t.fullName;
  t.userPassword = h.text.substr(0, 500);
  t.rootPassword = "root " + h.text.substr(0, 500);
  // Both AutoYaST profiles: the classic one and the reporting one.
  const Release releases[] = {{"mandriva", GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER},
                              {"sles11-64", GUESS_VERSION_UNKNOWN},
                              {"sles12-64", GUESS_VERSION_UNKNOWN},
                              {"ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004}};
  for (const Release &r : releases) {
    SCOPED_TRACE(r.osKey);
    TempDir dir;
    const auto file = Write(dir, r.osKey, r.version, t);
    // debconf would join the next answer onto a full-name line that ends
    // in a backslash; there is no escape for that, so the writer refuses
    // the name and leaves no file.
    if (AutoInstallGetLinuxFamily(r.osKey.c_str()) == LINUX_FAMILY_UBUNTU &&
        t.fullName.ends_with('\\')) {
      EXPECT_FALSE(file);
      EXPECT_FALSE(fs::exists(AnswerPath(dir, r.osKey)));
      continue;
    }
    ASSERT_TRUE(file);
    CheckWithReaders(*file, r.osKey, t);
  }
}

INSTANTIATE_TEST_SUITE_P(Texts, AnswerFileHostileTest, ::testing::ValuesIn(HostileTexts()),
                         [](const auto &info) { return std::string(info.param.label); });

}  // namespace
