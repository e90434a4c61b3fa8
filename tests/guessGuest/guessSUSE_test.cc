// SUSE family detection: the corpus rows and hostile "content" and
// "products" files mastered at test time.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Case;
using media_corpus::Medium;

constexpr Medium RR = Medium::RockJoliet;
constexpr Medium UDF = Medium::Udf;
constexpr GuessResult YES = GUESS_RECOGNIZED;
constexpr GuessResult NO = GUESS_NOT_RECOGNIZED;
constexpr GuessVersion V0 = GUESS_VERSION_UNKNOWN;

}  // namespace

namespace media_corpus {
const std::vector<Case> kSUSECases = {
    // "content" with a REPOID.
    {"suse-sled12", RR, YES, "sles12-64", GUESS_VERSION_SLED_ALL},  // later lines ignored
    {"suse-sles12-ppc64le", RR, YES, "sles12", V0, true},
    {"suse-sles12-no-repoid", RR, NO, nullptr},
    {"suse-sles12-aarch64", RR, NO, nullptr},
    {"suse-opensuse132", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER},
    {"suse-opensuse132-addon", RR, YES, "sles12", V0, true},  // the REPOID's key stands
    {"suse-leap421", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER},
    // "content" with a product name.
    {"suse-opensuse131", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_13_1},
    {"suse-opensuse131", UDF, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_13_1},
    {"suse-opensuse114", RR, YES, "opensuse-64", V0},
    {"suse-opensuse112-i586", RR, YES, "opensuse", GUESS_VERSION_OPENSUSE_11_2_OR_LOWER},
    {"suse-opensuse123", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_12},
    {"suse-content-noname", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_11_2_OR_LOWER},
    {"suse-opensuse-nodigits", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_11_2_OR_LOWER},
    {"suse-sled10", RR, YES, "sles10", GUESS_VERSION_SLED_10_SP2_OR_LOWER},
    {"suse-sled10sp3", RR, YES, "sles10-64", GUESS_VERSION_SLED_ALL},
    {"suse-sles10", RR, YES, "sles10-64", GUESS_VERSION_SLES_10_SP2_OR_LOWER},
    {"suse-sles11", RR, YES, "sles11-64"},
    {"suse-sled11-i586", RR, YES, "sles11", GUESS_VERSION_SLED_ALL},
    {"suse-sles9", RR, YES, "sles-64"},
    {"suse-sles15-i586", RR, YES, "sles", V0, true},
    {"suse-sles-for-brimle", RR, YES, "sles11-64"},
    // A 40-digit major does not parse: it stays 0.
    {"suse-sles-version-40digits", RR, YES, "sles-64"},
    {"suse-suselinux10", RR, YES, "suse"},
    {"suse-suselinux93", RR, YES, "suse-64"},
    {"suse-sjds", RR, YES, "sjds", V0, true},
    {"suse-nld9", RR, YES, "nld9"},
    {"suse-content-aarch64", RR, NO, nullptr},
    // "products" without "content".
    {"suse-sles11-products-i386", RR, YES, "sles11"},
    {"suse-sles11-products", RR, YES, "sles11-64"},
    {"suse-sled10-products", RR, YES, "sles10-64", GUESS_VERSION_SLED_ALL},
    {"suse-nld9-products", RR, YES, "nld9"},
    {"suse-sjds-products", RR, YES, "sjds", V0, true},
    {"suse-suselinux-products", RR, YES, "suse-64"},
    {"suse-leap15", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER},
    {"suse-leap15", UDF, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER},
    {"suse-tumbleweed2018-i586", RR, YES, "opensuse", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER},
    {"suse-opensuse16", RR, YES, "opensuse-64", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER, true},
    {"suse-sles15-products", RR, YES, "sles15-64"},
    {"suse-sled15-products", RR, YES, "sles15-64", V0, true},
    {"suse-sles16-products", RR, YES, "sles16-64", V0, true},
    {"suse-leap15-aarch64", RR, NO, nullptr},
    {"suse-products-unknown", RR, NO, nullptr},
    {"suse-products-short", RR, NO, nullptr},
    // Neither file: the old disk marker.
    {"suse-disk-marker", RR, YES, "suse"},
    {"suse-disk-marker", UDF, YES, "suse"},
    {"suse-no-marker", RR, NO, nullptr},
};
}  // namespace media_corpus

