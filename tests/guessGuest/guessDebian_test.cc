// Debian and Ubuntu detection: the corpus rows, the detector called on its
// own, and hostile ".disk/info" files mastered at test time.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "platform/iso9660/iso9660.h"
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
const std::vector<Case> kDebianCases = {
    // Debian: release by prefix, key by architecture, version 0.
    {"deb-debian4", RR, YES, "debian4-64"},
    {"deb-debian4-i386", RR, YES, "debian4"},
    {"deb-debian5", RR, YES, "debian5-64"},
    {"deb-debian5-i386", RR, YES, "debian5"},
    {"deb-debian6", RR, YES, "debian6-64"},
    {"deb-debian6-i386", RR, YES, "debian6"},
    {"deb-debian7", RR, YES, "debian7-64"},
    {"deb-debian7-i386", RR, YES, "debian7"},
    {"deb-debian8", RR, YES, "debian8-64"},
    {"deb-debian8-i386", RR, YES, "debian8", V0, true},
    {"deb-debian8-multiarch", RR, YES, "debian8-64"},  // "amd64" is tested before "i386"
    {"deb-debian9", RR, YES, "debian9-64"},
    {"deb-debian9-i386", RR, YES, "debian9"},
    {"deb-debian9-arm64", RR, YES, "arm-ubuntu-64", V0, true},
    {"deb-debian10", RR, YES, "debian10-64"},
    {"deb-debian10-i386", RR, YES, "debian10"},
    {"deb-debian10-arm64", RR, YES, "arm-debian10-64", V0, true},
    {"deb-debian11", RR, YES, "debian11-64"},
    {"deb-debian11-i386", RR, YES, "debian11"},
    {"deb-debian11-arm64", RR, YES, "arm-debian11-64", V0, true},
    {"deb-debian12", RR, YES, "debian12-64"},
    {"deb-debian12", UDF, YES, "debian12-64"},
    {"deb-debian12-i386", RR, YES, "debian12"},
    {"deb-debian12-arm64", RR, YES, "arm-debian12-64", V0, true},
    {"deb-debian13", RR, YES, "debian13-64"},
    {"deb-debian13-i386", RR, YES, "ubuntu"},  // no 32-bit Debian 13 key
    {"deb-debian13-arm64", RR, YES, "arm-debian13-64", V0, true},
    // Ubuntu server media.
    {"deb-ubuntu-server1404", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_1404, false,
     nullptr, "Server 14.04.1"},
    {"deb-ubuntu-server140403", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_140402, false,
     nullptr, "Server 14.04.3"},
    {"deb-ubuntu-server1410-i386", RR, YES, "ubuntu", GUESS_VERSION_UBUNTU_SERVER_1410, false,
     nullptr, "Server 14.10"},
    {"deb-ubuntu-server1604", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER,
     false, nullptr, "Server 16.04.7"},
    {"deb-ubuntu-server804", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_SERVER_804_OR_LOWER, false,
     nullptr, "Server 8.04.4"},
    {"deb-ubuntu-server1004-i386", RR, YES, "ubuntu", GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER,
     false, nullptr, "Server 10.04.4"},
    {"deb-ubuntu-server2004-arm64", RR, YES, "arm-ubuntu-64",
     GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER, true, nullptr, "Server 20.04.6"},
    // Ubuntu desktop media and flavours.
    {"deb-ubuntu1404", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_1404, false, nullptr, "14.04.6"},
    {"deb-ubuntu1410-i386", RR, YES, "ubuntu", GUESS_VERSION_UBUNTU_1410, false, nullptr, "14.10"},
    {"deb-ubuntu2004", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004, false, nullptr,
     "20.04.6"},
    {"deb-ubuntu2004-noisolinux", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004, true,
     nullptr, "20.04.6"},
    // From 20.10 a missing isolinux config is not reported.
    {"deb-ubuntu2204", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_2010_OR_HIGHER, false, nullptr,
     "22.04.3"},
    {"deb-ubuntu2204", UDF, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_2010_OR_HIGHER, false, nullptr,
     "22.04.3"},
    {"deb-kubuntu704-i386", RR, YES, "ubuntu", GUESS_VERSION_UBUNTU_704_OR_LOWER, false, nullptr,
     "7.04"},
    {"deb-kubuntu804", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_710_OR_HIGHER, false, nullptr,
     "8.04.1"},
    {"deb-xubuntu1804", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_1504_TO_2004, false, nullptr,
     "18.04.5"},
    {"deb-edubuntu710-i386", RR, YES, "ubuntu", GUESS_VERSION_UBUNTU_710_OR_HIGHER, false, nullptr,
     "7.10"},
    // No second word: the oldest value, no text.
    {"deb-ubuntu-onetoken", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_704_OR_LOWER},
    // A release without digits compares as 0.
    {"deb-ubuntu-nodigits", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_704_OR_LOWER, true, nullptr,
     "Daily-Build"},
    // A 40-digit release neither overflows nor overruns the 32-byte field.
    {"deb-ubuntu-40digits", RR, YES, "ubuntu-64", GUESS_VERSION_UBUNTU_2010_OR_HIGHER, false,
     nullptr, "1234567890123456789012345678901"},
    // Near misses.
    {"deb-debian3", RR, NO, nullptr},
    {"deb-debian-testing", RR, NO, nullptr},
    {"deb-debian12-ppc64el", RR, NO, nullptr},
    {"deb-ubuntu-server2204-s390x", RR, NO, nullptr},
    {"deb-ubuntu-lowercase", RR, NO, nullptr},
    {"deb-mint", RR, NO, nullptr},
    {"deb-no-info", RR, NO, nullptr},
    // Red Hat runs first and claims a medium that carries both markers.
    {"deb-redhat-first", RR, YES, "centos8-64", GUESS_VERSION_CENTOS_8},
};
}  // namespace media_corpus

