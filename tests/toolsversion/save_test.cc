// ToolsVersion_SaveXmlInfo over a table of virtual machines: each directory
// under tests/data/toolsversion/save holds one machine's extended
// configuration file, the call's inputs and what must come of it. Every
// file the call writes is checked with xmllint: well-formed, equal (in
// canonical form) to the expected file, and holding everything it did not
// own exactly as before.
//
// A case directory holds:
// - args: "name: value" lines. report and manifest: "none" (a null
//   pointer, the default), "file" (the text of report.xml or
//   manifest.txt), or the text itself with \n for a line feed ("" is
//   written as an empty value). installError, updateCounter: numbers
//   (default 0). config: "none" for a machine without a configuration
//   file. fault: "readonly-dir" (the directory cannot be written) or
//   "file-size-limit" (writes past 64 bytes fail). "#" lines are comments.
// - vm.brx: the configuration file; without one the shared ../vm.brx is
//   used, which names ext.xml.
// - ext.xml: the extended configuration file before the call (none: absent).
// - expected.txt: "true" or "false", then the log lines in order; @DIR@
//   stands for the machine's directory.
// - after.xml: the file the call must write. Without it the file must be
//   left untouched: same bytes, same inode (not even rewritten).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "guestprep/toolsversion.h"
#include "support/testSupport.h"
#include "toolsversion/manifestFixtures.h"
#include "toolsversion/saveFixtures.h"

namespace fs = std::filesystem;

