// Preseed, AutoYaST and Mandriva answer files: every variant the writer
// tells apart, written end to end and compared with its record in
// tests/data/answers/; then each file through the program that reads it
// (debconf into a scratch database, bash -n, xmllint, perl) with its
// password hashes through libcrypt's crypt(); and hostile texts read back
// by those same programs.
//
// The records are the reviewed output. To rewrite them after a deliberate
// change, run the suite with GUESTPREP_REGENERATE=1 in the environment
// (each record test then reports itself skipped) and review the diff.
#include <crypt.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

constexpr char kUser[] = "jdoe";
constexpr char kFullName[] = "John Doe";
constexpr char kUserPassword[] = "user pa$$ 'word'";
constexpr char kRootPassword[] = "r00t \"secret\" @root";

time_t FixedClock(time_t *out) {
  const time_t t = 1700000000;
  if (out != nullptr) {
    *out = t;
  }
  return t;
}

struct Texts {
  std::string fullName = kFullName;
  std::string userPassword = kUserPassword;
  std::string rootPassword = kRootPassword;
};

// Fixes the salt, so the records hold the same hashes on every run.
class AnswerFileTest : public ::testing::Test {
 protected:
  void SetUp() override { autoinstall::SetCryptClockForTesting(FixedClock); }
  void TearDown() override { autoinstall::SetCryptClockForTesting(::time); }

  // Where the family's file lands below the output directory.
  static fs::path AnswerPath(const TempDir &dir, const char *osKey) {
    switch (AutoInstallGetLinuxFamily(osKey)) {
      case LINUX_FAMILY_UBUNTU:
        return dir / "custom/preseed.cfg";
      case LINUX_FAMILY_MANDRIVA:
        return dir / "auto_i~1.cfg";
      default:
        return dir / "autoinst.xml";
    }
  }

  // The written file's path, or nullopt when the writer refused.
  static std::optional<fs::path> Write(const TempDir &dir, const char *osKey, GuessVersion v,
                                       const Texts &t = {}, bool powerOff = false,
                                       bool nvme = false) {
    if (!AutoInstall_PrepareAnswerFileEx_Linux(osKey, v, dir.str().c_str(), kUser,
                                               t.fullName.c_str(), t.userPassword.c_str(),
                                               t.rootPassword.c_str(), powerOff, nvme)) {
      return std::nullopt;
    }
    return AnswerPath(dir, osKey);
  }
};

