#include "platform/log/log.h"

#include <gtest/gtest.h>

#include "support/testSupport.h"

using testing_support::LogCapture;

TEST(Log, EachCallIsOneEventWithItsExactText) {
  LogCapture capture;
  int previous = Log_SetMaxLevel(LOG_LEVEL_VERBOSE);
  Log("%s: FAT_OpenVolume failed floppyImageFilePath=\"%s\"\n", "Fn", "/x/a.flp");
  Warning("no line feed");
  Log_Level(6, "guest id %d\n", 42);
  ASSERT_EQ(3u, capture.lines().size());
  EXPECT_EQ("Fn: FAT_OpenVolume failed floppyImageFilePath=\"/x/a.flp\"\n", capture.lines()[0]);
  EXPECT_EQ("no line feed", capture.lines()[1]);
  EXPECT_EQ("guest id 42\n", capture.lines()[2]);
  Log_SetMaxLevel(previous);
}

TEST(Log, VerboseLinesAreOffByDefault) {
  LogCapture capture;
  Log_Level(LOG_LEVEL_VERBOSE, "probe detail\n");
  Log("kept\n");
  ASSERT_EQ(1u, capture.lines().size());
  EXPECT_EQ("kept\n", capture.lines()[0]);
}

TEST(Log, LongLinesAreNotTruncated) {
  LogCapture capture;
  std::string big(5000, 'x');
  Log("%s\n", big.c_str());
  ASSERT_EQ(1u, capture.lines().size());
  EXPECT_EQ(big + "\n", capture.lines()[0]);
}

TEST(LogDeathTest, PanicLogsAndAborts) {
  EXPECT_DEATH(Panic("NOT_REACHED %s:%d \n", "lib/guessGuest/guess", 12),
               "NOT_REACHED lib/guessGuest/guess:12");
}
