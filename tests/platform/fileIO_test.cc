#include "platform/file/fileIO.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "support/testSupport.h"

using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

namespace {

// A descriptor that starts invalid and is closed on scope exit.
struct Fd : FileIODescriptor {
  Fd() { FileIO_Invalidate(this); }
  ~Fd() {
    if (FileIO_IsValid(this)) {
      FileIO_Close(this);
    }
  }
};

struct OpenCase {
  const char *name;
  bool exists;
  uint32_t access;
  FileIOOpenAction action;
  FileIOResult expected;
  const char *contentAfter;  // null: the file must not exist afterwards
};

TEST(FileIO, OpenActionsCreateTruncateOrRefuse) {
  const OpenCase cases[] = {
      {"open missing", false, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN, FILEIO_FILE_NOT_FOUND, nullptr},
      {"open keeps", true, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN, FILEIO_SUCCESS, "old"},
      {"empty truncates", true, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_EMPTY, FILEIO_SUCCESS, ""},
      {"empty missing", false, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_EMPTY, FILEIO_FILE_NOT_FOUND,
       nullptr},
      {"empty needs write", true, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN_EMPTY,
       FILEIO_INVALID_ARGUMENT, "old"},
      {"create keeps", true, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE, FILEIO_SUCCESS, "old"},
      {"create makes", false, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE, FILEIO_SUCCESS, ""},
      {"safe refuses", true, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_SAFE,
       FILEIO_OPEN_ERROR_EXIST, "old"},
      {"safe makes", false, FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_SAFE, FILEIO_SUCCESS, ""},
      {"create empty", true, 2, 4, FILEIO_SUCCESS, ""},  // the extended-config rewrite values
      {"no access", true, 0, FILEIO_OPEN, FILEIO_INVALID_ARGUMENT, "old"},
      {"unknown bit", true, 0x0101, FILEIO_OPEN, FILEIO_INVALID_ARGUMENT, "old"},
      {"unknown action", true, FILEIO_OPEN_ACCESS_READ, 9, FILEIO_INVALID_ARGUMENT, "old"},
  };
  for (const OpenCase &c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    std::string path = (dir / "f").string();
    if (c.exists) {
      WriteFile(path, "old");
    }
    Fd fd;
    EXPECT_EQ(c.expected, FileIO_Open(&fd, path.c_str(), c.access, c.action));
    EXPECT_EQ(c.expected == FILEIO_SUCCESS, FileIO_IsValid(&fd));
    if (FileIO_IsValid(&fd)) {
      EXPECT_STREQ(path.c_str(), FileIO_Filename(&fd));
      EXPECT_NE(0, fcntl(fd.posix, F_GETFD) & FD_CLOEXEC);
      EXPECT_EQ(FILEIO_SUCCESS, FileIO_Close(&fd));
      EXPECT_FALSE(FileIO_IsValid(&fd));
    }
    if (c.contentAfter == nullptr) {
      EXPECT_FALSE(std::filesystem::exists(path));
    } else {
      EXPECT_EQ(c.contentAfter, ReadFile(path));
    }
  }
}

TEST(FileIO, RefusesDirectoriesFifosAndFinalSymlinksWithNoFollow) {
  TempDir dir;
  WriteFile(dir / "real", "data");
  std::filesystem::create_symlink(dir / "real", dir / "link");
  std::filesystem::create_directory(dir / "sub");
  std::filesystem::create_directory_symlink(dir.path(), dir / "dirlink");
  ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
  struct Case {
    std::string path;
    uint32_t access;
    FileIOResult expected;
  } cases[] = {
      {(dir / "link").string(), 0x2001, FILEIO_OPEN_ERROR_SYMLINK},
      {(dir / "link").string(), FILEIO_OPEN_ACCESS_READ, FILEIO_SUCCESS},
      {(dir / "dirlink" / "real").string(), 0x2001, FILEIO_SUCCESS},  // only the last name
      {(dir / "sub").string(), FILEIO_OPEN_ACCESS_READ, FILEIO_NOT_A_FILE},
      {(dir / "fifo").string(), FILEIO_OPEN_ACCESS_READ, FILEIO_NOT_A_FILE},  // must not block
      {"", FILEIO_OPEN_ACCESS_READ, FILEIO_INVALID_ARGUMENT},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.path);
    Fd fd;
    EXPECT_EQ(c.expected, FileIO_Open(&fd, c.path.c_str(), c.access, FILEIO_OPEN));
  }
  EXPECT_EQ(FILEIO_INVALID_ARGUMENT, FileIO_Open(nullptr, "x", FILEIO_OPEN_ACCESS_READ, 0));
}

// The floppy writer's loop: 512-byte reads until FILEIO_EOF must deliver the
// file exactly, the last piece possibly short or empty.
TEST(FileIO, ChunkedReadsEndWithEofAndDeliverEveryByte) {
  for (size_t size : {size_t{0}, size_t{511}, size_t{512}, size_t{513}, size_t{3000001}}) {
    SCOPED_TRACE(size);
    TempDir dir;
    std::string path = (dir / "rand").string();
    WriteFile(path, "");  // the tool refuses a count of 0
    if (size > 0) {
      ASSERT_EQ(0, RunCommand({"openssl", "rand", "-out", path, std::to_string(size)}).exitCode);
    }
    Fd fd;
    ASSERT_EQ(FILEIO_SUCCESS, FileIO_Open(&fd, path.c_str(), FILEIO_OPEN_ACCESS_READ, 0));
    EXPECT_EQ(size, FileIO_GetSize(&fd));
    std::string got;
    FileIOResult r;
    size_t calls = 0;
    do {
      char buf[512];
      size_t actual = 99999;
      r = FileIO_Read(&fd, buf, sizeof buf, &actual);
      ASSERT_TRUE(r == FILEIO_SUCCESS || r == FILEIO_EOF);
      ASSERT_EQ(r == FILEIO_SUCCESS, actual == sizeof buf);
      got.append(buf, actual);
      ++calls;
    } while (r == FILEIO_SUCCESS);
    EXPECT_EQ(size / 512 + 1, calls);
    EXPECT_EQ(ReadFile(path), got);
    EXPECT_EQ(FILEIO_SUCCESS, FileIO_Close(&fd));
  }
}

