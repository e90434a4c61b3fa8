#include "platform/util/dynbuf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/testSupport.h"

using testing_support::LogCapture;

namespace {

void ExpectHolds(const DynBuf &b, const std::string &want) {
  ASSERT_EQ(want.size(), DynBuf_GetSize(&b));
  EXPECT_EQ(0, memcmp(want.data(), DynBuf_Get(&b), want.size()));
}

TEST(DynBuf, GrowsGeometricallyAndSurvivesAppendingItself) {
  DynBuf b;
  DynBuf_Init(&b);
  std::string mirror;
  int growths = 0;
  for (int i = 0; i < 1000000; ++i) {
    size_t before = DynBuf_GetAllocatedSize(&b);
    char c = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(DynBuf_Append(&b, &c, 1));
    mirror.push_back(c);
    if (DynBuf_GetAllocatedSize(&b) != before) {
      ++growths;
      EXPECT_GE(DynBuf_GetAllocatedSize(&b), 2 * before);
    }
  }
  EXPECT_LE(growths, 15);  // 128 doubled past a million; linear steps would be thousands
  ExpectHolds(b, mirror);
  DynBuf_Destroy(&b);

  ASSERT_TRUE(DynBuf_Append(&b, "0123456789", 10));
  mirror = "0123456789";
  for (int i = 0; i < 12; ++i) {  // the source moves with every reallocation
    ASSERT_TRUE(DynBuf_Append(&b, DynBuf_Get(&b), DynBuf_GetSize(&b)));
    mirror += mirror;
  }
  ExpectHolds(b, mirror);
  DynBuf_Destroy(&b);
  EXPECT_EQ(nullptr, DynBuf_Get(&b));
}

TEST(DynBuf, ImpossibleSizesFailCleanlyAndKeepTheData) {
  LogCapture capture;
  DynBuf b;
  DynBuf_Init(&b);
  ASSERT_TRUE(DynBuf_Append(&b, "abc", 3));
  static char chunk[1];
  bool (*cases[])(DynBuf *) = {
      [](DynBuf *d) { return DynBuf_Append(d, "x", SIZE_MAX); },
      [](DynBuf *d) { return DynBuf_Append(d, chunk, kDynBufMaxSize); },
      [](DynBuf *d) { return DynBuf_Enlarge(d, kDynBufMaxSize + 1); },
      [](DynBuf *d) { return DynBuf_SetSize(d, DynBuf_GetAllocatedSize(d) + 1); },
      [](DynBuf *d) { return DynBuf_Append(d, nullptr, 4); },
  };
  for (auto op : cases) {
    capture.clear();
    EXPECT_FALSE(op(&b));
    EXPECT_EQ(1u, capture.lines().size());
    ExpectHolds(b, "abc");
  }
  DynBuf_Destroy(&b);
}

// Detaching hands over a NUL-ended block and leaves an empty buffer; a
// trimmed buffer holds exactly its bytes.
TEST(DynBuf, DetachAndTrim) {
  DynBuf b;
  DynBuf_Init(&b);
  EXPECT_EQ(nullptr, DynBuf_Detach(&b));
  for (std::string content : {std::string(), std::string("ends\0", 5)}) {
    ASSERT_TRUE(DynBuf_Append(&b, content.data(), content.size()));
    char *s = DynBuf_DetachString(&b);
    EXPECT_EQ(content.c_str(), std::string(s));
    EXPECT_EQ(nullptr, DynBuf_Get(&b));
    EXPECT_EQ(0u, DynBuf_GetSize(&b));
    free(s);
  }
  ASSERT_TRUE(DynBuf_Enlarge(&b, 1000));
  memcpy(DynBuf_Get(&b), "written directly", 16);
  ASSERT_TRUE(DynBuf_SetSize(&b, 16) && DynBuf_Trim(&b));
  EXPECT_EQ(16u, DynBuf_GetAllocatedSize(&b));
  ExpectHolds(b, "written directly");
  free(DynBuf_Detach(&b));
}

TEST(DynBufDeathTest, SafeAppendNamesTheCallerWhenItCannotGrow) {
  DynBuf b;
  DynBuf_Init(&b);
  ASSERT_TRUE(DynBuf_Append(&b, "a", 1));
  EXPECT_DEATH(DynBuf_SafeAppend(&b, "x", SIZE_MAX), "VERIFY .*dynbuf_test.cc:[0-9]+ ");
  EXPECT_DEATH(DynBuf_SafeInternalAppend(&b, "x", SIZE_MAX, "lib/toolsversion/x.cc", 42),
               "VERIFY lib/toolsversion/x.cc:42 ");
  DynBuf_Destroy(&b);
}

}  // namespace
