#include "platform/snapshot/snapshot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace {

using testing_support::LogCapture;
using testing_support::Replace;
using testing_support::TempDir;
using testing_support::TsvRow;

// configs.tsv columns.
enum { kCase, kConfig, kResult, kExpected, kPath, kColumns };

struct Outcome {
  bool ok = false;
  std::vector<std::string> disks;
  std::vector<std::string> log;
};

Outcome ListDisks(const char *configPath, Dictionary *configDict) {
  Outcome out;
  LogCapture capture;
  SnapshotStringList *disks = reinterpret_cast<SnapshotStringList *>(&out);  // stale
  out.ok = Snapshot_GetCurrentDisksCfgDict(configPath, configDict, &disks);
  for (const SnapshotStringList *d = disks; d != nullptr; d = d->next) {
    out.disks.emplace_back(d->name);
  }
  Snapshot_DestroyStringList(disks);
  for (const std::string &line : capture.lines()) {
    out.log.push_back(line.substr(0, line.find_last_not_of('\n') + 1));
  }
  return out;
}

class SnapshotDisks : public ::testing::TestWithParam<TsvRow> {};

// The same disks whether the configuration is given loaded or by path.
TEST_P(SnapshotDisks, ListsThePresentDisks) {
  const auto &c = GetParam().cells;
  TempDir dir;
  const std::string configPath = (dir / "vm.brx").string();
  if (c[kConfig] != "<missing>") {
    testing_support::WriteFile(configPath, testing_support::Unescape(c[kConfig]));
  }
  const std::string dirPrefix = dir.str() + "/";
  std::vector<std::string> want;
  if (c[kResult] == "ok") {
    want = testing_support::Split(Replace(c[kExpected], "@DIR@/", dirPrefix), " ; ");
  }

  std::vector<Outcome> runs;
  if (c[kPath].empty()) {
    runs.push_back(ListDisks(configPath.c_str(), nullptr));
  }
  gp::UniqueDictionary dict(Dictionary_Create());
  if (Dictionary_Load(dict.get(), configPath.c_str())) {
    const std::string path = c[kPath].empty() ? configPath : c[kPath];
    runs.push_back(ListDisks(path.c_str(), dict.get()));
  }
  ASSERT_FALSE(runs.empty());
  for (const Outcome &run : runs) {
    EXPECT_EQ(c[kResult] == "ok", run.ok);
    EXPECT_EQ(want, run.disks);
    if (run.ok) {
      EXPECT_EQ(std::vector<std::string>{}, run.log);
    } else {
      EXPECT_EQ(std::vector<std::string>{Replace(c[kExpected], "@DIR@/", dirPrefix)}, run.log);
    }
  }
  MsgList_Free(Msg_GetMessagesAndReset());  // what the test's own load posted
}

INSTANTIATE_TEST_SUITE_P(Configs, SnapshotDisks,
                         ::testing::ValuesIn(testing_support::ReadTsv("snapshot/configs.tsv",
                                                                      kColumns)),
                         testing_support::TsvRowNamer());

TEST(SnapshotArguments, NoListPlaceIsRefused) {
  LogCapture capture;
  EXPECT_FALSE(Snapshot_GetCurrentDisksCfgDict("vm.brx", nullptr, nullptr));
  EXPECT_EQ(1u, capture.lines().size());
  Snapshot_DestroyStringList(nullptr);
}

}  // namespace
