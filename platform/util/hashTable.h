/*
 * Hash table from keys to caller values (void *).
 *
 * Key types, chosen at HashTable_Alloc:
 * - HASH_STRING_KEY: NUL-terminated strings compared byte for byte;
 * - HASH_ISTRING_KEY: strings compared ignoring ASCII case (the spelling
 *   of the first insertion is the one kept and reported);
 * - HASH_INT_KEY: the key pointer's value itself (an integer or a pointer
 *   cast to const void *), never dereferenced.
 * String keys are copied on insertion, so the caller's key need not outlive
 * the call. A null string key is refused (false and a log line).
 *
 * Values belong to the table once stored: the table's free function (if
 * any) is called on a value when the entry is deleted, replaced, cleared
 * or when the table is freed. LookupAndDelete hands the value back to the
 * caller instead.
 *
 * Iteration (HashTable_ForEach) visits entries in insertion order, so
 * listings built from a table are deterministic. Replacing a value keeps
 * the entry's place. The callback may look up, insert (new entries are
 * visited too) and replace, but not delete: deletions during ForEach are
 * refused with false and a log line.
 *
 * A table is used by one thread at a time.
 */
#ifndef GUESTPREP_PLATFORM_HASHTABLE_H
#define GUESTPREP_PLATFORM_HASHTABLE_H

#include <cstddef>
#include <cstdint>

enum : int {
  HASH_STRING_KEY = 0x01,
  HASH_ISTRING_KEY = 0x02,
  HASH_INT_KEY = 0x04,
  /* Accepted for compatibility: string keys are always copied. */
  HASH_FLAG_COPYKEY = 0x10,
};

/* Bucket-count hints above this are clamped (the table grows as needed). */
constexpr uint32_t kHashTableMaxBucketHint = 1u << 16;

struct HashTable;

typedef void (*HashTableFreeEntryFn)(void *value);
/* key: the table's copy of a string key, or the integer key as a pointer.
 * A non-zero return stops the iteration. */
typedef int (*HashTableForEachCallback)(const char *key, void *value, void *clientData);

/* A new empty table. numBuckets is a sizing hint (any value, 0 included).
 * keyType is one of the key types, optionally with HASH_FLAG_COPYKEY.
 * freeEntryFn may be null (values are then never freed by the table). Null,
 * with a log line, for an unknown key type. */
HashTable *HashTable_Alloc(uint32_t numBuckets, int keyType, HashTableFreeEntryFn freeEntryFn);

/* Frees every value (in insertion order) and the table. Null is ignored. */
void HashTable_Free(HashTable *ht);

/* Removes every entry, freeing the values; the table stays usable. */
void HashTable_Clear(HashTable *ht);

/* Adds key -> value. False when the key is already present: the table is
 * then unchanged and the value still belongs to the caller. */
bool HashTable_Insert(HashTable *ht, const void *key, void *value);

/* Sets key -> value. True when an existing entry was replaced (its old
 * value freed unless it is the same pointer), false when a new entry was
 * added or the key was refused. */
bool HashTable_ReplaceOrInsert(HashTable *ht, const void *key, void *value);

/* True when key is present; its value goes to *value when value is not
 * null. */
bool HashTable_Lookup(const HashTable *ht, const void *key, void **value);

/* Removes the entry and frees its value. False when absent. */
bool HashTable_Delete(HashTable *ht, const void *key);

/* Removes the entry without freeing its value, which is handed to the
 * caller through *value (when not null). False when absent. */
bool HashTable_LookupAndDelete(HashTable *ht, const void *key, void **value);

/* Calls fn on every entry in insertion order. Returns the first non-zero
 * callback result (which stops the iteration), else 0. */
int HashTable_ForEach(HashTable *ht, HashTableForEachCallback fn, void *clientData);

size_t HashTable_GetNumElements(const HashTable *ht);

#endif
