// Tools image naming and location: name rules, the built-in table, the
// image map with and without its signature, hints, the process-wide tools
// directory and cached name, and every log line, from the tables under
// tests/data/toolsiso. Paths are checked against coreutils' realpath, and
// the cached name under concurrent callers (the ThreadSanitizer build runs
// the Concurrent suite).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "guestprep/toolsiso.h"
#include "lib/toolsiso/toolsIsoImageInternal.h"
#include "platform/log/log.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::CertDirLease;
using testing_support::DataDir;
using testing_support::LogCapture;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::Replace;
using testing_support::RunCommand;
using testing_support::Take;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::Unescape;
using testing_support::WriteFile;

// A name cell: "x{N}" is N times x followed by the rest, else the fixture's
// escapes.
std::string NameCell(const std::string &cell) {
  const size_t close = cell.find('}');
  if (cell.size() > 2 && cell[1] == '{' && close != std::string::npos) {
    return std::string(std::stoul(cell.substr(2, close - 2)), cell[0]) + cell.substr(close + 1);
  }
  return Unescape(cell);
}

// The captured lines, each without its line feed, joined with " || ";
// lines for which skip answers true are left out. A line without a line
// feed shows as "<no LF>".
template <typename Skip>
std::string Lines(const LogCapture &log, Skip skip) {
  std::string out;
  for (const std::string &line : log.lines()) {
    if (skip(line)) {
      continue;
    }
    out += (out.empty() ? "" : " || ") +
           (line.ends_with("\n") ? line.substr(0, line.size() - 1) : line + "<no LF>");
  }
  return out;
}

std::string Lines(const LogCapture &log) {
  return Lines(log, [](const std::string &) { return false; });
}

// A tools directory (canonical, so the map's canonical path is predictable)
// with an empty "isoimages", and the process-wide state reset around it.
class ToolsDir {
 public:
  ToolsDir() : dir_(fs::canonical(tmp_.path())) {
    fs::create_directory(dir_ / "isoimages");
    gp::ResetToolsIsoStateForTest();
  }
  ~ToolsDir() { gp::ResetToolsIsoStateForTest(); }

  std::string str() const { return dir_.string(); }
  std::string map() const { return (dir_ / "isoimages" / "isoimages_manifest.txt").string(); }
  // Installs tests/data/toolsiso/maps/name as the map; "-" removes it.
  void InstallMap(const std::string &name) const {
    fs::remove(map());
    if (name != "-") {
      fs::copy_file(DataDir() / "toolsiso" / "maps" / name, map());
    }
  }
  std::string Expand(const std::string &text) const {
    return Replace(Replace(text, "@MAP@", map()), "@DIR@", str());
  }

 private:
  TempDir tmp_;
  fs::path dir_;
};

struct Lookup {
  bool ok = false;
  std::string path = "<null>";
  std::string base = "<null>";
  uint32_t kind = 99;
};

Lookup GetImage(const std::string &dir, const char *guest, const char *hint, bool required) {
  Lookup r;
  char *path = reinterpret_cast<char *>(1);
  char *base = reinterpret_cast<char *>(1);
  r.ok = ToolsISO_GetImagePath(dir.c_str(), guest, hint, required, &path, &base, &r.kind);
  r.path = Take(path);
  r.base = Take(base);
  return r;
}

class ToolsIsoNameTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsIsoNameTest, Validates) {
  const auto &c = GetParam().cells;
  EXPECT_EQ(ToolsISO_ValidateName(NameCell(c[1]).c_str()), c[2] == "1") << NameCell(c[1]);
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsIsoNameTest,
                         ::testing::ValuesIn(ReadTsv("toolsiso/names.tsv", 3)), TsvRowNamer());

class ToolsIsoBaseNameTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsIsoBaseNameTest, ComesFromTheBuiltInTable) {
  const auto &c = GetParam().cells;
  const char *base = ToolsISO_GetImageBaseName(std::stoul(c[0], nullptr, 16));
  EXPECT_EQ(base != nullptr ? base : "-", c[1]);
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsIsoBaseNameTest,
                         ::testing::ValuesIn(ReadTsv("toolsiso/basenames.tsv", 2)), TsvRowNamer());

