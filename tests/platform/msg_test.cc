#include "platform/msg/msg.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/testSupport.h"

namespace {

using testing_support::DataDir;
using testing_support::LogCapture;
using testing_support::Take;
using testing_support::TempDir;
using testing_support::WriteFile;

class MsgTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Msg_ResetCatalog();
    MsgList_Free(Msg_GetMessagesAndReset());
  }
  void TearDown() override {
    Msg_ResetCatalog();
    MsgList_Free(Msg_GetMessagesAndReset());
  }
  void LoadTestCatalog() {
    ASSERT_TRUE(Msg_LoadCatalog((DataDir() / "dictionary/catalog.cat").c_str()));
  }
};

TEST_F(MsgTest, MarkerParsing) {
  const struct {
    const char *in;
    const char *want;  // nullptr: no result
  } cases[] = {
      {"@&!*@*@(msg.autoinstall.prettyFormat)%s%s%s", "%s%s%s"},
      {"@&!*@*@(msg.a.b.c)Text (with parens) and @ signs", "Text (with parens) and @ signs"},
      {"@&!*@*@(msg.x)", ""},
      {"plain text, no marker", "plain text, no marker"},
      {"@&!*@*(almost a marker)x", "@&!*@*(almost a marker)x"},
      {"", ""},
      {"@&!*@*@(msg.unclosed text", nullptr},
      {"@&!*@*@()empty id", nullptr},
      {nullptr, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.in ? c.in : "(null)");
    EXPECT_EQ(c.want ? c.want : "<null>", Take(Msg_GetString(c.in)));
    EXPECT_EQ(c.want ? c.want : (c.in ? c.in : ""), Take(Msg_GetStringSafe(c.in)));
  }
  std::string longId = "@&!*@*@(" + std::string(MSG_MAX_ID_LENGTH + 1, 'i') + ")text";
  EXPECT_EQ("<null>", Take(Msg_GetString(longId.c_str())));
}

TEST_F(MsgTest, CatalogueLocalisesStringsAndFormats) {
  EXPECT_EQ("Hello", Take(Msg_GetString("@&!*@*@(msg.test.hello)Hello")));
  LoadTestCatalog();
  EXPECT_EQ("Bonjour", Take(Msg_GetString("@&!*@*@(msg.test.hello)Hello")));
  EXPECT_EQ("Unknown", Take(Msg_GetString("@&!*@*@(msg.test.absent)Unknown")));
  EXPECT_EQ("ligne un\nligne deux", Take(Msg_GetString("@&!*@*@(msg.test.twoLines)x")));
  EXPECT_EQ("Bonjour Ann, vous avez 3 messages",
            Take(Msg_Format("@&!*@*@(msg.test.greet)Hello %s, you have %d messages", "Ann", 3)));
  EXPECT_EQ("3 messages pour Ann",
            Take(Msg_Format("@&!*@*@(msg.test.swapped)%s has %d messages", "Ann", 3)));
  EXPECT_EQ("no marker 7", Take(Msg_Format("no marker %d", 7)));
  Msg_ResetCatalog();
  EXPECT_EQ("Hello", Take(Msg_GetString("@&!*@*@(msg.test.hello)Hello")));
}

TEST_F(MsgTest, CatalogueTextWithOtherConversionsIsRefused) {
  LoadTestCatalog();
  const struct {
    const char *idFmt;
    const char *want;
  } cases[] = {
      {"@&!*@*@(msg.test.badType)Hello %s", "Hello Ann"},       // %d would read a pointer
      {"@&!*@*@(msg.test.badCount)Hello %s", "Hello Ann"},      // second %s reads garbage
      {"@&!*@*@(msg.test.percentN)Hello %s", "Hello Ann"},      // %n writes through an argument
      {"@&!*@*@(msg.test.swapped)%s has %s", "Ann has Ann"},    // positions with other types
      {"@&!*@*@(msg.test.trailing)Hello %s", "Hello Ann"},      // incomplete conversion
      {"@&!*@*@(msg.test.mixed)Hello %s %s", "Hello Ann Ann"},  // positional mixed with sequential
      {"@&!*@*@(msg.test.hello)Hello %s", "Hello Ann"},         // catalogue drops an argument
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.idFmt);
    LogCapture log;
    EXPECT_EQ(c.want, Take(Msg_Format(c.idFmt, "Ann", "Ann")));
    EXPECT_EQ(1u, log.lines().size());
  }
}

TEST_F(MsgTest, BrokenCatalogueKeepsThePreviousOne) {
  LoadTestCatalog();
  TempDir tmp;
  WriteFile(tmp / "bad.cat", "msg.test.hello = \"Hallo\"\nmsg.test.other = \"unterminated\n");
  LogCapture log;
  EXPECT_FALSE(Msg_LoadCatalog((tmp / "bad.cat").c_str()));
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_NE(std::string::npos, log.lines()[0].find("line 2")) << log.lines()[0];
  EXPECT_FALSE(Msg_LoadCatalog((tmp / "missing.cat").c_str()));
  EXPECT_EQ("Bonjour", Take(Msg_GetString("@&!*@*@(msg.test.hello)Hello")));
  EXPECT_EQ(nullptr, Msg_GetMessagesAndReset());  // reported through the log, not left pending
}

TEST_F(MsgTest, ListsCollectEnglishAndLocalisedTexts) {
  LoadTestCatalog();
  MsgList *list = nullptr;
  EXPECT_EQ("", Take(MsgList_ToEnglishString(list)));
  MsgList_Append(&list, "@&!*@*@(msg.test.greet)Hello %s, you have %d messages\n", "Bo", 2);
  MsgList_Append(&list, "plain %s", "text");
  ASSERT_EQ(2u, MsgList_Count(list));
  EXPECT_STREQ("msg.test.greet", list->id);
  EXPECT_STREQ("Bonjour Bo, vous avez 2 messages", list->localizedText);
  EXPECT_STREQ("", list->next->id);
  EXPECT_EQ("Hello Bo, you have 2 messages\nplain text", Take(MsgList_ToEnglishString(list)));
  LogCapture log;
  MsgList_Log(list);
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_EQ("Hello Bo, you have 2 messages\n", log.lines()[0]);
  EXPECT_EQ("plain text\n", log.lines()[1]);
  MsgList_Free(list);
}

TEST_F(MsgTest, PendingMessagesAreHandedOverOnceAndBounded) {
  EXPECT_EQ(nullptr, Msg_GetMessagesAndReset());
  Msg_Append("@&!*@*@(msg.test.first)first %d", 1);
  Msg_Append("second");
  MsgList *got = Msg_GetMessagesAndReset();
  EXPECT_EQ("first 1\nsecond", Take(MsgList_ToEnglishString(got)));
  MsgList_Free(got);
  EXPECT_EQ(nullptr, Msg_GetMessagesAndReset());

  for (int i = 0; i < MSG_MAX_PENDING + 10; ++i) {
    Msg_Append("message %d", i);
  }
  got = Msg_GetMessagesAndReset();
  ASSERT_EQ(static_cast<size_t>(MSG_MAX_PENDING), MsgList_Count(got));
  EXPECT_STREQ("message 10", got->englishText);  // the oldest were dropped
  MsgList_Free(got);
}

}  // namespace
