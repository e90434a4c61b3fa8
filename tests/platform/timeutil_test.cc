// Windows time zones: IANA zones, aliases, zones with a Windows name and no
// index, zones with no Windows zone and bad ids against tables of the
// Windows names and index values; the host's zone against the zone ICU
// detects, and against TZ set in child processes only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/timeutil/timeutil.h"
#include "support/testSupport.h"

namespace {

using testing_support::ReadTsv;
using testing_support::Take;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;

class TimeZoneForTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(TimeZoneForTest, GivesWindowsNameAndIndex) {
  const auto &c = GetParam().cells;
  std::string name = "<unset>";
  const int index = gp::WindowsTimeZoneFor(c[0], &name);
  EXPECT_EQ(name, c[1]);
  EXPECT_EQ(index, std::stoi(c[2]));
  // Without a place for the name the index is the same.
  EXPECT_EQ(gp::WindowsTimeZoneFor(c[0], nullptr), std::stoi(c[2]));
}

INSTANTIATE_TEST_SUITE_P(Table, TimeZoneForTest,
                         ::testing::ValuesIn(ReadTsv("timezone/zones.tsv", 3)), TsvRowNamer());

class TimeZoneIndexTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(TimeZoneIndexTest, MatchesNameExactly) {
  const auto &c = GetParam().cells;
  EXPECT_EQ(gp::WindowsTimeZoneIndex(c[0]), std::stoi(c[1]));
}

INSTANTIATE_TEST_SUITE_P(Table, TimeZoneIndexTest,
                         ::testing::ValuesIn(ReadTsv("timezone/windows.tsv", 2)), TsvRowNamer());

// The zone ICU detects for this machine, "" when it cannot tell.
std::string DetectedZone() {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
  icu::UnicodeString id;
  zone->getID(id);
  std::string text;
  id.toUTF8String(text);
  return text == "Etc/Unknown" ? "" : text;
}

TEST(TimeUtilHostTest, AgreesWithDetectedZone) {
  const std::string zone = DetectedZone();
  std::string expectedName;
  const int expectedIndex = zone.empty() ? -1 : gp::WindowsTimeZoneFor(zone, &expectedName);

  char *name = reinterpret_cast<char *>(1);
  const int index = TimeUtil_GetLocalWindowsTimeZoneIndexAndName(&name);
  ASSERT_NE(name, reinterpret_cast<char *>(1)) << "name left unset";

  EXPECT_EQ(index, expectedIndex) << zone;
  EXPECT_EQ(Take(name), expectedName.empty() ? "<null>" : expectedName) << zone;
  EXPECT_EQ(TimeUtil_GetLocalWindowsTimeZoneIndexAndName(nullptr), expectedIndex);
}

TEST(TimeUtilHostTest, ConcurrentCallsAgree) {
  char *first = nullptr;
  const int index = TimeUtil_GetLocalWindowsTimeZoneIndexAndName(&first);
  const std::string name = Take(first);
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (size_t t = 0; t < mismatches.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) {
        char *got = nullptr;
        mismatches[t] += TimeUtil_GetLocalWindowsTimeZoneIndexAndName(&got) != index;
        mismatches[t] += Take(got) != name;
        std::string berlin;
        mismatches[t] += gp::WindowsTimeZoneFor("Europe/Berlin", &berlin) != 110;
      }
    });
  }
  for (auto &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mismatches, std::vector<int>(mismatches.size(), 0));
}

// TZ is changed only in a child process, so no other test sees it.
class TimeUtilHostDeathTest : public ::testing::TestWithParam<TsvRow> {};

[[noreturn]] void ReportHostZoneUnder(const std::string &tz) {
  setenv("TZ", tz.c_str(), 1);
  char *name = nullptr;
  const int index = TimeUtil_GetLocalWindowsTimeZoneIndexAndName(&name);
  fprintf(stderr, "%d\t%s\n", index, Take(name).c_str());
  exit(0);
}

TEST_P(TimeUtilHostDeathTest, FollowsTz) {
  const auto &c = GetParam().cells;
  const std::string expected = c[2] + "\t" + (c[1].empty() ? "<null>" : c[1]) + "\n";
  EXPECT_EXIT(ReportHostZoneUnder(c[0]), ::testing::ExitedWithCode(0), ::testing::Eq(expected));
}

INSTANTIATE_TEST_SUITE_P(Table, TimeUtilHostDeathTest,
                         ::testing::ValuesIn(ReadTsv("timezone/host.tsv", 3)), TsvRowNamer());

}  // namespace