std::atomic<int> gAlarms{0};
void CountAlarm(int) {
  ++gAlarms;
}

// A character device returns short reads when a signal lands mid-read; a
// single call must still fill the whole large buffer.
TEST(FileIO, LargeReadSurvivesSignalsAndShortReads) {
  struct sigaction sa = {}, old = {};
  sa.sa_handler = CountAlarm;  // no SA_RESTART: interrupted reads come back short
  ASSERT_EQ(0, sigaction(SIGALRM, &sa, &old));
  struct itimerval every = {{0, 200}, {0, 200}}, off = {};
  Fd fd;
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_Open(&fd, "/dev/zero", FILEIO_OPEN_ACCESS_READ, 0));
  std::vector<char> buf(size_t{32} << 20, 'x');
  size_t actual = 0;
  gAlarms = 0;
  setitimer(ITIMER_REAL, &every, nullptr);
  FileIOResult r = FileIO_Read(&fd, buf.data(), buf.size(), &actual);
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &old, nullptr);
  EXPECT_EQ(FILEIO_SUCCESS, r);
  EXPECT_EQ(buf.size(), actual);
  EXPECT_EQ(buf.end(), std::find(buf.begin(), buf.end(), 'x'));
  EXPECT_GT(gAlarms.load(), 0);
}

TEST(FileIO, PositionedReadsReportEofAndKeepThePosition) {
  TempDir dir;
  std::string path = (dir / "f").string();
  WriteFile(path, "0123456789");
  Fd fd;
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_Open(&fd, path.c_str(), 3, FILEIO_OPEN));
  ASSERT_EQ(3, FileIO_Seek(&fd, 3, FILEIO_SEEK_BEGIN));
  struct {
    uint64_t offset;
    size_t len;
    FileIOResult expected;
    const char *data;
  } cases[] = {
      {2, 4, FILEIO_SUCCESS, "2345"},     {6, 4, FILEIO_SUCCESS, "6789"},
      {8, 4, FILEIO_EOF, nullptr},        {10, 1, FILEIO_EOF, nullptr},
      {1u << 31, 1, FILEIO_EOF, nullptr}, {UINT64_MAX, 1, FILEIO_INVALID_ARGUMENT, nullptr},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.offset);
    char buf[8] = {};
    EXPECT_EQ(c.expected, FileIO_Pread(&fd, buf, c.len, c.offset));
    if (c.data != nullptr) {
      EXPECT_EQ(std::string(c.data), std::string(buf, c.len));
    }
  }
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Pwrite(&fd, "AB", 2, 12));  // leaves a hole
  EXPECT_EQ(3, FileIO_Seek(&fd, 0, FILEIO_SEEK_CURRENT));
  EXPECT_EQ(14u, FileIO_GetSize(&fd));
  EXPECT_EQ(std::string("0123456789\0\0AB", 14), ReadFile(path));
}

TEST(FileIO, SizesFailAsAllOnesAndPassFourGiB) {
  TempDir dir;
  std::string sparse = (dir / "sparse").string();
  ASSERT_EQ(0, RunCommand({"truncate", "-s", "5G", sparse}).exitCode);
  EXPECT_EQ(5ull << 30, FileIO_GetSizeByPath(sparse.c_str()));
  EXPECT_EQ(kFileIOInvalidSize, FileIO_GetSizeByPath(dir.str().c_str()));
  EXPECT_EQ(kFileIOInvalidSize, FileIO_GetSizeByPath((dir / "none").c_str()));
  Fd fd;
  EXPECT_EQ(UINT64_MAX, FileIO_GetSize(&fd));
  EXPECT_EQ(UINT64_MAX, FileIO_GetSize(nullptr));
}

TEST(FileIO, WriteErrorsComeBackMappedAndCloseInvalidates) {
  Fd fd;
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_Open(&fd, "/dev/full", FILEIO_OPEN_ACCESS_WRITE, 0));
  size_t actual = 1;
  EXPECT_EQ(FILEIO_WRITE_ERROR_NOSPC, FileIO_Write(&fd, "abc", 3, &actual));
  EXPECT_EQ(0u, actual);
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Close(&fd));
  EXPECT_EQ(FILEIO_INVALID_ARGUMENT, FileIO_Close(&fd));
  EXPECT_EQ(FILEIO_INVALID_ARGUMENT, FileIO_Write(&fd, "abc", 3, nullptr));
  EXPECT_EQ(FILEIO_INVALID_ARGUMENT, FileIO_Read(&fd, &actual, 1, nullptr));
  EXPECT_STREQ("No space left on device", FileIO_ErrorEnglish(FILEIO_WRITE_ERROR_NOSPC));
  EXPECT_STREQ("Unknown error", FileIO_ErrorEnglish(-7));
}

}  // namespace
