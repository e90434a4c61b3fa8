#include "platform/log/log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/testSupport.h"

using testing_support::LogCapture;

// Each call is one event with its exact text, however long; verbose lines
// are off until the level is raised.
TEST(Log, EachCallIsOneEventWithItsExactText) {
  LogCapture capture;
  const std::string big(5000, 'x');
  Log_Level(LOG_LEVEL_VERBOSE, "probe detail\n");
  int previous = Log_SetMaxLevel(LOG_LEVEL_VERBOSE);
  Log("%s: FAT_OpenVolume failed floppyImageFilePath=\"%s\"\n", "Fn", "/x/a.flp");
  Warning("no line feed");
  Log_Level(6, "guest id %d\n", 42);
  Log("%s\n", big.c_str());
  Log_SetMaxLevel(previous);
  const std::vector<std::string> want = {
      "Fn: FAT_OpenVolume failed floppyImageFilePath=\"/x/a.flp\"\n", "no line feed",
      "guest id 42\n", big + "\n"};
  EXPECT_EQ(want, capture.lines());
}

TEST(LogDeathTest, PanicLogsAndAborts) {
  EXPECT_DEATH(Panic("NOT_REACHED %s:%d \n", "lib/guessGuest/guess", 12),
               "NOT_REACHED lib/guessGuest/guess:12");
}

// A line break or other control character inside a message cannot start a
// second line in the log file; the final line feed stays.
TEST(Log, FileLinesEscapeControlCharacters) {
  testing_support::TempDir dir;
  ASSERT_TRUE(Log_SetFile((dir / "log.txt").c_str()));
  Log("%s: FullName=\"%s\"\n", "Fn", "a\nForged: line\x01\tz");
  Log("no line feed");
  Log_SetFile(nullptr);
  EXPECT_EQ("Fn: FullName=\"a\\x0AForged: line\\x01\tz\"\nno line feed\n",
            testing_support::ReadFile(dir / "log.txt"));
}
