#include "platform/file/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/testSupport.h"

using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::Take;
using testing_support::TempDir;
using testing_support::WriteFile;

namespace {

std::string Mode(const std::filesystem::path &p) {
  return RunCommand({"stat", "-c", "%a", p.string()}).output;
}

TEST(File, PathSplitAndJoinEdgeCases) {
  struct {
    const char *path, *dir, *base, *splitDir;
  } cases[] = {
      {"isolinux/isolinux.cfg", "isolinux", "isolinux.cfg", "isolinux/"},
      {"README", "", "README", ""},
      {"/vmlinuz", "/", "vmlinuz", "/"},
      {"/a//b", "/a", "b", "/a//"},
      {"a/b/", "a/b", "", "a/b/"},
      {"/", "/", "", "/"},
      {"", "", "", ""},
      {nullptr, "", "", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path == nullptr ? "null" : c.path);
    char *dir, *base, *volume, *splitDir, *splitBase;
    File_GetPathName(c.path, &dir, &base);
    EXPECT_EQ(c.dir, Take(dir));
    EXPECT_EQ(c.base, Take(base));
    File_SplitName(c.path, &volume, &splitDir, &splitBase);
    EXPECT_EQ("", Take(volume));
    EXPECT_EQ(c.splitDir, Take(splitDir));
    EXPECT_EQ(c.base, Take(splitBase));
  }
  File_SplitName("a/b", nullptr, nullptr, nullptr);  // every output optional

  struct {
    const char *dir, *name, *joined;
  } joins[] = {
      {"a", "b", "a/b"}, {"a/", "/b", "a/b"},      {"/", "b", "/b"},
      {"//", "b", "/b"}, {"", "b", "b"},           {"a//", "b/c", "a/b/c"},
      {"a", "", "a/"},   {nullptr, "b", "<null>"}, {"a", nullptr, "<null>"},
  };
  for (const auto &j : joins) {
    EXPECT_EQ(j.joined, Take(File_PathJoin(j.dir, j.name)));
  }
}

TEST(File, KindsAndDirectoryChanges) {
  TempDir dir;
  WriteFile(dir / "f", "x");
  std::filesystem::create_symlink(dir / "missing", dir / "dangling");
  std::filesystem::create_directory_symlink(dir.path(), dir / "dirlink");
  struct {
    std::string path;
    bool exists, isDir, isFile;
  } cases[] = {
      {(dir / "f").string(), true, false, true},
      {dir.str(), true, true, false},
      {(dir / "dangling").string(), false, false, false},
      {(dir / "dirlink").string(), true, true, false},
      {(dir / "none").string(), false, false, false},
      {"", false, false, false},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.exists, File_Exists(c.path.c_str())) << c.path;
    EXPECT_EQ(c.isDir, File_IsDirectory(c.path.c_str())) << c.path;
    EXPECT_EQ(c.isFile, File_IsFile(c.path.c_str())) << c.path;
  }
  EXPECT_FALSE(File_Exists(nullptr) || File_IsDirectory(nullptr) || File_IsFile(nullptr));

  std::string one = (dir / "one").string();
  EXPECT_TRUE(File_CreateDirectory(one.c_str()));
  EXPECT_FALSE(File_CreateDirectory(one.c_str()));  // exists
  EXPECT_FALSE(File_CreateDirectory((dir / "x/y").c_str()));
  EXPECT_TRUE(File_CreateDirectoryHierarchy((dir / "a//b/c/").c_str()));
  EXPECT_TRUE(File_IsDirectory((dir / "a/b/c").c_str()));
  EXPECT_TRUE(File_CreateDirectoryHierarchy((dir / "a/b").c_str()));  // exists: fine
  EXPECT_FALSE(File_CreateDirectoryHierarchy((dir / "f/sub").c_str()));
  EXPECT_FALSE(File_CreateDirectoryHierarchy((dir / "f").c_str()));
  EXPECT_TRUE(File_DeleteEmptyDirectory(one.c_str()));
  EXPECT_FALSE(File_DeleteEmptyDirectory((dir / "a").c_str()));  // not empty

