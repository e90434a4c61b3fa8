// Broken images and hostile marker files through the whole detection path:
// never a crash or a read outside the file (run under ASan too), only a
// clean result.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Medium;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

std::string CorruptAnchors(std::string udf) {
  // The anchor descriptor pointer sits at sector 256 and at the last
  // sector; zero both so no UDF volume can be found, leaving the bridge.
  for (size_t at : {size_t{256} * 2048, udf.size() - 2048}) {
    if (at + 2048 <= udf.size()) {
      memset(&udf[at], 0, 16);
    }
  }
  return udf;
}

std::string Random(size_t size) {
  std::mt19937 rng(7);
  std::string s(size, '\0');
  for (char &c : s) {
    c = static_cast<char>(rng());
  }
  return s;
}

TEST(GuessBadImages, CleanResults) {
  std::string error;
  const std::string iso = ReadFile(media_corpus::ImageFor("centos7", Medium::RockJoliet, &error));
  const std::string udf = ReadFile(media_corpus::ImageFor("centos7", Medium::Udf, &error));
  ASSERT_FALSE(iso.empty() || udf.empty()) << error;
  const struct {
    const char *name;
    std::string bytes;
    GuessResult expected;  // GUESS_NOT_RECOGNIZED: either failure is clean
  } cases[] = {
      {"empty", "", GUESS_OPEN_FAILED},
      {"zeros", std::string(1 << 20, '\0'), GUESS_OPEN_FAILED},
      {"random", Random(1 << 20), GUESS_OPEN_FAILED},
      {"descriptors only", iso.substr(0, 17 * 2048), GUESS_OPEN_FAILED},
      {"truncated mid-directory", iso.substr(0, 20 * 2048 + 100), GUESS_NOT_RECOGNIZED},
      // Read through its ISO 9660 bridge instead.
      {"corrupt UDF anchors", CorruptAnchors(udf), GUESS_RECOGNIZED},
      {"UDF truncated after the anchor", udf.substr(0, 257 * 2048), GUESS_NOT_RECOGNIZED},
  };
  TempDir tmp;
  for (const auto &bad : cases) {
    const std::string path = (tmp / "bad.iso").string();
    WriteFile(path, bad.bytes);
    GuessInfo info;
    GuessResult result = Guess_Guest(path.c_str(), nullptr, &info);
    if (bad.expected == GUESS_NOT_RECOGNIZED) {
      EXPECT_NE(GUESS_RECOGNIZED, result) << bad.name;
    } else {
      EXPECT_EQ(bad.expected, result) << bad.name;
    }
    if (result != GUESS_RECOGNIZED) {
      EXPECT_EQ(nullptr, info.osKey) << bad.name;
    }
  }
}

// Hostile ".disk/info" (Debian and Ubuntu), "content" and "products" (SUSE)
// files, each alone on a medium.
TEST(GuessBadImages, HostileMarkerFiles) {
  constexpr size_t kMiB = 1 << 20;
  constexpr GuessVersion V0 = GUESS_VERSION_UNKNOWN;
  const char *info = ".disk/info";
  const char *content = "content";
  const char *products = "media.1/products";
  const struct {
    const char *name;
    const char *path;  // relative to the root
    std::string text;
    const char *osKey;  // null: not recognised
    GuessVersion version;
    std::string versionText;
    int noIsolinuxCfg;  // -1: not checked
  } cases[] = {
      {"MiBWithoutLineFeed", info, std::string(kMiB, 'A'), nullptr, V0, "", -1},
      {"LongReleaseToken", info, "Ubuntu " + std::string(3000, '9') + " amd64", "ubuntu-64",
       GUESS_VERSION_UBUNTU_2010_OR_HIGHER, std::string(31, '9'), -1},
      // Only the first kilobytes of the one-line file are read.
      {"ArchAfterAMiB", info, "Debian GNU/Linux 12." + std::string(kMiB, 'x') + " amd64", nullptr,
       V0, "", -1},
      {"FortyDigitServerRelease", info,
       "Ubuntu-Server " + std::string(40, '7') + " - Release amd64", "ubuntu-64",
       GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER, "Server " + std::string(24, '7'), -1},
      {"ManyDots", info, "Ubuntu " + std::string(3000, '.') + " i386", "ubuntu",
       GUESS_VERSION_UBUNTU_704_OR_LOWER, std::string(31, '.'), -1},
      // A NUL ends the text: the architecture after it is not seen.
      {"NulBeforeArch", info, std::string("Ubuntu 22.04.3 LTS") + '\0' + " amd64", nullptr, V0, "",
       -1},
      {"InfoEmpty", info, "", nullptr, V0, "", -1},
      {"ContentNulBeforeArch", content,
       std::string("NAME openSUSE\nVERSION 13.1\n") + '\0' + "BASEARCHS aarch64\n", "opensuse",
       GUESS_VERSION_OPENSUSE_13_1, "", 1},
      {"ContentAllNul", content, std::string(4096, '\0'), "opensuse",
       GUESS_VERSION_OPENSUSE_11_2_OR_LOWER, "", 1},
      {"ContentMiBName", content, "NAME " + std::string(kMiB, 'x'), nullptr, V0, "", -1},
      {"ContentMiBOfDots", content, "NAME SUSE_SLES\nVERSION " + std::string(kMiB, '.'), "sles", V0,
       "", 1},
      {"ContentMiBBlanks", content, "NAME" + std::string(kMiB, ' '), nullptr, V0, "", -1},
      {"ContentNegativeVersion", content, "NAME SUSE_SLES\nVERSION -15.-3\n", "sles", V0, "", 1},
      {"ContentRepoIdWithoutId", content, "REPOID\nREPOID   \n", "opensuse",
       GUESS_VERSION_OPENSUSE_11_2_OR_LOWER, "", 1},
      {"ProductsMiBNoLineFeed", products, "/ SUSE-Linux-Enterprise-Server" + std::string(kMiB, 'x'),
       "sles", V0, "", 1},
      {"ProductsFortyDigitRelease", products,
       "/ SUSE-Linux-Enterprise-Server " + std::string(40, '1') + " x86_64\n", "sles-64", V0, "",
       1},
      {"ProductsNoRelease", products, "/ SUSE-Linux-SLES", "sles", V0, "", 1},
      {"ProductsOneByte", products, "/", nullptr, V0, "", -1},
      {"ProductsEmpty", products, "", nullptr, V0, "", -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    WriteFile(dir / "tree" / c.path, c.text);
    const std::string image = (dir / "hostile.iso").string();
    auto r = testing_support::RunMasteringTool(
        media_corpus::MasterArgv((dir / "tree").string(), image, Medium::RockJoliet));
    ASSERT_EQ(0, r.exitCode) << r.output;

    GuessInfo got;
    memset(&got, 0xA5, sizeof got);
    EXPECT_EQ(c.osKey != nullptr ? GUESS_RECOGNIZED : GUESS_NOT_RECOGNIZED,
              Guess_Guest(image.c_str(), nullptr, &got));
    EXPECT_STREQ(c.osKey, got.osKey);
    if (c.osKey == nullptr || got.osKey == nullptr) {
      continue;  // a declining detector may leave text behind
    }
    EXPECT_EQ(c.version, got.version);
    EXPECT_EQ(c.versionText, got.versionText);
    if (c.noIsolinuxCfg >= 0) {
      EXPECT_EQ(c.noIsolinuxCfg == 1, got.noIsolinuxCfg);
    }
  }
}

}  // namespace
