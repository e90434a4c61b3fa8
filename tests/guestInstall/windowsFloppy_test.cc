// The Windows install floppy: builds from a tools image mastered here with
// genisoimage, each failure with its log line, and the storage driver's
// registration in winnt.sif; floppies are read back with mtools and checked
// with fsck.fat.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "platform/log/log.h"
#include "support/imageFixtures.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::FsckProblems;
using testing_support::LogCapture;
using testing_support::MtoolsRead;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::Replace;
using testing_support::RunCommand;
using testing_support::Split;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::WriteFile;

fs::path Data() {
  return testing_support::DataDir() / "windows-floppy";
}

// The floppy's root names in directory order (the order they were added to
// a fresh floppy), lower case.
std::string FloppyNames(const fs::path &image) {
  auto r = RunCommand({"mdir", "-b", "-i", image.string(), "::"});
  if (r.exitCode != 0) {
    return "<mdir failed: " + r.output + ">";
  }
  std::string names;
  for (const std::string &line : Split(r.output, "\n")) {
    if (line.starts_with("::/")) {
      names += (names.empty() ? "" : " ") + testing_support::Lower(line.substr(3));
    }
  }
  return names;
}

// The lines of one INI section, blank lines left out, joined by " | ".
std::string SectionLines(const std::string &text, const std::string &section) {
  std::string out;
  bool inside = false;
  for (const std::string &line : Split(text, "\n")) {
    if (line.starts_with("[")) {
      inside = line == "[" + section + "]";
    } else if (inside) {
      out += (out.empty() ? "" : " | ") + line;
    }
  }
  return out;
}

const char *Arg(const std::string &s) {
  return s.empty() ? nullptr : s.c_str();
}

// The tools image a row names ("" for none), mastered from the committed
// tools/ tree or a variant of it.
std::string MakeToolsImage(const fs::path &work, const std::string &kind) {
  const fs::path image = work / "tools.iso", tree = work / "tools-tree";
  if (kind == "-") {
    return "";
  }
  if (kind == "garbage") {
    WriteFile(image, std::string(65536, 'g'));
  } else if (kind != "missing") {
    fs::copy(Data() / "tools", tree, fs::copy_options::recursive);
    fs::remove_all(tree / (kind == "nodrivers"    ? "drivers"
                           : kind == "noupgrader" ? "upgrader"
                                                  : "-"));
    if (kind == "subdir") {
      fs::create_directories(tree / "drivers/scsi/extra");
      WriteFile(tree / "drivers/scsi/extra/readme.txt", "not a driver file\n");
    }
    testing_support::Master("genisoimage", {"-J"}, image, tree);
  }
  return image.string();
}

// The driver directory argument a row names; host directories are made at
// work/"drivers".
std::string MakeDrivers(const fs::path &work, const std::string &cell) {
  if (cell == "-" || cell.starts_with("/")) {
    return cell == "-" ? "" : cell;
  }
  const fs::path dir = work / "drivers";
  const std::vector<std::string> parts = Split(cell, "+");
  if (parts[0] == "host") {
    fs::copy(Data() / "tools/drivers/scsi", dir, fs::copy_options::recursive);
  } else if (parts[0] == "empty") {
    fs::create_directories(dir);
  }
  for (size_t i = 1; i < parts.size(); ++i) {
    const std::string &extra = parts[i];
    const size_t colon = extra.rfind(':');
    if (extra.ends_with("/")) {
      fs::create_directories(dir / extra);
      WriteFile(dir / extra / "inside.sys", "below the driver directory\n");
    } else if (colon != std::string::npos &&
               extra.find_first_not_of("0123456789", colon + 1) == std::string::npos) {
      WriteFile(dir / extra.substr(0, colon),
                testing_support::Pattern(std::stoul(extra.substr(colon + 1)), 7));
    } else {
      WriteFile(dir / extra, "driver " + extra + "\n");
    }
  }
  return dir.string();
}

std::string MakeTemplate(const fs::path &work, const std::string &kind) {
  const fs::path path = work / "template.flp", readme = work / "readme.txt";
  if (kind == "mtools") {
    WriteFile(readme, "from the template\n");
    EXPECT_EQ(RunCommand({"mformat", "-C", "-f", "1440", "-i", path.string(), "::"}).exitCode, 0);
    EXPECT_EQ(RunCommand({"mcopy", "-i", path.string(), readme.string(), "::"}).exitCode, 0);
  } else if (kind == "broken") {
    WriteFile(path, std::string(4096, 'z'));
  }
  return kind == "-" ? "" : path.string();
}

