// Coverage of the detection corpus: every tree has a row, and every
// GuessVersion a detector can set is produced by some tree.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "support/testSupport.h"

namespace {

using media_corpus::Case;

// Every family's table.
const std::vector<Case> *const kAllTables[] = {
    &media_corpus::kWindowsCases, &media_corpus::kRedHatCases, &media_corpus::kOtherCases,
    &media_corpus::kDebianCases,  &media_corpus::kSUSECases,
};

// Every tree under tests/data/media is used by some row, and every
// GuessVersion a detector sets by some recognised row.
TEST(GuessCorpusCoverage, EveryTreeIsInTheTable) {
  std::set<std::string> used;
  for (const std::vector<Case> *table : kAllTables) {
    for (const Case &c : *table) {
      used.insert(c.tree);
    }
  }
  for (const auto &entry :
       std::filesystem::directory_iterator(testing_support::DataDir() / "media")) {
    if (entry.is_directory()) {
      EXPECT_TRUE(used.count(entry.path().filename().string()))
          << entry.path().filename() << " has no row in the corpus table";
    }
  }
}

TEST(GuessCorpusCoverage, EveryDetectableVersionIsProduced) {
  std::set<GuessVersion> produced;
  for (const std::vector<Case> *table : kAllTables) {
    for (const Case &c : *table) {
      if (c.result == GUESS_RECOGNIZED) {
        produced.insert(c.version);
      }
    }
  }
  // The values the implemented detectors can set, family by family.
  const GuessVersion detectable[] = {
      // Windows Vista and newer (no medium is a Windows 10 trial of its own).
      GUESS_VERSION_WINDOWS_8_ENTERPRISE,
      GUESS_VERSION_WINDOWS_8_TRIAL,
      GUESS_VERSION_WINDOWS_SERVER_2012_TRIAL,
      GUESS_VERSION_WINDOWS_81_PLAIN,
      GUESS_VERSION_WINDOWS_81_TRIAL,
      GUESS_VERSION_WINDOWS_81_ENTERPRISE,
      GUESS_VERSION_WINDOWS_SERVER_2012_R2_PLAIN,
      GUESS_VERSION_WINDOWS_SERVER_2012_R2_TRIAL,
      GUESS_VERSION_WINDOWS_10_PLAIN,
      GUESS_VERSION_WINDOWS_10_ENTERPRISE,
      GUESS_VERSION_WINDOWS_10_ESD,
      GUESS_VERSION_FEDORA_8,
      GUESS_VERSION_FEDORA_9_TO_12,
      GUESS_VERSION_FEDORA_13,
      GUESS_VERSION_FEDORA_14_TO_16,
      GUESS_VERSION_FEDORA_17,
      GUESS_VERSION_FEDORA_18,
      GUESS_VERSION_FEDORA_19_TO_20,
      GUESS_VERSION_FEDORA_21,
      GUESS_VERSION_FEDORA_22_TO_28,
      GUESS_VERSION_FEDORA_29_OR_HIGHER,
      GUESS_VERSION_FEDORA_LIVE,
      GUESS_VERSION_CENTOS_3,
      GUESS_VERSION_CENTOS_4,
      GUESS_VERSION_CENTOS_5,
      GUESS_VERSION_CENTOS_6,
      GUESS_VERSION_CENTOS_7,
      GUESS_VERSION_CENTOS_7_MINIMAL,
      GUESS_VERSION_CENTOS_8,
      GUESS_VERSION_CENTOS_8_STREAM,
      GUESS_VERSION_CENTOS_9_STREAM,
      GUESS_VERSION_RHEL_SERVER,
      GUESS_VERSION_RHEL_CLIENT,
      GUESS_VERSION_RHEL_WORKSTATION,
      GUESS_VERSION_ASIANUX_7_LIVE,
      // Debian and Ubuntu
      GUESS_VERSION_UBUNTU_SERVER_1404,
      GUESS_VERSION_UBUNTU_SERVER_140402,
      GUESS_VERSION_UBUNTU_SERVER_1410,
      GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER,
      GUESS_VERSION_UBUNTU_SERVER_804_OR_LOWER,
      GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER,
      GUESS_VERSION_UBUNTU_1404,
      GUESS_VERSION_UBUNTU_1410,
      GUESS_VERSION_UBUNTU_1504_TO_2004,
      GUESS_VERSION_UBUNTU_2010_OR_HIGHER,
      GUESS_VERSION_UBUNTU_704_OR_LOWER,
      GUESS_VERSION_UBUNTU_710_OR_HIGHER,
      // SUSE
      GUESS_VERSION_OPENSUSE_11_2_OR_LOWER,
      GUESS_VERSION_OPENSUSE_12,
      GUESS_VERSION_OPENSUSE_13_1,
      GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER,
      GUESS_VERSION_SLES_10_SP2_OR_LOWER,
      GUESS_VERSION_SLED_10_SP2_OR_LOWER,
      GUESS_VERSION_SLED_ALL,
      // Mandriva
      GUESS_VERSION_MANDRIVA_2006,
      GUESS_VERSION_MANDRIVA_2007,
      GUESS_VERSION_MANDRIVA_2008_0,
      GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER,
  };
  for (GuessVersion v : detectable) {
    EXPECT_TRUE(produced.count(v)) << Guess_GetSubString(v) << " has no tree";
  }
}

}  // namespace
