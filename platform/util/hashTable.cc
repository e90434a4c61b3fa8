#include "platform/util/hashTable.h"

#include <cstring>
#include <functional>
#include <list>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/log/log.h"

namespace {

constexpr char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

// Hash and equality over the stored key bytes; caseless tables fold ASCII
// letters in both so "Foo" and "FOO" land on one entry.
struct KeyHash {
  bool caseless;
  size_t operator()(std::string_view k) const {
    if (!caseless) {
      return std::hash<std::string_view>()(k);
    }
    uint64_t h = 0xcbf29ce484222325ull;  // FNV-1a
    for (char c : k) {
      h = (h ^ static_cast<unsigned char>(AsciiLower(c))) * 0x100000001b3ull;
    }
    return static_cast<size_t>(h);
  }
};

struct KeyEqual {
  bool caseless;
  bool operator()(std::string_view a, std::string_view b) const {
    if (a.size() != b.size()) {
      return false;
    }
    if (!caseless) {
      return a == b;
    }
    for (size_t i = 0; i < a.size(); ++i) {
      if (AsciiLower(a[i]) != AsciiLower(b[i])) {
        return false;
      }
    }
    return true;
  }
};

struct Entry {
  std::string key;  // string keys, or the integer key's bytes
  const void *rawKey;
  void *value;
};

[[noreturn]] void OutOfMemory(const char *fn) {
  Panic("%s: out of memory\n", fn);
}

}  // namespace

struct HashTable {
  HashTable(uint32_t buckets, bool caselessKeys, bool integerKeys, HashTableFreeEntryFn fn)
      : caseless(caselessKeys),
        intKeys(integerKeys),
        freeFn(fn),
        index(buckets, KeyHash{caselessKeys}, KeyEqual{caselessKeys}) {}

  using EntryList = std::list<Entry>;
  const bool caseless;
  const bool intKeys;
  const HashTableFreeEntryFn freeFn;
  // Entries in insertion order; the index maps views of their keys (list
  // nodes never move) to their place in the list.
  EntryList entries;
  std::unordered_map<std::string_view, EntryList::iterator, KeyHash, KeyEqual> index;
  int iterating = 0;

  void FreeValue(void *value) const {
    if (freeFn != nullptr) {
      freeFn(value);
    }
  }
};

namespace {

// The key's bytes as the index sees them. Integer keys are encoded into
// scratch, which must outlive the returned view.
bool KeyView(const HashTable *ht, const void *key, char (&scratch)[sizeof(uintptr_t)],
             std::string_view *view, const char *fn) {
  if (ht == nullptr) {
    Log("%s: null table\n", fn);
    return false;
  }
  if (ht->intKeys) {
    uintptr_t v = reinterpret_cast<uintptr_t>(key);
    memcpy(scratch, &v, sizeof v);
    *view = std::string_view(scratch, sizeof scratch);
    return true;
  }
  if (key == nullptr) {
    Log("%s: null string key\n", fn);
    return false;
  }
  *view = std::string_view(static_cast<const char *>(key));
  return true;
}

// Adds a new entry at the end of the insertion order.
void AddEntry(HashTable *ht, std::string_view keyBytes, const void *key, void *value) {
  try {
    ht->entries.push_back(Entry{std::string(keyBytes), nullptr, value});
    Entry &e = ht->entries.back();
    e.rawKey = ht->intKeys ? key : e.key.c_str();
    try {
      ht->index.emplace(std::string_view(e.key), std::prev(ht->entries.end()));
    } catch (const std::bad_alloc &) {
      ht->entries.pop_back();
      throw;
    }
  } catch (const std::bad_alloc &) {
    OutOfMemory("HashTable");
  }
}

bool RemoveEntry(HashTable *ht, const void *key, void **value, bool freeValue, const char *fn) {
  char scratch[sizeof(uintptr_t)];
  std::string_view view;
  if (!KeyView(ht, key, scratch, &view, fn)) {
    return false;
  }
  if (ht->iterating > 0) {
    Log("%s: cannot delete while iterating\n", fn);
    return false;
  }
  auto it = ht->index.find(view);
  if (it == ht->index.end()) {
    return false;
  }
  auto node = it->second;
  void *v = node->value;
  ht->index.erase(it);
  ht->entries.erase(node);
  if (value != nullptr) {
    *value = v;
  }
  if (freeValue) {
    ht->FreeValue(v);
  }
  return true;
}

}  // namespace