  EXPECT_EQ(0, File_UnlinkIfExists((dir / "f").c_str()));
  EXPECT_FALSE(std::filesystem::exists(dir / "f"));
  EXPECT_EQ(0, File_UnlinkIfExists((dir / "f").c_str()));
  EXPECT_EQ(EISDIR, File_UnlinkIfExists((dir / "a").c_str()));
  EXPECT_EQ(EINVAL, File_UnlinkIfExists(nullptr));
}

TEST(File, TreeDeletionNeverFollowsLinksOut) {
  TempDir dir;
  std::filesystem::path outside = dir / "outside", tree = dir / "tree";
  std::filesystem::create_directories(outside / "deep");
  WriteFile(outside / "deep/precious", "keep me");
  std::filesystem::create_directories(tree / "sub/ro");
  WriteFile(tree / "sub/ro/file", "x");
  WriteFile(tree / ".hidden", "x");
  std::filesystem::create_directory_symlink(outside, tree / "sub/linkdir");
  std::filesystem::create_symlink(outside / "deep/precious", tree / "linkfile");
  std::filesystem::create_directory_symlink(tree, tree / "sub/loop");
  ASSERT_EQ(0, RunCommand({"mkfifo", (tree / "fifo").string()}).exitCode);
  chmod((tree / "sub/ro").c_str(), 0555);
  std::string before = RunCommand({"find", outside.string(), "-printf", "%P %m %s\n"}).output;

  EXPECT_TRUE(File_DeleteDirectoryTree(tree.c_str()));
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(tree)));
  EXPECT_EQ(before, RunCommand({"find", outside.string(), "-printf", "%P %m %s\n"}).output);

  // A link given as the tree is removed as a link.
  std::filesystem::create_directory_symlink(outside, dir / "link");
  EXPECT_TRUE(File_DeleteDirectoryTree((dir / "link").c_str()));
  EXPECT_EQ("keep me", ReadFile(outside / "deep/precious"));
  EXPECT_FALSE(File_DeleteDirectoryTree((dir / "missing").c_str()));
  EXPECT_FALSE(File_DeleteDirectoryTree((outside / "deep/precious").c_str()));
  EXPECT_FALSE(File_DeleteDirectoryTree(nullptr));
}

TEST(File, ListingMatchesLsAndFailsCleanly) {
  TempDir dir;
  for (const char *name : {"b", "A", "a b", ".hidden", "\xc3\xbc", "z"}) {
    WriteFile(dir / name, "");
  }
  std::filesystem::create_directory(dir / "sub");
  char **names = nullptr;
  int count = File_ListDirectory(dir.str().c_str(), &names);
  ASSERT_EQ(7, count);
  std::string listed;
  for (int i = 0; i < count; ++i) {
    listed += std::string(names[i]) + "\n";
  }
  EXPECT_EQ(nullptr, names[count]);
  File_FreeNameList(names, count);
  EXPECT_EQ(RunCommand({"env", "LC_ALL=C", "ls", "-A1", dir.str()}).output, listed);

  EXPECT_EQ(0, File_ListDirectory((dir / "sub").c_str(), nullptr));
  names = reinterpret_cast<char **>(&count);
  EXPECT_EQ(-1, File_ListDirectory((dir / "b").c_str(), &names));
  EXPECT_EQ(nullptr, names);
  EXPECT_EQ(-1, File_ListDirectory((dir / "none").c_str(), &names));
  EXPECT_EQ(-1, File_ListDirectory("", &names));
}