// No map: the table answers by the guest key's numeric id.
class ToolsIsoTableTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsIsoTableTest, ChosenByGuestKey) {
  const auto &c = GetParam().cells;
  ToolsDir dir;
  Lookup r = GetImage(dir.str(), c[0].c_str(), nullptr, false);
  EXPECT_EQ(r.ok, c[1] != "-");
  EXPECT_EQ(r.path, c[1] == "-" ? "<null>" : dir.str() + "/isoimages/" + c[1]);
  EXPECT_EQ(r.base, c[1] == "-" ? "<null>" : c[1].substr(0, c[1].rfind('.')));
  EXPECT_EQ(r.kind, std::stoul(c[2]));
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsIsoTableTest,
                         ::testing::ValuesIn(ReadTsv("toolsiso/images.tsv", 3)), TsvRowNamer());

// Calls once with the cells from first on (signature required, guest, hint
// or "-", image or "-", kind, log lines) and checks the outcome.
void CheckLookup(const ToolsDir &dir, const std::vector<std::string> &c, size_t first) {
  const std::string &image = c[first + 3];
  LogCapture log;
  Lookup r = GetImage(dir.str(), c[first + 1].c_str(),
                      c[first + 2] == "-" ? nullptr : c[first + 2].c_str(), c[first] == "1");
  EXPECT_EQ(r.ok, image != "-");
  EXPECT_EQ(r.path, image == "-" ? "<null>" : dir.str() + "/isoimages/" + image);
  EXPECT_EQ(r.base, image == "-" ? "<null>" : image.substr(0, image.rfind('.')));
  EXPECT_EQ(r.kind, std::stoul(c[first + 4]));
  EXPECT_EQ(Lines(log), dir.Expand(c[first + 5]));
}

// One call in a fresh process state, with or without a map (unsigned) and
// a hint.
class ToolsIsoLookupTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsIsoLookupTest, ChoosesAndLogs) {
  ToolsDir dir;
  dir.InstallMap(GetParam().cells[1]);
  CheckLookup(dir, GetParam().cells, 2);
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsIsoLookupTest,
                         ::testing::ValuesIn(ReadTsv("toolsiso/lookup.tsv", 8)), TsvRowNamer());

// The same with a signature beside the map, made by the openssl program,
// while the certificate directory holds the maker and partner roots.
class ToolsIsoSignedMapTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsIsoSignedMapTest, ChecksTheSignature) {
  SKIP_WITHOUT_CERT_DIR();
  const auto &c = GetParam().cells;
  ToolsDir dir;
  dir.InstallMap(c[1]);
  const bool text = c[2].starts_with("text:");
  const std::string signature = testing_support::SignatureCell(
      c[2], text ? "" : ReadFile(DataDir() / "toolsiso" / "maps" / (c[3] == "=" ? c[1] : c[3])));
  ASSERT_TRUE(text || !signature.empty());
  WriteFile(dir.map() + ".sig", signature);
  CertDirLease lease("std");
  CheckLookup(dir, c, 4);
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsIsoSignedMapTest,
                         ::testing::ValuesIn(ReadTsv("toolsiso/signed.tsv", 10)), TsvRowNamer());

// The refresh counter and the cached name over one sequence of calls.
TEST(ToolsIsoCacheTest, FollowsTheRefreshCounter) {
  ToolsDir dir;
  ASSERT_EQ(ToolsISO_GetRefreshCount(), 1u);
  // Reading the map and its signature is covered by ToolsIsoLookupTest.
  auto reading = [](const std::string &line) {
    return line.starts_with("ToolsISO: open of") || line.starts_with("ToolsISO: Failed to get") ||
           line.starts_with("ToolsISO: Unable to read signature");
  };
  for (const TsvRow &row : ReadTsv("toolsiso/caching.tsv", 4)) {
    const auto &c = row.cells;
    SCOPED_TRACE("caching.tsv line " + std::to_string(row.line));
    LogCapture log;
    if (c[0] == "map") {
      dir.InstallMap(c[1]);
    } else if (c[0] == "bump") {
      ToolsISO_UpdateRefreshCount();
      EXPECT_EQ(ToolsISO_GetRefreshCount(), std::stoul(c[2]));
    } else {
      auto words = testing_support::Split(c[1], " ");
      words.resize(2);
      Lookup r =
          GetImage(dir.str(), words[0].c_str(), c[0] == "hint" ? words[1].c_str() : nullptr, false);
      EXPECT_EQ(r.ok, c[2] != "-");
      EXPECT_EQ(r.base, c[2] == "-" ? "<null>" : c[2].substr(0, c[2].rfind('.')));
    }
    EXPECT_EQ(Lines(log, reading), dir.Expand(c[3]));
  }
}

