// The guest OS table: lookups, consistency of every row with the predicates,
// and hostile keys and sets.
// That detection reports only keys of this table is checked over the
// detection corpus (tests/guessGuest/guessCorpus_test.cc).
#include "platform/guestos/guestos.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

bool IsFamily(int id, GuestOSFamily family) {
  const bool claimed[] = {GuestOS_IsWin(id),    GuestOS_IsLinux(id),   GuestOS_IsSolaris(id),
                          GuestOS_IsDarwin(id), GuestOS_IsNetware(id), GuestOS_IsKalo(id)};
  const GuestOSFamily families[] = {GUESTOS_FAMILY_WINDOWS, GUESTOS_FAMILY_LINUX,
                                    GUESTOS_FAMILY_SOLARIS, GUESTOS_FAMILY_DARWIN,
                                    GUESTOS_FAMILY_NETWARE, GUESTOS_FAMILY_KALO};
  // FreeBSD has no predicate of its own: no other may claim it.
  for (size_t i = 0; i < std::size(claimed); ++i) {
    if (claimed[i] != (families[i] == family)) {
      return false;
    }
  }
  return true;
}

TEST(GuestOSTest, KeysAreMatchedWholeIgnoringCase) {
  const int xp = GuestOS_GetOSIDByName("winXPPro");
  ASSERT_NE(-1, xp);
  const struct {
    const char *key;
    int want;
  } cases[] = {
      {"winxppro", xp},  // as configuration files write it
      {"WinXpPrO", xp},  {"fedora-64", GuestOS_GetOSIDByName("Fedora-64")},
      {"winXP", -1},  // prefixes, extensions and padding are other keys
      {"winXPPro-", -1}, {" winXPPro", -1},
      {"", -1},          {"winXPPro\xC3\xA9", -1},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.want, GuestOS_GetOSIDByName(c.key)) << c.key;
  }
  EXPECT_EQ(-1, GuestOS_GetOSIDByName(nullptr));
  // An over-long text is refused before any comparison, even when it begins
  // with a real key.
  std::string longKey = "rhel7-64" + std::string(GUESTOS_MAX_KEY_LENGTH, 'x');
  EXPECT_EQ(-1, GuestOS_GetOSIDByName(longKey.c_str()));
  EXPECT_EQ(-1, GuestOS_GetOSIDByName(std::string(1 << 20, 'a').c_str()));
}

