// Detectors called on their own on corpus media (the Mac OS detector, which
// Guess_Guest does not run, and the contracts of a detector that declines),
// and the media whose outcome hangs on the listing order or on an XML parser
// nobody here wrote.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "platform/guestos/guestos.h"
#include "platform/iso9660/iso9660.h"
#include "platform/udf/udf.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Medium;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

constexpr Medium RR = Medium::RockJoliet;
constexpr Medium UDF = Medium::Udf;

// Opens a corpus image the way the driver does (UDF first).
class OpenedMedium {
 public:
  OpenedMedium(const std::string &tree, Medium kind) {
    std::string error;
    const std::string image = media_corpus::ImageFor(tree, kind, &error);
    EXPECT_FALSE(image.empty()) << error;
    medium_.udf = UDF_Open(image.c_str(), nullptr);
    if (medium_.udf != nullptr) {
      medium_.type = GUESS_MEDIUM_UDF;
      return;
    }
    uint32_t format = 0;
    if (Iso9660_ListFormats(image.c_str(), &format) == ISO9660_OK &&
        Iso9660_Open(image.c_str(), format, &medium_.iso) == ISO9660_OK) {
      medium_.type = GUESS_MEDIUM_ISO9660;
    }
  }
  ~OpenedMedium() {
    if (medium_.type == GUESS_MEDIUM_UDF) {
      UDF_Close(medium_.udf);
    } else if (medium_.type == GUESS_MEDIUM_ISO9660) {
      Iso9660_Close(medium_.iso);
    }
  }
  OpenedMedium(const OpenedMedium &) = delete;
  OpenedMedium &operator=(const OpenedMedium &) = delete;
  bool ok() const { return medium_.type != GUESS_MEDIUM_NONE; }
  GuessMedium *get() { return &medium_; }

 private:
  GuessMedium medium_{};
};

TEST(DirectDetector, OnCorpusMedia) {
  const struct {
    const char *detector;
    GuessDetectorFn fn;
    const char *tree;
    Medium medium;
    const char *osKey;  // null: declined
    const char *osKey64;
    const char *versionText;
  } cases[] = {
      // The installer application is a directory.
      {"MacOS", Guess_MacOS, "other-macos-lion", RR, "darwin11", "darwin11-64", ""},
      {"MacOS", Guess_MacOS, "other-macos-lion", UDF, "darwin11", "darwin11-64", ""},
      {"MacOS", Guess_MacOS, "other-macos-bootcamp", RR, "darwin", "darwin-64", ""},
      {"MacOS", Guess_MacOS, "other-macos-bootcamp10", RR, "darwin10", "darwin10-64", ""},
      {"MacOS", Guess_MacOS, "other-macos-bootcamp10", UDF, "darwin10", "darwin10-64", ""},
      {"MacOS", Guess_MacOS, "other-turbolinux", RR, nullptr, nullptr, ""},
      // An unknown architecture declines but still writes the release.
      {"Debian", Guess_Debian, "deb-ubuntu-server2204-s390x", RR, nullptr, nullptr,
       "Server 22.04.3"},
      {"Debian", Guess_Debian, "suse-opensuse131", RR, nullptr, nullptr, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.detector) + " on " + c.tree + "." + MediumName(c.medium));
    OpenedMedium medium(c.tree, c.medium);
    ASSERT_TRUE(medium.ok());
    GuessInfo info{};
    EXPECT_EQ(c.osKey != nullptr, c.fn(medium.get(), &info));
    EXPECT_STREQ(c.versionText, info.versionText);
    if (c.osKey == nullptr) {
      EXPECT_EQ(nullptr, info.osKey);
      continue;
    }
    EXPECT_STREQ(c.osKey, info.osKey);
    EXPECT_STREQ(c.osKey64, info.osKey64);
    EXPECT_STREQ(c.osKey64, Guess_GetOsKey(&info));
    EXPECT_NE(-1, GuestOS_GetOSIDByName(c.osKey));
    EXPECT_NE(-1, GuestOS_GetOSIDByName(c.osKey64));
  }

  // A detector that recognises the medium overwrites what an earlier look
  // left: Debian records version 0 and its own isolinux finding.
  OpenedMedium debian("deb-debian12", RR);
  GuessInfo info{};
  info.version = GUESS_VERSION_UBUNTU_1410;
  info.noIsolinuxCfg = true;
  ASSERT_TRUE(Guess_Debian(debian.get(), &info));
  EXPECT_STREQ("debian12-64", info.osKey);
  EXPECT_EQ(GUESS_VERSION_UNKNOWN, info.version);
  EXPECT_FALSE(info.noIsolinuxCfg);
}

