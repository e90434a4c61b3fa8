// guestprep tools save and tools status, run as a user runs them on a
// test virtual machine: a tools image mastered by xorriso with its host
// manifest, hash data by "guestprep tools hashdata", the AVR manifest
// signed by the openssl program, a disk descriptor, and the extended
// configuration checked by xmllint.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/signFixtures.h"
#include "support/testSupport.h"
#include "support/toolsLibrary.h"

namespace fs = std::filesystem;
using testing_support::CommandResult;
using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

namespace {

fs::path Data(const std::string &name) {
  return testing_support::DataDir() / "toolsversion" / "cli" / name;
}

class ToolsStatusCli : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing_support::CertDirUsable()) {
      GTEST_SKIP() << "the library reads the system's certificate directory";
    }
    lease_ = std::make_unique<testing_support::CertDirLease>("std");
    testing_support::ToolsLibraryContents contents;
    contents.hostManifest = ReadFile(Data("host-manifest.txt"));
    contents.avrManifest = ReadFile(Data("avr-manifest.txt"));
    library_ = std::make_unique<testing_support::ToolsLibrary>(dir_.path(), contents);
    ASSERT_TRUE(library_->ok());
    fs::create_directories(vm_);
    fs::copy_file(Data("vm.brxf"), vm_ / "vm.brxf");
  }

  // The configuration, with more lines after the usual ones.
  void WriteConfig(const std::string &more = "") {
    WriteFile(vm_ / "vm.brx", "guestOS = \"rhel7-64\"\nextendedConfigFile = \"vm.brxf\"\n" + more);
  }

  CommandResult Run(std::vector<std::string> args) {
    args.insert(args.begin(), {GUESTPREP_CLI, "tools"});
    return RunCommand(args, 120);
  }

  nlohmann::json Status(const std::vector<std::string> &more) {
    std::vector<std::string> args = {"status", (vm_ / "vm.brx").string(), "--libdir",
                                     library_->libdir().string(), "--json"};
    args.insert(args.end(), more.begin(), more.end());
    CommandResult r = Run(args);
    EXPECT_EQ(0, r.exitCode) << r.output;
    return nlohmann::json::parse(r.output, nullptr, false);
  }

  static bool Logged(const nlohmann::json &j, const std::string &line) {
    for (const auto &l : j["log"]) {
      if (l.get<std::string>() == line) {
        return true;
      }
    }
    return false;
  }

  TempDir dir_;
  fs::path vm_ = dir_ / "vm";
  std::unique_ptr<testing_support::CertDirLease> lease_;
  std::unique_ptr<testing_support::ToolsLibrary> library_;
};

// What the guest reported goes into the extended configuration and comes
// back as its status; the host's own content in the file stays.
TEST_F(ToolsStatusCli, SavedManifestGivesTheStatus) {
  WriteConfig();
  const std::string before =
      RunCommand({"xmllint", "--c14n", "--xpath", "//display|//notes", (vm_ / "vm.brxf").string()})
          .output;

  CommandResult r = Run({"save", (vm_ / "vm.brx").string(), "--manifest",
                         Data("guest-current.txt").string(), "--update-counter", "2"});
  ASSERT_EQ(0, r.exitCode) << r.output;
  EXPECT_EQ(0, RunCommand({"xmllint", "--noout", (vm_ / "vm.brxf").string()}).exitCode);
  EXPECT_EQ(before, RunCommand({"xmllint", "--c14n", "--xpath", "//display|//notes",
                                (vm_ / "vm.brxf").string()})
                        .output);
  nlohmann::json j = Status({"--tools-version", "12.3.0"});
  EXPECT_EQ(j["status"], 3) << j.dump();
  EXPECT_EQ(j["name"], "TOOLS_STATUS_CURRENT");

  r = Run({"save", (vm_ / "vm.brx").string(), "--manifest", Data("guest-withdrawn.txt").string()});
  ASSERT_EQ(0, r.exitCode) << r.output;
  j = Status({"--tools-version", "12.3.0", "--verbose"});
  EXPECT_EQ(j["name"], "TOOLS_STATUS_BLACKLISTED") << j.dump();
  EXPECT_TRUE(Logged(j,
                     "ToolsVersion: Status is blacklisted because this is status of "
                     "drivers.net."))
      << j.dump(1);
  // --verbose turns the component table on.
  EXPECT_TRUE(Logged(j,
                     "ToolsVersion: Component               : Status      Guest            I "
                     "Host             AVR Min          AVR Max          AVR Illegal"))
      << j.dump(1);

  r = Run({"save", (vm_ / "vm.brx").string(), "--no-tools"});
  ASSERT_EQ(0, r.exitCode) << r.output;
  // xmllint answers 10 for an empty node set.
  EXPECT_EQ(
      10,
      RunCommand({"xmllint", "--xpath", "//tools-manifest", (vm_ / "vm.brxf").string()}).exitCode);
  j = Status({"--tools-version", "none"});
  EXPECT_EQ(j["name"], "TOOLS_STATUS_NOT_INSTALLED") << j.dump();
}

// Without a manifest the packed version on the virtual machine's disk is
// compared as the monolithic version; the host's other components are then
// missing from the guest.
TEST_F(ToolsStatusCli, DiskVersionWithoutManifest) {
  fs::copy_file(Data("disk.brdk"), vm_ / "disk.brdk");
  WriteFile(vm_ / "vm.brx",
            "guestOS = \"rhel7-64\"\nscsi0:0.present = \"TRUE\"\n"
            "scsi0:0.fileName = \"disk.brdk\"\n");
  nlohmann::json j = Status({"--verbose"});
  EXPECT_EQ(j["name"], "TOOLS_STATUS_SUPPORTED_OLD") << j.dump(1);
  EXPECT_TRUE(Logged(j,
                     "ToolsVersion: Status is supported old because this is status of "
                     "monolithic version, and upgrader and 3 more components are missing "
                     "from the guest."))
      << j.dump(1);
}

// A configuration that cannot be read, and inputs the command refuses.
TEST_F(ToolsStatusCli, RefusesWhatItCannotUse) {
  WriteConfig();
  CommandResult r = Run({"status", (vm_ / "missing.brx").string()});
  EXPECT_EQ(1, r.exitCode) << r.output;
  r = Run({"status", (vm_ / "vm.brx").string(), "--tools-version", "12.40.0"});
  EXPECT_EQ(2, r.exitCode) << r.output;
  fs::remove(vm_ / "vm.brxf");
  WriteFile(vm_ / "vm.brxf", "not xml");
  r = Run({"save", (vm_ / "vm.brx").string(), "--manifest", Data("guest-current.txt").string()});
  EXPECT_EQ(1, r.exitCode) << r.output;
  EXPECT_EQ("not xml", ReadFile(vm_ / "vm.brxf"));
}

}  // namespace