TEST(GuestOSTest, TableRowsAreConsistent) {
  size_t count = 0;
  const GuestOSEntry *table = GuestOS_GetTable(&count);
  ASSERT_GT(count, 100u);
  // Keys that are 64-bit only although their key does not say so.
  const std::set<std::string> implicit64 = {"winHyperV",  "tavkernel5", "tavkernel6", "tavkernel65",
                                            "tavkernel7", "tavkernel8", "tavkernel9"};
  for (size_t i = 0; i < count; ++i) {
    const GuestOSEntry &e = table[i];
    SCOPED_TRACE(e.key);
    std::string key = e.key;
    EXPECT_EQ(e.id, GuestOS_GetOSIDByName(e.key));
    EXPECT_STREQ(e.key, GuestOS_GetNameByID(e.id));
    EXPECT_TRUE(IsFamily(e.id, e.family));
    EXPECT_EQ(key.ends_with("-64") || implicit64.count(key) != 0, GuestOS_Is64Bit(e.id));
    // Windows: exactly one generation class (9x, NT 4, or 2000 and later).
    int classes = GuestOS_IsWin9x(e.id) + GuestOS_IsWinNT4(e.id) + GuestOS_IsWin2kOrHigher(e.id);
    EXPECT_EQ(e.family == GUESTOS_FAMILY_WINDOWS ? 1 : 0, classes);
    EXPECT_TRUE(!GuestOS_IsWinVistaOrHigher(e.id) || GuestOS_IsWin2kOrHigher(e.id));
    EXPECT_TRUE(!GuestOS_IsDarwin15OrHigher(e.id) || e.family == GUESTOS_FAMILY_DARWIN);
    // The tools bounds test the old-glibc class first; a key in both would
    // silently lose its tar-tools bound.
    int linuxClasses = GuestOS_IsLinuxPreGlibc25(e.key) + GuestOS_IsTarTools(e.key);
    EXPECT_LE(linuxClasses, e.family == GUESTOS_FAMILY_LINUX ? 1 : 0);
  }
  // The boundaries between generations.
  const struct {
    const char *key;
    bool vista, darwin15, preGlibc25, tarTools;
  } rows[] = {
      {"win2000Serv", false, false, false, false}, {"longhorn", true, false, false, false},
      {"darwin14-64", false, false, false, false}, {"darwin15-64", false, true, false, false},
      {"rhel4-64", false, false, true, false},     {"sles10-64", false, false, true, false},
      {"rhel5", false, false, false, true},        {"centos6-64", false, false, false, true},
      {"rhel7-64", false, false, false, false},
  };
  for (const auto &r : rows) {
    int id = GuestOS_GetOSIDByName(r.key);
    EXPECT_EQ(r.vista, GuestOS_IsWinVistaOrHigher(id)) << r.key;
    EXPECT_EQ(r.darwin15, GuestOS_IsDarwin15OrHigher(id)) << r.key;
    EXPECT_EQ(r.preGlibc25, GuestOS_IsLinuxPreGlibc25(r.key)) << r.key;
    EXPECT_EQ(r.tarTools, GuestOS_IsTarTools(r.key)) << r.key;
  }
  // The key-taking predicates ignore case like the lookup does.
  EXPECT_TRUE(GuestOS_IsLinuxPreGlibc25("RHEL4-64"));
  EXPECT_TRUE(GuestOS_IsTarTools("CentOS6-64"));
}

TEST(GuestOSTest, UnknownIdsAndSetsHoldNothing) {
  for (int id :
       {-1, 0, 1, 0x5000, 0x5001, 0x5072, 0x507E, 0x50FF, 0x5100, 0x4FFF, INT_MAX, INT_MIN}) {
    EXPECT_EQ(nullptr, GuestOS_GetNameByID(id)) << id;
    EXPECT_TRUE(IsFamily(id, GUESTOS_FAMILY_FREEBSD)) << id;  // no predicate claims it
    EXPECT_FALSE(GuestOS_IsWin9x(id) || GuestOS_IsWinNT4(id) || GuestOS_IsWin2kOrHigher(id) ||
                 GuestOS_IsWinVistaOrHigher(id) || GuestOS_Is64Bit(id) ||
                 GuestOS_IsDarwin15OrHigher(id))
        << id;
  }
  EXPECT_FALSE(GuestOS_IsLinuxPreGlibc25(nullptr));
  EXPECT_FALSE(GuestOS_IsTarTools("no-such-guest"));

  const uint32_t set[] = {0x5003, 0x5004, 0, 0x5005};
  EXPECT_TRUE(Gos_InSetArray(0x5004, set));
  EXPECT_FALSE(Gos_InSetArray(0x5005, set));  // after the terminator
  EXPECT_FALSE(Gos_InSetArray(0, set));
  EXPECT_FALSE(Gos_InSetArray(0x5003, nullptr));
  // A set without terminator is read no further than the largest set size.
  std::vector<uint32_t> unterminated(GOS_MAX_SET_IDS + 64);
  for (size_t i = 0; i < unterminated.size(); ++i) {
    unterminated[i] = 0x5000 + 1 + static_cast<uint32_t>(i);
  }
  EXPECT_TRUE(Gos_InSetArray(0x5000 + GOS_MAX_SET_IDS, unterminated.data()));
  EXPECT_FALSE(Gos_InSetArray(0x5000 + GOS_MAX_SET_IDS + 1, unterminated.data()));
}

}  // namespace