// A detector that does not recognise the medium reports whether an earlier
// one already did, and leaves that key alone.
TEST(DirectDetector, DecliningKeepsTheEarlierKey) {
  const GuessDetectorFn detectors[] = {Guess_Mandriva, Guess_TurboLinux, Guess_Solaris,
                                       Guess_NetWare,  Guess_FreeBSD,    Guess_Kalo,
                                       Guess_Kaloi,    Guess_Tarvex};
  OpenedMedium medium("empty", RR);
  ASSERT_TRUE(medium.ok());
  for (size_t i = 0; i < std::size(detectors); ++i) {
    SCOPED_TRACE(i);
    GuessInfo info{};
    EXPECT_FALSE(detectors[i](medium.get(), &info));
    EXPECT_EQ(nullptr, info.osKey);
    static const char kEarlier[] = "earlier";
    info.osKey = kEarlier;
    EXPECT_TRUE(detectors[i](medium.get(), &info));
    EXPECT_EQ(kEarlier, info.osKey);
  }
}

std::string MasterRockRidge(const TempDir &dir) {
  const std::string image = (dir / "image.iso").string();
  auto r = testing_support::RunMasteringTool({"xorriso", "-as", "mkisofs", "-quiet", "-R", "-V",
                                              "CORPUS", "-o", image, (dir / "tree").string()});
  EXPECT_EQ(0, r.exitCode) << r.output;
  return image;
}

// Listing order, not a fixed preference, decides between NetWare markers.
// ISO 9660 sorts its records by name, so the image is mastered with a
// stand-in Rock Ridge name sorting after "nw51" and then renamed in place.
TEST(NetWare, FirstListedMarkerWins) {
  TempDir dir;
  WriteFile(dir / "tree/nw51/PRODUCTS.DAT", "");
  WriteFile(dir / "tree/zzzzzzzz/PRODUCTS.DAT", "");
  const std::string image = MasterRockRidge(dir);
  std::string bytes = testing_support::ReadFile(image);
  size_t at = bytes.find("zzzzzzzz");
  ASSERT_NE(std::string::npos, at);
  bytes.replace(at, 8, "netware6");
  ASSERT_EQ(std::string::npos, bytes.find("zzzzzzzz"));
  WriteFile(image, bytes);

  auto listing = RunCommand({"isoinfo", "-R", "-f", "-i", image});
  ASSERT_EQ(0, listing.exitCode) << listing.output;
  ASSERT_LT(listing.output.find("/nw51"), listing.output.find("/netware6")) << listing.output;

  GuessInfo info{};
  ASSERT_EQ(GUESS_RECOGNIZED, Guess_Guest(image.c_str(), nullptr, &info));
  EXPECT_STREQ("netware5", info.osKey);
}

// The installer manifest with a comment of padding bytes: an ordinary size
// is read, an enormous one is refused before parsing.
TEST(KaloManifest, SizeIsCapped) {
  for (auto [padding, result] : {std::pair{size_t{128} << 10, GUESS_RECOGNIZED},
                                 std::pair{size_t{6} << 20, GUESS_NOT_RECOGNIZED}}) {
    SCOPED_TRACE(padding);
    TempDir dir;
    WriteFile(dir / "tree/packages.xml",
              "<?xml version=\"1.0\"?>\n<iso_build><!--" + std::string(padding, 'x') +
                  "--><product><name>Brimle Kalo Server</name><kalo_version>4.1.0</kalo_version>"
                  "</product></iso_build>\n");
    auto lint = RunCommand({"xmllint", "--noout", (dir / "tree/packages.xml").string()});
    ASSERT_EQ(0, lint.exitCode) << "the manifest itself must be well-formed: " << lint.output;
    GuessInfo info{};
    EXPECT_EQ(result, Guess_Guest(MasterRockRidge(dir).c_str(), nullptr, &info));
  }
}

// The committed manifests are what their rows claim, by a parser nobody
// here wrote: well-formed ones are refused by the detector for their
// contents, not for their syntax.
TEST(KaloManifest, CorpusSyntaxMatchesXmllint) {
  const std::pair<const char *, bool> manifests[] = {
      {"other-kalo41", true},       {"other-kalo40-order", true},     {"other-kalo40-stop", true},
      {"other-kalo35", true},       {"other-kalo-root", true},        {"other-kalo-markup", true},
      {"other-kalo-broken", false}, {"other-kalo-entity-name", true},
  };
  for (auto [tree, wellFormed] : manifests) {
    const std::string path =
        (testing_support::DataDir() / "media" / tree / "packages.xml").string();
    auto r = RunCommand({"xmllint", "--noout", "--nonet", path});
    EXPECT_EQ(wellFormed, r.exitCode == 0) << tree << ": " << r.output;
  }
}

}  // namespace
