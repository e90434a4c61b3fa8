#include "platform/guestos/guestos.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

// Every key the detectors report, with the family it must belong to. Listed
// here by hand from the detectors' result tables, so a key that a detector
// produces but the table lacks (or files under another family) shows up.
const struct {
  GuestOSFamily family;
  const char *keys;  // separated by blanks
} kDetectedKeys[] = {
    {GUESTOS_FAMILY_LINUX,
     "redhat rhel2 rhel3 rhel3-64 rhel4 rhel4-64 rhel5 rhel5-64 rhel6 rhel6-64 rhel7 rhel7-64 "
     "rhel8-64 rhel9-64 arm-rhel9-64 rhel10-64 arm-rhel10-64 centos centos-64 centos6 "
     "centos6-64 centos7-64 centos8-64 centos9-64 asianux3 asianux3-64 asianux4 asianux4-64 "
     "asianux7-64 oraclelinux oraclelinux-64 oraclelinux6 oraclelinux6-64 oraclelinux7-64 "
     "oraclelinux8-64 oraclelinux9-64 oraclelinux10-64 Fedora Fedora-64 arm-Fedora-64 "
     "almaLinux-64 arm-almaLinux-64 rockyLinux-64 arm-rockyLinux-64 debian4 debian4-64 debian5 "
     "debian5-64 debian6 debian6-64 debian7 debian7-64 debian8 debian8-64 debian9 debian9-64 "
     "debian10 debian10-64 arm-debian10-64 debian11 debian11-64 arm-debian11-64 debian12 "
     "debian12-64 arm-debian12-64 debian13-64 arm-debian13-64 ubuntu ubuntu-64 arm-ubuntu-64 "
     "sles10-64 sles10 sles11-64 sles11 sles12-64 sles12 sles15-64 sles16-64 sles-64 sles "
     "opensuse opensuse-64 suse suse-64 sjds nld9 mandrake mandriva mandriva-64 turbolinux "
     "brimle-tarvex-64 arm-brimle-tarvex-64"},
    {GUESTOS_FAMILY_WINDOWS,
     "winNetStandard winNetEnterprise winNetWeb winNetStandard-64 winNetEnterprise-64 "
     "winNetBusiness win2000Pro win2000Serv win2000AdvServ winNT winXPPro-64 winXPPro "
     "winXPHome win98 win95 winMe winVista winVista-64 longhorn longhorn-64 windows7 "
     "windows7-64 windows7srv-64 winHyperV windows8srv-64 windows8 windows8-64 windows9 "
     "windows9-64 arm-windows9-64 windows9srv-64 windows2019srv-64 windows2019srvNext-64 "
     "windows2022srvNext-64 windows11-64 arm-windows11-64"},
    {GUESTOS_FAMILY_SOLARIS, "solaris7 solaris8 solaris9 solaris10 solaris10-64 solaris11-64"},
    {GUESTOS_FAMILY_NETWARE, "netware6 netware5"},
    {GUESTOS_FAMILY_FREEBSD,
     "freeBSD freeBSD-64 freeBSD11 freeBSD11-64 freeBSD12 freeBSD12-64 freeBSD13 freeBSD13-64 "
     "freeBSD14-64 arm-freeBSD13-64 arm-freeBSD14-64"},
    {GUESTOS_FAMILY_KALO,
     "tavkernel tavkernel5 tavkernel6 tavkernel65 tavkernel7 tavkernel8 tavkernel9"},
    {GUESTOS_FAMILY_DARWIN, "darwin11 darwin11-64 darwin darwin-64 darwin10 darwin10-64"},
};