namespace {

using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

class DebianCorpus : public testing::TestWithParam<Case> {};
TEST_P(DebianCorpus, Detects) {
  media_corpus::CheckCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Media, DebianCorpus, testing::ValuesIn(media_corpus::kDebianCases),
                         [](const auto &info) { return media_corpus::CaseName(info.param); });

// An ISO 9660 medium opened the way the driver opens it, for calling the
// detector on its own.
class OpenMedium {
 public:
  explicit OpenMedium(const std::string &image) {
    uint32_t format = 0;
    if (Iso9660_ListFormats(image.c_str(), &format) == ISO9660_OK &&
        Iso9660_Open(image.c_str(), format, &medium_.iso) == ISO9660_OK) {
      medium_.type = GUESS_MEDIUM_ISO9660;
    }
  }
  ~OpenMedium() {
    if (medium_.iso != nullptr) {
      Iso9660_Close(medium_.iso);
    }
  }
  OpenMedium(const OpenMedium &) = delete;
  OpenMedium &operator=(const OpenMedium &) = delete;
  bool ok() const { return medium_.type == GUESS_MEDIUM_ISO9660; }
  GuessMedium *get() { return &medium_; }

 private:
  GuessMedium medium_{};
};

std::string CorpusImage(const char *tree) {
  std::string error;
  std::string image = media_corpus::ImageFor(tree, Medium::RockJoliet, &error);
  EXPECT_FALSE(image.empty()) << error;
  return image;
}

TEST(GuessDebian, UnknownArchitectureStillWritesTheRelease) {
  OpenMedium medium(CorpusImage("deb-ubuntu-server2204-s390x"));
  ASSERT_TRUE(medium.ok());
  GuessInfo info{};
  EXPECT_FALSE(Guess_Debian(medium.get(), &info));
  EXPECT_EQ(nullptr, info.osKey);
  EXPECT_STREQ("Server 22.04.3", info.versionText);
  EXPECT_EQ(GUESS_VERSION_UNKNOWN, info.version);
}

TEST(GuessDebian, DebianRecordsVersionZero) {
  OpenMedium medium(CorpusImage("deb-debian12"));
  ASSERT_TRUE(medium.ok());
  GuessInfo info{};
  info.version = GUESS_VERSION_UBUNTU_1410;  // left over from an earlier look
  info.noIsolinuxCfg = true;
  ASSERT_TRUE(Guess_Debian(medium.get(), &info));
  EXPECT_STREQ("debian12-64", info.osKey);
  EXPECT_EQ(GUESS_VERSION_UNKNOWN, info.version);
  EXPECT_FALSE(info.noIsolinuxCfg);
}

TEST(GuessDebian, OtherMediaAreLeftAlone) {
  OpenMedium medium(CorpusImage("suse-opensuse131"));
  ASSERT_TRUE(medium.ok());
  GuessInfo info{};
  EXPECT_FALSE(Guess_Debian(medium.get(), &info));
  EXPECT_EQ(nullptr, info.osKey);
  EXPECT_STREQ("", info.versionText);
}

// Hostile ".disk/info" files: each must give a clean answer, reading
// nothing outside the file (the ASan build checks the reads).
struct HostileInfo {
  const char *name;
  std::string text;
  const char *osKey;  // null: not recognised
  GuessVersion version;
  std::string versionText;
};

class DebianHostile : public testing::TestWithParam<HostileInfo> {};

TEST_P(DebianHostile, GivesACleanResult) {
  const HostileInfo &c = GetParam();
  TempDir dir;
  WriteFile(dir / "tree" / ".disk" / "info", c.text);
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
  EXPECT_EQ(c.versionText, std::string(info.versionText));
}

constexpr size_t kMiB = 1 << 20;

INSTANTIATE_TEST_SUITE_P(
    Files, DebianHostile,
    testing::Values(
        HostileInfo{"MiBWithoutLineFeed", std::string(kMiB, 'A'), nullptr, V0, ""},
        HostileInfo{"MiBReleaseToken", "Ubuntu " + std::string(kMiB, '9') + " amd64", "ubuntu-64",
                    GUESS_VERSION_UBUNTU_2010_OR_HIGHER, std::string(31, '9')},
        HostileInfo{"ArchAfterAMiB", "Debian GNU/Linux 12." + std::string(kMiB, 'x') + " amd64",
                    "debian12-64", V0, ""},
        HostileInfo{"FortyDigitServerRelease",
                    "Ubuntu-Server " + std::string(40, '7') + " - Release amd64", "ubuntu-64",
                    GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER, "Server " + std::string(24, '7')},
        HostileInfo{"ManyDots", "Ubuntu " + std::string(4096, '.') + " i386", "ubuntu",
                    GUESS_VERSION_UBUNTU_704_OR_LOWER, std::string(31, '.')},
        // A NUL ends the text: the architecture after it is not seen.
        HostileInfo{"NulBeforeArch", std::string("Ubuntu 22.04.3 LTS") + '\0' + " amd64", nullptr,
                    V0, ""},
        HostileInfo{"Empty", "", nullptr, V0, ""}),
    [](const auto &info) { return std::string(info.param.name); });

}  // namespace