std::string Hex(const std::string &bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string Unhex(const std::string &hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void ExpectBashSyntax(const std::string &script, const std::string &what) {
  TempDir dir;
  WriteFile(dir / "script.sh", script);
  const auto r = RunCommand({"bash", "-n", (dir / "script.sh").string()});
  EXPECT_EQ(r.exitCode, 0) << what << ":\n" << r.output << "\n" << script;
}

void ExpectHashOf(const std::string &hash, const std::string &password) {
  ASSERT_EQ(hash.rfind("$5$", 0), 0u) << "not a SHA-256 crypt hash: " << hash;
  crypt_data data{};
  const char *again = crypt_r(password.c_str(), hash.c_str(), &data);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(std::string(again), hash) << "the hash does not verify against its password";
}

/* Readers */

// Checks and loads a preseed file into a scratch debconf database, as the installer
// loads it, and reads the named answers back (hex-encoded by perl, so every
// byte comes back as debconf has it). The system's own database is never
// touched. A missing question reads as nullopt.
std::map<std::string, std::optional<std::string>> DebconfAnswers(
    const fs::path &preseed, const std::vector<std::string> &names) {
  TempDir db;
  const fs::path conf = db / "debconf.conf";
  WriteFile(conf,
            "Config: configdb\nTemplates: templatedb\n\n"
            "Name: configdb\nDriver: File\nFilename: " +
                (db / "config.dat").string() +
                "\n\n"
                "Name: templatedb\nDriver: File\nFilename: " +
                (db / "templates.dat").string() + "\n");
  const std::string rc = "DEBCONF_SYSTEMRC=" + conf.string();
  std::map<std::string, std::optional<std::string>> answers;
  // Even --checkonly opens the database: a scratch one, so parallel runs
  // do not wait on the system's lock.
  const auto check =
      RunCommand({"env", rc, "debconf-set-selections", "--checkonly", preseed.string()});
  EXPECT_EQ(check.exitCode, 0) << check.output;
  EXPECT_EQ(check.output, "");
  const auto load = RunCommand({"env", rc, "debconf-set-selections", preseed.string()});
  EXPECT_EQ(load.exitCode, 0) << load.output;
  EXPECT_EQ(load.output, "");
  if (load.exitCode != 0) {
    return answers;
  }
  std::vector<std::string> argv = {"env",
                                   rc,
                                   "perl",
                                   "-MDebconf::Db",
                                   "-e",
                                   "Debconf::Db->load(readonly => 'true');"
                                   "for (@ARGV) { my $q = Debconf::Question->get($_);"
                                   " print $q ? unpack('H*', $q->value // '') : '-', \"\\n\" }"};
  argv.insert(argv.end(), names.begin(), names.end());
  const auto read = RunCommand(argv);
  EXPECT_EQ(read.exitCode, 0) << read.output;
  const auto values = Lines(read.output);
  EXPECT_EQ(values.size(), names.size()) << read.output;
  for (size_t i = 0; i < names.size() && i < values.size(); ++i) {
    answers[names[i]] = values[i] == "-" ? std::nullopt : std::optional(Unhex(values[i]));
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

// What Mandriva's installer gets from the file: perl evaluates it (in an
// empty directory that must stay empty) and hands back the account texts
// and the post-install script.
struct MandrivaValues {
  std::string realname, userPassword, rootPassword, postInstall;
};
std::optional<MandrivaValues> EvaluateMandriva(const fs::path &cfg) {
  TempDir scratch;
  const auto r =
      RunCommand({"perl", "-e",
                  "our $o; my ($file, $dir) = @ARGV; chdir $dir or die;"
                  "defined(do $file) or die \"evaluation failed: \", $@ || $!;"
                  "print unpack('H*', $_ // ''), \"\\n\" for $o->{users}[0]{realname},"
                  " $o->{users}[0]{password}, $o->{superuser}{password}, $o->{postInstall};",
                  cfg.string(), scratch.str()});
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_TRUE(fs::is_empty(scratch.path())) << "evaluating the file ran a command";
  const auto values = Lines(r.output);
  if (r.exitCode != 0 || values.size() != 4) {
    ADD_FAILURE() << r.output;
    return std::nullopt;
  }
  return MandrivaValues{Unhex(values[0]), Unhex(values[1]), Unhex(values[2]), Unhex(values[3])};
}

/* Checks each format's readers make */

// debconf loads every line; the account and the script come back as
// written; ubiquity's and debian-installer's script are the same and both
// parse, as does the rc.local they compose.
void CheckPreseed(const fs::path &file, const Texts &t) {
  const auto a = DebconfAnswers(
      file, {"passwd/user-password-crypted", "ubiquity/success_command", "preseed/late_command"});
  ASSERT_EQ(a.size(), 3u);
  ASSERT_TRUE(a.at("passwd/user-password-crypted") && a.at("ubiquity/success_command") &&
              a.at("preseed/late_command"));
  ExpectHashOf(*a.at("passwd/user-password-crypted"), t.userPassword);

  const std::string &script = *a.at("ubiquity/success_command");
  EXPECT_EQ(script, *a.at("preseed/late_command"));
  EXPECT_EQ(script.find('\n'), std::string::npos) << "debconf gives the script as one line";
  ExpectBashSyntax(script, "success command");

  static const std::regex rcLocalLine(R"(echo '([^']*)' >> /target/etc/rc\.local)");
  std::string rcLocal;
  for (std::sregex_iterator it(script.begin(), script.end(), rcLocalLine), end; it != end; ++it) {
    rcLocal += (*it)[1].str() + "\n";
  }
  EXPECT_NE(rcLocal.find("rm -rf /opt/brimle-tools-installer"), std::string::npos) << script;
  ExpectBashSyntax(rcLocal, "first-boot rc.local");
}

// Well-formed XML whose users carry verifiable hashes and whose scripts
// parse.
void CheckAutoYast(const fs::path &file, const Texts &t) {
  const auto lint = RunCommand({"xmllint", "--noout", file.string()});
  EXPECT_EQ(lint.exitCode, 0) << lint.output;
  EXPECT_EQ(lint.output, "");

  const std::string users = "/" + El("profile") + "/" + El("configure") + "/" + El("users") + "/";
  EXPECT_EQ(XPathString(file, users + El("user") + "[1]/" + El("username")), "root");
  ExpectHashOf(XPathString(file, users + El("user") + "[1]/" + El("user_password")),
               t.rootPassword);
  EXPECT_EQ(XPathString(file, users + El("user") + "[2]/" + El("username")), kUser);
  ExpectHashOf(XPathString(file, users + El("user") + "[2]/" + El("user_password")),
               t.userPassword);

  const int scripts = std::stoi(XPathString(file, "count(//" + El("script") + ")"));
  EXPECT_GE(scripts, 1);
  for (int i = 1; i <= scripts; ++i) {
    const std::string source =
        XPathString(file, "(//" + El("script") + ")[" + std::to_string(i) + "]/" + El("source"));
    EXPECT_EQ(source.rfind("#!/bin/sh\n", 0), 0u) << source;
    ExpectBashSyntax(source, "profile script " + std::to_string(i));
  }
}

// perl -cw accepts it silently; evaluated, it holds the typed texts
// themselves and a post-install script that parses.
void CheckMandriva(const fs::path &file, const Texts &t) {
  const auto check = RunCommand({"perl", "-cw", file.string()});
  EXPECT_EQ(check.exitCode, 0) << check.output;
  EXPECT_EQ(check.output, file.string() + " syntax OK\n");

  const auto values = EvaluateMandriva(file);
  ASSERT_TRUE(values);
  EXPECT_EQ(Hex(values->realname), Hex(t.fullName));
  EXPECT_EQ(Hex(values->userPassword), Hex(t.userPassword));
  EXPECT_EQ(Hex(values->rootPassword), Hex(t.rootPassword));
  ExpectBashSyntax(values->postInstall, "postInstall");
}

void CheckWithReaders(const fs::path &file, const char *osKey, const Texts &t = {}) {
  switch (AutoInstallGetLinuxFamily(osKey)) {
    case LINUX_FAMILY_UBUNTU:
      CheckPreseed(file, t);
      break;
    case LINUX_FAMILY_MANDRIVA:
      CheckMandriva(file, t);
      break;
    default:
      CheckAutoYast(file, t);
      break;
  }
}

/* Every variant */

struct Variant {
  const char *name;
  const char *osKey;
  GuessVersion version;
  bool powerOff;
  bool nvme;
  const char *record;  // under tests/data/answers/
};

const Variant kVariants[] = {
    // Ubuntu: the releases whose tools come from the distribution...
    {"open_server1404", "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_1404, false, false,
     "preseed-open-sda.cfg"},
    {"open_server1410", "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_1410, false, false,
     "preseed-open-sda.cfg"},
    {"open_server1504", "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER, false, false,
     "preseed-open-sda.cfg"},
    {"open_1404", "ubuntu", GUESS_VERSION_UBUNTU_1404, false, false, "preseed-open-sda.cfg"},
    {"open_1410", "ubuntu-64", GUESS_VERSION_UBUNTU_1410, false, false, "preseed-open-sda.cfg"},
    {"open_1504", "ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004, false, false,
     "preseed-open-sda.cfg"},
    {"open_2010", "ubuntu-64", GUESS_VERSION_UBUNTU_2010_OR_HIGHER, false, false,
     "preseed-open-sda.cfg"},
    {"open_nvme", "ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004, false, true,
     "preseed-open-nvme.cfg"},
    {"open_poweroff", "ubuntu-64", GUESS_VERSION_UBUNTU_2010_OR_HIGHER, true, false,
     "preseed-open-sda-poweroff.cfg"},
    // ...and every other value, which takes the tools image.
    {"classic_server810", "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER, false, false,
     "preseed-classic-sda.cfg"},
    {"classic_unknown", "ubuntu", GUESS_VERSION_UNKNOWN, false, false, "preseed-classic-sda.cfg"},
    {"classic_server140402", "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_140402, false, false,
     "preseed-classic-sda.cfg"},
    {"classic_server804", "ubuntu", GUESS_VERSION_UBUNTU_SERVER_804_OR_LOWER, false, false,
     "preseed-classic-sda.cfg"},
    {"classic_704", "ubuntu", GUESS_VERSION_UBUNTU_704_OR_LOWER, false, false,
     "preseed-classic-sda.cfg"},
    {"classic_710", "ubuntu", GUESS_VERSION_UBUNTU_710_OR_HIGHER, false, false,
     "preseed-classic-sda.cfg"},
    {"classic_nvme", "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER, false, true,
     "preseed-classic-nvme.cfg"},
    {"classic_nvme_poweroff", "ubuntu-64", GUESS_VERSION_UBUNTU_710_OR_HIGHER, true, true,
     "preseed-classic-nvme-poweroff.cfg"},
    // SUSE, one row of the release table each; the SLES 10 family mounts
    // the tools image from hda.
    {"sles12_sled", "sles12-64", GUESS_VERSION_SLED_ALL, false, false, "autoyast-sles12-sled.xml"},
    {"sles11_sled", "sles11-64", GUESS_VERSION_SLED_ALL, false, false, "autoyast-sles11-sled.xml"},
    {"sles10_sled", "sles10-64", GUESS_VERSION_SLED_ALL, false, false, "autoyast-sles10-sled.xml"},
    {"opensuse_sled", "opensuse-64", GUESS_VERSION_SLED_ALL, false, false,
     "autoyast-opensuse-sled.xml"},
    {"opensuse_132", "opensuse-64", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER, false, false,
     "autoyast-opensuse-132.xml"},
    {"opensuse_12", "opensuse-64", GUESS_VERSION_OPENSUSE_12, false, false,
     "autoyast-opensuse-12.xml"},
    {"opensuse_other", "opensuse", GUESS_VERSION_UNKNOWN, false, false, "autoyast-opensuse.xml"},
    {"sles12", "sles12-64", GUESS_VERSION_UNKNOWN, false, false, "autoyast-sles12.xml"},
    {"sles11_poweroff", "sles11-64", GUESS_VERSION_UNKNOWN, true, false,
     "autoyast-sles11-poweroff.xml"},
    {"sles10", "sles10-64", GUESS_VERSION_UNKNOWN, false, false, "autoyast-sles10.xml"},
    {"mandriva", "mandriva", GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER, false, false, "mandriva.cfg"},
};

void PrintTo(const Variant &v, std::ostream *os) {
  *os << v.name;
}

class AnswerFileVariantTest : public AnswerFileTest,
                              public ::testing::WithParamInterface<Variant> {};

TEST_P(AnswerFileVariantTest, MatchesRecord) {
  const Variant &v = GetParam();
  TempDir dir;
  const auto file = Write(dir, v.osKey, v.version, {}, v.powerOff, v.nvme);
  ASSERT_TRUE(file);
  const fs::path record = testing_support::DataDir() / "answers" / v.record;

  const char *regenerate = std::getenv("GUESTPREP_REGENERATE");
  if (regenerate != nullptr && std::string(regenerate) == "1") {
    fs::create_directories(record.parent_path());
    WriteFile(record, ReadFile(*file));
    GTEST_SKIP() << "record rewritten: " << record;
  }
  EXPECT_EQ(ReadFile(*file), ReadFile(record)) << "record " << record;
}

TEST_P(AnswerFileVariantTest, ReadersAcceptIt) {
  const Variant &v = GetParam();
  TempDir dir;
  const auto file = Write(dir, v.osKey, v.version, {}, v.powerOff, v.nvme);
  ASSERT_TRUE(file);
  CheckWithReaders(*file, v.osKey);
}

INSTANTIATE_TEST_SUITE_P(Releases, AnswerFileVariantTest, ::testing::ValuesIn(kVariants),
                         [](const auto &info) { return std::string(info.param.name); });

/* Hostile texts */

struct Hostile {
  const char *label;
  std::string text;
  bool isName;  // the writer takes it as a full name too (valid UTF-8, no control character)
};

std::string LongHostileText() {
  const std::string piece = "$HOME @ARGV \"q\" \\ $(touch x) `touch x` ]]> &<> %s ";
  std::string text;
  while (text.size() + piece.size() <= 4096) {
    text += piece;
  }
  return text + std::string(4096 - text.size(), 'x');
}

// Every byte a password may hold that is not text: the C0 controls but
// NUL, DEL, and a carriage return before a line feed.
std::string ControlCharacters() {
  std::string text;
  for (char c = 1; c < 0x20; ++c) {
    text += c;
  }
  return text + "\x7F first\r\nsecond\r";
}

const Hostile kHostile[] = {
    {"perl_variables", "$HOME ${HOME} $0 $$ $_", true},
    {"perl_arrays", "@ARGV @INC @{ARGV} a@b.c", true},
    {"perl_code", "@{[ `touch pwned` ]} ${\\ system('touch pwned') }", true},
    {"double_quotes", "John \"JD\" Doe", true},
    {"backslashes", "C:\\temp \\\\ \\t \\x41 mid\\dle", true},
    {"command_substitution", "$(touch pwned) Doe", true},
    {"backquotes", "`touch pwned` Doe", true},
    {"single_quotes", "O'Brien '' '", true},
    {"cdata_end", "a]]>b ]]]]>> ]]>", true},
    {"markup", "&amp; &<> <![CDATA[ x", true},
    {"printf_conversions", "100%s %d %% %n", true},
    {"utf8", "Zo\xC3\xAB \xC3\x85ngstr\xC3\xB6m \xE6\x9D\x8E", true},
    {"empty", "", true},
    {"long_4KiB", LongHostileText(), true},
    {"not_utf8", "\xFF\xFE\x80 \xC3(", false},
    {"control_characters", ControlCharacters(), false},
};

void PrintTo(const Hostile &h, std::ostream *os) {
  *os << h.label;
}

class AnswerFileHostileTest : public AnswerFileTest, public ::testing::WithParamInterface<Hostile> {
 protected:
  Texts HostileTexts() const {
    const Hostile &h = GetParam();
    Texts t;
    t.fullName = h.isName ? h.text : kFullName;
    // Passwords stop short of the 512 bytes the guests' crypt() checks.
    t.userPassword = h.text.substr(0, 500);
    t.rootPassword = "root " + h.text.substr(0, 500);
    return t;
  }
};

// perl reads back the typed full name and both passwords byte for byte.
TEST_P(AnswerFileHostileTest, MandrivaReadsBackTheTypedTexts) {
  TempDir dir;
  const Texts t = HostileTexts();
  const auto file = Write(dir, "mandriva", GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER, t);
  ASSERT_TRUE(file);
  CheckMandriva(*file, t);
}

// xmllint reads back the typed full name, "]]>" and markup included; the
// hashes of the hostile passwords verify.
TEST_P(AnswerFileHostileTest, AutoYastReadsBackTheTypedName) {
  const Texts t = HostileTexts();
  for (const char *osKey : {"sles11-64", "sles12-64"}) {  // classic and reporting profile
    SCOPED_TRACE(osKey);
    TempDir dir;
    const auto file = Write(dir, osKey, GUESS_VERSION_UNKNOWN, t);
    ASSERT_TRUE(file);
    CheckAutoYast(*file, t);
    EXPECT_EQ(Hex(XPathString(*file, "//" + El("user") + "[2]/" + El("forename"))),
              Hex(t.fullName));
  }
}

// debconf reads back the full name in its own answer and the next answer
// untouched. debconf keeps every blank after the one that ends the type,
// so the aligned lines read back with two blanks in front; a double quote
// comes back with the backslash the writer puts before it.
TEST_P(AnswerFileHostileTest, PreseedKeepsTheNameInItsAnswer) {
  const Texts t = HostileTexts();
  for (GuessVersion v : {GUESS_VERSION_UBUNTU_710_OR_HIGHER, GUESS_VERSION_UBUNTU_1504_TO_2004}) {
    SCOPED_TRACE(v);
    TempDir dir;
    const auto file = Write(dir, "ubuntu-64", v, t);
    ASSERT_TRUE(file);
    CheckPreseed(*file, t);
    const auto a = DebconfAnswers(*file, {"passwd/user-fullname", "passwd/username"});
    ASSERT_TRUE(a.at("passwd/user-fullname") && a.at("passwd/username"));
    std::string quoted;
    for (char c : t.fullName) {
      quoted += c == '"' ? std::string("\\\"") : std::string(1, c);
    }
    EXPECT_EQ(Hex(*a.at("passwd/user-fullname")), Hex("  " + quoted));
    EXPECT_EQ(*a.at("passwd/username"), std::string("  ") + kUser);
  }
}

INSTANTIATE_TEST_SUITE_P(Texts, AnswerFileHostileTest, ::testing::ValuesIn(kHostile),
                         [](const auto &info) { return std::string(info.param.label); });

// debconf would join the next answer onto a full-name line that ends in a
// backslash; there is no escape for that, so the writer refuses the name
// and leaves no file.
TEST_F(AnswerFileTest, PreseedRefusesAFullNameEndingInABackslash) {
  TempDir dir;
  Texts t;
  t.fullName = "John Doe\\";
  EXPECT_FALSE(Write(dir, "ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004, t));
  EXPECT_FALSE(fs::exists(dir / "custom/preseed.cfg"));

  t.fullName = "John \\Doe";  // inside the line it is plain text
  EXPECT_TRUE(Write(dir, "ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004, t));
}

}  // namespace