// What the answer-file step leaves in guestConfigDir, and the host files.
void PrepareFiles(const fs::path &cfg, const fs::path &host, bool storePwd, bool bigSif) {
  fs::create_directories(cfg);
  fs::copy(Data() / "answers", cfg, fs::copy_options::recursive);
  fs::copy(Data() / "host", host, fs::copy_options::recursive);
  if (!storePwd) {
    fs::remove(cfg / "storePwd.ini");
  }
  if (bigSif) {
    std::string padding;
    for (int i = 0; i < 2000; ++i) {
      padding += "; padding\n";
    }
    WriteFile(cfg / "winnt.sif", ReadFile(cfg / "winnt.sif") + padding);
  }
}

// This builder's lines (and the driver warning) among everything logged.
std::vector<std::string> OurLines(const LogCapture &log) {
  std::vector<std::string> ours;
  for (const auto &line : log.lines()) {
    if (line.starts_with("AutoInstall_MakeFloppyImg:") || line.starts_with("WriteOEMDriverInfo:")) {
      ours.push_back(line);
    }
  }
  return ours;
}

bool HaveTools() {
  return testing_support::HaveTool("genisoimage") && testing_support::HaveTool("mdir");
}

class WindowsFloppyBuild : public testing::TestWithParam<TsvRow> {};

TEST_P(WindowsFloppyBuild, BuildsOrFailsWithItsLine) {
  const auto &c = GetParam().cells;
  if (!HaveTools()) {
    GTEST_SKIP() << "genisoimage and mtools are needed";
  }
  TempDir dir;
  const fs::path cfg = dir / "vm", host = dir / "host", image = cfg / "autoinst.flp";
  const std::string tools = MakeToolsImage(dir.path(), c[1]);
  ASSERT_FALSE(HasFatalFailure());
  const std::string drivers = MakeDrivers(dir.path(), c[2]), tpl = MakeTemplate(dir.path(), c[4]);
  PrepareFiles(cfg, host, c[5] == "yes", c[6] == "big");
  for (const std::string &name : Split(c[7] == "-" ? "" : c[7], ",")) {
    fs::remove(fs::exists(cfg / name) ? cfg / name : host / name);
  }
  std::set<std::string> expectedLeft;
  for (const std::string &extra : Split(c[8] == "-" ? "" : c[8], ",")) {
    fs::create_directories((cfg / extra).parent_path());
    WriteFile(cfg / extra, "left by an earlier build\n");
    for (fs::path p = extra; !p.empty(); p = p.parent_path()) {
      expectedLeft.insert(p.string());
    }
  }

  LogCapture log;
  EXPECT_EQ(AutoInstall_MakeFloppyImg(Arg(tpl), cfg.c_str(), Arg(tools), Arg(drivers),
                                      Arg(c[3] == "-" ? "" : c[3]), host.c_str()),
            c[9] == "true");
  std::vector<std::string> expectedLines;
  for (std::string line : Split(c[11], " || ")) {
    for (const auto &[from, to] : {std::pair<std::string, std::string>{"<flp>", image},
                                   {"<cfg>", cfg},
                                   {"<tpl>", tpl},
                                   {"<tools>", tools},
                                   {"<drivers>", dir / "drivers"},
                                   {"<host>", host}}) {
      line = Replace(line, from, to);
    }
    expectedLines.push_back(line + "\n");
  }
  EXPECT_EQ(OurLines(log), expectedLines) << log.all();

  if (c[10] == "-") {
    EXPECT_FALSE(fs::exists(image));
  } else {
    expectedLeft.insert("autoinst.flp");
    if (c[10] != "*") {
      EXPECT_EQ(FloppyNames(image), c[10]);
      EXPECT_EQ(FsckProblems(image), "");
    }
    if (c[4] == "mtools") {
      EXPECT_EQ(MtoolsRead(image, "readme.txt"), "from the template\n");
    }
  }
  // Only the floppy outlives the build: the answer files, the extracted
  // upgrader and the driver scratch directory are gone whatever happened.
  std::set<std::string> left;
  for (const auto &[name, kind] : testing_support::Snapshot(cfg)) {
    left.insert(name);
  }
  EXPECT_EQ(left, expectedLeft);
}