HashTable *HashTable_Alloc(uint32_t numBuckets, int keyType, HashTableFreeEntryFn freeEntryFn) {
  int type = keyType & ~HASH_FLAG_COPYKEY;
  if (type != HASH_STRING_KEY && type != HASH_ISTRING_KEY && type != HASH_INT_KEY) {
    Log("HashTable_Alloc: unknown key type 0x%x\n", static_cast<unsigned>(keyType));
    return nullptr;
  }
  if (numBuckets > kHashTableMaxBucketHint) {
    numBuckets = kHashTableMaxBucketHint;
  }
  try {
    return new HashTable(numBuckets, type == HASH_ISTRING_KEY, type == HASH_INT_KEY, freeEntryFn);
  } catch (const std::bad_alloc &) {
    OutOfMemory("HashTable_Alloc");
  }
}

void HashTable_Clear(HashTable *ht) {
  if (ht == nullptr) {
    return;
  }
  if (ht->iterating > 0) {
    Panic("HashTable_Clear: table cleared while iterating\n");
  }
  ht->index.clear();
  // Values are freed after the table no longer holds them, so a free
  // function that looks at the table sees it consistent.
  HashTable::EntryList gone;
  gone.swap(ht->entries);
  for (Entry &e : gone) {
    ht->FreeValue(e.value);
  }
}

void HashTable_Free(HashTable *ht) {
  if (ht == nullptr) {
    return;
  }
  if (ht->iterating > 0) {
    Panic("HashTable_Free: table freed while iterating\n");
  }
  HashTable_Clear(ht);
  delete ht;
}

bool HashTable_Insert(HashTable *ht, const void *key, void *value) {
  char scratch[sizeof(uintptr_t)];
  std::string_view view;
  if (!KeyView(ht, key, scratch, &view, "HashTable_Insert")) {
    return false;
  }
  if (ht->index.find(view) != ht->index.end()) {
    return false;
  }
  AddEntry(ht, view, key, value);
  return true;
}

bool HashTable_ReplaceOrInsert(HashTable *ht, const void *key, void *value) {
  char scratch[sizeof(uintptr_t)];
  std::string_view view;
  if (!KeyView(ht, key, scratch, &view, "HashTable_ReplaceOrInsert")) {
    return false;
  }
  auto it = ht->index.find(view);
  if (it == ht->index.end()) {
    AddEntry(ht, view, key, value);
    return false;
  }
  void *old = it->second->value;
  it->second->value = value;
  if (old != value) {
    ht->FreeValue(old);
  }
  return true;
}

bool HashTable_Lookup(const HashTable *ht, const void *key, void **value) {
  char scratch[sizeof(uintptr_t)];
  std::string_view view;
  if (!KeyView(ht, key, scratch, &view, "HashTable_Lookup")) {
    return false;
  }
  auto it = ht->index.find(view);
  if (it == ht->index.end()) {
    return false;
  }
  if (value != nullptr) {
    *value = it->second->value;
  }
  return true;
}

bool HashTable_Delete(HashTable *ht, const void *key) {
  return RemoveEntry(ht, key, nullptr, true, "HashTable_Delete");
}

bool HashTable_LookupAndDelete(HashTable *ht, const void *key, void **value) {
  return RemoveEntry(ht, key, value, false, "HashTable_LookupAndDelete");
}

int HashTable_ForEach(HashTable *ht, HashTableForEachCallback fn, void *clientData) {
  if (ht == nullptr || fn == nullptr) {
    return 0;
  }
  ++ht->iterating;
  int result = 0;
  // Entries appended by the callback are reached too: list iterators stay
  // valid across insertions, and deletions are refused meanwhile.
  for (auto it = ht->entries.begin(); it != ht->entries.end(); ++it) {
    result = fn(static_cast<const char *>(it->rawKey), it->value, clientData);
    if (result != 0) {
      break;
    }
  }
  --ht->iterating;
  return result;
}

size_t HashTable_GetNumElements(const HashTable *ht) {
  return ht == nullptr ? 0 : ht->entries.size();
}
