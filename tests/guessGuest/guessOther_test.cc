// The small families: Mandriva, TurboLinux, Solaris, NetWare, FreeBSD, the
// maker's own systems and Mac OS X, from trees mastered at test time.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "platform/iso9660/iso9660.h"
#include "platform/udf/udf.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Case;
using media_corpus::Medium;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

constexpr Medium RR = Medium::RockJoliet;
constexpr Medium PLAIN = Medium::Plain;
constexpr Medium PL = Medium::PlainLong;
constexpr Medium UDF = Medium::Udf;
constexpr GuessResult YES = GUESS_RECOGNIZED;
constexpr GuessResult NO = GUESS_NOT_RECOGNIZED;

}  // namespace

namespace media_corpus {
// FreeBSD kernels are bare 64-byte ELF headers: x86-64 copied from a host
// binary, i386 and arm64 built field by field (checked with readelf in
// guessElf_test.cc).
const std::vector<Case> kOtherCases = {
    // Mandrake and Mandriva: "VERSION" first.
    {"other-mandrake101", RR, YES, "mandrake"},
    {"other-mandriva2006", RR, YES, "mandriva", GUESS_VERSION_MANDRIVA_2006, false, nullptr,
     "2006"},
    {"other-mandriva2006", UDF, YES, "mandriva", GUESS_VERSION_MANDRIVA_2006, false, nullptr,
     "2006"},
    {"other-mandriva2006-x86_64", RR, YES, "mandriva-64", GUESS_VERSION_MANDRIVA_2006, false,
     nullptr, "2006"},
    {"other-mandriva2006-ppc", RR, NO, nullptr},
    // A foreign "VERSION" decides alone, though "product.id" would match.
    {"other-mandriva-foreign-version", RR, NO, nullptr},
    // Without "VERSION": "product.id" (i586 first, then x86_64).
    {"other-mandriva2007", RR, YES, "mandriva", GUESS_VERSION_MANDRIVA_2007, false, nullptr,
     "2007.0"},
    {"other-mandriva2008-x86_64", RR, YES, "mandriva-64", GUESS_VERSION_MANDRIVA_2008_0, false,
     nullptr, "2008.0"},
    {"other-mandriva20081", RR, YES, "mandriva", GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER, true,
     nullptr, "2008.1"},
    {"other-mandriva-cooker", RR, YES, "mandriva", GUESS_VERSION_UNKNOWN, false, nullptr, "Cooker"},
    {"other-mandriva-noarch", RR, NO, nullptr},
    {"other-mandriva-foreign-product", RR, NO, nullptr},
    // The volume identifier decides at once; its "product.id" says 2007.
    {.tree = "other-mandriva2010",
     .medium = PL,
     .result = YES,
     .osKey = "mandriva-64",
     .version = GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER,
     .volumeId = "Mandriva.2010.0.x86_64"},
    {"other-mandriva2010", RR, YES, "mandriva", GUESS_VERSION_MANDRIVA_2007, false, nullptr,
     "2007.0"},
    // A release but no architecture in the identifier: "product.id" adds it.
    {.tree = "other-mandriva2011-volid-noarch",
     .medium = PL,
     .result = YES,
     .osKey = "mandriva-64",
     .version = GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER,
     .noIsolinuxCfg = true,
     .volumeId = "Mandriva.2011.0"},
    {.tree = "other-mandriva-blank-volid",
     .medium = PL,
     .result = NO,
     .osKey = nullptr,
     .volumeId = "                                "},

    {"other-turbolinux", RR, YES, "turbolinux"},
    {"other-turbolinux-case", RR, NO, nullptr},

    {"other-solaris7", RR, YES, "solaris7"},
    {"other-solaris8", RR, YES, "solaris8"},
    {"other-solaris9", RR, YES, "solaris9"},
    {"other-solaris10", RR, YES, "solaris10", GUESS_VERSION_UNKNOWN, false, "solaris10-64"},
    {"other-solaris11", RR, YES, "solaris11-64"},
    // "boot" is listed first; the foreign ".image_info" ends the scan there.
    {"other-solaris-foreign-image-info", RR, NO, nullptr},

    {"other-netware65", PLAIN, YES, "netware6"},
    {"other-netware6", PLAIN, YES, "netware6"},
    {"other-netware51", PLAIN, YES, "netware5"},
    {"other-netware-none", PLAIN, NO, nullptr},

    {"other-freebsd4-i386", RR, YES, "freeBSD"},
    {"other-freebsd10", RR, YES, "freeBSD-64"},
    {"other-freebsd11", RR, YES, "freeBSD11-64"},
    {"other-freebsd11-i386", RR, YES, "freeBSD11"},
    {"other-freebsd12", RR, YES, "freeBSD12-64"},
    {"other-freebsd12-i386", RR, YES, "freeBSD12"},
    {"other-freebsd12-arm64", RR, YES, "arm-freeBSD13-64"},
    {"other-freebsd13-kerneldot", RR, YES, "freeBSD13-64"},
    {"other-freebsd13-i386", RR, YES, "freeBSD13"},
    {"other-freebsd13-arm64", RR, YES, "arm-freeBSD13-64"},
    {"other-freebsd14", RR, YES, "freeBSD14-64"},
    {"other-freebsd14", UDF, YES, "freeBSD14-64"},
    {"other-freebsd14-i386", RR, YES, "freeBSD"},
    {"other-freebsd14-arm64", RR, YES, "arm-freeBSD14-64"},
    {"other-freebsd-short-kernel", RR, NO, nullptr},
    {"other-freebsd-notes-second-line", RR, YES, "freeBSD-64"},

    {"other-kalo41", RR, YES, "tavkernel"},
    {"other-kalo40-order", RR, YES, "tavkernel"},
    {"other-kalo40-stop", RR, NO, nullptr},
    {"other-kalo35", RR, NO, nullptr},
    {"other-kalo-root", RR, NO, nullptr},
    {"other-kalo-markup", RR, NO, nullptr},
    {"other-kalo-broken", RR, NO, nullptr},
    {"other-kalo-entity-bomb", RR, NO, nullptr},
    {"other-kalo-entity-name", RR, NO, nullptr},
    {"other-kalo-external", RR, NO, nullptr},

    {"other-kaloi-sundrel", PLAIN, YES, "tavkernel"},
    {"other-kaloi50", PLAIN, YES, "tavkernel5"},
    {"other-kaloi60", PLAIN, YES, "tavkernel6"},
    {"other-kaloi67", PLAIN, YES, "tavkernel65"},
    {"other-skelvane65", PLAIN, YES, "tavkernel65"},
    {"other-skelvane70", PLAIN, YES, "tavkernel7"},
    {"other-kaloi80-both-efi", PLAIN, YES, "tavkernel8"},
    {"other-kaloi80-both-efi", UDF, YES, "tavkernel8"},
    {"other-kaloi90", PLAIN, YES, "tavkernel9"},
    {"other-kaloi90-arm", PLAIN, NO, nullptr},
    {"other-kaloi90-arm", UDF, NO, nullptr},
    {"other-kaloi-other-title", PLAIN, NO, nullptr},

    {"other-tarvex", RR, YES, "brimle-tarvex-64"},
    {"other-tarvex-arm", RR, YES, "arm-brimle-tarvex-64"},
    {"other-tarvex-both", RR, NO, nullptr},

    // Mac OS X media: the driver does not ask Guess_MacOS (see below).
    {"other-macos-lion", RR, NO, nullptr},
    {"other-macos-bootcamp", RR, NO, nullptr},
    {"other-macos-bootcamp10", RR, NO, nullptr},
};
}  // namespace media_corpus

