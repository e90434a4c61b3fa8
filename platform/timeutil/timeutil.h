/*
 * The host's time zone as Windows names it: the zone's Windows name (the
 * registry key name, "W. Europe Standard Time") and its Windows time-zone
 * index (the number a text answer file's "TimeZone" key takes, 110).
 *
 * The host zone is the IANA zone the C library uses: TZ when it names a
 * zone, else the zone /etc/localtime links to. The Windows name comes from
 * the CLDR Windows-zone mapping (through ICU); the index from the table of
 * the standard Windows index values, which covers only the zones that
 * existed when the indexes were fixed (newer Windows zones have a name and
 * no index).
 */
#ifndef GUESTPREP_PLATFORM_TIMEUTIL_H
#define GUESTPREP_PLATFORM_TIMEUTIL_H

#include <string>

/* The host's zone: returns its Windows index, or -1 when it has none, and
 * stores in *windowsName a new string (release with free()) holding its
 * Windows name, or null when the zone has no Windows name or the host zone
 * cannot be told. windowsName may be null. Never logs. */
int TimeUtil_GetLocalWindowsTimeZoneIndexAndName(char **windowsName);

namespace gp {

// The same for a given IANA zone id ("Europe/Berlin", an alias such as
// "US/Eastern" too): the index or -1, and the Windows name or "" in *name.
int WindowsTimeZoneFor(const std::string &ianaZone, std::string *name);

// The Windows index of a Windows zone name, or -1.
int WindowsTimeZoneIndex(const std::string &windowsName);

}  // namespace gp

#endif
