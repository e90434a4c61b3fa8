// ToolsVersion_GetStatus over a table of virtual machines: each directory
// under tests/data/toolsversion/status holds one machine's files, the call's
// arguments and the answer with every line it logs.
//
// A case directory holds:
// - args: "name: value" lines: toolsVersion (decimal or 0x hex), installType,
//   source ("file": guest-manifest.txt; "text": the text value, backslash
//   escaped; "extconfig": neither), config ("null", the default, or
//   "loaded": the test loads vm.brx and passes it), avrSignature (see
//   ToolsLibraryContents). "#" lines are comments.
// - vm.brx and any other files of the machine (disk descriptors, the
//   extended configuration file, the guest manifest), copied to a scratch
//   directory with @DIR@ standing for it and @LIBDIR@ for the host library.
// - host-manifest.txt and avr-manifest.txt: when present, a host library
//   with a signed tools image carrying that manifest is built at @LIBDIR@.
// - expected.txt: the status name, then the log lines in order; "[6] " marks
//   a verbose line. @DIR@, @LIBDIR@, @TMP@ (the process's private temporary
//   directory) and @TID@ (the calling thread's id) stand for what varies.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "guestprep/toolsversion.h"
#include "lib/toolsiso/toolsIsoImageInternal.h"
#include "lib/toolsversion/toolsVersionInternal.h"
#include "platform/file/file.h"
#include "platform/log/log.h"
#include "platform/util/str.h"
#include "platform/util/vthread.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"
#include "support/toolsLibrary.h"
#include "toolsversion/manifestFixtures.h"

namespace fs = std::filesystem;

namespace {

using testing_support::ReadFile;
using testing_support::Replace;

fs::path CasesDir() {
  return testing_support::DataDir() / "toolsversion" / "status";
}

std::string Arg(const std::map<std::string, std::string> &args, const std::string &name,
                const std::string &otherwise) {
  auto it = args.find(name);
  return it == args.end() ? otherwise : it->second;
}

// Every event with its level, verbose ones included, while alive.
class LevelCapture {
 public:
  LevelCapture() {
    Log_SetSink(&Sink, this, &prevFn_, &prevCtx_);
    prevLevel_ = Log_SetMaxLevel(LOG_LEVEL_VERBOSE);
  }
  ~LevelCapture() {
    Log_SetMaxLevel(prevLevel_);
    Log_SetSink(prevFn_, prevCtx_);
  }
  std::vector<std::string> lines;

 private:
  static void Sink(void *ctx, int level, const char *text, size_t len) {
    std::string line(text, len);
    line.erase(line.find_last_not_of('\n') + 1);
    static_cast<LevelCapture *>(ctx)->lines.push_back((level == LOG_LEVEL_VERBOSE ? "[6] " : "") +
                                                      line);
  }
  LogSinkFn prevFn_ = nullptr;
  void *prevCtx_ = nullptr;
  int prevLevel_ = 0;
};

class ToolsStatusCase : public ::testing::TestWithParam<std::string> {};

TEST_P(ToolsStatusCase, AnswersAndLogs) {
  const fs::path source = CasesDir() / GetParam();
  const auto args = manifest_fixtures::ReadArgs(source / "args");
  testing_support::TempDir dir;
  const std::string libdir = (dir / "fixture" / "lib").string();

  // The host library first: building it resets the process's tools image
  // state, which otherwise carries over from an earlier case.
  std::optional<testing_support::CertDirLease> lease;
  std::optional<testing_support::ToolsLibrary> library;
  if (fs::exists(source / "host-manifest.txt")) {
    SKIP_WITHOUT_CERT_DIR();
    lease.emplace("std");
    testing_support::ToolsLibraryContents contents;
    contents.hostManifest = ReadFile(source / "host-manifest.txt");
    if (fs::exists(source / "avr-manifest.txt")) {
      contents.avrManifest = ReadFile(source / "avr-manifest.txt");
    }
    contents.avrSignature = Arg(args, "avrSignature", "maker");
    fs::create_directories(dir / "fixture");
    library.emplace(dir / "fixture", contents);
    ASSERT_TRUE(library->ok());
  } else {
    gp::ResetToolsIsoStateForTest();
  }

  for (const auto &entry : fs::recursive_directory_iterator(source)) {
    const fs::path relative = fs::relative(entry.path(), source);
    const std::string name = relative.string();
    if (name == "args" || name == "expected.txt" || name == "host-manifest.txt" ||
        name == "avr-manifest.txt") {
      continue;
    }
    if (entry.is_directory()) {
      fs::create_directories(dir.path() / relative);
    } else {
      const std::string text = Replace(ReadFile(entry.path()), "@LIBDIR@", libdir);
      testing_support::WriteFile(dir.path() / relative, Replace(text, "@DIR@", dir.str()));
    }
  }

  const std::string configPath = (dir / "vm.brx").string();
  gp::UniqueDictionary config;
  if (Arg(args, "config", "null") == "loaded") {
    config.reset(Dictionary_Create());
    ASSERT_TRUE(Dictionary_Load(config.get(), configPath.c_str()));
  }
  const std::string sourceKind = Arg(args, "source", "extconfig");
  const std::string manifestPath = (dir / "guest-manifest.txt").string();
  const std::string text = testing_support::Unescape(Arg(args, "text", ""));
  const uint32_t toolsVersion =
      static_cast<uint32_t>(std::stoul(Arg(args, "toolsVersion", "0"), nullptr, 0));
  const int32_t installType = std::stoi(Arg(args, "installType", "0"));

  MsgList_Free(Msg_GetMessagesAndReset());  // nothing left over from other tests
  ToolsStatus status;
  std::vector<std::string> got;
  testing::internal::CaptureStderr();
  {
    LevelCapture capture;
    status = ToolsVersion_GetStatus(
        configPath.c_str(), config.get(), sourceKind == "file" ? manifestPath.c_str() : nullptr,
        sourceKind == "text" ? text.c_str() : nullptr, toolsVersion, installType);
    got = capture.lines;
  }
  // The XML library prints nothing of a damaged extended configuration.
  EXPECT_EQ("", testing::internal::GetCapturedStderr());

  gp::UniqueText tmp(File_GetSafeTmpDir(true));
  const std::string tid = std::to_string(VThreadBase_GetKernelID());
  got.insert(got.begin(), ToolsVersionStatusName(status));
  for (std::string &line : got) {
    line = Replace(line, libdir, "@LIBDIR@");
    line = Replace(line, dir.str(), "@DIR@");
    if (tmp != nullptr) {
      line = Replace(line, tmp.get(), "@TMP@");
    }
    line = Replace(line, "." + tid + ".", ".@TID@.");
  }
  EXPECT_EQ(testing_support::Split(ReadFile(source / "expected.txt"), "\n"), got);
  // Messages the call posted and left behind would be read as the next
  // caller's.
  MsgList *left = Msg_GetMessagesAndReset();
  EXPECT_EQ(nullptr, left);
  MsgList_Free(left);
}

INSTANTIATE_TEST_SUITE_P(Machines, ToolsStatusCase,
                         ::testing::ValuesIn(manifest_fixtures::CaseNames(CasesDir())),
                         [](const auto &info) {
                           std::string name = info.param;
                           std::replace_if(
                               name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
                           return name;
                         });

}  // namespace
