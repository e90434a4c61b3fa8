// Every tree of the detection corpus, mastered at test time, through
// Guess_Guest: one parameterised test over tests/data/media/expected.tsv,
// and the checks that the rows cover the corpus and speak the guest OS
// table's keys.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "guessGuest/mediaCorpus.h"
#include "guestprep/guess.h"
#include "platform/guestos/guestos.h"
#include "support/testSupport.h"

namespace media_corpus {

// Test names and printed parameters: tree and medium, nothing that varies.
std::string RowName(const Row &row) {
  std::string name = row.tree + "_" + MediumName(row.medium);
  for (char &ch : name) {
    ch = isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
  }
  return name;
}
void PrintTo(const Row &row, std::ostream *os) {
  *os << RowName(row);
}

}  // namespace media_corpus

namespace {

using media_corpus::Row;

std::string gReadErrors;
const std::vector<Row> kRows =
    media_corpus::ReadExpected(testing_support::DataDir().string(), &gReadErrors);

class Corpus : public testing::TestWithParam<Row> {};

TEST_P(Corpus, Detects) {
  const Row &row = GetParam();
  std::string error;
  std::string image = media_corpus::ImageFor(row.tree, row.medium, &error, row.volumeId);
  ASSERT_FALSE(image.empty()) << error;

  GuessInfo info;
  memset(&info, 0xA5, sizeof info);  // the driver must set every field
  ASSERT_EQ(row.result, Guess_Guest(image.c_str(), nullptr, &info));
  EXPECT_STREQ(row.osKey.c_str(), info.osKey != nullptr ? info.osKey : "");
  EXPECT_EQ(row.osKey.empty(), info.osKey == nullptr);
  EXPECT_STREQ(row.osKey64.c_str(), info.osKey64 != nullptr ? info.osKey64 : "");
  EXPECT_EQ(row.osKey64.empty(), info.osKey64 == nullptr);
  if (row.result != GUESS_RECOGNIZED) {
    return;
  }
  EXPECT_STREQ(SUB_NAMES[row.version], Guess_GetSubString(info.version));
  EXPECT_EQ(row.noIsolinuxCfg, info.noIsolinuxCfg);
  EXPECT_EQ(row.versionText, info.versionText);
  EXPECT_EQ(row.language, info.language);
  EXPECT_EQ(row.languages, info.languages);
  EXPECT_EQ(row.editions, info.editions);
  EXPECT_EQ(row.displayName, info.displayName);
}
INSTANTIATE_TEST_SUITE_P(Media, Corpus, testing::ValuesIn(kRows),
                         [](const auto &info) { return media_corpus::RowName(info.param); });

TEST(CorpusCoverage, EveryTreeHasARowAndEveryRowParses) {
  EXPECT_EQ("", gReadErrors);
  std::set<std::string> used;
  for (const Row &row : kRows) {
    used.insert(row.tree);
  }
  for (const auto &entry :
       std::filesystem::directory_iterator(testing_support::DataDir() / "media")) {
    if (entry.is_directory()) {
      EXPECT_TRUE(used.count(entry.path().filename().string()))
          << entry.path().filename() << " has no row in expected.tsv";
    }
  }
}

// A value no medium produces is a detector branch no test reaches. No
// medium is a Windows 10 trial of its own.
TEST(CorpusCoverage, EveryDetectableVersionIsProduced) {
  std::set<GuessVersion> produced;
  for (const Row &row : kRows) {
    if (row.result == GUESS_RECOGNIZED) {
      produced.insert(row.version);
    }
  }
  for (GuessVersion v = 1; v < GUESS_VERSION_DUMMY_LAST; ++v) {
    if (v != GUESS_VERSION_WINDOWS_10_TRIAL) {
      EXPECT_TRUE(produced.count(v)) << SUB_NAMES[v] << " has no tree";
    }
  }
}

// The keys detection reports are the guest OS table's, spelled as it spells
// them and filed under the right family (Windows trees begin "win-").
TEST(CorpusCoverage, EveryDetectedKeyIsInTheGuestOSTable) {
  for (const Row &row : kRows) {
    for (const std::string &key : {row.osKey, row.osKey64}) {
      if (key.empty()) {
        continue;
      }
      int id = GuestOS_GetOSIDByName(key.c_str());
      ASSERT_NE(-1, id) << key << " (" << row.tree << ")";
      EXPECT_STREQ(key.c_str(), GuestOS_GetNameByID(id));
      EXPECT_EQ(row.tree.starts_with("win-"), GuestOS_IsWin(id)) << key;
    }
  }
}

}  // namespace