TEST(File, CopyKeepsBytesAndModeAndHonoursOverwrite) {
  TempDir dir;
  std::filesystem::path src = dir / "src", dst = dir / "dst";
  ASSERT_EQ(0, RunCommand({"openssl", "rand", "-out", src.string(), "2000003"}).exitCode);
  chmod(src.c_str(), 0750);
  mode_t oldMask = umask(022);
  EXPECT_TRUE(File_Copy(src.c_str(), dst.c_str(), false));
  EXPECT_EQ(0, RunCommand({"cmp", src.string(), dst.string()}).exitCode);
  EXPECT_EQ("750\n", Mode(dst));

  WriteFile(dst, "existing");
  EXPECT_FALSE(File_Copy(src.c_str(), dst.c_str(), false));
  EXPECT_EQ("existing", ReadFile(dst));
  chmod(src.c_str(), 0444);  // a read-only template still gives a writable copy
  EXPECT_TRUE(File_Copy(src.c_str(), dst.c_str(), true));
  EXPECT_EQ(0, RunCommand({"cmp", src.string(), dst.string()}).exitCode);
  EXPECT_EQ("644\n", Mode(dst));
  umask(oldMask);

  // Failures leave dst alone and no temporary behind.
  WriteFile(dst, "existing");
  std::filesystem::create_directory(dir / "d");
  EXPECT_FALSE(File_Copy((dir / "none").c_str(), dst.c_str(), true));
  EXPECT_FALSE(File_Copy((dir / "d").c_str(), dst.c_str(), true));
  EXPECT_FALSE(File_Copy("/dev/zero", dst.c_str(), true));
  EXPECT_FALSE(File_Copy(src.c_str(), (dir / "d").c_str(), true));
  EXPECT_FALSE(File_Copy(src.c_str(), (dir / "no/dst").c_str(), true));
  EXPECT_EQ("existing", ReadFile(dst));
  char **names = nullptr;
  EXPECT_EQ(3, File_ListDirectory(dir.str().c_str(), &names));  // d, dst, src
  File_FreeNameList(names, 3);
}

TEST(File, SafeTmpDirIsPrivateAndRefusesSquatters) {
  TempDir root;
  chmod(root.str().c_str(), 01777);
  EXPECT_EQ("", gp::SafeTmpDirUnder(root.str(), "u1", false));
  std::string made = gp::SafeTmpDirUnder(root.str(), "u1", true);
  EXPECT_EQ(root.str() + "/guestprep-u1", made);
  EXPECT_EQ("700\n", Mode(made));
  EXPECT_EQ(made, gp::SafeTmpDirUnder(root.str(), "u1", false));

  // Squatters: a link to a directory the user owns, a loose mode, another owner.
  std::filesystem::create_directory(root / "victim");
  chmod((root / "victim").c_str(), 0700);
  std::filesystem::create_directory_symlink(root / "victim", root / "guestprep-u2");
  std::filesystem::create_directory(root / "guestprep-u3");
  chmod((root / "guestprep-u3").c_str(), 0755);
  std::filesystem::create_directory(root / "guestprep-u4");
  chmod((root / "guestprep-u4").c_str(), 0700);
  bool otherOwner = chown((root / "guestprep-u4").c_str(), getuid() + 1, getgid()) == 0;
  for (const char *user : {"u2", "u3", "u4"}) {
    if (std::string(user) == "u4" && !otherOwner) {
      continue;  // only root can hand a directory to someone else
    }
    SCOPED_TRACE(user);
    std::string squatted = root.str() + "/guestprep-" + user;
    EXPECT_EQ("", gp::SafeTmpDirUnder(root.str(), user, false));
    std::string fallback = gp::SafeTmpDirUnder(root.str(), user, true);
    EXPECT_EQ(0u, fallback.rfind(squatted + "-", 0)) << fallback;
    EXPECT_EQ("700\n", Mode(fallback));
    EXPECT_EQ(fallback, gp::SafeTmpDirUnder(root.str(), user, true));  // stable
  }
  EXPECT_TRUE(std::filesystem::is_empty(root / "victim"));

  char *real = File_GetSafeTmpDir(true);
  ASSERT_NE(nullptr, real);
  struct stat st;
  ASSERT_EQ(0, lstat(real, &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(geteuid(), st.st_uid);
  EXPECT_EQ(0700u, st.st_mode & 0777);
  free(real);
}

}  // namespace
