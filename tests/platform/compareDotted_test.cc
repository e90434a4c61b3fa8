#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>

#include "platform/util/utilVersion.h"
#include "support/testSupport.h"

using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

namespace {

int Sign(int v) {
  return (v > 0) - (v < 0);
}

// "a < b", "a = b" or "a > b"; each pair is also compared the other way.
TEST(CompareDotted, OrdersPairsInBothDirections) {
  const std::string cases[] = {
      "2008.1 > 2008.0.1", "10.04 > 9.10", "1.2 = 1.2.0", "14.04.1 > 14.04", "14.04.1 < 14.04.02",
      "14.04.3 > 14.04.02", "20.04 < 20.10", "007 = 7", " = 0", "1. = 1", "1..2 = 1.0.2",
      // Digit runs far beyond 64 bits compare by value, not by wrapping.
      "1.99999999999999999999999999999999 < 1.100000000000000000000000000000000",
      "000000000000000000000000000000000000012 = 12",
      // Text after the digits of a part breaks ties lexically.
      "20.04-LTS > 20.04", "20.04-LTS < 20.05", "1.2rc > 1.2", "beta > 0"};
  for (const std::string &c : cases) {
    size_t op = c.find(' ');
    const std::string a = c.substr(0, op), b = c.substr(op + 3);
    int sign = c[op + 1] == '<' ? -1 : c[op + 1] == '>';
    EXPECT_EQ(sign, Sign(Util_CompareDotted(a.c_str(), b.c_str()))) << c;
    EXPECT_EQ(-sign, Sign(Util_CompareDotted(b.c_str(), a.c_str()))) << c;
  }
  EXPECT_EQ(-1, Sign(Util_CompareDotted(nullptr, "1")));
  EXPECT_EQ(1, Sign(Util_CompareDotted("1", nullptr)));
  EXPECT_EQ(0, Util_CompareDotted(nullptr, nullptr));
}

// For dotted numbers of one shape (same number of parts, no leading
// zeros), numeric part-by-part order is exactly the version order of GNU
// sort -V, which handles digit runs of any length.
TEST(CompareDotted, AgreesWithSortVersionOrder) {
  std::mt19937 rng(11);
  auto number = [&rng]() {  // up to 30 digits, no leading zeros
    std::string n(1, static_cast<char>('1' + rng() % 9));
    for (size_t len = rng() % 4 == 0 ? rng() % 30 : rng() % 3; len > 0; --len) {
      n.push_back(static_cast<char>('0' + rng() % 10));
    }
    return n;
  };
  for (int parts = 1; parts <= 4; ++parts) {
    std::string input;
    for (int i = 0; i < 200; ++i) {
      std::string v = number();
      for (int p = 1; p < parts; ++p) {
        v += "." + number();
      }
      input += v + "\n";
    }
    TempDir dir;
    WriteFile(dir / "versions", input);
    auto r = RunCommand({"sort", "-V", dir.str() + "/versions"});
    ASSERT_EQ(0, r.exitCode) << r.output;
    std::stringstream lines(r.output);
    std::string prev, line;
    for (int n = 0; std::getline(lines, line); prev = line, ++n) {
      if (n > 0) {
        int c = Util_CompareDotted(prev.c_str(), line.c_str());
        EXPECT_TRUE(prev == line ? c == 0 : c < 0) << prev << " before " << line;
      }
    }
  }
}

}  // namespace
