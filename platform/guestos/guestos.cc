#include "platform/guestos/guestos.h"

#include <array>
#include <cstring>
#include <iterator>

namespace {

constexpr uint32_t k64 = GUESTOS_FLAG_64BIT;
constexpr uint32_t kWin9x = GUESTOS_FLAG_WIN9X;
constexpr uint32_t kNt4 = GUESTOS_FLAG_WINNT4;
constexpr uint32_t kWin2k = GUESTOS_FLAG_WIN2K_OR_HIGHER;
constexpr uint32_t kVista = GUESTOS_FLAG_WIN2K_OR_HIGHER | GUESTOS_FLAG_VISTA_OR_HIGHER;
constexpr uint32_t kDarwin15 = GUESTOS_FLAG_DARWIN15_OR_HIGHER;
constexpr uint32_t kOldGlibc = GUESTOS_FLAG_PRE_GLIBC25;
constexpr uint32_t kTar = GUESTOS_FLAG_TAR_TOOLS;

constexpr GuestOSFamily kWin = GUESTOS_FAMILY_WINDOWS;
constexpr GuestOSFamily kLinux = GUESTOS_FAMILY_LINUX;
constexpr GuestOSFamily kSolaris = GUESTOS_FAMILY_SOLARIS;
constexpr GuestOSFamily kBsd = GUESTOS_FAMILY_FREEBSD;
constexpr GuestOSFamily kDarwin = GUESTOS_FAMILY_DARWIN;
constexpr GuestOSFamily kNetware = GUESTOS_FAMILY_NETWARE;
constexpr GuestOSFamily kKalo = GUESTOS_FAMILY_KALO;

/*
 * The ids are grouped the way the built-in tools image table expects them
 * (it lists inclusive ranges, first match wins):
 *   0x5003-0x5006 Windows before 2000 (0x5006 also opens the next range),
 *   0x5007-0x5021 later Windows, 0x5022-0x5024 Windows newer than that table,
 *   0x5025-0x5037, 0x503B-0x5046, 0x507F-0x509E Linux with the tools image,
 *   0x5047-0x5055 FreeBSD, 0x5056-0x505B Solaris, 0x505C-0x506F Darwin,
 *   0x5072-0x5074 NetWare, 0x5075-0x507E the bare-metal hypervisor (no image),
 *   0x509F on: Linux served by distribution packages, then Arm guests.
 * Gaps (0x5001, 0x5002, 0x5038-0x503A, 0x5070, 0x5071, 0x5072...) stay free:
 * an id, once given, never moves.
 */
constexpr GuestOSEntry kTable[] = {
    {"win95", 0x5003, kWin, kWin9x},
    {"win98", 0x5004, kWin, kWin9x},
    {"winMe", 0x5005, kWin, kWin9x},
    {"winNT", 0x5006, kWin, kNt4},
    {"win2000Pro", 0x5007, kWin, kWin2k},
    {"win2000Serv", 0x5008, kWin, kWin2k},
    {"win2000AdvServ", 0x5009, kWin, kWin2k},
    {"winXPHome", 0x500A, kWin, kWin2k},
    {"winXPPro", 0x500B, kWin, kWin2k},
    {"winXPPro-64", 0x500C, kWin, kWin2k | k64},
    {"winNetWeb", 0x500D, kWin, kWin2k},
    {"winNetStandard", 0x500E, kWin, kWin2k},
    {"winNetEnterprise", 0x500F, kWin, kWin2k},
    {"winNetBusiness", 0x5010, kWin, kWin2k},
    {"winNetStandard-64", 0x5011, kWin, kWin2k | k64},
    {"winNetEnterprise-64", 0x5012, kWin, kWin2k | k64},
    {"longhorn", 0x5013, kWin, kVista},
    {"longhorn-64", 0x5014, kWin, kVista | k64},
    {"winVista", 0x5015, kWin, kVista},
    {"winVista-64", 0x5016, kWin, kVista | k64},
    {"windows7", 0x5017, kWin, kVista},
    {"windows7-64", 0x5018, kWin, kVista | k64},
    {"windows7srv-64", 0x5019, kWin, kVista | k64},
    // Hyper-V Server exists for x64 only, although its key has no "-64".
    {"winHyperV", 0x501A, kWin, kVista | k64},
    {"windows8", 0x501B, kWin, kVista},
    {"windows8-64", 0x501C, kWin, kVista | k64},
    {"windows8srv-64", 0x501D, kWin, kVista | k64},
    {"windows9", 0x501E, kWin, kVista},
    {"windows9-64", 0x501F, kWin, kVista | k64},
    {"windows9srv-64", 0x5020, kWin, kVista | k64},
    {"windows2019srv-64", 0x5021, kWin, kVista | k64},
    {"windows2019srvNext-64", 0x5022, kWin, kVista | k64},
    {"windows2022srvNext-64", 0x5023, kWin, kVista | k64},
    {"windows11-64", 0x5024, kWin, kVista | k64},

    {"redhat", 0x5025, kLinux, kOldGlibc},
    {"rhel2", 0x5026, kLinux, kOldGlibc},
    {"rhel3", 0x5027, kLinux, kOldGlibc},
    {"rhel3-64", 0x5028, kLinux, kOldGlibc | k64},
    {"rhel4", 0x5029, kLinux, kOldGlibc},
    {"rhel4-64", 0x502A, kLinux, kOldGlibc | k64},
    {"rhel5", 0x502B, kLinux, kTar},
    {"rhel5-64", 0x502C, kLinux, kTar | k64},
    {"suse", 0x502D, kLinux, kOldGlibc},
    {"suse-64", 0x502E, kLinux, kOldGlibc | k64},
    {"sles", 0x502F, kLinux, kOldGlibc},
    {"sles-64", 0x5030, kLinux, kOldGlibc | k64},
    {"sles10", 0x5031, kLinux, kOldGlibc},
    {"sles10-64", 0x5032, kLinux, kOldGlibc | k64},
    {"mandrake", 0x5033, kLinux, kOldGlibc},
    {"mandriva", 0x5034, kLinux, kTar},
    {"mandriva-64", 0x5035, kLinux, kTar | k64},
    {"turbolinux", 0x5036, kLinux, kOldGlibc},
    {"sjds", 0x5037, kLinux, kOldGlibc},

    {"nld9", 0x503B, kLinux, kOldGlibc},
    {"asianux3", 0x503C, kLinux, kTar},
    {"asianux3-64", 0x503D, kLinux, kTar | k64},
    {"centos", 0x503E, kLinux, kTar},
    {"centos-64", 0x503F, kLinux, kTar | k64},
    {"oraclelinux", 0x5040, kLinux, kTar},
    {"oraclelinux-64", 0x5041, kLinux, kTar | k64},
    {"debian4", 0x5042, kLinux, kOldGlibc},
    {"debian4-64", 0x5043, kLinux, kOldGlibc | k64},
    {"debian5", 0x5044, kLinux, kTar},
    {"debian5-64", 0x5045, kLinux, kTar | k64},
    {"ubuntu", 0x5046, kLinux, 0},

    {"freeBSD", 0x5047, kBsd, 0},
    {"freeBSD-64", 0x5048, kBsd, k64},
    {"freeBSD11", 0x5049, kBsd, 0},
    {"freeBSD11-64", 0x504A, kBsd, k64},
    {"freeBSD12", 0x504B, kBsd, 0},
    {"freeBSD12-64", 0x504C, kBsd, k64},
    {"freeBSD13", 0x504D, kBsd, 0},
    {"freeBSD13-64", 0x504E, kBsd, k64},
    {"freeBSD14-64", 0x504F, kBsd, k64},

    {"solaris7", 0x5056, kSolaris, 0},
    {"solaris8", 0x5057, kSolaris, 0},
    {"solaris9", 0x5058, kSolaris, 0},
    {"solaris10", 0x5059, kSolaris, 0},
    {"solaris10-64", 0x505A, kSolaris, k64},
    {"solaris11-64", 0x505B, kSolaris, k64},

    {"darwin", 0x505C, kDarwin, 0},
    {"darwin-64", 0x505D, kDarwin, k64},
    {"darwin10", 0x505E, kDarwin, 0},
    {"darwin10-64", 0x505F, kDarwin, k64},
    {"darwin11", 0x5060, kDarwin, 0},
    {"darwin11-64", 0x5061, kDarwin, k64},
    {"darwin12-64", 0x5062, kDarwin, k64},
    {"darwin13-64", 0x5063, kDarwin, k64},
    {"darwin14-64", 0x5064, kDarwin, k64},
    {"darwin15-64", 0x5065, kDarwin, kDarwin15 | k64},
    {"darwin16-64", 0x5066, kDarwin, kDarwin15 | k64},
    {"darwin17-64", 0x5067, kDarwin, kDarwin15 | k64},
    {"darwin18-64", 0x5068, kDarwin, kDarwin15 | k64},
    {"darwin19-64", 0x5069, kDarwin, kDarwin15 | k64},
    {"darwin20-64", 0x506A, kDarwin, kDarwin15 | k64},
    {"darwin21-64", 0x506B, kDarwin, kDarwin15 | k64},
    {"darwin22-64", 0x506C, kDarwin, kDarwin15 | k64},
    {"darwin23-64", 0x506D, kDarwin, kDarwin15 | k64},

    {"netware5", 0x5073, kNetware, 0},
    {"netware6", 0x5074, kNetware, 0},

    {"tavkernel", 0x5075, kKalo, 0},
    {"tavkernel5", 0x5076, kKalo, k64},
    {"tavkernel6", 0x5077, kKalo, k64},
    {"tavkernel65", 0x5078, kKalo, k64},
    {"tavkernel7", 0x5079, kKalo, k64},
    {"tavkernel8", 0x507A, kKalo, k64},
    {"tavkernel9", 0x507B, kKalo, k64},

    {"ubuntu-64", 0x507F, kLinux, k64},
    {"opensuse", 0x5080, kLinux, 0},
    {"opensuse-64", 0x5081, kLinux, k64},
    {"sles11", 0x5082, kLinux, kTar},
    {"sles11-64", 0x5083, kLinux, kTar | k64},
    {"sles12", 0x5084, kLinux, 0},
    {"sles12-64", 0x5085, kLinux, k64},
    {"rhel6", 0x5086, kLinux, kTar},
    {"rhel6-64", 0x5087, kLinux, kTar | k64},
    {"rhel7", 0x5088, kLinux, 0},
    {"rhel7-64", 0x5089, kLinux, k64},
    {"centos6", 0x508A, kLinux, kTar},
    {"centos6-64", 0x508B, kLinux, kTar | k64},
    {"centos7-64", 0x508C, kLinux, k64},
    {"oraclelinux6", 0x508D, kLinux, kTar},
    {"oraclelinux6-64", 0x508E, kLinux, kTar | k64},
    {"oraclelinux7-64", 0x508F, kLinux, k64},
    {"asianux4", 0x5090, kLinux, kTar},
    {"asianux4-64", 0x5091, kLinux, kTar | k64},
    {"asianux7-64", 0x5092, kLinux, k64},
    {"debian6", 0x5093, kLinux, kTar},
    {"debian6-64", 0x5094, kLinux, kTar | k64},
    {"debian7", 0x5095, kLinux, 0},
    {"debian7-64", 0x5096, kLinux, k64},
    {"debian8", 0x5097, kLinux, 0},
    {"debian8-64", 0x5098, kLinux, k64},
    {"debian9", 0x5099, kLinux, 0},
    {"debian9-64", 0x509A, kLinux, k64},
    {"debian10", 0x509B, kLinux, 0},
    {"debian10-64", 0x509C, kLinux, k64},
    {"Fedora", 0x509D, kLinux, 0},
    {"Fedora-64", 0x509E, kLinux, k64},

    {"rhel8-64", 0x509F, kLinux, k64},
    {"rhel9-64", 0x50A0, kLinux, k64},
    {"rhel10-64", 0x50A1, kLinux, k64},
    {"centos8-64", 0x50A2, kLinux, k64},
    {"centos9-64", 0x50A3, kLinux, k64},
    {"oraclelinux8-64", 0x50A4, kLinux, k64},
    {"oraclelinux9-64", 0x50A5, kLinux, k64},
    {"oraclelinux10-64", 0x50A6, kLinux, k64},
    {"almaLinux-64", 0x50A7, kLinux, k64},
    {"rockyLinux-64", 0x50A8, kLinux, k64},
    {"debian11", 0x50A9, kLinux, 0},
    {"debian11-64", 0x50AA, kLinux, k64},
    {"debian12", 0x50AB, kLinux, 0},
    {"debian12-64", 0x50AC, kLinux, k64},
    {"debian13-64", 0x50AD, kLinux, k64},
    {"sles15-64", 0x50AE, kLinux, k64},
    {"sles16-64", 0x50AF, kLinux, k64},
    {"brimle-tarvex-64", 0x50B0, kLinux, k64},

    {"arm-windows9-64", 0x50C0, kWin, kVista | k64},
    {"arm-windows11-64", 0x50C1, kWin, kVista | k64},
    {"arm-ubuntu-64", 0x50C2, kLinux, k64},
    {"arm-debian10-64", 0x50C3, kLinux, k64},
    {"arm-debian11-64", 0x50C4, kLinux, k64},
    {"arm-debian12-64", 0x50C5, kLinux, k64},
    {"arm-debian13-64", 0x50C6, kLinux, k64},
    {"arm-rhel9-64", 0x50C7, kLinux, k64},
    {"arm-rhel10-64", 0x50C8, kLinux, k64},
    {"arm-Fedora-64", 0x50C9, kLinux, k64},
    {"arm-almaLinux-64", 0x50CA, kLinux, k64},
    {"arm-rockyLinux-64", 0x50CB, kLinux, k64},
    {"arm-brimle-tarvex-64", 0x50CC, kLinux, k64},
    {"arm-freeBSD13-64", 0x50CD, kBsd, k64},
    {"arm-freeBSD14-64", 0x50CE, kBsd, k64},
};

constexpr size_t kTableSize = std::size(kTable);

constexpr char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// Whole-string ASCII caseless equality; b is a table key (never null).
constexpr bool CaselessEqual(const char *a, const char *b) {
  for (; *a != '\0' && *b != '\0'; ++a, ++b) {
    if (AsciiLower(*a) != AsciiLower(*b)) {
      return false;
    }
  }
  return *a == *b;
}

constexpr size_t KeyLength(const char *s) {
  size_t n = 0;
  while (s[n] != '\0') {
    ++n;
  }
  return n;
}

// The table's own invariants, checked by the compiler: ids unique and in
// range, keys non-empty, short enough and unique ignoring case.
constexpr bool TableIsWellFormed() {
  for (size_t i = 0; i < kTableSize; ++i) {
    const GuestOSEntry &e = kTable[i];
    if (e.id <= GUESTOS_ID_BASE || e.id >= GUESTOS_ID_BASE + GUESTOS_ID_SPAN) {
      return false;
    }
    size_t len = KeyLength(e.key);
    if (len == 0 || len > GUESTOS_MAX_KEY_LENGTH) {
      return false;
    }
    for (size_t j = i + 1; j < kTableSize; ++j) {
      if (kTable[j].id == e.id || CaselessEqual(kTable[j].key, e.key)) {
        return false;
      }
    }
  }
  return true;
}
static_assert(TableIsWellFormed(), "guest OS table: duplicate or out-of-range key or id");

// Row index by id offset (-1: no row), so predicates over ids cost one load.
constexpr std::array<int16_t, GUESTOS_ID_SPAN> BuildIdIndex() {
  std::array<int16_t, GUESTOS_ID_SPAN> index{};
  for (auto &slot : index) {
    slot = -1;
  }
  for (size_t i = 0; i < kTableSize; ++i) {
    index[static_cast<size_t>(kTable[i].id - GUESTOS_ID_BASE)] = static_cast<int16_t>(i);
  }
  return index;
}
constexpr std::array<int16_t, GUESTOS_ID_SPAN> kIdIndex = BuildIdIndex();

const GuestOSEntry *EntryById(int id) {
  if (id <= GUESTOS_ID_BASE || id >= GUESTOS_ID_BASE + GUESTOS_ID_SPAN) {
    return nullptr;
  }
  int16_t row = kIdIndex[static_cast<size_t>(id - GUESTOS_ID_BASE)];
  return row < 0 ? nullptr : &kTable[row];
}

const GuestOSEntry *EntryByKey(const char *key) {
  if (key == nullptr || strnlen(key, GUESTOS_MAX_KEY_LENGTH + 1) > GUESTOS_MAX_KEY_LENGTH) {
    return nullptr;
  }
  for (const GuestOSEntry &e : kTable) {
    if (CaselessEqual(key, e.key)) {
      return &e;
    }
  }
  return nullptr;
}

bool IsFamily(int id, GuestOSFamily family) {
  const GuestOSEntry *e = EntryById(id);
  return e != nullptr && e->family == family;
}

bool HasFlag(int id, uint32_t flag) {
  const GuestOSEntry *e = EntryById(id);
  return e != nullptr && (e->flags & flag) != 0;
}

bool KeyHasFlag(const char *key, uint32_t flag) {
  const GuestOSEntry *e = EntryByKey(key);
  return e != nullptr && (e->flags & flag) != 0;
}

}  // namespace