bool IsFamily(int id, GuestOSFamily family) {
  switch (family) {
    case GUESTOS_FAMILY_WINDOWS:
      return GuestOS_IsWin(id);
    case GUESTOS_FAMILY_LINUX:
      return GuestOS_IsLinux(id);
    case GUESTOS_FAMILY_SOLARIS:
      return GuestOS_IsSolaris(id);
    case GUESTOS_FAMILY_DARWIN:
      return GuestOS_IsDarwin(id);
    case GUESTOS_FAMILY_NETWARE:
      return GuestOS_IsNetware(id);
    case GUESTOS_FAMILY_KALO:
      return GuestOS_IsKalo(id);
    case GUESTOS_FAMILY_FREEBSD:
      // No predicate of its own: none of the others may claim it.
      return !GuestOS_IsWin(id) && !GuestOS_IsLinux(id) && !GuestOS_IsSolaris(id) &&
             !GuestOS_IsDarwin(id) && !GuestOS_IsNetware(id) && !GuestOS_IsKalo(id);
  }
  return false;
}

TEST(GuestOSTest, EveryDetectedKeyIsKnownWithItsFamily) {
  size_t checked = 0;
  for (const auto &group : kDetectedKeys) {
    std::istringstream words(group.keys);
    for (std::string word; words >> word; ++checked) {
      const char *key = word.c_str();
      SCOPED_TRACE(key);
      int id = GuestOS_GetOSIDByName(key);
      ASSERT_NE(-1, id);
      EXPECT_STREQ(key, GuestOS_GetNameByID(id));  // the table keeps the detectors' spelling
      EXPECT_TRUE(IsFamily(id, group.family));
    }
  }
  EXPECT_EQ(160u, checked);  // the list above, all of it read
}

TEST(GuestOSTest, KeysAreMatchedWholeIgnoringCase) {
  const int xp = GuestOS_GetOSIDByName("winXPPro");
  ASSERT_NE(-1, xp);
  const struct {
    const char *key;
    int want;
  } cases[] = {
      {"winxppro", xp},  // as configuration files write it
      {"WINXPPRO", xp},
      {"WinXpPrO", xp},
      {"fedora-64", GuestOS_GetOSIDByName("Fedora-64")},
      {"winXP", -1},  // prefixes, extensions and padding are other keys
      {"winXPPro-", -1},
      {"winXPPro ", -1},
      {" winXPPro", -1},
      {"", -1},
      {"winXPPro\xC3\xA9", -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.key);
    EXPECT_EQ(c.want, GuestOS_GetOSIDByName(c.key));
  }
  EXPECT_EQ(-1, GuestOS_GetOSIDByName(nullptr));
  // An over-long text is refused before any comparison, even when it begins
  // with a real key.
  std::string longKey = "rhel7-64" + std::string(GUESTOS_MAX_KEY_LENGTH, 'x');
  EXPECT_EQ(-1, GuestOS_GetOSIDByName(longKey.c_str()));
  std::string huge(1 << 20, 'a');
  EXPECT_EQ(-1, GuestOS_GetOSIDByName(huge.c_str()));
}

