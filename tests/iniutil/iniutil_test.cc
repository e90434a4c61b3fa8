// INI reader and writer against answer-file-like samples: every expectation
// is a row of tests/data/ini/*.tsv or an expected file, and what the writer
// wrote is read back by Python's configparser where the two formats agree.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <string>

#include "guestprep/iniutil.h"
#include "platform/file/fileIO.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::DataDir;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::WriteFile;

constexpr char kUnchanged[] = "<unchanged>";

// "x{N}" stands for N times x, so long values fit a table cell.
std::string Expand(const std::string &cell) {
  static const std::regex repeat("^(.)\\{([0-9]+)\\}$");
  std::smatch m;
  if (std::regex_match(cell, m, repeat)) {
    return std::string(std::stoul(m[2].str()), m[1].str()[0]);
  }
  return testing_support::Replace(testing_support::Replace(cell, "\\n", "\n"), "\\r", "\r");
}

// A scratch copy of a sample, so the writer may change it.
fs::path CopySample(const TempDir &dir, const std::string &name) {
  fs::path src = DataDir() / "ini" / name;
  fs::path dst = dir / name;
  if (fs::exists(src)) {
    fs::copy_file(src, dst);
  }
  return dst;
}

// configparser's reading of one value, or its error output.
std::string PythonRead(const fs::path &file, const std::string &section, const std::string &key) {
  fs::path script = DataDir().parent_path() / "scripts" / "ini_read.py";
  auto result = RunCommand({"python3", script.string(), file.string(), section, key}, 60);
  return result.exitCode == 0 ? result.output
                              : "<exit " + std::to_string(result.exitCode) + "> " + result.output;
}

class IniReadTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(IniReadTest, ReadsValue) {
  const auto &c = GetParam().cells;
  const std::string path = (DataDir() / "ini" / c[1]).string();
  const int32_t size = std::stoi(c[4]);
  std::string buf(4096, '\0');
  snprintf(buf.data(), buf.size(), "%s", kUnchanged);
  // Bytes past the given size must stay untouched.
  buf[std::max(size, int32_t(0)) + 100] = '#';

  bool ok = IniUtil_GetIniFileString(path.c_str(), c[2].c_str(), c[3].c_str(), buf.data(), size);

  EXPECT_EQ(ok, c[5] == "1");
  EXPECT_EQ(std::string(buf.c_str()), Expand(c[6]));
  EXPECT_EQ(buf[std::max(size, int32_t(0)) + 100], '#');
}

INSTANTIATE_TEST_SUITE_P(Table, IniReadTest, ::testing::ValuesIn(ReadTsv("ini/read.tsv", 7)),
                         TsvRowNamer());

class IniReadIntTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(IniReadIntTest, ReadsInteger) {
  const auto &c = GetParam().cells;
  const std::string path = (DataDir() / "ini" / c[1]).string();
  int32_t value = 12345;

  bool ok = IniUtil_GetIniFileInt(path.c_str(), c[2].c_str(), c[3].c_str(), &value);

  EXPECT_EQ(ok, c[4] == "1");
  EXPECT_EQ(value, std::stol(c[5]));
}

INSTANTIATE_TEST_SUITE_P(Table, IniReadIntTest, ::testing::ValuesIn(ReadTsv("ini/readint.tsv", 6)),
                         TsvRowNamer());

class IniWriteTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(IniWriteTest, WritesFile) {
  const auto &c = GetParam().cells;
  TempDir dir;
  const fs::path file = CopySample(dir, c[1]);
  const std::string before = fs::exists(file) ? ReadFile(file) : "";
  const std::string value = Expand(c[4]);

  bool ok;
  if (value.rfind("int:", 0) == 0) {
    ok = IniUtil_WriteIniFileInt(file.c_str(), c[2].c_str(), c[3].c_str(),
                                 std::stoi(value.substr(4)));
  } else {
    ok = IniUtil_WriteIniFileString(file.c_str(), Expand(c[2]).c_str(), Expand(c[3]).c_str(),
                                    value.c_str(), c[5] == "1");
  }

  EXPECT_EQ(ok, c[6] == "1");
  if (c[7] == "absent") {
    EXPECT_FALSE(fs::exists(file));
  } else if (c[7] == "=") {
    EXPECT_EQ(ReadFile(file), before);
  } else {
    EXPECT_EQ(ReadFile(file), ReadFile(DataDir() / "ini" / "expected" / c[7]));
  }
  // Nothing left beside the file: no temporary from the replacement.
  size_t entries = std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator());
  EXPECT_EQ(entries, fs::exists(file) ? 1u : 0u);
  if (c[8] != "-") {
    EXPECT_EQ(PythonRead(file, c[2], c[3]), Expand(c[8]));
  }
}

