#include "platform/util/str.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/testSupport.h"

using namespace testing_support;

namespace {

// Fills dst (size bytes followed by guard bytes) with op; the guard must
// survive.
template <typename Op>
std::string Bounded(size_t size, const char *start, Op op) {
  std::vector<char> buf(size + 16, '\x5a');
  size_t len = std::min(strlen(start), size);
  memcpy(buf.data(), start, len);
  if (len < size) {
    buf[len] = '\0';
  }
  op(buf.data(), size);
  EXPECT_EQ(std::string(16, '\x5a'), std::string(buf.data() + size, 16)) << "wrote past " << size;
  return size == 0 ? "" : std::string(buf.data());
}

TEST(Str, BoundedCopyCatAndFormatTruncateWithinTheField) {
  struct Case {
    const char *start;
    size_t size;
    const char *copy, *cat, *format;
    int formatResult;
  } cases[] = {
      {"ab", 32, "Server 14.4", "abServer 14.4", "Server 14.4", 11},
      {"ab", 12, "Server 14.4", "abServer 14", "Server 14.4", 11},
      {"ab", 11, "Server 14.", "abServer 1", "Server 14.", -1},
      {"abcd", 5, "Serv", "abcd", "Serv", -1},
      {"", 1, "", "", "", -1},
      {"", 0, "", "", "", -1},
      // A destination with no NUL inside its capacity is terminated, not overrun.
      {"qqqqqq", 4, "Ser", "qqq", "Ser", -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.size);
    EXPECT_EQ(c.copy,
              Bounded(c.size, "", [](char *d, size_t n) { Str_Strcpy(d, "Server 14.4", n); }));
    EXPECT_EQ(c.cat,
              Bounded(c.size, c.start, [](char *d, size_t n) { Str_Strcat(d, "Server 14.4", n); }));
    int result = 0;
    EXPECT_EQ(c.format, Bounded(c.size, "", [&](char *d, size_t n) {
                result = Str_Snprintf(d, n, "%s%s.%d", "Server ", "14", 4);
              }));
    EXPECT_EQ(c.formatResult, result);
  }
}

TEST(Str, OnlySprintfLogsTruncationAndAsprintfHasNoLimit) {
  LogCapture capture;
  char small[4];
  EXPECT_EQ(-1, Str_Snprintf(small, sizeof small, "%s", "overflow"));
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_EQ(-1, Str_Sprintf(small, sizeof small, "%s", "overflow"));
  EXPECT_STREQ("ove", small);
  EXPECT_EQ(1u, capture.lines().size());

  std::string big(100000, 'z');
  size_t len = 0;
  char *s = Str_SafeAsprintf(&len, "[%s]%d", big.c_str(), 7);
  EXPECT_EQ("[" + big + "]7", std::string(s));
  EXPECT_EQ(big.size() + 3, len);
  free(s);
}

TEST(StrUtil, PrefixAndSuffixTests) {
  struct Case {
    const char *s, *x;
    bool starts, cstarts, ends, cends;
  } cases[] = {
      {"Red Hat Enterprise Linux 7.9", "Red Hat", true, true, false, false},
      {"openSUSE Leap", "OPENSUSE", false, true, false, false},
      {"isolinux.CFG", ".cfg", false, false, false, true},
      {"ab", "abc", false, false, false, false},
      {"", "", true, true, true, true},
      {nullptr, "a", false, false, false, false},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.starts, StrUtil_StartsWith(c.s, c.x)) << c.x;
    EXPECT_EQ(c.cstarts, StrUtil_CaselessStartsWith(c.s, c.x)) << c.x;
    EXPECT_EQ(c.ends, StrUtil_EndsWith(c.s, c.x)) << c.x;
    EXPECT_EQ(c.cends, StrUtil_CaselessEndsWith(c.s, c.x)) << c.x;
  }
}