TEST(ToolsIsoDirTest, TrailingSlashesGoAndTheFirstDirectoryStays) {
  ToolsDir first;
  ToolsDir second;  // resets the state again: the first call below fixes it
  second.InstallMap("plain.txt");
  EXPECT_EQ(GetImage(first.str() + "///", "rhel7-64", "linux.iso", false).path,
            first.str() + "/isoimages/linux.iso");
  // The second directory's map would refuse this hint.
  EXPECT_EQ(GetImage(second.str(), "rhel7-64", "linux.iso", false).path,
            first.str() + "/isoimages/linux.iso");
}

TEST(ToolsIsoDirTest, RootStaysRoot) {
  ToolsDir reset;
  // Paths are the directory, "/isoimages/" and the name, whatever the
  // directory ends in.
  EXPECT_EQ(GetImage("///", "rhel7-64", "linux.iso", false).path, "//isoimages/linux.iso");
}

TEST(ToolsIsoDirTest, NotADirectoryFailsAndFixesNothing) {
  ToolsDir dir;
  WriteFile(dir.str() + "/file", "");
  for (const std::string &notDir : {dir.str() + "/file", dir.str() + "/missing", std::string()}) {
    LogCapture log;
    EXPECT_FALSE(GetImage(notDir, "rhel7-64", "linux.iso", false).ok);
    EXPECT_EQ(Lines(log), "ToolsISO: Tools Dir path '" + notDir + "' is not a directory.");
  }
  EXPECT_EQ(GetImage(dir.str(), "rhel7-64", "linux.iso", false).path,
            dir.str() + "/isoimages/linux.iso");
}

TEST(ToolsIsoDirTest, LinkedDirectoryNamesTheCanonicalMap) {
  ToolsDir dir;
  dir.InstallMap("plain.txt");
  TempDir links;
  fs::create_directory_symlink(dir.str(), links / "tools");
  LogCapture log;
  Lookup r = GetImage((links / "tools").string(), "rhel6-64", nullptr, false);
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(log.contains("Tools image map file '" + dir.map() + "'")) << log.all();
}

TEST(ToolsIsoArgsTest, MissingArgumentsFailCleanly) {
  ToolsDir dir;
  char *base = reinterpret_cast<char *>(1);
  uint32_t kind = 7;
  EXPECT_FALSE(
      ToolsISO_GetImagePath(dir.str().c_str(), "rhel7-64", nullptr, false, nullptr, &base, &kind));
  EXPECT_EQ(base, nullptr);
  EXPECT_EQ(kind, 0u);
  EXPECT_FALSE(GetImage(dir.str(), nullptr, nullptr, false).ok);
  EXPECT_FALSE(ToolsISO_ValidateName(nullptr));
  uint8_t *buffer = nullptr;
  size_t size = 0;
  EXPECT_FALSE(ToolsISO_ReadFile(nullptr, &buffer, &size));
  EXPECT_EQ(ToolsISO_GetRealPath(nullptr), nullptr);
}

class ToolsIsoReadFileTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(ToolsIsoReadFileTest, ReadsWholeFileOrRefuses) {
  const auto &c = GetParam().cells;
  TempDir dir;
  const std::string path = (dir / "file").string();
  if (c[1].starts_with("sparse:")) {
    ASSERT_EQ(RunCommand({"truncate", "-s", c[1].substr(7), path}).exitCode, 0);
  } else if (c[1].starts_with("text:")) {
    WriteFile(path, c[1].substr(5));
  } else if (c[1] == "directory") {
    fs::create_directory(path);
  } else if (c[1] == "symlink") {
    WriteFile(dir / "target", "x");
    fs::create_symlink(dir / "target", path);
  }
  LogCapture log;
  uint8_t *buffer = reinterpret_cast<uint8_t *>(1);
  size_t size = 1;
  EXPECT_EQ(ToolsISO_ReadFile(path.c_str(), &buffer, &size), c[2] == "1");
  EXPECT_EQ(size, std::stoull(c[3]));
  EXPECT_EQ(Lines(log), Replace(c[4], "@PATH@", path));
  if (c[2] == "1") {
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer[size], 0);
    if (c[1].starts_with("text:")) {
      EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), size), c[1].substr(5));
    }
  } else {
    EXPECT_EQ(buffer, nullptr);
  }
  free(buffer);
}

