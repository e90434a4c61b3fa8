#include "platform/disklib/disklib.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>

#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace {

using testing_support::TempDir;
using testing_support::TsvRow;

// descriptors.tsv columns.
enum { kCase, kDescriptor, kFlags, kError, kEntry, kColumns };

const char *ErrorName(DiskLibError error) {
  static constexpr const char *kNames[] = {
      "DISKLIB_OK",           "DISKLIB_ERR_INVALID_ARG",    "DISKLIB_ERR_NOT_FOUND",
      "DISKLIB_ERR_IO",       "DISKLIB_ERR_NOT_DESCRIPTOR", "DISKLIB_ERR_BAD_DATABASE",
      "DISKLIB_ERR_NO_ENTRY", "DISKLIB_ERR_READ_ONLY",
  };
  return error < std::size(kNames) ? kNames[error] : "?";
}

// The descriptor a cell describes, made below dir; its path.
std::string MakeDescriptor(const TempDir &dir, const std::string &cell) {
  const std::string path = (dir / "disk.brdk").string();
  if (cell == "<dir>") {
    std::filesystem::create_directory(path);
  } else if (cell == "<fifo>") {
    EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
  } else if (cell.rfind("<path:", 0) == 0) {
    return cell.substr(6, cell.size() - 7);
  } else if (cell.rfind("<big:", 0) == 0) {
    const size_t size = std::stoul(cell.substr(5));
    std::string text = DISKLIB_DESCRIPTOR_SIGNATURE "\n";
    while (text.size() < size) {
      text += std::string(std::min<size_t>(79, size - text.size() - 1), 'x') + "\n";
    }
    text.resize(size, '\n');
    testing_support::WriteFile(path, text);
  } else if (cell != "<missing>") {
    testing_support::WriteFile(path, testing_support::Unescape(cell));
  }
  return path;
}

class DiskLibOpen : public ::testing::TestWithParam<TsvRow> {};

TEST_P(DiskLibOpen, ReadsTheDatabaseOrSaysWhy) {
  const auto &c = GetParam().cells;
  TempDir dir;
  const std::string path = MakeDescriptor(dir, c[kDescriptor]);
  // A stale value, which a failed open must clear.
  DiskHandle *handle = reinterpret_cast<DiskHandle *>(&dir);
  const DiskLibError error =
      DiskLib_Open(path.c_str(), static_cast<uint32_t>(std::stoul(c[kFlags])), &handle);
  EXPECT_STREQ(c[kError].c_str(), ErrorName(error));
  EXPECT_STRNE("", DiskLib_Err2String(error));
  if (error != DISKLIB_OK) {
    EXPECT_EQ(nullptr, handle);
    return;
  }
  ASSERT_NE(nullptr, handle);
  const size_t eq = c[kEntry].find('=');
  const std::string name = c[kEntry].substr(0, eq);
  const std::string want = c[kEntry].substr(eq + 1);
  char *value = nullptr;
  const DiskLibError got = DiskLib_DBGet(handle, name.c_str(), &value);
  if (want == "-") {
    EXPECT_STREQ("DISKLIB_ERR_NO_ENTRY", ErrorName(got));
    EXPECT_EQ(nullptr, value);
  } else {
    EXPECT_STREQ("DISKLIB_OK", ErrorName(got));
    EXPECT_EQ(want, testing_support::Take(value));
  }
  EXPECT_EQ(DISKLIB_OK, DiskLib_Close(handle));
}

INSTANTIATE_TEST_SUITE_P(Descriptors, DiskLibOpen,
                         ::testing::ValuesIn(testing_support::ReadTsv("disklib/descriptors.tsv",
                                                                      kColumns)),
                         testing_support::TsvRowNamer());

// Null arguments are refused, never dereferenced.
TEST(DiskLibArguments, NullsAreRefused) {
  DiskHandle *handle = nullptr;
  EXPECT_EQ(DISKLIB_ERR_INVALID_ARG, DiskLib_Open(nullptr, 7, &handle));
  EXPECT_EQ(nullptr, handle);
  EXPECT_EQ(DISKLIB_ERR_INVALID_ARG, DiskLib_Open("/dev/null", 7, nullptr));
  char *value = nullptr;
  EXPECT_EQ(DISKLIB_ERR_INVALID_ARG, DiskLib_DBGet(nullptr, "toolsVersion", &value));
  EXPECT_EQ(nullptr, value);
  EXPECT_EQ(DISKLIB_OK, DiskLib_Close(nullptr));
  EXPECT_STRNE("", DiskLib_Err2String(1000));
}

}  // namespace