TEST(StrUtil, NumberConversionsAcceptOnlyWholeInRangeDecimals) {
  const std::pair<const char *, int32_t> good[] = {
      {"007", 7}, {"+5", 5}, {"-2147483648", INT32_MIN}, {"2147483647", INT32_MAX}};
  for (auto [s, value] : good) {
    int32_t out = 12345;
    EXPECT_TRUE(StrUtil_StrToInt(&out, s)) << s;
    EXPECT_EQ(value, out) << s;
  }
  for (const char *s : {"2147483648", "-2147483649", "99999999999999999999999", "", "-", "12a",
                        " 12", "12 ", "0x10"}) {
    int32_t out = 12345;
    EXPECT_FALSE(StrUtil_StrToInt(&out, s)) << s;
    EXPECT_EQ(12345, out) << s;  // untouched on failure
  }
  uint32_t u = 0;
  EXPECT_TRUE(StrUtil_StrToUint(&u, "4294967295"));
  EXPECT_FALSE(StrUtil_StrToUint(&u, "4294967296"));
  EXPECT_FALSE(StrUtil_StrToUint(&u, "-1"));
  uint64_t u64 = 0;
  EXPECT_TRUE(StrUtil_StrToUint64(&u64, "18446744073709551615"));
  EXPECT_EQ(UINT64_MAX, u64);

  // The prefix reader: digits only, advancing; nothing moves on failure.
  struct Prefix {
    const char *s;
    unsigned value;  // 99: no number
    size_t consumed;
  } prefixes[] = {{"12.3#2", 12, 2},
                  {"4294967295x", UINT_MAX, 10},
                  {"4294967296", 99, 0},
                  {"", 99, 0},
                  {"-1", 99, 0}};
  for (const auto &c : prefixes) {
    unsigned out = 99;
    const char *p = c.s;
    EXPECT_EQ(c.consumed > 0, StrUtil_DecimalStrToUint(&out, &p)) << c.s;
    EXPECT_EQ(c.value, out) << c.s;
    EXPECT_EQ(c.s + c.consumed, p) << c.s;
  }
}

std::vector<std::string> AllTokens(const char *s, const char *delims, unsigned *index) {
  std::vector<std::string> out;
  while (char *t = StrUtil_GetNextToken(index, s, delims)) {
    out.emplace_back(t);
    free(t);
  }
  return out;
}

TEST(StrUtil, TokenIndexRestsOnTheEndingDelimiter) {
  // Callers read the rest of a line themselves after its first word.
  const char *content = "NAME   SUSE SLES\nVERSION 11.4-0\n";
  unsigned index = 0;
  free(StrUtil_GetNextToken(&index, content, " \n"));
  EXPECT_EQ(4u, index);
  index = 24;  // after "VERSION"
  int32_t major = -1, minor = -1;
  EXPECT_TRUE(StrUtil_GetNextIntToken(&major, &index, content, " .\n"));
  EXPECT_EQ(11, major);
  EXPECT_FALSE(StrUtil_GetNextIntToken(&minor, &index, content, " .\n"));  // "4-0"
  EXPECT_EQ(31u, index);
  EXPECT_FALSE(StrUtil_GetNextIntToken(&minor, &index, content, " .\n"));  // none left
  EXPECT_EQ(-1, minor);
  // An index past the end gives nothing and stays; no delimiters, one token.
  for (unsigned start : {8u, 4000000000u}) {
    index = start;
    EXPECT_TRUE(AllTokens("one two", " ", &index).empty());
    EXPECT_EQ(start, index);
  }
  index = 0;
  EXPECT_EQ(std::vector<std::string>{"abc"}, AllTokens("abc", "", &index));
}

// Tokens are exactly what squeezing every delimiter run into one line
// break (tr -s) and dropping empty lines leaves.
TEST(StrUtil, GetNextTokenAgreesWithTr) {
  const char alphabet[] = "ab c.,d\t";
  std::mt19937 rng(7);
  std::vector<std::string> inputs(300);
  std::string joined;
  for (std::string &s : inputs) {
    for (size_t k = rng() % 24; k > 0; --k) {
      s.push_back(alphabet[rng() % (sizeof alphabet - 1)]);
    }
    joined += s + "|";
  }
  TempDir dir;
  WriteFile(dir / "in", joined);
  auto r = RunCommand({"sh", "-c", "LC_ALL=C tr -s ' .,\\t' '\\n' < " + dir.str() + "/in"});
  ASSERT_EQ(0, r.exitCode);
  std::stringstream records(r.output);
  for (const std::string &input : inputs) {
    std::string record, line;
    ASSERT_TRUE(std::getline(records, record, '|'));
    std::vector<std::string> want;
    for (std::stringstream lines(record); std::getline(lines, line);) {
      if (!line.empty()) {
        want.push_back(line);
      }
    }
    unsigned index = 0;
    EXPECT_EQ(want, AllTokens(input.c_str(), " .,\t", &index)) << '"' << input << '"';
  }
}

}  // namespace
