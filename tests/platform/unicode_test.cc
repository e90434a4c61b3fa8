// Code-page conversion: every converted text is compared byte for byte with
// what the iconv program writes for the same code page, and read back with
// Python's Windows code-page tables, an implementation of its own, to show
// Windows sees the same text. Texts a code page cannot hold give null.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/unicode/unicode.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace {

using testing_support::Hex;
using testing_support::ReadTsv;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::Unescape;
using testing_support::WriteFile;

// The converted bytes up to the terminator (a two-byte one in UTF-16),
// freed; "<null>" for none.
std::string TakeBytes(char *bytes, StringEncoding enc) {
  if (bytes == nullptr) {
    return "<null>";
  }
  size_t size = 0;
  if (enc == STRING_ENCODING_UTF16_LE) {
    while (bytes[size] != '\0' || bytes[size + 1] != '\0') {
      size += 2;
    }
  } else {
    size = strlen(bytes);
  }
  std::string out(bytes, size);
  free(bytes);
  return out;
}

// The iconv program's conversion of text, or "<exit N> message".
std::string IconvProgram(const TempDir &dir, const std::string &text, const std::string &to) {
  const auto input = dir / "in.txt";
  WriteFile(input, text);
  auto result = RunCommand({"iconv", "-f", "UTF-8", "-t", to, input.string()}, 60);
  return result.exitCode == 0 ? result.output
                              : "<exit " + std::to_string(result.exitCode) + "> " + result.output;
}

// The bytes as the Windows code page codec (Python's table) reads them, or
// "<exit N> message".
std::string WindowsReading(const TempDir &dir, const std::string &bytes, const std::string &codec) {
  const auto file = dir / "out.bin";
  WriteFile(file, bytes);
  auto result = RunCommand({"python3", "-I", "-S", "-c",
                            "import sys; data = open(sys.argv[1], 'rb').read(); "
                            "sys.stdout.buffer.write(data.decode(sys.argv[2]).encode('utf-8'))",
                            file.string(), codec},
                           60);
  return result.exitCode == 0 ? result.output
                              : "<exit " + std::to_string(result.exitCode) + "> " + result.output;
}

class UnicodeConvertTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(UnicodeConvertTest, MatchesIconvProgram) {
  const auto &c = GetParam().cells;
  const auto enc = static_cast<StringEncoding>(std::stol(c[1]));

  const std::string ours = TakeBytes(Unicode_GetAllocBytes(c[4].c_str(), enc), enc);

  TempDir dir;
  const std::string theirs = IconvProgram(dir, c[4], c[2]);
  EXPECT_EQ(Hex(ours), Hex(theirs)) << theirs;
}

TEST_P(UnicodeConvertTest, WindowsCodePageReadsTextBack) {
  const auto &c = GetParam().cells;
  const auto enc = static_cast<StringEncoding>(std::stol(c[1]));
  const std::string ours = TakeBytes(Unicode_GetAllocBytes(c[4].c_str(), enc), enc);
  ASSERT_NE(ours, "<null>");

  TempDir dir;
  EXPECT_EQ(WindowsReading(dir, ours, c[3]), c[4]);
}

INSTANTIATE_TEST_SUITE_P(Table, UnicodeConvertTest,
                         ::testing::ValuesIn(ReadTsv("unicode/names.tsv", 5)), TsvRowNamer());

class UnicodeRefuseTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(UnicodeRefuseTest, GivesNull) {
  const auto &c = GetParam().cells;
  const auto enc = static_cast<StringEncoding>(std::stol(c[1]));
  const std::string text = Unescape(c[3]);

  EXPECT_EQ(TakeBytes(Unicode_GetAllocBytes(text.c_str(), enc), enc), "<null>");

  // Where iconv itself converts the text, Windows would read back something
  // else: the row is there for the check iconv does not make.
  if (c[2] != "-") {
    TempDir dir;
    const std::string theirs = IconvProgram(dir, text, c[2]);
    ASSERT_EQ(theirs.find("<exit"), std::string::npos) << theirs;
    EXPECT_NE(WindowsReading(dir, theirs, c[2]), text);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, UnicodeRefuseTest,
                         ::testing::ValuesIn(ReadTsv("unicode/unconvertible.tsv", 4)),
                         TsvRowNamer());

class UnicodeNameTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(UnicodeNameTest, NameIsStableAndKnownToIconv) {
  const auto &c = GetParam().cells;
  const std::string name = Unicode_EncodingEnumToName(static_cast<StringEncoding>(std::stol(c[0])));
  EXPECT_EQ(name, c[1]);
  if (name != "UNKNOWN") {
    TempDir dir;
    EXPECT_EQ(IconvProgram(dir, "A", name).substr(0, 1), "A") << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Table, UnicodeNameTest,
                         ::testing::ValuesIn(ReadTsv("unicode/encodings.tsv", 2)), TsvRowNamer());

TEST(UnicodeTest, NullTextGivesNull) {
  EXPECT_EQ(Unicode_GetAllocBytes(nullptr, STRING_ENCODING_UTF8), nullptr);
  EXPECT_EQ(Unicode_GetAllocBytes(nullptr, STRING_ENCODING_SHIFT_JIS), nullptr);
}

// 10 MiB of Japanese name text, converted to code page 932 and compared
// with the iconv program; and 10 MiB of ASCII, whose UTF-16 form is twice
// the input.
TEST(UnicodeTest, TenMebibyteTextsConvert) {
  const std::string unit = "山田 太郎, 髙橋 一郎; ";
  std::string japanese;
  while (japanese.size() < (10u << 20)) {
    japanese += unit;
  }
  const std::string ours =
      TakeBytes(Unicode_GetAllocBytes(japanese.c_str(), STRING_ENCODING_SHIFT_JIS),
                STRING_ENCODING_SHIFT_JIS);
  TempDir dir;
  const std::string theirs = IconvProgram(dir, japanese, "CP932");
  ASSERT_GT(theirs.size(), 6u << 20);
  EXPECT_TRUE(ours == theirs) << "sizes " << ours.size() << " and " << theirs.size();

  const std::string ascii(10u << 20, 'a');
  const std::string wide = TakeBytes(Unicode_GetAllocBytes(ascii.c_str(), STRING_ENCODING_UTF16_LE),
                                     STRING_ENCODING_UTF16_LE);
  ASSERT_EQ(wide.size(), ascii.size() * 2);
  EXPECT_EQ(wide.substr(wide.size() - 4), std::string("a\0a\0", 4));
}

}  // namespace
