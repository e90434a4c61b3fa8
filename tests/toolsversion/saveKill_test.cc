// A process killed at any moment while it saves tools information leaves
// the extended configuration file whole: the old or the new contents, never
// a mix or a file cut short, with everything the writer does not own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <regex>
#include <set>
#include <string>

#include "guestprep/toolsversion.h"
#include "support/testSupport.h"
#include "toolsversion/saveFixtures.h"

namespace fs = std::filesystem;

namespace {

constexpr int kKills = 150;
// Kill after 0 to 12 ms: several saves fit in that span, so kills land in
// every phase of one (reading, writing, syncing, renaming).
constexpr unsigned kMaxDelayMicroseconds = 12000;
constexpr unsigned kSeed = 20240611;
// Every tenth file also gets xmllint's full verdict (namespace diagnostics
// included); every file is read by xmllint's canonicaliser.
constexpr int kNooutEvery = 10;

// Saves round after round until killed: save n stores manifest version
// 11.0.n, a report with guest version 11.0.n and update counter n, all in
// one write, so a file mixing two saves shows.
[[noreturn]] void SaveForever(const std::string &configPath, int first) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (int n = first; n < first + 1000; ++n) {
    const std::string version = "11.0." + std::to_string(n);
    const std::string manifest = "monolithic.version = \"" + version +
                                 "\"\nmonolithic.installed = \"TRUE\"\n"
                                 "component" +
                                 std::to_string(n % 7) + ".version = \"" + version + "\"\n";
    std::string report =
        "<report><tools><monolithic guestVersion=\"" + version + "\" status=\"3\"/>";
    // Reports of varying length, so that a file cut short would show.
    for (int i = 0; i < n % 13; ++i) {
      report += "<item" + std::to_string(i) + " status=\"2\"/>";
    }
    report += "</tools></report>";
    ToolsVersion_SaveXmlInfo(configPath.c_str(), report.c_str(), manifest.c_str(), 0, n);
  }
  _exit(0);
}

// The save number a file holds in each of its three tools elements; -1
// for an element without one.
std::set<int> SaveNumbers(const std::string &canonical) {
  std::set<int> found;
  static const std::regex kPatterns[] = {
      std::regex("<updateCounter>([0-9]+)</updateCounter>"),
      std::regex("guestVersion=\"11\\.0\\.([0-9]+)\""),
      std::regex("<tools-manifest><monolithic installed=\"TRUE\" version=\"11\\.0\\.([0-9]+)\""),
  };
  for (const std::regex &pattern : kPatterns) {
    std::smatch match;
    found.insert(std::regex_search(canonical, match, pattern) ? std::stoi(match[1]) : -1);
  }
  return found;
}

TEST(ToolsSaveKill, FileStaysWholeWhateverTheMomentOfTheKill) {
  testing_support::TempDir dir;
  fs::copy_file(save_fixtures::SaveCasesDir() / "vm.brx", dir / "vm.brx");
  // The richest file of the table, with its own tools elements numbered 0.
  const fs::path ext = dir / "ext.xml";
  fs::copy_file(save_fixtures::SaveCasesDir() / "foreign-content" / "ext.xml", ext);
  const std::string configPath = (dir / "vm.brx").string();
  // The starting point is save number 1 in all three elements.
  ASSERT_TRUE(ToolsVersion_SaveXmlInfo(configPath.c_str(),
                                       "<report><tools><monolithic guestVersion=\"11.0.1\"/>"
                                       "</tools></report>",
                                       "monolithic.version = \"11.0.1\"\n"
                                       "monolithic.installed = \"TRUE\"\n",
                                       0, 1));
  const std::string foreign = save_fixtures::WithoutOwned(save_fixtures::Canonical(ext));

  std::mt19937 random(kSeed);  // its output sequence is fixed by the standard
  const auto start = std::chrono::steady_clock::now();
  int changed = 0;
  int lastSeen = 1;
  long savesSeen = 0;  // saves the killed children completed, as far as the file shows
  int killedWhileRunning = 0;
  std::set<std::string> leftovers;
  for (int kill = 0; kill < kKills; ++kill) {
    const unsigned delay = random() % kMaxDelayMicroseconds;
    const pid_t pid = fork();
    ASSERT_NE(-1, pid);
    if (pid == 0) {
      SaveForever(configPath, (kill + 1) * 1000);
    }
    const struct timespec pause = {0, static_cast<long>(delay) * 1000};
    nanosleep(&pause, nullptr);
    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    killedWhileRunning += WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;

    SCOPED_TRACE("kill " + std::to_string(kill) + " after " + std::to_string(delay) + " us");
    const std::string canonical = save_fixtures::Canonical(ext);  // fails on a broken file
    ASSERT_EQ(foreign, save_fixtures::WithoutOwned(canonical));
    const std::set<int> numbers = SaveNumbers(canonical);
    ASSERT_EQ(1u, numbers.size()) << "elements from different saves:\n" << canonical;
    const int number = *numbers.begin();
    // Each child numbers its saves from its own base: the file only moves on.
    ASSERT_GE(number, lastSeen);
    ASSERT_LT(number, (kill + 2) * 1000);
    if (number >= (kill + 1) * 1000) {
      savesSeen += number - (kill + 1) * 1000 + 1;
    }
    changed += number != lastSeen;
    lastSeen = number;
    if (kill % kNooutEvery == 0) {
      ASSERT_EQ("", save_fixtures::XmllintProblems(ext));
    }

    for (const auto &entry : fs::directory_iterator(dir.path())) {
      const std::string name = entry.path().filename().string();
      if (name != "vm.brx" && name != "ext.xml") {
        ASSERT_EQ(0u, name.rfind(".ext.xml.~", 0)) << "unexpected file " << name;
        leftovers.insert(name);
      }
    }
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  // A temporary file is named only for the moment between its last sync
  // and the rename; a kill in that moment leaves it. They stay few.
  EXPECT_LE(leftovers.size(), static_cast<size_t>(kKills));
  // Most kills must find the file changed since the kill before, or the
  // kills came before any save finished and proved little.
  EXPECT_GE(changed, kKills / 2);
  EXPECT_EQ(kKills, killedWhileRunning);
  std::printf(
      "[ measure  ] %d kills in %.1f s, file changed after %d, %ld saves completed, "
      "%zu temporary files left\n",
      kKills, seconds, changed, savesSeen, leftovers.size());
  RecordProperty("kills", kKills);
  RecordProperty("changedAfterKill", changed);
  RecordProperty("savesCompleted", static_cast<int>(savesSeen));
  RecordProperty("temporaryFilesLeft", static_cast<int>(leftovers.size()));

  // The file still takes a save; the leftovers are no obstacle.
  ASSERT_TRUE(ToolsVersion_SaveXmlInfo(configPath.c_str(), nullptr, "no tools", 0, 0));
  EXPECT_EQ("", save_fixtures::XmllintProblems(ext));
}

}  // namespace