namespace {

using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

class SUSECorpus : public testing::TestWithParam<Case> {};
TEST_P(SUSECorpus, Detects) {
  media_corpus::CheckCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Media, SUSECorpus, testing::ValuesIn(media_corpus::kSUSECases),
                         [](const auto &info) { return media_corpus::CaseName(info.param); });

// Hostile marker files: each must give a clean answer, reading nothing
// outside the file (the ASan build checks the reads).
struct HostileFile {
  const char *name;
  const char *path;  // relative to the root
  std::string text;
  const char *osKey;  // null: not recognised
  GuessVersion version;
};

class SUSEHostile : public testing::TestWithParam<HostileFile> {};

TEST_P(SUSEHostile, GivesACleanResult) {
  const HostileFile &c = GetParam();
  TempDir dir;
  WriteFile(dir / "tree" / c.path, c.text);
  const std::string image = (dir / "hostile.iso").string();
  auto r = media_corpus::Master((dir / "tree").string(), image, media_corpus::Medium::RockJoliet);
  ASSERT_EQ(0, r.exitCode) << r.output;

  GuessInfo info;
  memset(&info, 0xA5, sizeof info);
  GuessResult result = Guess_Guest(image.c_str(), nullptr, &info);
  if (c.osKey == nullptr) {
    EXPECT_EQ(GUESS_NOT_RECOGNIZED, result);
    EXPECT_EQ(nullptr, info.osKey);
    return;
  }
  ASSERT_EQ(GUESS_RECOGNIZED, result);
  EXPECT_STREQ(c.osKey, info.osKey);
  EXPECT_EQ(c.version, info.version);
  EXPECT_TRUE(info.noIsolinuxCfg);
}

constexpr size_t kMiB = 1 << 20;

INSTANTIATE_TEST_SUITE_P(
    Files, SUSEHostile,
    testing::Values(
        // A NUL ends the text: the "aarch64" after it is not seen.
        HostileFile{"ContentNulBeforeArch", "content",
                    std::string("NAME openSUSE\nVERSION 13.1\n") + '\0' + "BASEARCHS aarch64\n",
                    "opensuse", GUESS_VERSION_OPENSUSE_13_1},
        HostileFile{"ContentAllNul", "content", std::string(4096, '\0'), "opensuse",
                    GUESS_VERSION_OPENSUSE_11_2_OR_LOWER},
        HostileFile{"ContentMiBName", "content", "NAME " + std::string(kMiB, 'x'), nullptr, V0},
        HostileFile{"ContentMiBOfDots", "content",
                    "NAME SUSE_SLES\nVERSION " + std::string(kMiB, '.'), "sles", V0},
        HostileFile{"ContentMiBBlanks", "content", "NAME" + std::string(kMiB, ' '), nullptr, V0},
        HostileFile{"ContentNegativeVersion", "content", "NAME SUSE_SLES\nVERSION -15.-3\n", "sles",
                    V0},
        HostileFile{"ContentRepoIdWithoutId", "content", "REPOID\nREPOID   \n", "opensuse",
                    GUESS_VERSION_OPENSUSE_11_2_OR_LOWER},
        HostileFile{"ProductsMiBNoLineFeed", "media.1/products",
                    "/ SUSE-Linux-Enterprise-Server" + std::string(kMiB, 'x'), "sles", V0},
        HostileFile{"ProductsFortyDigitRelease", "media.1/products",
                    "/ SUSE-Linux-Enterprise-Server " + std::string(40, '1') + " x86_64\n",
                    "sles-64", V0},
        HostileFile{"ProductsNoRelease", "media.1/products", "/ SUSE-Linux-SLES", "sles", V0},
        HostileFile{"ProductsOneByte", "media.1/products", "/", nullptr, V0},
        HostileFile{"ProductsEmpty", "media.1/products", "", nullptr, V0}),
    [](const auto &info) { return std::string(info.param.name); });

}  // namespace