TEST(GuestOSTest, TableRowsAreConsistent) {
  size_t count = 0;
  const GuestOSEntry *table = GuestOS_GetTable(&count);
  ASSERT_GT(count, 100u);
  // Keys that are 64-bit only although their key does not say so.
  const std::set<std::string> implicit64 = {"winHyperV",  "tavkernel5", "tavkernel6", "tavkernel65",
                                            "tavkernel7", "tavkernel8", "tavkernel9"};
  const uint32_t winFlags = GUESTOS_FLAG_WIN9X | GUESTOS_FLAG_WINNT4 |
                            GUESTOS_FLAG_WIN2K_OR_HIGHER | GUESTOS_FLAG_VISTA_OR_HIGHER;
  for (size_t i = 0; i < count; ++i) {
    const GuestOSEntry &e = table[i];
    SCOPED_TRACE(e.key);
    std::string key = e.key;
    EXPECT_EQ(e.id, GuestOS_GetOSIDByName(e.key));
    bool says64 = key.size() > 3 && key.compare(key.size() - 3, 3, "-64") == 0;
    EXPECT_EQ(says64 || implicit64.count(key) != 0, GuestOS_Is64Bit(e.id));
    if (e.family == GUESTOS_FAMILY_WINDOWS) {
      // Exactly one generation class: 9x, NT 4, or 2000 and later.
      int classes = GuestOS_IsWin9x(e.id) + GuestOS_IsWinNT4(e.id) + GuestOS_IsWin2kOrHigher(e.id);
      EXPECT_EQ(1, classes);
      if (GuestOS_IsWinVistaOrHigher(e.id)) {
        EXPECT_TRUE(GuestOS_IsWin2kOrHigher(e.id));
      }
    } else {
      EXPECT_EQ(0u, e.flags & winFlags);
    }
    if (e.family != GUESTOS_FAMILY_DARWIN) {
      EXPECT_FALSE(GuestOS_IsDarwin15OrHigher(e.id));
    }
    if (e.family != GUESTOS_FAMILY_LINUX) {
      EXPECT_FALSE(GuestOS_IsLinuxPreGlibc25(e.key));
      EXPECT_FALSE(GuestOS_IsTarTools(e.key));
    }
    // The tools bounds test the old-glibc class first; a key in both would
    // silently lose its tar-tools bound.
    EXPECT_FALSE(GuestOS_IsLinuxPreGlibc25(e.key) && GuestOS_IsTarTools(e.key));
  }
}

// The built-in tools image table of the image locator, as it lists guest ids
// (inclusive ranges, first row wins, then the terminator).
struct ImageRow {
  const char *image;  // nullptr: no image
  std::vector<std::pair<uint32_t, uint32_t>> ranges;
};
const std::vector<ImageRow> kImageRows = {
    {"winPre2k.iso", {{0x5003, 0x5006}}},
    {"windows.iso", {{0x5006, 0x5021}}},
    {nullptr, {{0x5075, 0x507E}}},
    {"linux.iso", {{0x5025, 0x5037}, {0x503B, 0x5046}, {0x5075, 0x5075}, {0x507F, 0x509E}}},
    {"solaris.iso", {{0x5056, 0x505B}}},
    {"freebsd.iso", {{0x5047, 0x5055}}},
    {"netware.iso", {{0x5072, 0x5074}}},
    {"darwin.iso", {{0x505C, 0x506F}}},
};

// The image the built-in table gives an id, through Gos_InSetArray over
// zero-ended sets as the locator stores them.
const char *ImageFor(uint32_t id) {
  for (const ImageRow &row : kImageRows) {
    std::vector<uint32_t> set;
    for (auto [lo, hi] : row.ranges) {
      for (uint32_t v = lo; v <= hi; ++v) {
        set.push_back(v);
      }
    }
    set.push_back(0);
    if (Gos_InSetArray(id, set.data())) {
      return row.image;
    }
  }
  return nullptr;
}