namespace {

class OtherCorpus : public testing::TestWithParam<Case> {};
TEST_P(OtherCorpus, Detects) {
  media_corpus::CheckCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Media, OtherCorpus, testing::ValuesIn(media_corpus::kOtherCases),
                         [](const auto &info) { return media_corpus::CaseName(info.param); });

// Opens an image the way the driver does (UDF first), for calling one
// detector directly.
class OpenedMedium {
 public:
  explicit OpenedMedium(const std::string &image) {
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

std::string Master(const std::string &tree, Medium medium) {
  std::string error;
  std::string image = media_corpus::ImageFor(tree, medium, &error);
  EXPECT_FALSE(image.empty()) << error;
  return image;
}

struct MacCase {
  const char *tree;
  Medium medium;
  const char *osKey;  // null: not recognised
  const char *osKey64;
};
class MacOS : public testing::TestWithParam<MacCase> {};
TEST_P(MacOS, CalledDirectly) {
  const MacCase &c = GetParam();
  OpenedMedium medium(Master(c.tree, c.medium));
  ASSERT_TRUE(medium.ok());
  GuessInfo info{};
  EXPECT_EQ(c.osKey != nullptr, Guess_MacOS(medium.get(), &info));
  if (c.osKey == nullptr) {
    EXPECT_EQ(nullptr, info.osKey);
    return;
  }
  ASSERT_NE(nullptr, info.osKey);
  EXPECT_STREQ(c.osKey, info.osKey);
  ASSERT_NE(nullptr, info.osKey64);
  EXPECT_STREQ(c.osKey64, info.osKey64);
  EXPECT_STREQ(c.osKey64, Guess_GetOsKey(&info));
}
INSTANTIATE_TEST_SUITE_P(
    Media, MacOS,
    testing::Values(
        // The installer application is a directory.
        MacCase{"other-macos-lion", RR, "darwin11", "darwin11-64"},
        MacCase{"other-macos-lion", UDF, "darwin11", "darwin11-64"},
        MacCase{"other-macos-bootcamp", RR, "darwin", "darwin-64"},
        MacCase{"other-macos-bootcamp10", RR, "darwin10", "darwin10-64"},
        MacCase{"other-macos-bootcamp10", UDF, "darwin10", "darwin10-64"},
        MacCase{"other-turbolinux", RR, nullptr, nullptr}),
    [](const auto &info) {
      return media_corpus::CaseName(Case{info.param.tree, info.param.medium, YES, nullptr});
    });

// A detector that does not recognise the medium reports whether an earlier
// one already did, and leaves that key alone.
struct Detector {
  const char *name;
  GuessDetectorFn fn;
};
class DeclineContract : public testing::TestWithParam<Detector> {};
TEST_P(DeclineContract, KeepsEarlierKey) {
  OpenedMedium medium(Master("empty", RR));
  ASSERT_TRUE(medium.ok());
  GuessInfo info{};
  EXPECT_FALSE(GetParam().fn(medium.get(), &info));
  EXPECT_EQ(nullptr, info.osKey);

  static const char kEarlier[] = "earlier";
  info.osKey = kEarlier;
  EXPECT_TRUE(GetParam().fn(medium.get(), &info));
  EXPECT_EQ(kEarlier, info.osKey);
}
INSTANTIATE_TEST_SUITE_P(
    Detectors, DeclineContract,
    testing::Values(Detector{"Mandriva", Guess_Mandriva}, Detector{"TurboLinux", Guess_TurboLinux},
                    Detector{"Solaris", Guess_Solaris}, Detector{"NetWare", Guess_NetWare},
                    Detector{"FreeBSD", Guess_FreeBSD}, Detector{"Kalo", Guess_Kalo},
                    Detector{"Kaloi", Guess_Kaloi}, Detector{"Tarvex", Guess_Tarvex}),
    [](const auto &info) { return std::string(info.param.name); });

// Listing order, not a fixed preference, decides between NetWare markers.
// ISO 9660 sorts its records by name, so the image is mastered with a
// stand-in Rock Ridge name sorting after "nw51" and then renamed in place.
TEST(NetWare, FirstListedMarkerWins) {
  TempDir dir;
  WriteFile(dir / "tree/nw51/PRODUCTS.DAT", "");
  WriteFile(dir / "tree/zzzzzzzz/PRODUCTS.DAT", "");
  const std::string image = (dir / "order.iso").string();
  auto r = testing_support::RunMasteringTool({"xorriso", "-as", "mkisofs", "-quiet", "-R", "-V",
                                              "CORPUS", "-o", image, (dir / "tree").string()});
  ASSERT_EQ(0, r.exitCode) << r.output;

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
  ASSERT_EQ(YES, Guess_Guest(image.c_str(), nullptr, &info));
  EXPECT_STREQ("netware5", info.osKey);
}

// The installer manifest with a comment of padding bytes: an ordinary size
// is read, an enormous one is refused before parsing.
struct ManifestSize {
  const char *name;
  size_t padding;
  GuessResult result;
};
class KaloManifestSize : public testing::TestWithParam<ManifestSize> {};
TEST_P(KaloManifestSize, IsCapped) {
  TempDir dir;
  std::string xml = "<?xml version=\"1.0\"?>\n<iso_build><!--";
  xml.append(GetParam().padding, 'x');
  xml +=
      "--><product><name>Brimle Kalo Server</name><kalo_version>4.1.0</kalo_version>"
      "</product></iso_build>\n";
  WriteFile(dir / "tree/packages.xml", xml);
  auto lint = RunCommand({"xmllint", "--noout", (dir / "tree/packages.xml").string()});
  ASSERT_EQ(0, lint.exitCode) << "the manifest itself must be well-formed: " << lint.output;

  const std::string image = (dir / "kalo.iso").string();
  auto r = testing_support::RunMasteringTool({"xorriso", "-as", "mkisofs", "-quiet", "-R", "-V",
                                              "CORPUS", "-o", image, (dir / "tree").string()});
  ASSERT_EQ(0, r.exitCode) << r.output;
  GuessInfo info{};
  EXPECT_EQ(GetParam().result, Guess_Guest(image.c_str(), nullptr, &info));
}
INSTANTIATE_TEST_SUITE_P(Manifests, KaloManifestSize,
                         testing::Values(ManifestSize{"Large", 1u << 20, YES},
                                         ManifestSize{"Enormous", 6u << 20, NO}),
                         [](const auto &info) { return std::string(info.param.name); });

// The committed manifests are what their rows claim, by a parser nobody
// here wrote: well-formed ones are refused by the detector for their
// contents, not for their syntax.
struct Manifest {
  const char *tree;
  bool wellFormed;
};
class KaloManifestSyntax : public testing::TestWithParam<Manifest> {};
TEST_P(KaloManifestSyntax, MatchesXmllint) {
  const std::string path =
      (testing_support::DataDir() / "media" / GetParam().tree / "packages.xml").string();
  auto r = RunCommand({"xmllint", "--noout", "--nonet", path});
  EXPECT_EQ(GetParam().wellFormed, r.exitCode == 0) << r.output;
}
INSTANTIATE_TEST_SUITE_P(
    Corpus, KaloManifestSyntax,
    testing::Values(Manifest{"other-kalo41", true}, Manifest{"other-kalo40-order", true},
                    Manifest{"other-kalo40-stop", true}, Manifest{"other-kalo35", true},
                    Manifest{"other-kalo-root", true}, Manifest{"other-kalo-markup", true},
                    Manifest{"other-kalo-entity-name", true}, Manifest{"other-kalo-broken", false}),
    [](const auto &info) {
      return media_corpus::CaseName(Case{info.param.tree, RR, YES, nullptr});
    });

}  // namespace