INSTANTIATE_TEST_SUITE_P(Rows, WindowsFloppyBuild,
                         testing::ValuesIn(ReadTsv("windows-floppy/build.tsv", 12)),
                         testing_support::TsvRowNamer());

// A complete floppy, file by file, the way Windows Setup and the guest
// read it, and one file added afterwards.
TEST(WindowsFloppy, CompleteFloppyHoldsEveryFileAndTheDriverEntries) {
  if (!HaveTools()) {
    GTEST_SKIP() << "genisoimage and mtools are needed";
  }
  TempDir dir;
  const fs::path cfg = dir / "vm", host = dir / "host", image = cfg / "autoinst.flp";
  const std::string tools = MakeToolsImage(dir.path(), "full");
  ASSERT_FALSE(HasFatalFailure());
  PrepareFiles(cfg, host, true, false);
  LogCapture log;
  ASSERT_TRUE(AutoInstall_MakeFloppyImg(nullptr, cfg.c_str(), tools.c_str(), "/drivers/scsi",
                                        "/upgrader", host.c_str()))
      << log.all();
  EXPECT_EQ(OurLines(log), std::vector<std::string>{}) << log.all();

  EXPECT_EQ(fs::file_size(image), 1474560u);
  EXPECT_EQ(FsckProblems(image), "");
  EXPECT_EQ(RunCommand({"mdir", "-/", "-i", image.string(), "::"}).exitCode, 0);
  // The copy of winnt.sif on the floppy carries the driver entries.
  for (const auto &[name, source] : std::vector<std::pair<std::string, std::string>>{
           {"brmscsi.inf", "tools/drivers/scsi/brmscsi.inf"},
           {"brmscsi.sys", "tools/drivers/scsi/brmscsi.sys"},
           {"txtsetup.oem", "tools/drivers/scsi/txtsetup.oem"},
           {"winnt.sif", "expected/winnt.sif"},
           {"autoun~0.xml", "answers/autoun~0.xml"},
           {"storePwd.ini", "answers/storePwd.ini"},
           {"storePwd.exe", "host/storePwd.exe"},
           {"upgrader.exe", "tools/upgrader/BrimleToolsUpgrader.exe"},
           {"unattend.cmd", "host/unattend.cmd"}}) {
    EXPECT_EQ(MtoolsRead(image, name), ReadFile(Data() / source)) << name;
  }
  const std::string sif = MtoolsRead(image, "winnt.sif");
  EXPECT_EQ(SectionLines(sif, "OEMBootFiles"), "brmscsi.inf | brmscsi.sys | txtsetup.oem");
  EXPECT_EQ(SectionLines(sif, "MassStorageDrivers"), "\"Brimle SCSI Controller\"=OEM");
  EXPECT_EQ(testing_support::Snapshot(cfg).size(), 1u);

  WriteFile(dir / "extra.txt", "added later\n");
  EXPECT_TRUE(
      AutoInstall_AddFileToFloppyImg((dir / "extra.txt").c_str(), "extra.txt", cfg.c_str()));
  EXPECT_EQ(MtoolsRead(image, "extra.txt"), "added later\n");
  EXPECT_FALSE(
      AutoInstall_AddFileToFloppyImg((dir / "absent.txt").c_str(), "absent.txt", cfg.c_str()));
  EXPECT_FALSE(AutoInstall_AddFileToFloppyImg((dir / "extra.txt").c_str(), "a:b", cfg.c_str()));
  EXPECT_EQ(FsckProblems(image), "");
}

