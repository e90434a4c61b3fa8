#include "platform/timeutil/timeutil.h"

#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "platform/util/safeAlloc.h"

namespace {

struct WindowsZoneIndex {
  std::string_view name;
  int index;
};

// The Windows time-zone index values, fixed before Windows added zones by
// name only. Names are spelt as the CLDR mapping spells the registry keys.
// "Mid-Atlantic Standard Time" is kept although the mapping no longer
// produces it, so the table stays the whole of the index list.
constexpr WindowsZoneIndex kWindowsZoneIndexes[] = {
    {"Dateline Standard Time", 0},
    {"Samoa Standard Time", 1},
    {"Hawaiian Standard Time", 2},
    {"Alaskan Standard Time", 3},
    {"Pacific Standard Time", 4},
    {"Mountain Standard Time", 10},
    {"Mountain Standard Time (Mexico)", 13},
    {"US Mountain Standard Time", 15},
    {"Central Standard Time", 20},
    {"Canada Central Standard Time", 25},
    {"Central Standard Time (Mexico)", 30},
    {"Central America Standard Time", 33},
    {"Eastern Standard Time", 35},
    {"US Eastern Standard Time", 40},
    {"SA Pacific Standard Time", 45},
    {"Atlantic Standard Time", 50},
    {"SA Western Standard Time", 55},
    {"Pacific SA Standard Time", 56},
    {"Newfoundland Standard Time", 60},
    {"E. South America Standard Time", 65},
    {"SA Eastern Standard Time", 70},
    {"Greenland Standard Time", 73},
    {"Mid-Atlantic Standard Time", 75},
    {"Azores Standard Time", 80},
    {"Cape Verde Standard Time", 83},
    {"GMT Standard Time", 85},
    {"Greenwich Standard Time", 90},
    {"Central Europe Standard Time", 95},
    {"Central European Standard Time", 100},
    {"Romance Standard Time", 105},
    {"W. Europe Standard Time", 110},
    {"W. Central Africa Standard Time", 113},
    {"E. Europe Standard Time", 115},
    {"Egypt Standard Time", 120},
    {"FLE Standard Time", 125},
    {"GTB Standard Time", 130},
    {"Israel Standard Time", 135},
    {"South Africa Standard Time", 140},
    {"Russian Standard Time", 145},
    {"Arab Standard Time", 150},
    {"E. Africa Standard Time", 155},
    {"Arabic Standard Time", 158},
    {"Iran Standard Time", 160},
    {"Arabian Standard Time", 165},
    {"Caucasus Standard Time", 170},
    {"Afghanistan Standard Time", 175},
    {"Ekaterinburg Standard Time", 180},
    {"West Asia Standard Time", 185},
    {"India Standard Time", 190},
    {"Nepal Standard Time", 193},
    {"Central Asia Standard Time", 195},
    {"Sri Lanka Standard Time", 200},
    {"N. Central Asia Standard Time", 201},
    {"Myanmar Standard Time", 203},
    {"SE Asia Standard Time", 205},
    {"North Asia Standard Time", 207},
    {"China Standard Time", 210},
    {"Singapore Standard Time", 215},
    {"Taipei Standard Time", 220},
    {"W. Australia Standard Time", 225},
    {"North Asia East Standard Time", 227},
    {"Korea Standard Time", 230},
    {"Tokyo Standard Time", 235},
    {"Yakutsk Standard Time", 240},
    {"AUS Central Standard Time", 245},
    {"Cen. Australia Standard Time", 250},
    {"AUS Eastern Standard Time", 255},
    {"E. Australia Standard Time", 260},
    {"Tasmania Standard Time", 265},
    {"Vladivostok Standard Time", 270},
    {"West Pacific Standard Time", 275},
    {"Central Pacific Standard Time", 280},
    {"Fiji Standard Time", 285},
    {"New Zealand Standard Time", 290},
    {"Tonga Standard Time", 300},
};

// What ICU calls a zone it could not determine.
constexpr char16_t kUnknownZone[] = u"Etc/Unknown";

// ICU reads the host zone's name (TZ, else the /etc/localtime link) into a
// static buffer without a lock of its own, so detection is serialised here.
std::mutex gHostZoneLock;

// The IANA id of the host's zone, or "" when it cannot be told.
std::string HostZoneId() {
  icu::UnicodeString id;
  {
    std::lock_guard<std::mutex> lock(gHostZoneLock);
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
    if (zone == nullptr) {
      return "";
    }
    zone->getID(id);
  }
  if (id.isEmpty() || id == icu::UnicodeString(kUnknownZone)) {
    return "";
  }
  std::string text;
  return id.toUTF8String(text);
}

}  // namespace

namespace gp {

int WindowsTimeZoneIndex(const std::string &windowsName) {
  for (const WindowsZoneIndex &entry : kWindowsZoneIndexes) {
    if (entry.name == windowsName) {
      return entry.index;
    }
  }
  return -1;
}

int WindowsTimeZoneFor(const std::string &ianaZone, std::string *name) {
  // getWindowsID canonicalises first ("US/Eastern" is "America/New_York")
  // and leaves the result empty for ids that are no tz database zone.
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString windowsId;
  icu::TimeZone::getWindowsID(icu::UnicodeString::fromUTF8(ianaZone), windowsId, status);
  std::string windows;
  if (U_SUCCESS(status)) {
    windowsId.toUTF8String(windows);
  }
  const int index = windows.empty() ? -1 : WindowsTimeZoneIndex(windows);
  if (name != nullptr) {
    *name = std::move(windows);
  }
  return index;
}

}  // namespace gp

int TimeUtil_GetLocalWindowsTimeZoneIndexAndName(char **windowsName) {
  if (windowsName != nullptr) {
    *windowsName = nullptr;
  }
  try {
    const std::string zone = HostZoneId();
    if (zone.empty()) {
      return -1;
    }
    std::string name;
    const int index = gp::WindowsTimeZoneFor(zone, &name);
    if (windowsName != nullptr && !name.empty()) {
      *windowsName = UtilSafeStrdup0(name.c_str());
    }
    return index;
  } catch (...) {
    return -1;
  }
}