INSTANTIATE_TEST_SUITE_P(Table, IniWriteTest, ::testing::ValuesIn(ReadTsv("ini/write.tsv", 9)),
                         TsvRowNamer());

class IniLimitTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(IniLimitTest, SizeLimit) {
  const auto &c = GetParam().cells;
  TempDir dir;
  std::string text = "[S]\n";
  const size_t prefix = std::stoul(c[1]);
  while (text.size() < prefix) {
    size_t line = std::min<size_t>(prefix - text.size(), 1000);
    // Comment lines of two bytes at least, so the last one is never a bare "\n".
    if (prefix - text.size() - line == 1) {
      line--;
    }
    text += ";" + std::string(line - 2, 'c') + "\n";
  }
  ASSERT_EQ(text.size(), prefix);
  text += testing_support::Replace(c[2], "\\n", "\n");
  const fs::path file = dir / "big.ini";
  WriteFile(file, text);

  bool ok = IniUtil_WriteIniFileString(file.c_str(), "S", c[3].c_str(), "v", false);

  ASSERT_EQ(ok, c[4] == "1");
  if (ok) {
    char buf[16] = "";
    EXPECT_TRUE(IniUtil_GetIniFileString(file.c_str(), "S", c[3].c_str(), buf, sizeof buf));
    EXPECT_STREQ(buf, "v");
    EXPECT_EQ(PythonRead(file, "S", c[3]), "v");
  } else {
    EXPECT_EQ(ReadFile(file), text);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, IniLimitTest, ::testing::ValuesIn(ReadTsv("ini/limit.tsv", 5)),
                         TsvRowNamer());

TEST(IniWriteReplaceTest, KeepsModeAndOldFileUntilRename) {
  TempDir dir;
  const fs::path file = CopySample(dir, "plain.ini");
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  static std::string seenFinal, seenTemp;
  FileIO_SetAtomicCommitHook([](const char *tempPath, const char *finalPath) {
    seenFinal = ReadFile(finalPath);
    seenTemp = ReadFile(tempPath);
  });

  bool ok = IniUtil_WriteIniFileString(file.c_str(), "UserData", "ComputerName", "desk-01", false);
  FileIO_SetAtomicCommitHook(nullptr);

  ASSERT_TRUE(ok);
  // Right before the rename the old file is still whole and the new one complete.
  EXPECT_EQ(seenFinal, ReadFile(DataDir() / "ini" / "plain.ini"));
  EXPECT_EQ(seenTemp, ReadFile(DataDir() / "ini" / "expected" / "plain_computername.ini"));
  EXPECT_EQ(fs::status(file).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
}

TEST(IniBadInputTest, NullArgumentsAreFalse) {
  const std::string path = (DataDir() / "ini" / "plain.ini").string();
  char buf[8] = "";
  int32_t n = 0;
  EXPECT_FALSE(IniUtil_GetIniFileString(nullptr, "UserData", "FullName", buf, sizeof buf));
  EXPECT_FALSE(IniUtil_GetIniFileString(path.c_str(), nullptr, "FullName", buf, sizeof buf));
  EXPECT_FALSE(IniUtil_GetIniFileString(path.c_str(), "UserData", nullptr, buf, sizeof buf));
  EXPECT_FALSE(IniUtil_GetIniFileString(path.c_str(), "UserData", "FullName", nullptr, 8));
  EXPECT_FALSE(IniUtil_GetIniFileInt(path.c_str(), "GuiUnattended", "TimeZone", nullptr));
  EXPECT_FALSE(IniUtil_GetIniFileInt(nullptr, "GuiUnattended", "TimeZone", &n));
  EXPECT_FALSE(IniUtil_WriteIniFileString(path.c_str(), "A", "B", nullptr, false));
  EXPECT_FALSE(IniUtil_WriteIniFileString(nullptr, "A", "B", "C", false));
  EXPECT_FALSE(IniUtil_WriteIniFileInt(path.c_str(), nullptr, "B", 1));
}

TEST(IniBadInputTest, DirectoryIsNotAFile) {
  TempDir dir;
  char buf[8] = "keep";
  EXPECT_FALSE(IniUtil_GetIniFileString(dir.str().c_str(), "A", "B", buf, sizeof buf));
  EXPECT_STREQ(buf, "keep");
  EXPECT_FALSE(IniUtil_WriteIniFileString(dir.str().c_str(), "A", "B", "C", false));
  EXPECT_TRUE(fs::is_directory(dir.path()));
}

}  // namespace