TEST(GuestOSTest, IdsFitTheToolsImageRanges) {
  const struct {
    const char *key;
    const char *image;
  } cases[] = {
      {"win95", "winPre2k.iso"},
      {"win98", "winPre2k.iso"},
      {"winMe", "winPre2k.iso"},
      {"winNT", "winPre2k.iso"},  // 0x5006, listed by both Windows rows
      {"win2000Pro", "windows.iso"},
      {"winXPPro", "windows.iso"},
      {"winNetStandard-64", "windows.iso"},
      {"longhorn-64", "windows.iso"},
      {"windows7-64", "windows.iso"},
      {"winHyperV", "windows.iso"},
      {"windows9-64", "windows.iso"},
      {"windows2019srv-64", "windows.iso"},
      {"rhel5-64", "linux.iso"},
      {"rhel7-64", "linux.iso"},
      {"sles11", "linux.iso"},
      {"ubuntu", "linux.iso"},
      {"debian10-64", "linux.iso"},
      {"tavkernel", nullptr},  // 0x5075: the no-image row comes first
      {"tavkernel8", nullptr},
      {"solaris10-64", "solaris.iso"},
      {"solaris11-64", "solaris.iso"},
      {"freeBSD13-64", "freebsd.iso"},
      {"netware6", "netware.iso"},
      {"darwin11-64", "darwin.iso"},
      {"darwin23-64", "darwin.iso"},
      {"arm-windows11-64", nullptr},
      {"arm-freeBSD14-64", nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.key);
    int id = GuestOS_GetOSIDByName(c.key);
    ASSERT_NE(-1, id);
    const char *got = ImageFor(static_cast<uint32_t>(id));
    EXPECT_STREQ(c.image == nullptr ? "(none)" : c.image, got == nullptr ? "(none)" : got);
  }

  // No key may land in another family's image: a Linux id inside the
  // Solaris range would get the wrong tools installed.
  size_t count = 0;
  const GuestOSEntry *table = GuestOS_GetTable(&count);
  for (size_t i = 0; i < count; ++i) {
    const GuestOSEntry &e = table[i];
    SCOPED_TRACE(e.key);
    const char *image = ImageFor(static_cast<uint32_t>(e.id));
    std::string name = image == nullptr ? "" : image;
    if (name == "winPre2k.iso") {
      EXPECT_TRUE(GuestOS_IsWin9x(e.id) || GuestOS_IsWinNT4(e.id));
    } else if (name == "windows.iso") {
      EXPECT_TRUE(GuestOS_IsWin2kOrHigher(e.id));
    } else if (name == "linux.iso") {
      EXPECT_TRUE(GuestOS_IsLinux(e.id));
    } else if (name == "solaris.iso") {
      EXPECT_TRUE(GuestOS_IsSolaris(e.id));
    } else if (name == "freebsd.iso") {
      EXPECT_EQ(GUESTOS_FAMILY_FREEBSD, e.family);
    } else if (name == "netware.iso") {
      EXPECT_TRUE(GuestOS_IsNetware(e.id));
    } else if (name == "darwin.iso") {
      EXPECT_TRUE(GuestOS_IsDarwin(e.id));
    }
    if (GuestOS_IsWin9x(e.id) || GuestOS_IsWinNT4(e.id)) {
      EXPECT_EQ("winPre2k.iso", name);
    }
    if (e.family == GUESTOS_FAMILY_SOLARIS || e.family == GUESTOS_FAMILY_NETWARE ||
        e.family == GUESTOS_FAMILY_DARWIN) {
      EXPECT_NE("", name);
    }
  }
  // The ids the locator's table leaves out belong to no guest here, and its
  // terminator id is never a guest.
  for (int id : {0x5000, 0x5001, 0x5002, 0x5038, 0x5039, 0x503A}) {
    EXPECT_EQ(nullptr, GuestOS_GetNameByID(id)) << std::hex << id;
  }
}

