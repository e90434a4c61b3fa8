// Shared by the benchmark programs: running the real tools they compare
// against and build their images with.
#ifndef GUESTPREP_BENCH_SUPPORT_H
#define GUESTPREP_BENCH_SUPPORT_H

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <string>
#include <vector>

extern char **environ;

namespace bench {

// Runs argv (no shell), its output dropped when quiet; its exit status, or
// -1 when it could not run or died of a signal.
inline int Run(const std::vector<std::string> &argv, bool quiet = true) {
  std::vector<char *> args;
  for (const std::string &a : argv) {
    args.push_back(const_cast<char *>(a.c_str()));
  }
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (quiet) {
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  }
  pid_t pid;
  int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    return -1;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace bench

#endif