// Without a floppy, or without a required argument, nothing is made and
// this code logs nothing.
TEST(WindowsFloppy, MissingFloppyOrArgumentsFailQuietly) {
  TempDir dir;
  const std::string d = dir.str();
  WriteFile(dir / "extra.txt", "x\n");
  WriteFile(dir / "txtsetup.oem", "brmscsi = \"Brimle SCSI\"\n");
  LogCapture log;
  EXPECT_FALSE(AutoInstall_AddFileToFloppyImg((dir / "extra.txt").c_str(), "x.txt", d.c_str()));
  EXPECT_FALSE(AutoInstall_AddFileToFloppyImg(nullptr, "x.txt", d.c_str()));
  EXPECT_FALSE(AutoInstall_MakeFloppyImg(nullptr, nullptr, nullptr, nullptr, nullptr, d.c_str()));
  EXPECT_FALSE(AutoInstall_MakeFloppyImg(nullptr, d.c_str(), nullptr, nullptr, nullptr, nullptr));
  WriteOEMDriverInfo(nullptr, (dir / "winnt.sif").c_str());
  WriteOEMDriverInfo((dir / "txtsetup.oem").c_str(), nullptr);
  EXPECT_FALSE(fs::exists(dir / "autoinst.flp"));
  for (const auto &line : log.lines()) {
    EXPECT_FALSE(line.starts_with("AutoInstall_") || line.starts_with("WriteOEM")) << line;
  }
}

/* WriteOEMDriverInfo */

// Every log event with its level.
class LevelCapture {
 public:
  struct Event {
    int level;
    std::string text;
    bool operator==(const Event &) const = default;
  };
  LevelCapture() { Log_SetSink(&Sink, this, &prevFn_, &prevCtx_); }
  ~LevelCapture() { Log_SetSink(prevFn_, prevCtx_); }
  LevelCapture(const LevelCapture &) = delete;
  LevelCapture &operator=(const LevelCapture &) = delete;
  std::vector<Event> events;

 private:
  static void Sink(void *ctx, int level, const char *text, size_t len) {
    static_cast<LevelCapture *>(ctx)->events.push_back({level, std::string(text, len)});
  }
  LogSinkFn prevFn_ = nullptr;
  void *prevCtx_ = nullptr;
};

void PrintTo(const LevelCapture::Event &e, std::ostream *os) {
  *os << e.level << ":" << e.text.substr(0, 200);
}

// A table cell's bytes: \n, \r, \0 and \\ escapes, {text*n} repeats.
std::string Decode(const std::string &cell) {
  std::string out;
  for (size_t i = 0; i < cell.size(); ++i) {
    if (cell[i] == '{') {
      const size_t close = cell.find('}', i), star = cell.rfind('*', close);
      const std::string piece = Decode(cell.substr(i + 1, star - i - 1));
      for (unsigned long n = std::stoul(cell.substr(star + 1, close - star - 1)); n > 0; --n) {
        out += piece;
      }
      i = close;
    } else if (cell[i] == '\\' && i + 1 < cell.size()) {
      const char e = cell[++i];
      out += e == 'n' ? '\n' : e == 'r' ? '\r' : e == '0' ? '\0' : e;
    } else {
      out += cell[i];
    }
  }
  return out;
}

class OemDriverInfo : public testing::TestWithParam<TsvRow> {};

TEST_P(OemDriverInfo, RegistersTheDescriptionOrWarns) {
  const auto &c = GetParam().cells;
  TempDir dir;
  const fs::path sif = dir / "winnt.sif", oem = dir / "txtsetup.oem";
  const std::string before = "[Data]\n    AutoPartition=1\n";
  WriteFile(sif, before);
  if (c[1] == "<dir>") {
    fs::create_directories(oem);
  } else if (c[1] != "<missing>") {
    WriteFile(oem, Decode(c[1]));
  }
  std::vector<LevelCapture::Event> events;
  {
    LevelCapture log;
    WriteOEMDriverInfo(oem.c_str(), sif.c_str());
    events = log.events;
  }
  const std::string after = ReadFile(sif);
  if (c[2] == "-") {
    EXPECT_EQ(after, before);
  } else {
    EXPECT_TRUE(after.starts_with(before)) << after;
    EXPECT_EQ(SectionLines(after, "MassStorageDrivers"), c[2]);
  }
  std::vector<LevelCapture::Event> expected;
  if (c[3] == "yes") {
    expected.push_back(
        {LOG_LEVEL_WARNING,
         "WriteOEMDriverInfo: Failed to detect the type of driver in " + oem.string() + "\n"});
  }
  EXPECT_EQ(events, expected);
}

INSTANTIATE_TEST_SUITE_P(Rows, OemDriverInfo,
                         testing::ValuesIn(ReadTsv("windows-floppy/oem.tsv", 4)),
                         testing_support::TsvRowNamer());

}  // namespace