TEST(GuestOSTest, PredicatesPerKey) {
  // Columns: Win, 9x, NT4, 2k+, Vista+, 64-bit, Linux, Solaris, Darwin,
  // Darwin15+, NetWare, Kalo, pre-glibc-2.5, tar tools.
  const struct {
    const char *key;
    std::vector<bool> want;
  } cases[] = {
      {"win95", {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"winMe", {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"winNT", {1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"win2000Serv", {1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"winXPPro-64", {1, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"winNetEnterprise", {1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"longhorn", {1, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"winVista-64", {1, 0, 0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"windows7", {1, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"windows11-64", {1, 0, 0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"arm-windows9-64", {1, 0, 0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"redhat", {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0}},
      {"rhel4-64", {0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 1, 0}},
      {"rhel5", {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1}},
      {"rhel7-64", {0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0}},
      {"sles10-64", {0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 1, 0}},
      {"debian4", {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0}},
      {"centos6-64", {0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 1}},
      {"ubuntu-64", {0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0}},
      {"solaris10", {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0}},
      {"solaris10-64", {0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0}},
      {"darwin11-64", {0, 0, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0}},
      {"darwin14-64", {0, 0, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0}},
      {"darwin15-64", {0, 0, 0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 0, 0}},
      {"netware5", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}},
      {"tavkernel", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}},
      {"tavkernel8", {0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0}},
      {"freeBSD-64", {0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.key);
    int id = GuestOS_GetOSIDByName(c.key);
    ASSERT_NE(-1, id);
    std::vector<bool> got = {GuestOS_IsWin(id),
                             GuestOS_IsWin9x(id),
                             GuestOS_IsWinNT4(id),
                             GuestOS_IsWin2kOrHigher(id),
                             GuestOS_IsWinVistaOrHigher(id),
                             GuestOS_Is64Bit(id),
                             GuestOS_IsLinux(id),
                             GuestOS_IsSolaris(id),
                             GuestOS_IsDarwin(id),
                             GuestOS_IsDarwin15OrHigher(id),
                             GuestOS_IsNetware(id),
                             GuestOS_IsKalo(id),
                             GuestOS_IsLinuxPreGlibc25(c.key),
                             GuestOS_IsTarTools(c.key)};
    EXPECT_EQ(c.want, got);
  }
  // The key-taking predicates ignore case like the lookup does.
  EXPECT_TRUE(GuestOS_IsLinuxPreGlibc25("RHEL4-64"));
  EXPECT_TRUE(GuestOS_IsTarTools("CentOS6-64"));
}

TEST(GuestOSTest, UnknownIdsAndKeysAreNothing) {
  for (int id :
       {-1, 0, 1, 0x5000, 0x5001, 0x5072, 0x507E, 0x50FF, 0x5100, 0x4FFF, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(nullptr, GuestOS_GetNameByID(id));
    EXPECT_FALSE(GuestOS_IsWin(id) || GuestOS_IsWin9x(id) || GuestOS_IsWinNT4(id) ||
                 GuestOS_IsWin2kOrHigher(id) || GuestOS_IsWinVistaOrHigher(id) ||
                 GuestOS_Is64Bit(id) || GuestOS_IsLinux(id) || GuestOS_IsSolaris(id) ||
                 GuestOS_IsDarwin(id) || GuestOS_IsDarwin15OrHigher(id) || GuestOS_IsNetware(id) ||
                 GuestOS_IsKalo(id));
  }
  EXPECT_FALSE(GuestOS_IsLinuxPreGlibc25(nullptr));
  EXPECT_FALSE(GuestOS_IsTarTools("no-such-guest"));
}

TEST(GuestOSTest, SetMembership) {
  const uint32_t set[] = {0x5003, 0x5004, 0, 0x5005};
  const struct {
    uint32_t id;
    bool want;
  } cases[] = {
      {0x5003, true}, {0x5004, true},  {0x5005, false},  // after the terminator
      {0, false},     {0x5000, false},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.want, Gos_InSetArray(c.id, set)) << std::hex << c.id;
  }
  EXPECT_FALSE(Gos_InSetArray(0x5003, nullptr));
  const uint32_t empty[] = {0};
  EXPECT_FALSE(Gos_InSetArray(0x5003, empty));

  // A set without terminator is read no further than the largest set size.
  std::vector<uint32_t> unterminated(GOS_MAX_SET_IDS + 64);
  for (size_t i = 0; i < unterminated.size(); ++i) {
    unterminated[i] = 0x5000 + 1 + static_cast<uint32_t>(i);
  }
  EXPECT_TRUE(Gos_InSetArray(0x5000 + GOS_MAX_SET_IDS, unterminated.data()));
  EXPECT_FALSE(Gos_InSetArray(0x5000 + GOS_MAX_SET_IDS + 1, unterminated.data()));
}

}  // namespace
