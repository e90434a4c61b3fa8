#include "platform/util/hashTable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/testSupport.h"

using testing_support::LogCapture;

namespace {

// Values are heap ints; the free function counts and releases them, so a
// double free or a leak also shows under the sanitizers.
int gFreed = 0;
void FreeValue(void *v) {
  ++gFreed;
  delete static_cast<int *>(v);
}
void *Val(int n) {
  return new int(n);
}
int ValOf(void *v) {
  return *static_cast<int *>(v);
}

std::vector<std::string> KeysInOrder(HashTable *ht) {
  std::vector<std::string> keys;
  HashTable_ForEach(
      ht,
      [](const char *key, void *, void *ctx) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(key);
        return 0;
      },
      &keys);
  return keys;
}

TEST(HashTable, OwnershipOfValuesAcrossEveryOperation) {
  gFreed = 0;
  HashTable *ht = HashTable_Alloc(128, HASH_STRING_KEY, FreeValue);
  char key[16] = "monolithic";
  ASSERT_TRUE(HashTable_Insert(ht, key, Val(1)));
  strcpy(key, "changed");  // the table holds its own copy
  ASSERT_TRUE(HashTable_Insert(ht, "upgrader", Val(2)));
  ASSERT_TRUE(HashTable_Insert(ht, "legacy", Val(3)));
  EXPECT_FALSE(HashTable_Lookup(ht, "changed", nullptr));

  int mine = 9;
  EXPECT_FALSE(HashTable_Insert(ht, "upgrader", &mine));  // refused, not freed
  EXPECT_TRUE(HashTable_ReplaceOrInsert(ht, "upgrader", Val(20)));
  EXPECT_EQ(1, gFreed);
  void *v = nullptr;
  ASSERT_TRUE(HashTable_Lookup(ht, "upgrader", &v));
  EXPECT_TRUE(HashTable_ReplaceOrInsert(ht, "upgrader", v));  // same pointer: kept
  EXPECT_FALSE(HashTable_ReplaceOrInsert(ht, "drivers.net", Val(4)));
  EXPECT_EQ(1, gFreed);

  EXPECT_TRUE(HashTable_LookupAndDelete(ht, "legacy", &v));  // handed back, not freed
  EXPECT_EQ(3, ValOf(v));
  FreeValue(v);
  EXPECT_TRUE(HashTable_Delete(ht, "monolithic"));
  EXPECT_FALSE(HashTable_Delete(ht, "monolithic"));
  EXPECT_EQ(3, gFreed);
  EXPECT_EQ(2u, HashTable_GetNumElements(ht));
  HashTable_Free(ht);
  EXPECT_EQ(5, gFreed);
}

TEST(HashTable, KeyTypesDecideWhatIsTheSameKey) {
  struct Case {
    int keyType;
    const void *stored, *probe;
    bool found;
  } cases[] = {
      {HASH_STRING_KEY, "Windows", "Windows", true},
      {HASH_STRING_KEY, "Windows", "windows", false},
      {HASH_ISTRING_KEY | HASH_FLAG_COPYKEY, "Windows", "wINDOWS", true},
      {HASH_ISTRING_KEY, "Windows", "Windows ", false},
      {HASH_ISTRING_KEY, "\xc3\x84rger", "\xc3\xa4rger", false},  // ASCII folding only
      {HASH_INT_KEY, nullptr, nullptr, true},                     // integer 0, never dereferenced
      {HASH_INT_KEY, reinterpret_cast<void *>(UINTPTR_MAX), nullptr, false},
  };
  for (const auto &c : cases) {
    HashTable *ht = HashTable_Alloc(0, c.keyType, nullptr);
    int a = 1, b = 2;
    ASSERT_TRUE(HashTable_Insert(ht, c.stored, &a));
    void *v = nullptr;
    EXPECT_EQ(c.found, HashTable_Lookup(ht, c.probe, &v)) << c.keyType;
    EXPECT_EQ(c.found ? &a : nullptr, v);
    EXPECT_EQ(!c.found, HashTable_Insert(ht, c.probe, &b)) << c.keyType;
    if (c.keyType != HASH_INT_KEY && c.found) {  // the first spelling is kept
      EXPECT_EQ(std::vector<std::string>{static_cast<const char *>(c.stored)}, KeysInOrder(ht));
    }
    HashTable_Free(ht);
  }
  LogCapture capture;
  EXPECT_EQ(nullptr, HashTable_Alloc(8, HASH_STRING_KEY | HASH_INT_KEY, nullptr));
  HashTable *ht = HashTable_Alloc(UINT32_MAX, HASH_STRING_KEY, nullptr);  // hint clamped
  EXPECT_FALSE(HashTable_Insert(ht, nullptr, ht));                        // null string key
  EXPECT_EQ(2u, capture.lines().size());
  HashTable_Free(ht);
}

TEST(HashTable, ForEachFollowsInsertionOrderAndRefusesDeletion) {
  LogCapture capture;
  gFreed = 0;
  HashTable *ht = HashTable_Alloc(128, HASH_STRING_KEY, FreeValue);
  std::vector<std::string> names;
  for (int i = 0; i < 200; ++i) {
    names.push_back("component" + std::to_string((i * 7919) % 1000));
    ASSERT_TRUE(HashTable_Insert(ht, names.back().c_str(), Val(i)));
  }
  ASSERT_TRUE(HashTable_Delete(ht, names[50].c_str()));
  names.erase(names.begin() + 50);
  ASSERT_TRUE(HashTable_ReplaceOrInsert(ht, names[10].c_str(), Val(-1)));  // keeps its place
  EXPECT_EQ(names, KeysInOrder(ht));

  struct Ctx {
    HashTable *ht;
    int visited, refused;
  } ctx{ht, 0, 0};
  int result = HashTable_ForEach(
      ht,
      [](const char *key, void *value, void *p) {
        auto *c = static_cast<Ctx *>(p);
        ++c->visited;
        c->refused += !HashTable_Delete(c->ht, key);
        return ValOf(value) == 5 ? 77 : 0;
      },
      &ctx);
  EXPECT_EQ(77, result);
  EXPECT_EQ(6, ctx.visited);
  EXPECT_EQ(6, ctx.refused);
  EXPECT_EQ(6u, capture.lines().size());
  EXPECT_EQ(199u, HashTable_GetNumElements(ht));
  HashTable_Free(ht);
  EXPECT_EQ(201, gFreed);
}

}  // namespace