INSTANTIATE_TEST_SUITE_P(Table, ToolsIsoReadFileTest,
                         ::testing::ValuesIn(ReadTsv("toolsiso/readfile.tsv", 5)), TsvRowNamer());

TEST(ToolsIsoRealPathTest, AgreesWithCoreutils) {
  TempDir tmp;
  fs::create_directories(tmp / "a" / "b");
  WriteFile(tmp / "a" / "b" / "f", "");
  fs::create_directory_symlink(tmp / "a" / "b", tmp / "link");
  fs::create_symlink(tmp / "nowhere", tmp / "dangling");
  for (const char *rel : {"a/b/f", "a/./b/../b/f", "link/f", "link/../b/f", "a//b/", "missing",
                          "a/missing/f", "dangling", "a/b/f/x"}) {
    const std::string path = (tmp / rel).string();
    auto expected = RunCommand({"realpath", "-e", path});
    LogCapture log;
    std::string got = Take(ToolsISO_GetRealPath(path.c_str()));
    if (expected.exitCode == 0) {
      EXPECT_EQ(got + "\n", expected.output) << rel;
      EXPECT_EQ(Lines(log), "");
    } else {
      EXPECT_EQ(got, path) << rel;
      EXPECT_TRUE(
          Lines(log).starts_with("ToolsISO: Failed to get realpath for '" + path + "' (error="))
          << Lines(log);
    }
  }
}

// Counts log events from any thread (the capture class is for one thread).
std::atomic<size_t> gConcurrentLines{0};
void CountLine(void *, int, const char *, size_t) {
  gConcurrentLines.fetch_add(1, std::memory_order_relaxed);
}

// Callers choosing images while others move the counter and hints come in:
// every answer is an image the map names, and the cached name is never
// read while freed (the ThreadSanitizer and AddressSanitizer builds check
// the latter).
TEST(ToolsIsoImageConcurrent, CallersAndRefreshes) {
  ToolsDir dir;
  dir.InstallMap("plain.txt");
  const std::set<std::string> offered = {"linux-7.iso", "windows.iso", "winPre2k.iso",
                                         "custom_1.0-beta.iso"};
  LogSinkFn prevFn;
  void *prevCtx;
  Log_SetSink(CountLine, nullptr, &prevFn, &prevCtx);
  ToolsISO_UpdateRefreshCount();  // past 1: answers are cached from here on

  constexpr int kCallers = 4;
  constexpr int kCalls = 2000;
  const char *guests[] = {"rhel7-64", "windows9-64", "winNT", "ubuntu-64", "rhel6-64"};
  std::atomic<int> failures{0};
  std::atomic<int> unexpected{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kCallers; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) {
        const char *hint = i % 7 == 3 ? "windows.iso" : nullptr;
        Lookup r = GetImage(dir.str(), guests[(t + i) % 5], hint, false);
        if (!r.ok) {
          failures.fetch_add(1);
        } else if (offered.count(fs::path(r.path).filename().string()) == 0) {
          unexpected.fetch_add(1);
        }
      }
    });
  }
  std::thread bumper([&] {
    while (!done.load()) {
      ToolsISO_UpdateRefreshCount();
      std::this_thread::yield();
    }
  });
  for (auto &thread : threads) {
    thread.join();
  }
  done.store(true);
  bumper.join();
  Log_SetSink(prevFn, prevCtx);

  EXPECT_EQ(unexpected.load(), 0);
  // rhel6-64 fails unless it meets a cached name; hints always succeed.
  EXPECT_LT(failures.load(), kCallers * kCalls);
  EXPECT_GT(gConcurrentLines.load(), size_t(kCallers * kCalls));
  EXPECT_GT(ToolsISO_GetRefreshCount(), 2u);
}

}  // namespace