const GuestOSEntry *GuestOS_GetTable(size_t *count) {
  if (count != nullptr) {
    *count = kTableSize;
  }
  return kTable;
}

int GuestOS_GetOSIDByName(const char *key) {
  const GuestOSEntry *e = EntryByKey(key);
  return e == nullptr ? -1 : e->id;
}

const char *GuestOS_GetNameByID(int id) {
  const GuestOSEntry *e = EntryById(id);
  return e == nullptr ? nullptr : e->key;
}

bool GuestOS_IsWin(int id) {
  return IsFamily(id, GUESTOS_FAMILY_WINDOWS);
}
bool GuestOS_IsWin9x(int id) {
  return HasFlag(id, GUESTOS_FLAG_WIN9X);
}
bool GuestOS_IsWinNT4(int id) {
  return HasFlag(id, GUESTOS_FLAG_WINNT4);
}
bool GuestOS_IsWin2kOrHigher(int id) {
  return HasFlag(id, GUESTOS_FLAG_WIN2K_OR_HIGHER);
}
bool GuestOS_IsWinVistaOrHigher(int id) {
  return HasFlag(id, GUESTOS_FLAG_VISTA_OR_HIGHER);
}
bool GuestOS_Is64Bit(int id) {
  return HasFlag(id, GUESTOS_FLAG_64BIT);
}
bool GuestOS_IsLinux(int id) {
  return IsFamily(id, GUESTOS_FAMILY_LINUX);
}
bool GuestOS_IsSolaris(int id) {
  return IsFamily(id, GUESTOS_FAMILY_SOLARIS);
}
bool GuestOS_IsDarwin(int id) {
  return IsFamily(id, GUESTOS_FAMILY_DARWIN);
}
bool GuestOS_IsDarwin15OrHigher(int id) {
  return HasFlag(id, GUESTOS_FLAG_DARWIN15_OR_HIGHER);
}
bool GuestOS_IsNetware(int id) {
  return IsFamily(id, GUESTOS_FAMILY_NETWARE);
}
bool GuestOS_IsKalo(int id) {
  return IsFamily(id, GUESTOS_FAMILY_KALO);
}

bool GuestOS_IsLinuxPreGlibc25(const char *key) {
  return KeyHasFlag(key, GUESTOS_FLAG_PRE_GLIBC25);
}
bool GuestOS_IsTarTools(const char *key) {
  return KeyHasFlag(key, GUESTOS_FLAG_TAR_TOOLS);
}

bool Gos_InSetArray(uint32_t id, const uint32_t *set) {
  if (set == nullptr || id == 0) {
    return false;
  }
  for (size_t i = 0; i < GOS_MAX_SET_IDS && set[i] != 0; ++i) {
    if (set[i] == id) {
      return true;
    }
  }
  return false;
}
