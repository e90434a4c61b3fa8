#include "support/toolsLibrary.h"

#include <gtest/gtest.h>

#include "lib/toolsiso/toolsIsoImageInternal.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace fs = std::filesystem;

namespace testing_support {

ToolsLibrary::ToolsLibrary(const fs::path &root, const ToolsLibraryContents &contents)
    : libdir_(root / "lib") {
  Build(root, contents);
  ok_ = !::testing::Test::HasFatalFailure();
}

void ToolsLibrary::Build(const fs::path &root, const ToolsLibraryContents &contents) {
  // The process keeps the first tools directory it was given; each library
  // starts afresh.
  gp::ResetToolsIsoStateForTest();
  const fs::path images = libdir_ / "isoimages";
  const fs::path tree = root / "tools-tree";
  fs::create_directories(images);
  fs::create_directories(tree / "guesttools");
  WriteFile(tree / "guesttools" / "setup.sh", "#!/bin/sh\nexit 0\n");
  if (contents.hostManifest) {
    WriteFile(tree / "manifest.txt", *contents.hostManifest);
  }
  CommandResult r = RunMasteringTool({"xorriso", "-as", "mkisofs", "-R", "-J", "-V", "TOOLS", "-o",
                                      image().string(), tree.string()});
  ASSERT_EQ(0, r.exitCode) << r.output;

  if (contents.hashData != "none") {
    const fs::path &pki = TestPki();
    const fs::path cert = root / "maker-leaf-with-chain.pem";
    WriteFile(cert, ReadFile(pki / "maker-leaf.pem") + ReadFile(pki / "maker-leaf.chain"));
    r = RunCommand({GUESTPREP_CLI, "tools", "hashdata", image().string(), "--key",
                    (pki / "maker-leaf.key").string(), "--cert", cert.string(), "--embed"},
                   300);
    ASSERT_EQ(0, r.exitCode) << r.output;
    if (contents.hashData == "tampered") {
      std::string bytes = ReadFile(image());
      // Inside the volume descriptors, which every open reads.
      bytes[16 * 2048 + 40] ^= 0x20;
      WriteFile(image(), bytes);
    }
  }

  if (contents.avrManifest) {
    WriteFile(avrManifest(), *contents.avrManifest);
    const fs::path sig = avrManifest().string() + ".sig";
    if (contents.avrSignature == "maker") {
      WriteFile(sig, OpensslSign("maker-leaf", "smime -binary", *contents.avrManifest));
    } else if (contents.avrSignature == "partner") {
      WriteFile(sig, OpensslSign("partner-leaf", "smime -binary", *contents.avrManifest));
    } else if (contents.avrSignature == "garbage") {
      WriteFile(sig, "not a signature\n");
    } else {
      EXPECT_EQ("none", contents.avrSignature);
    }
  }
}

}  // namespace testing_support
