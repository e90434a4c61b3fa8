// Tools version manifests: the version grammar (tests/data/toolsversion/
// versions.tsv), manifest entries one by one (entries.tsv), and the status
// computation over whole manifests, one directory per case under
// tests/data/toolsversion/compute, with AVR manifests signed by the openssl
// program at test time.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lib/toolsversion/toolsVersionInternal.h"
#include "platform/dictionary/dictionary.h"
#include "platform/util/hashTable.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"
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
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::Unescape;
using testing_support::WriteFile;

std::string Parts(const ToolsVersionValue &v) {
  return std::to_string(v.parts[0]) + "." + std::to_string(v.parts[1]) + "." +
         std::to_string(v.parts[2]) + "." + std::to_string(v.parts[3]);
}

class VersionTextTest : public ::testing::TestWithParam<TsvRow> {};

TEST_P(VersionTextTest, ParsesAndPrints) {
  const auto &c = GetParam().cells;
  const std::string text = Unescape(c[0]);
  ToolsVersionValue v{};
  const char *end = ToolsVersionParse(&v, text.c_str());
  if (c[1] == "-") {
    EXPECT_EQ(end, nullptr) << "left: " << (end != nullptr ? end : "");
    return;
  }
  ASSERT_NE(end, nullptr);
  EXPECT_EQ(std::to_string(v.significant), c[1]);
  EXPECT_EQ(Parts(v), c[2]);
  EXPECT_EQ(Take(ToolsVersionToString(&v, false)), c[3]);
  EXPECT_EQ(Take(ToolsVersionToString(&v, true)), c[4]);
  EXPECT_EQ(std::string(end), Unescape(c[5]));
}

INSTANTIATE_TEST_SUITE_P(Table, VersionTextTest,
                         ::testing::ValuesIn(ReadTsv("toolsversion/versions.tsv", 6)),
                         TsvRowNamer());

// Every component of the table with the fields that are set, in table
// order: "name g=GUEST i=Y h=HOST min=... max=... ill=A,B", joined by " ; ".
std::string Dump(HashTable *table) {
  std::string out;
  HashTable_ForEach(
      table,
      [](const char *name, void *value, void *ctx) {
        auto &o = *static_cast<std::string *>(ctx);
        const auto &c = *static_cast<ToolsVersionComponent *>(value);
        auto field = [&o](const char *label, const ToolsVersionValue &v) {
          if (v.significant != 0) {
            o += label + Take(ToolsVersionToString(&v, false));
          }
        };
        o += (o.empty() ? "" : " ; ") + std::string(name);
        field(" g=", c.guest);
        o += c.installed ? " i=Y" : "";
        field(" h=", c.host);
        field(" min=", c.avrMin);
        field(" max=", c.avrMax);
        for (size_t i = 0; i < c.illegal.size(); ++i) {
          o += (i == 0 ? " ill=" : ",") + Take(ToolsVersionToString(&c.illegal[i], true));
        }
        return 0;
      },
      &out);
  return out.empty() ? "-" : out;
}

ToolsManifestKind KindByName(const std::string &name) {
  if (name == "avr") {
    return MANIFEST_AVR;
  }
  return name == "guest" ? MANIFEST_GUEST : MANIFEST_HOST;
}

class ManifestEntryTest : public ::testing::TestWithParam<TsvRow> {};

// Entries go in one by one, as a dictionary walk hands them over; the
// cells list them as NAME=VALUE separated by " | ".
TEST_P(ManifestEntryTest, FillsTheTableOrLogs) {
  const auto &c = GetParam().cells;
  std::unique_ptr<HashTable, void (*)(HashTable *)> table(ToolsVersionNewTable(), HashTable_Free);
  ASSERT_NE(table, nullptr);
  ToolsVersionDebug debug;
  const ToolsManifestKind kind = KindByName(c[1]);
  ToolsVersionAddContext ctx{table.get(), kind, kind == MANIFEST_GUEST ? nullptr : &debug};
  LogCapture log;
  for (const std::string &entry : Split(c[2], " | ")) {
    const size_t eq = entry.find('=');
    ASSERT_NE(eq, std::string::npos) << entry;
    const std::string name = Unescape(entry.substr(0, eq));
    const std::string value = Unescape(entry.substr(eq + 1));
    EXPECT_TRUE(ToolsVersionAddEntry(name.c_str(), value.c_str(), &ctx));
  }
  EXPECT_EQ(Joined(CapturedLines(log)), c[3] == "-" ? "" : c[3]);
  EXPECT_EQ(Dump(table.get()), c[4]);
  EXPECT_EQ(std::string(debug.resultLog ? "R" : "") + (debug.componentsLog ? "C" : ""),
            c[5] == "-" ? "" : c[5]);
}

