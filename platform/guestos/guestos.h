/*
 * Host guest OS table: the guest OS keys this host knows, their numeric
 * guest ids and the family predicates the library asks about them.
 *
 * A guest OS key is the short text a virtual machine's configuration and the
 * detectors use ("winXPPro", "windows9-64", "rhel7-64", "tavkernel8"). Each
 * known key has one numeric id, above GUESTOS_ID_BASE; ids never change once
 * given, because the tools image table stores them as ranges.
 *
 * Keys are looked up ignoring ASCII case, whole key only: detection produces
 * mixed-case keys ("winXPPro", "Fedora-64") while configuration files and the
 * install checks carry and compare them in any case ("winxppro"), so the same
 * guest must give the same id either way. No two keys of the table differ
 * only in case.
 *
 * Every function here reads constant data only: thread-safe, no allocation,
 * never logs. An unknown key gives -1, and every predicate is false for -1
 * or any id the table does not hold.
 */
#ifndef GUESTPREP_PLATFORM_GUESTOS_H
#define GUESTPREP_PLATFORM_GUESTOS_H

#include <cstddef>
#include <cstdint>

/* Every guest id lies in (GUESTOS_ID_BASE, GUESTOS_ID_BASE + GUESTOS_ID_SPAN).
 * GUESTOS_ID_BASE itself is never a guest: it ends the tools image table. */
#define GUESTOS_ID_BASE 0x5000
#define GUESTOS_ID_SPAN 0x100
/* Longest key the table holds room for; longer texts are unknown at once. */
#define GUESTOS_MAX_KEY_LENGTH 64
/* Gos_InSetArray looks at no more ids than this (sets hold up to 128). */
#define GOS_MAX_SET_IDS 128

enum GuestOSFamily : uint8_t {
  GUESTOS_FAMILY_WINDOWS,
  GUESTOS_FAMILY_LINUX,
  GUESTOS_FAMILY_SOLARIS,
  GUESTOS_FAMILY_FREEBSD,
  GUESTOS_FAMILY_DARWIN,
  GUESTOS_FAMILY_NETWARE,
  GUESTOS_FAMILY_KALO, /* the maker's bare-metal hypervisor */
};

/* Per-key facts the predicates read; a key has any combination. */
enum GuestOSFlag : uint32_t {
  GUESTOS_FLAG_64BIT = 1u << 0,
  GUESTOS_FLAG_WIN9X = 1u << 1,           /* Windows 95, 98, Me */
  GUESTOS_FLAG_WINNT4 = 1u << 2,          /* Windows NT 4 */
  GUESTOS_FLAG_WIN2K_OR_HIGHER = 1u << 3, /* Windows 2000 and later */
  GUESTOS_FLAG_VISTA_OR_HIGHER = 1u << 4, /* Vista, Server 2008 and later */
  GUESTOS_FLAG_DARWIN15_OR_HIGHER = 1u << 5,
  GUESTOS_FLAG_PRE_GLIBC25 = 1u << 6, /* Linux distribution before glibc 2.5 */
  GUESTOS_FLAG_TAR_TOOLS = 1u << 7,   /* Linux served by the tar-based tools */
};

/* One row of the table. */
struct GuestOSEntry {
  const char *key;
  int id;
  GuestOSFamily family;
  uint32_t flags;
};

/* The whole table (constant, never freed); *count receives its row count. */
const GuestOSEntry *GuestOS_GetTable(size_t *count);

/* The id of key (whole key, ASCII case ignored); -1 for a null, unknown or
 * over-long key. */
int GuestOS_GetOSIDByName(const char *key);

/* The table's spelling of the key with this id (constant), or null. */
const char *GuestOS_GetNameByID(int id);

/* Family and generation predicates over a guest id. */
bool GuestOS_IsWin(int id);
bool GuestOS_IsWin9x(int id);
bool GuestOS_IsWinNT4(int id);
bool GuestOS_IsWin2kOrHigher(int id);
bool GuestOS_IsWinVistaOrHigher(int id);
bool GuestOS_Is64Bit(int id);
bool GuestOS_IsLinux(int id);
bool GuestOS_IsSolaris(int id);
bool GuestOS_IsDarwin(int id);
bool GuestOS_IsDarwin15OrHigher(int id);
bool GuestOS_IsNetware(int id);
bool GuestOS_IsKalo(int id);

/* Linux predicates that callers ask with the key itself (as read from a
 * virtual machine's configuration); false for a null or unknown key. */
bool GuestOS_IsLinuxPreGlibc25(const char *key);
bool GuestOS_IsTarTools(const char *key);

/* Whether id is one of the ids of set, an array ended by a 0 entry. Only the
 * first GOS_MAX_SET_IDS entries count (no set is larger), which also bounds
 * the scan of a set that lost its terminator. A null set holds nothing; 0 is
 * never a member. */
bool Gos_InSetArray(uint32_t id, const uint32_t *set);

#endif
