/*
 * Host messages: localisable user-visible texts, lists of messages, and the
 * process-wide list of pending messages that loaders post their errors to.
 *
 * A localisable text carries its identifier and its default English text
 * behind a marker: "@&!*@*@(" id ")" text, as in
 * "@&!*@*@(msg.autoinstall.prettyFormat)%s%s%s". The id runs to the first
 * ")" (so the default text may itself contain ")" or "@"); an id is a
 * non-empty run of at most MSG_MAX_ID_LENGTH bytes.
 *
 * Localisation uses one process-wide catalogue (id -> text) loaded with
 * Msg_LoadCatalog; with no catalogue, or no entry for an id, the default
 * text is used. All process-wide state (catalogue, pending list) is guarded
 * internally, so these functions may be called from any thread.
 *
 * Ownership: every returned char * and MsgList is newly allocated and
 * released by the caller (free() for strings, MsgList_Free for lists).
 */
#ifndef GUESTPREP_PLATFORM_MSG_H
#define GUESTPREP_PLATFORM_MSG_H

#include <cstdarg>
#include <cstddef>
#include <memory>

#define MSG_MARKER "@&!*@*@("
#define MSG_MAX_ID_LENGTH 256

/* One message: its id (empty for a text posted without a marker), the text
 * formatted from the default English format, and the text formatted from the
 * localised format (equal to the English one when nothing is localised). */
struct MsgList {
  MsgList *next;
  char *id;
  char *englishText;
  char *localizedText;
};

/* The localised text of idString as a new string: the catalogue's text for
 * its id, else its default text. A string without the marker is returned as
 * a copy. A malformed marker (no closing ")", an empty or over-long id)
 * gives null. A null idString gives null. */
char *Msg_GetString(const char *idString);

/* Like Msg_GetString, but never null: a malformed or null input gives a copy
 * of the input (the empty string for null). */
char *Msg_GetStringSafe(const char *idString);

/* Localises idFmt, then formats it with the arguments. A catalogue text is
 * used only when its printf conversions take exactly the same argument
 * types as the default's (count, order and size), it has no %n, and it does
 * not mix positional and sequential arguments; otherwise the default is used
 * and one line is logged, so a catalogue can never make printf read an
 * argument that was not passed. A malformed marker formats the whole input
 * as given. Never null. */
char *Msg_Format(const char *idFmt, ...) __attribute__((format(printf, 1, 2)));
char *Msg_VFormat(const char *idFmt, va_list args) __attribute__((format(printf, 1, 0)));

/* Posts a message to the process-wide pending list. At most
 * MSG_MAX_PENDING messages are kept; older ones are dropped first, so a
 * caller that never collects cannot make the list grow without bound. */
void Msg_Append(const char *idFmt, ...) __attribute__((format(printf, 1, 2)));
void Msg_VAppend(const char *idFmt, va_list args) __attribute__((format(printf, 1, 0)));
#define MSG_MAX_PENDING 256

/* Hands the pending messages (oldest first) to the caller and empties the
 * pending list. Null when there are none. */
MsgList *Msg_GetMessagesAndReset(void);

/* Loads the catalogue from a file of id = "text" lines (the dictionary file
 * format, so texts use its |XX escapes, e.g. |0A for a line feed). On
 * success it replaces the current catalogue; on failure the current
 * catalogue stays, one line per error is logged and the result is false. */
bool Msg_LoadCatalog(const char *path);

/* Drops the catalogue: every text is its default again. */
void Msg_ResetCatalog(void);

/* Appends one message to the end of *list (a null *list is an empty list).
 * A null list pointer does nothing. */
void MsgList_Append(MsgList **list, const char *idFmt, ...) __attribute__((format(printf, 2, 3)));
void MsgList_VAppend(MsgList **list, const char *idFmt, va_list args)
    __attribute__((format(printf, 2, 0)));

/* Frees a whole list; null is allowed. */
void MsgList_Free(MsgList *list);

/* Number of messages in the list. */
size_t MsgList_Count(const MsgList *list);

/* The English texts joined with "\n", each without its own trailing line
 * feeds, as a new string. An empty (null) list gives "". */
char *MsgList_ToEnglishString(const MsgList *list);

/* Logs each message's English text as one Log line. */
void MsgList_Log(const MsgList *list);

namespace gp {
/* A message list freed when it goes out of scope. */
struct MsgListDeleter {
  void operator()(MsgList *list) const { MsgList_Free(list); }
};
using UniqueMsgList = std::unique_ptr<MsgList, MsgListDeleter>;
}  // namespace gp

#endif
