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
    &media_corpus::kRedHatCases,
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
      GUESS_VERSION_FEDORA_8,         GUESS_VERSION_FEDORA_9_TO_12,
      GUESS_VERSION_FEDORA_13,        GUESS_VERSION_FEDORA_14_TO_16,
      GUESS_VERSION_FEDORA_17,        GUESS_VERSION_FEDORA_18,
      GUESS_VERSION_FEDORA_19_TO_20,  GUESS_VERSION_FEDORA_21,
      GUESS_VERSION_FEDORA_22_TO_28,  GUESS_VERSION_FEDORA_29_OR_HIGHER,
      GUESS_VERSION_FEDORA_LIVE,      GUESS_VERSION_CENTOS_3,
      GUESS_VERSION_CENTOS_4,         GUESS_VERSION_CENTOS_5,
      GUESS_VERSION_CENTOS_6,         GUESS_VERSION_CENTOS_7,
      GUESS_VERSION_CENTOS_7_MINIMAL, GUESS_VERSION_CENTOS_8,
      GUESS_VERSION_CENTOS_8_STREAM,  GUESS_VERSION_CENTOS_9_STREAM,
      GUESS_VERSION_RHEL_SERVER,      GUESS_VERSION_RHEL_CLIENT,
      GUESS_VERSION_RHEL_WORKSTATION, GUESS_VERSION_ASIANUX_7_LIVE,
  };
  for (GuessVersion v : detectable) {
    EXPECT_TRUE(produced.count(v)) << Guess_GetSubString(v) << " has no tree";
  }
}

}  // namespace