INSTANTIATE_TEST_SUITE_P(Table, ManifestEntryTest,
                         ::testing::ValuesIn(ReadTsv("toolsversion/entries.tsv", 6)),
                         TsvRowNamer());

// Places the case's AVR manifest at avrPath with its ".sig" as the case's
// "avr.how" says (default "maker"): "maker" or "partner" (signed by that
// leaf), "garbage" (not PEM), "none" (no ".sig"), "tampered" (signed, then
// changed), "absent" (neither file).
void PlaceAvr(const fs::path &caseDir, const fs::path &avrPath) {
  const std::string text = ReadFile(caseDir / "avr.txt");
  const std::string how =
      fs::exists(caseDir / "avr.how") ? Split(ReadFile(caseDir / "avr.how"), "\n").at(0) : "maker";
  const fs::path sig = avrPath.string() + ".sig";
  if (how == "absent") {
    return;
  }
  if (how == "maker" || how == "tampered") {
    WriteFile(sig, testing_support::OpensslSign("maker-leaf", "smime -binary", text));
  } else if (how == "partner") {
    WriteFile(sig, testing_support::OpensslSign("partner-leaf", "smime -binary", text));
  } else if (how == "garbage") {
    WriteFile(sig, "not a signature\n");
  } else {
    ASSERT_EQ(how, "none");
  }
  WriteFile(avrPath, how == "tampered" ? Replace(text, "10.0.0", "9.0.0") : text);
}

class ComputeStatusTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ComputeStatusTest, StatusAndLogLines) {
  const fs::path caseDir = DataDir() / "toolsversion" / "compute" / GetParam();
  const bool withAvr = fs::exists(caseDir / "avr.txt");
  std::optional<CertDirLease> lease;
  if (withAvr) {
    SKIP_WITHOUT_CERT_DIR();
    lease.emplace("std");
  }
  TempDir tmp;
  const fs::path dir = fs::canonical(tmp.path());
  const fs::path host = dir / "manifest.txt";
  if (fs::exists(caseDir / "host.txt")) {
    fs::copy_file(caseDir / "host.txt", host);
  }
  const fs::path avr = dir / "linux_avr_manifest.txt";
  if (withAvr) {
    PlaceAvr(caseDir, avr);
  }
  gp::UniqueDictionary guest;
  if (fs::exists(caseDir / "guest.txt")) {
    guest.reset(Dictionary_Create());
    ASSERT_TRUE(Dictionary_Load(guest.get(), (caseDir / "guest.txt").c_str()));
  }

  LogCapture log;
  const ToolsStatus status =
      ToolsVersionComputeStatus(host.c_str(), withAvr ? avr.c_str() : nullptr, guest.get());

  // The status's name, then the log lines; a "$" ends a line whose
  // trailing blanks count (table rows), so that they stay visible.
  std::vector<std::string> expected =
      Split(Replace(ReadFile(caseDir / "expected.txt"), "@DIR@", dir.string()), "\n");
  ASSERT_FALSE(expected.empty());
  for (std::string &line : expected) {
    line = line.ends_with("$") ? line.substr(0, line.size() - 1) : line;
  }
  EXPECT_EQ(ToolsVersionStatusName(status), expected[0]);
  expected.erase(expected.begin());
  EXPECT_EQ(CapturedLines(log), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ComputeStatusTest,
    ::testing::ValuesIn(manifest_fixtures::CaseNames(DataDir() / "toolsversion" / "compute")),
    [](const auto &info) {
      std::string name = info.param;
      std::replace(name.begin(), name.end(), '-', '_');
      return name;
    });

}  // namespace