namespace {

using save_fixtures::Canonical;
using save_fixtures::SaveCasesDir;
using save_fixtures::WithoutOwned;
using save_fixtures::XmllintProblems;
using testing_support::ReadFile;
using testing_support::Replace;
using testing_support::WriteFile;

// An input text of the call: absent, a file of the case, or literal.
std::optional<std::string> InputText(const std::map<std::string, std::string> &args,
                                     const std::string &name, const fs::path &file) {
  auto it = args.find(name);
  if (it == args.end() || it->second == "none") {
    return std::nullopt;
  }
  if (it->second == "file") {
    return ReadFile(file);
  }
  if (it->second == "\"\"") {
    return std::string();
  }
  return Replace(it->second, "\\n", "\n");
}

std::vector<std::string> Names(const fs::path &dir) {
  std::vector<std::string> out;
  for (const auto &entry : fs::directory_iterator(dir)) {
    out.push_back(entry.path().filename().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

struct Outcome {
  bool result = false;
  std::string log;
};

// Runs the call in a child that first breaks the writing (fault), so the
// limits stay with the child; its answer and log lines come back through a
// pipe.
Outcome CallWithFault(const std::string &fault, const fs::path &dir,
                      const std::function<bool()> &call) {
  int fds[2];
  if (pipe(fds) != 0) {
    ADD_FAILURE() << "pipe";
    return {};
  }
  if (fault == "readonly-dir") {
    chmod(dir.c_str(), 0555);
  }
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (fault == "readonly-dir" && geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
      _exit(3);  // root ignores directory permissions: act as nobody
    }
    if (fault == "file-size-limit") {
      signal(SIGXFSZ, SIG_IGN);  // the write then fails with EFBIG
      struct rlimit limit = {64, 64};
      setrlimit(RLIMIT_FSIZE, &limit);
    }
    std::string text;
    {
      testing_support::LogCapture log;
      text = call() ? "1" : "0";
      text += log.all();
    }
    const bool sent = write(fds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(sent ? 0 : 4);
  }
  close(fds[1]);
  std::string text;
  char chunk[4096];
  ssize_t n;
  while ((n = read(fds[0], chunk, sizeof chunk)) > 0) {
    text.append(chunk, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  chmod(dir.c_str(), 0755);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  if (text.empty()) {
    return {};
  }
  return {text[0] == '1', text.substr(1)};
}

class ToolsSaveCase : public ::testing::TestWithParam<std::string> {};

TEST_P(ToolsSaveCase, StoresAndLogs) {
  const fs::path source = SaveCasesDir() / GetParam();
  const auto args = manifest_fixtures::ReadArgs(source / "args");
  testing_support::TempDir scratch;
  const fs::path dir = scratch / "vm";
  fs::create_directory(dir);
  chmod(dir.c_str(), 0755);
  chmod(scratch.path().c_str(), 0755);

  if (args.count("config") == 0 || args.at("config") != "none") {
    fs::copy_file(fs::exists(source / "vm.brx") ? source / "vm.brx" : SaveCasesDir() / "vm.brx",
                  dir / "vm.brx");
  }
  const fs::path ext = dir / "ext.xml";
  const bool hadExt = fs::exists(source / "ext.xml");
  if (hadExt) {
    fs::copy_file(source / "ext.xml", ext);
  }
  const std::string before = hadExt ? ReadFile(ext) : "";
  struct stat beforeStat = {};
  stat(ext.c_str(), &beforeStat);
  const std::vector<std::string> namesBefore = Names(dir);

  const std::optional<std::string> report = InputText(args, "report", source / "report.xml");
  const std::optional<std::string> manifest = InputText(args, "manifest", source / "manifest.txt");
  const int32_t installError =
      std::stoi(args.count("installError") ? args.at("installError") : "0");
  const int32_t updateCounter =
      std::stoi(args.count("updateCounter") ? args.at("updateCounter") : "0");
  const std::string configPath = (dir / "vm.brx").string();
  auto call = [&] {
    return ToolsVersion_SaveXmlInfo(configPath.c_str(), report ? report->c_str() : nullptr,
                                    manifest ? manifest->c_str() : nullptr, installError,
                                    updateCounter);
  };

  Outcome outcome;
  if (args.count("fault") != 0) {
    outcome = CallWithFault(args.at("fault"), dir, call);
  } else {
    testing_support::LogCapture log;
    outcome.result = call();
    outcome.log = log.all();
  }

  const std::string expected = Replace(ReadFile(source / "expected.txt"), "@DIR@", dir.string());
  const size_t firstLine = expected.find('\n') + 1;
  EXPECT_EQ(expected.substr(0, firstLine), outcome.result ? "true\n" : "false\n");
  EXPECT_EQ(expected.substr(firstLine), outcome.log);
  // No temporary file or other leftover beside the machine's files.
  EXPECT_EQ(namesBefore, Names(dir));

  if (fs::exists(source / "after.xml")) {
    ASSERT_TRUE(fs::exists(ext));
    EXPECT_EQ("", XmllintProblems(ext));
    const std::string written = Canonical(ext);
    EXPECT_EQ(Canonical(source / "after.xml"), written);
    EXPECT_EQ(WithoutOwned(Canonical(source / "ext.xml")), WithoutOwned(written));
  } else if (hadExt) {
    EXPECT_EQ(before, ReadFile(ext));
    struct stat afterStat = {};
    ASSERT_EQ(0, stat(ext.c_str(), &afterStat));
    EXPECT_EQ(beforeStat.st_ino, afterStat.st_ino) << "the file was replaced";
  } else {
    EXPECT_FALSE(fs::exists(ext));
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, ToolsSaveCase,
                         ::testing::ValuesIn(manifest_fixtures::CaseNames(SaveCasesDir())),
                         [](const ::testing::TestParamInfo<std::string> &info) {
                           std::string name = info.param;
                           std::replace_if(
                               name.begin(), name.end(),
                               [](char c) { return !isalnum(static_cast<unsigned char>(c)); }, '_');
                           return name;
                         });

// Guest manifests whose names or values are no XML: refused whole, the file
// untouched; and the names and values next to them that are stored.
class ToolsSaveManifestName : public ::testing::TestWithParam<testing_support::TsvRow> {};

TEST_P(ToolsSaveManifestName, RefusedOrStored) {
  const std::vector<std::string> &cells = GetParam().cells;
  const std::string manifest = Replace(cells[1], "\\n", "\n");
  const std::string &expected = cells[2];
  testing_support::TempDir dir;
  fs::copy_file(SaveCasesDir() / "vm.brx", dir / "vm.brx");
  const std::string original =
      "<vm><tools-manifest><monolithic version=\"1.0\"/></tools-manifest></vm>";
  WriteFile(dir / "ext.xml", original);

  testing_support::LogCapture log;
  const bool saved =
      ToolsVersion_SaveXmlInfo((dir / "vm.brx").c_str(), nullptr, manifest.c_str(), 0, 0);
  if (expected == "refused") {
    EXPECT_FALSE(saved);
    EXPECT_EQ("Error iterating through iso version info dictionary.\n", log.all());
    EXPECT_EQ(original, ReadFile(dir / "ext.xml"));
    return;
  }
  ASSERT_TRUE(saved) << log.all();
  EXPECT_EQ("", log.all());
  EXPECT_EQ("", XmllintProblems(dir / "ext.xml"));
  EXPECT_EQ("<vm>" + expected + "</vm>", Canonical(dir / "ext.xml"));
}

INSTANTIATE_TEST_SUITE_P(
    Table, ToolsSaveManifestName,
    ::testing::ValuesIn(testing_support::ReadTsv("toolsversion/save/manifest-names.tsv", 3)),
    testing_support::TsvRowNamer());

// What is saved is what the status reader takes: the update agent's verdict
// stored here answers the status without any tools image.
TEST(ToolsSaveReadBack, AgentStatusAnswersTheStatus) {
  testing_support::TempDir dir;
  fs::copy_file(SaveCasesDir() / "vm.brx", dir / "vm.brx");
  WriteFile(dir / "ext.xml", "<vm><update-agent-info/></vm>");
  const std::string report =
      "<report><tools><monolithic guestVersion=\"12.1.0\" status=\"5\"/></tools></report>";
  testing_support::LogCapture log;
  ASSERT_TRUE(ToolsVersion_SaveXmlInfo((dir / "vm.brx").c_str(), report.c_str(), nullptr, 0, 0));
  EXPECT_EQ(TOOLS_STATUS_TOO_NEW,
            ToolsVersion_GetStatus((dir / "vm.brx").c_str(), nullptr, nullptr, nullptr, 13344, 0));

  ASSERT_TRUE(ToolsVersion_SaveXmlInfo((dir / "vm.brx").c_str(), "no tools", "no tools", 0, 0));
  EXPECT_EQ(TOOLS_STATUS_NOT_INSTALLED,
            ToolsVersion_GetStatus((dir / "vm.brx").c_str(), nullptr, nullptr, nullptr, 0, 0));
}

}  // namespace
