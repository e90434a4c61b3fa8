// Crash and failure behaviour of the atomic file replacement: whatever
// happens to the writer, the destination holds the whole old or the whole
// new contents, and no temporary file is ever taken for it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/file/fileIO.h"
#include "support/testSupport.h"

using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

namespace {

// Runs body in a forked child; its wait status.
int InChild(const std::function<int()> &body) {
  pid_t pid = fork();
  if (pid == 0) {
    _exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

std::vector<std::string> Names(const std::filesystem::path &dir) {
  std::vector<std::string> out;
  for (const auto &e : std::filesystem::directory_iterator(dir)) {
    out.push_back(e.path().filename().string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::string Pattern(size_t size, char seed) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    s[i] = static_cast<char>(seed + i * 7 + (i >> 12));
  }
  return s;
}

void KillSelf(const char *, const char *) {
  kill(getpid(), SIGKILL);
}

TEST(AtomicWrite, KilledBeforeTheRenameLeavesTheOldFileWhole) {
  TempDir dir;
  std::string path = (dir / "extended.xml").string();
  std::string oldData = Pattern(100000, 'o');
  std::string newData = Pattern(24 << 20, 'n');
  WriteFile(path, oldData);
  chmod(path.c_str(), 0640);

  int status = InChild([&] {
    FileIO_SetAtomicCommitHook(KillSelf);
    return FileIO_AtomicWrite(path.c_str(), newData.data(), newData.size());
  });
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_EQ(SIGKILL, WTERMSIG(status));

  EXPECT_EQ(oldData, ReadFile(path));  // byte-identical
  std::vector<std::string> names = Names(dir.path());
  ASSERT_EQ(2u, names.size());
  // The leftover is complete (the kill came at the worst moment) but hidden
  // under a name nobody looks up.
  EXPECT_EQ(0u, names[0].rfind(".extended.xml.~", 0)) << names[0];
  EXPECT_EQ("extended.xml", names[1]);
  EXPECT_EQ(newData, ReadFile(dir / names[0]));

  ASSERT_EQ(FILEIO_SUCCESS, FileIO_AtomicWrite(path.c_str(), newData.data(), newData.size()));
  EXPECT_EQ(newData, ReadFile(path));
  EXPECT_EQ("640\n", RunCommand({"stat", "-c", "%a", path}).output);
}

// Killed while writing: the temporary file has no name yet, so nothing is
// left beside the destination (file systems with O_TMPFILE, as /tmp is).
TEST(AtomicWrite, KilledWhileWritingLeavesNothing) {
  TempDir dir;
  std::string path = (dir / "extended.xml").string();
  WriteFile(path, "old\n");
  int status = InChild([&] {
    FileIOAtomicWriter w;
    if (FileIO_AtomicBegin(&w, path.c_str(), kFileIOKeepMode, true) != FILEIO_SUCCESS ||
        FileIO_Write(&w.fd, "new", 3, nullptr) != FILEIO_SUCCESS) {
      return 1;
    }
    kill(getpid(), SIGKILL);
    return 2;
  });
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ("old\n", ReadFile(path));
  EXPECT_EQ(std::vector<std::string>{"extended.xml"}, Names(dir.path()));
}

TEST(AtomicWrite, WriteFailureLeavesOldFileAndNoTemporary) {
  TempDir dir;
  std::string path = (dir / "ks.cfg").string();
  WriteFile(path, "old contents\n");
  std::string big = Pattern(4 << 20, 'b');
  int status = InChild([&] {
    signal(SIGXFSZ, SIG_IGN);  // the write then fails with EFBIG instead of killing
    struct rlimit limit = {1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
    return FileIO_AtomicWrite(path.c_str(), big.data(), big.size());
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(FILEIO_WRITE_ERROR_FBIG, WEXITSTATUS(status));
  EXPECT_EQ("old contents\n", ReadFile(path));
  EXPECT_EQ(std::vector<std::string>{"ks.cfg"}, Names(dir.path()));
}

TEST(AtomicWrite, ReadOnlyDirectoryIsRefused) {
  TempDir dir;
  std::string sub = (dir / "ro").string();
  std::filesystem::create_directory(sub);
  std::string path = sub + "/f";
  WriteFile(path, "old");
  chmod(sub.c_str(), 0555);
  chmod(dir.str().c_str(), 0755);
  int status = InChild([&] {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
      return 100;  // root ignores directory permissions: act as nobody
    }
    return FileIO_AtomicWrite(path.c_str(), "new", 3);
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(FILEIO_NO_PERMISSION, WEXITSTATUS(status));
  EXPECT_EQ("old", ReadFile(path));
}

TEST(AtomicWrite, NewFileModeAndDestinationKinds) {
  TempDir dir;
  mode_t oldMask = umask(027);
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_AtomicWrite((dir / "new").c_str(), "x", 1));
  umask(oldMask);
  EXPECT_EQ("640\n", RunCommand({"stat", "-c", "%a", (dir / "new").string()}).output);

  // A link at the destination is replaced; its target is not written.
  WriteFile(dir / "target", "keep");
  std::filesystem::create_symlink(dir / "target", dir / "link");
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_AtomicWrite((dir / "link").c_str(), "new", 3));
  EXPECT_FALSE(std::filesystem::is_symlink(dir / "link"));
  EXPECT_EQ("new", ReadFile(dir / "link"));
  EXPECT_EQ("keep", ReadFile(dir / "target"));

  std::filesystem::create_directory(dir / "d");
  EXPECT_EQ(FILEIO_NOT_A_FILE, FileIO_AtomicWrite((dir / "d").c_str(), "x", 1));
  EXPECT_EQ(FILEIO_INVALID_ARGUMENT, FileIO_AtomicWrite((dir / "d/").c_str(), "x", 1));
  EXPECT_EQ(FILEIO_FILE_NOT_FOUND, FileIO_AtomicWrite((dir / "no/f").c_str(), "x", 1));
}

TEST(AtomicWrite, NoReplaceCommitLosesToALaterCreator) {
  TempDir dir;
  std::string path = (dir / "f").string();
  FileIOAtomicWriter w;
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_AtomicBegin(&w, path.c_str(), 0600, false));
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_Write(&w.fd, "mine", 4, nullptr));
  WriteFile(path, "theirs");
  EXPECT_EQ(FILEIO_OPEN_ERROR_EXIST, FileIO_AtomicCommit(&w));
  EXPECT_EQ("theirs", ReadFile(path));
  EXPECT_EQ(std::vector<std::string>{"f"}, Names(dir.path()));

  ASSERT_EQ(FILEIO_SUCCESS, FileIO_AtomicBegin(&w, path.c_str(), kFileIOKeepMode, true));
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_Write(&w.fd, "abandoned", 9, nullptr));
  FileIO_AtomicAbort(&w);
  EXPECT_EQ("theirs", ReadFile(path));
  EXPECT_EQ(std::vector<std::string>{"f"}, Names(dir.path()));
}

}  // namespace
