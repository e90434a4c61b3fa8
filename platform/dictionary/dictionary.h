/*
 * Host dictionaries: the name = "value" configuration files of the host
 * (virtual machine configuration, manifests, image maps, message catalogues).
 *
 * File format, one entry per line:
 * - Blank lines and lines whose first non-blank byte is "#" are ignored.
 *   Spaces and tabs around the name, the "=" and the value are ignored.
 *   Lines end in LF or CR LF; a UTF-8 byte order mark at the start is skipped,
 *   and a line that starts with one anywhere else is malformed.
 * - A quoted value runs to the next double quote. Inside it a byte that
 *   cannot stand literally is written "|" and two hex digits (|22 a double
 *   quote, |7C a vertical bar, |0A a line feed); |00 is refused because
 *   values are C strings. After the closing quote only blanks or a "#"
 *   comment may follow.
 * - An unquoted value runs to the end of the line or to a "#", trimmed.
 * - A name is the text before the first "=", trimmed; it must be non-empty
 *   and hold no double quote and no control byte.
 * - Names are matched ASCII case-insensitively but keep the case they were
 *   first written with. A later entry for the same name replaces the value
 *   but keeps the first entry's place in the iteration order.
 *
 * Loading is all-or-nothing: on any error the dictionary is left exactly as
 * it was, and one message (naming the file, or "buffer", and the line) is
 * added to the caller's MsgList, or, when the caller passes none, posted to
 * the process-wide pending list (Msg_GetMessagesAndReset). Load errors are
 * reported only as that message; the caller decides whether to log it.
 * Loading into a dictionary that already has entries merges: new names are
 * appended, known names get the new value.
 *
 * Limits: files over DICTIONARY_MAX_FILE_SIZE bytes are refused before any
 * allocation; a line over DICTIONARY_MAX_LINE_LENGTH bytes, or more than
 * DICTIONARY_MAX_ENTRIES entries, fails the load.
 *
 * Not thread-safe: one dictionary is used by one thread at a time.
 */
#ifndef GUESTPREP_PLATFORM_DICTIONARY_H
#define GUESTPREP_PLATFORM_DICTIONARY_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/msg/msg.h"

#define DICTIONARY_MAX_FILE_SIZE (16u * 1024 * 1024)
#define DICTIONARY_MAX_LINE_LENGTH (64u * 1024)
#define DICTIONARY_MAX_ENTRIES (1 << 20)

struct Dictionary;

/* Types for Dictionary_Get. */
enum DictionaryType {
  DICT_STRING = 1, /* const char *: the value text itself */
  DICT_BOOL = 2,   /* bool: by Dictionary_StringToBool's table */
  DICT_INT = 3,    /* int32_t: decimal or 0x hex, optional sign, whole text */
  DICT_INT64 = 4,  /* int64_t: as DICT_INT */
};

/* An empty dictionary; never null. Released with Dictionary_Free. */
Dictionary *Dictionary_Create(void);

/* Dictionary_CreateEx flags. */
enum : uint32_t {
  /* Loading keeps every line: a repeated name becomes a further entry, after
   * the others in the iteration order, instead of replacing the value.
   * Lookups see the first entry of a name; Dict_Set* still replace it. For
   * files whose readers judge a repeated entry themselves (manifests). */
  DICTIONARY_KEEP_REPEATS = 0x1,
};
Dictionary *Dictionary_CreateEx(uint32_t flags);
/* Null is allowed. */
void Dictionary_Free(Dictionary *dict);

/* Loads a file. The Ex form adds an error message to *messages (when
 * messages is non-null) instead of posting it to the pending list. A missing
 * file, a directory or other non-regular file, an unreadable or oversized
 * file and a malformed line all give false. */
bool Dictionary_Load(Dictionary *dict, const char *path);
bool Dictionary_LoadEx(Dictionary *dict, const char *path, MsgList **messages);

/* Loads size bytes of text at buffer (no terminating zero needed; a NUL byte
 * inside is an error). Messages name the source "buffer". */
bool Dictionary_LoadFromBuffer(Dictionary *dict, const char *buffer, size_t size);
bool Dictionary_LoadFromBufferEx(Dictionary *dict, const char *buffer, size_t size,
                                 MsgList **messages);

/* Writes every entry as name = "value" lines in iteration order, escaping
 * with |XX, so that loading the file gives the same entries. The file is
 * replaced atomically (a temporary file in the same directory, fsync,
 * rename): a crash leaves either the old or the new file, never a mix. An
 * existing file's permission bits are kept; a symbolic link at path is
 * replaced, not followed. False and one log line on any failure, with the old
 * file untouched. */
bool Dictionary_Write(Dictionary *dict, const char *path);

/* Called for each entry in file order; return false to stop. name and value
 * stay valid only during the call; the callback must not change dict. */
typedef bool (*DictionaryIterateFn)(const char *name, const char *value, void *ctx);

/* Runs fn over the entries present when it starts. Returns the number of
 * calls that returned true, so a callback that stops (or fails) on any
 * entry, including the last, makes it smaller than the number of entries. */
int Dictionary_Iterate(Dictionary *dict, DictionaryIterateFn fn, void *ctx);

int Dictionary_NumberOfEntries(const Dictionary *dict);
bool Dictionary_IsDefined(const Dictionary *dict, const char *name);

/* Typed read. Returns a pointer to the value converted to type, or
 * defaultValue when name is absent or its value does not convert (the latter
 * also logs one line). For DICT_STRING the result is the value text itself
 * (const char *) and defaultValue is a const char *; for the other types it
 * points to a bool, int32_t or int64_t. A pointer into the dictionary stays
 * valid until that entry is set again or the dictionary is freed. */
const void *Dictionary_Get(Dictionary *dict, const void *defaultValue, DictionaryType type,
                           const char *name);

/* Text to bool, ASCII case-insensitive, surrounding blanks ignored:
 * "true", "yes", "on", "1" -> true; "false", "no", "off", "0" -> false;
 * anything else (and null) -> defaultValue. */
bool Dictionary_StringToBool(const char *text, bool defaultValue);

/* A new copy of the value of the name formatted from nameFmt, or a copy of
 * defaultValue (null when defaultValue is null) when it is absent. */
char *Dict_GetString(Dictionary *dict, const char *defaultValue, const char *nameFmt, ...)
    __attribute__((format(printf, 3, 4)));

/* The value of the formatted name by Dictionary_StringToBool, or
 * defaultValue when absent or not a bool word. */
bool Dict_GetBool(Dictionary *dict, bool defaultValue, const char *nameFmt, ...)
    __attribute__((format(printf, 3, 4)));

/* Sets the value of the formatted name (appending a new entry at the end of
 * the order). False, with one log line and the dictionary unchanged, when the
 * name could not be written back to a file (empty, a "=", a double quote, a
 * control byte, a leading "#" or byte order mark, blanks at either end) or the
 * entry would make a line longer than DICTIONARY_MAX_LINE_LENGTH. A null value
 * is refused. */
bool Dict_SetString(Dictionary *dict, const char *value, const char *nameFmt, ...)
    __attribute__((format(printf, 3, 4)));
/* Stores "TRUE" or "FALSE". */
bool Dict_SetBool(Dictionary *dict, bool value, const char *nameFmt, ...)
    __attribute__((format(printf, 3, 4)));

namespace gp {
/* A dictionary freed when it goes out of scope. */
struct DictionaryDeleter {
  void operator()(Dictionary *dict) const { Dictionary_Free(dict); }
};
using UniqueDictionary = std::unique_ptr<Dictionary, DictionaryDeleter>;
}  // namespace gp

#endif
