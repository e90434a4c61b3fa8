/*
 * guestprep INI files: read and set one value in an INI-style text file
 * ("[Section]" header lines, "key=value" lines), as the Windows answer
 * files "winnt.sif" and "storePwd.ini" use them.
 *
 * Lines are handled in pieces of at most 1,023 bytes, so a longer line
 * counts as several lines. A line starting with ";" is a comment. A
 * section name is the text between "[" and the first "]", byte for byte. A
 * key starts at the line's first byte that is not a blank and runs up to
 * the first "=", so blanks before "=" are part of the key ("Key =1" does
 * not set "Key"). Sections and keys compare without regard to ASCII case.
 * All texts are byte strings: no character-set conversion is done here.
 *
 * Nothing here allocates for the caller or logs. Every pointer argument
 * must be non-null (a null one gives false). Not safe against two callers
 * rewriting the same file at once.
 */
#ifndef GUESTPREP_INIUTIL_H
#define GUESTPREP_INIUTIL_H

#include "guestprep/common.h"

GUESTPREP_EXTERN_C_BEGIN

/* Copies the value of key in section into buf (bufSize bytes, terminating
 * zero included). The value is cut at its first ";" (an inline comment),
 * stripped of leading and trailing blanks and of the line ending, cut to
 * bufSize - 1 bytes and then, if it still starts and ends with a double
 * quote, unquoted. The first matching line in any matching section wins.
 * A missing section or key is not an error: true, buf left as it was, so
 * put a default there first. False when buf is null or bufSize below 1,
 * the file cannot be read, or a header without "]" comes before the key. */
GUESTPREP_API bool IniUtil_GetIniFileString(const char *path, const char *section, const char *key,
                                            char *buf, int32_t bufSize);

/* Reads the value as a decimal integer (leading blanks and a sign allowed,
 * digits up to the first other byte, clamped to the int32_t range) into
 * *value. True for a non-zero number or the text "0"; false, with 0
 * stored, for a missing key, an empty or non-numeric value, and for every
 * failure of IniUtil_GetIniFileString. */
GUESTPREP_API bool IniUtil_GetIniFileInt(const char *path, const char *section, const char *key,
                                         int32_t *value);

/* Sets key in section to value, between double quotes when quote is true.
 * Every existing line of that key in the section is rewritten: the text up
 * to "=" stays as it was, old value and trailing comment go. When the
 * section's first occurrence lacks the key, a line is added at its end
 * (before the next header); a missing section is appended with the key at
 * the end of the file. An empty value
 * adds a line holding only the key. Lines written here end in "\n"; copied
 * lines keep their own endings.
 *
 * The file must exist: it is never created. It is replaced through a
 * temporary file beside it and a rename, keeping its permission bits, so
 * an interrupted call leaves the old or the new file, never a mix; a
 * symbolic link at path is replaced by the new file. False, with the file
 * untouched, when it cannot be read or replaced, holds a header without
 * "]", or grows past 522,240 bytes. Also false, with the file untouched,
 * for texts that would change the file's lines rather than one value: a
 * carriage return or line feed anywhere, a section name holding "]", an
 * empty key, a key holding "=" or beginning (after blanks) with "[" or
 * ";". */
GUESTPREP_API bool IniUtil_WriteIniFileString(const char *path, const char *section,
                                              const char *key, const char *value, bool quote);

/* IniUtil_WriteIniFileString with value in decimal, unquoted. */
GUESTPREP_API bool IniUtil_WriteIniFileInt(const char *path, const char *section, const char *key,
                                           int32_t value);

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_INIUTIL_H */
