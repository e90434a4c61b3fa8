// The host manifest got out of a real tools library: an image mastered by
// xorriso, its hash data signed by "guestprep tools hashdata", an AVR
// manifest signed by the openssl program (tests/support/toolsLibrary.h),
// with the cases of tests/data/toolsversion/host-manifests.tsv; and two
// threads extracting at once into the temporary directory.
#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lib/toolsversion/toolsVersionInternal.h"
#include "platform/dictionary/dictionary.h"
#include "platform/file/file.h"
#include "platform/log/log.h"
#include "platform/util/vthread.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"
#include "support/toolsLibrary.h"
#include "toolsversion/manifestFixtures.h"

namespace {

namespace fs = std::filesystem;
using manifest_fixtures::CapturedLines;
using manifest_fixtures::Joined;
using testing_support::CertDirLease;
using testing_support::DataDir;
using testing_support::LogCapture;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::Replace;
using testing_support::Split;
using testing_support::Take;
using testing_support::TempDir;
using testing_support::ToolsLibrary;
using testing_support::ToolsLibraryContents;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;

fs::path LibraryFile(const std::string &name) {
  return DataDir() / "toolsversion" / "library" / name;
}

gp::UniqueDictionary Configuration(const std::string &entries, const fs::path &libdir) {
  gp::UniqueDictionary config(Dictionary_Create());
  for (const std::string &entry : Split(entries, " | ")) {
    const size_t eq = entry.find('=');
    const std::string value = Replace(entry.substr(eq + 1), "@LIBDIR@", libdir.string());
    EXPECT_TRUE(Dict_SetString(config.get(), value.c_str(), "%s", entry.substr(0, eq).c_str()));
  }
  return config;
}

gp::UniqueDictionary GuestManifest() {
  gp::UniqueDictionary guest(Dictionary_Create());
  EXPECT_TRUE(Dictionary_Load(guest.get(), LibraryFile("guest.txt").c_str()));
  return guest;
}

// Where a computation on this thread without a guest manifest path
// extracts the host manifest.
std::string TempTarget() {
  return Take(File_GetSafeTmpDir(true)) + "/manifest.txt." +
         std::to_string(VThreadBase_GetKernelID()) + ".iso.shipped";
}

class HostManifestsTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(HostManifestsTest, StatusLogAndCleanup) {
  SKIP_WITHOUT_CERT_DIR();
  const auto &c = GetParam().cells;
  CertDirLease lease("std");
  TempDir tmp;
  const fs::path root = fs::canonical(tmp.path());
  ToolsLibraryContents contents;
  if (c[1] != "-") {
    contents.hostManifest = ReadFile(LibraryFile(c[1]));
  }
  if (c[2] != "-") {
    contents.avrManifest = ReadFile(LibraryFile(c[2]));
  }
  contents.avrSignature = c[3];
  contents.hashData = c[4];
  ToolsLibrary library(root, contents);
  ASSERT_TRUE(library.ok());

  gp::UniqueDictionary config = Configuration(c[5], library.libdir());
  gp::UniqueDictionary guest = GuestManifest();
  const fs::path guestPath = root / "guest-manifest.txt";
  std::string target;
  const char *guestPathArg = nullptr;
  if (c[6] == "beside" || c[6] == "missing") {
    if (c[6] == "beside") {
      fs::copy_file(LibraryFile("guest.txt"), guestPath);
    }
    guestPathArg = guestPath.c_str();
    target = guestPath.string() + ".iso.shipped";
  } else {
    ASSERT_EQ(c[6], "none");
    target = TempTarget();
  }

  LogCapture log;
  const ToolsStatus status = GetHostManifests(config.get(), guestPathArg, guest.get());

  EXPECT_EQ(ToolsVersionStatusName(status), c[7]);
  std::string expected = c[8];
  for (const auto &[from, to] : {std::pair<std::string, std::string>{"@TARGET@", target},
                                 {"@IMAGE@", library.image().string()},
                                 {"@AVR@", library.avrManifest().string()},
                                 {"@LIBDIR@", library.libdir().string()}}) {
    expected = Replace(expected, from, to);
  }
  // Lines of the image code below are its own suites' business, unless the
  // row is about them.
  std::vector<std::string> skip;
  if (expected.find("ToolsISO: ") == std::string::npos) {
    skip = {"ToolsISO: ", "Iso9660_"};
  }
  EXPECT_EQ(Joined(CapturedLines(log, skip)), expected);
  EXPECT_FALSE(fs::exists(target)) << "the extracted manifest stays behind";
  EXPECT_EQ(fs::exists(guestPath), c[6] == "beside");
}

INSTANTIATE_TEST_SUITE_P(Table, HostManifestsTest,
                         ::testing::ValuesIn(ReadTsv("toolsversion/host-manifests.tsv", 9)),
                         TsvRowNamer());

// Log lines from several threads, kept whole.
class SharedLog {
 public:
  SharedLog() { Log_SetSink(&SharedLog::Sink, this, &prevFn_, &prevCtx_); }
  ~SharedLog() { Log_SetSink(prevFn_, prevCtx_); }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  static void Sink(void *ctx, int, const char *text, size_t len) {
    auto *self = static_cast<SharedLog *>(ctx);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(text, len);
  }
  std::mutex mutex_;
  std::vector<std::string> lines_;
  LogSinkFn prevFn_ = nullptr;
  void *prevCtx_ = nullptr;
};

TEST(HostManifestsConcurrency, TwoThreadsExtractToTheirOwnFiles) {
  SKIP_WITHOUT_CERT_DIR();
  CertDirLease lease("std");
  TempDir tmp;
  ToolsLibraryContents contents;
  contents.hostManifest = ReadFile(LibraryFile("host.txt"));
  contents.avrManifest = ReadFile(LibraryFile("avr.txt"));
  ToolsLibrary library(fs::canonical(tmp.path()), contents);
  ASSERT_TRUE(library.ok());

  constexpr int kRounds = 20;
  SharedLog log;
  std::vector<ToolsStatus> statuses[2];
  std::string targets[2];
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      // Dictionaries are used by one thread at a time: each has its own.
      gp::UniqueDictionary config =
          Configuration("guestOS=rhel7-64 | libdir=@LIBDIR@", library.libdir());
      gp::UniqueDictionary guest = GuestManifest();
      targets[t] = TempTarget();
      for (int i = 0; i < kRounds; ++i) {
        statuses[t].push_back(GetHostManifests(config.get(), nullptr, guest.get()));
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }

  EXPECT_NE(targets[0], targets[1]);
  std::set<std::string> extracting;
  for (const std::string &line : log.lines()) {
    if (line.starts_with("GetHostManifests: Extracting ")) {
      extracting.insert(line);
    }
  }
  EXPECT_EQ(extracting, (std::set<std::string>{
                            "GetHostManifests: Extracting " + targets[0] + " manifest file.\n",
                            "GetHostManifests: Extracting " + targets[1] + " manifest file.\n"}));
  for (int t = 0; t < 2; ++t) {
    EXPECT_EQ(statuses[t], std::vector<ToolsStatus>(kRounds, TOOLS_STATUS_SUPPORTED_OLD));
    EXPECT_FALSE(fs::exists(targets[t]));
  }
}

}  // namespace
