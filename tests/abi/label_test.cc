// The shared library seen through its C interface only.
#include <gtest/gtest.h>

#include <cstring>

extern "C" const char *guestprep_abi_label(void);

TEST(BuildLabel, StartsWithBuildId) {
  const char *label = guestprep_abi_label();
  ASSERT_EQ(0, strncmp(label, "build_id=", 9));
  EXPECT_GT(strlen(label), 9u);
}
