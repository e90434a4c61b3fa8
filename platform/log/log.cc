#include "platform/log/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::atomic<int> gLogFd{STDERR_FILENO};
// Verbose lines (expected probe failures, per-entry details) are off unless
// the host asks for them.
std::atomic<int> gMaxLevel{LOG_LEVEL_INFO};

void FdSink(void *, int, const char *text, size_t len) {
  if (len > 0 && text[len - 1] == '\n') {
    len--;
  }
  // Control characters inside a message (a line break in a user's text)
  // are written as \xNN, so no text can forge or split a log line.
  std::string line;
  line.reserve(len + 1);
  for (size_t i = 0; i < len; i++) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if ((c < 0x20 && c != '\t') || c == 0x7f) {
      static constexpr char kHex[] = "0123456789ABCDEF";
      line += {'\\', 'x', kHex[c >> 4], kHex[c & 0xf]};
    } else {
      line.push_back(static_cast<char>(c));
    }
  }
  line.push_back('\n');
  const char *p = line.data();
  size_t left = line.size();
  int fd = gLogFd.load(std::memory_order_relaxed);
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n <= 0) {
      break;  // nowhere left to report a failing log
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
}

struct Sink {
  LogSinkFn fn;
  void *ctx;
};
std::atomic<Sink *> gSink{nullptr};
Sink gDefaultSink{FdSink, nullptr};

void Emit(int level, const char *fmt, va_list args) {
  if (level > gMaxLevel.load(std::memory_order_relaxed)) {
    return;
  }
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) {
    return;
  }
  Sink *sink = gSink.load(std::memory_order_acquire);
  if (sink == nullptr) {
    sink = &gDefaultSink;
  }
  if (static_cast<size_t>(n) < sizeof small) {
    sink->fn(sink->ctx, level, small, static_cast<size_t>(n));
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(big.data(), big.size(), fmt, args);
  sink->fn(sink->ctx, level, big.data(), static_cast<size_t>(n));
}

}  // namespace

void LogV(const char *fmt, va_list args) {
  Emit(LOG_LEVEL_INFO, fmt, args);
}

void Log(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Emit(LOG_LEVEL_INFO, fmt, args);
  va_end(args);
}

void Log_Level(int level, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Emit(level, fmt, args);
  va_end(args);
}

void Warning(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Emit(LOG_LEVEL_WARNING, fmt, args);
  va_end(args);
}

void Panic(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  Emit(LOG_LEVEL_PANIC, fmt, args);
  // The process is about to end: make sure the reason reaches a human even
  // when the sink is a capture or a file.
  if (gSink.load() != nullptr || gLogFd.load() != STDERR_FILENO) {
    vfprintf(stderr, fmt, copy);
  }
  va_end(copy);
  va_end(args);
  abort();
}

void Log_SetSink(LogSinkFn fn, void *ctx, LogSinkFn *prevFn, void **prevCtx) {
  // Two slots: the new sink is written into the one not in use, then
  // published. Replacing the sink is a start-up (or test) action, not done
  // while other threads log.
  static Sink slots[2];
  static int next = 0;
  Sink *fresh = nullptr;
  if (fn != nullptr) {
    fresh = &slots[next];
    next ^= 1;
    *fresh = Sink{fn, ctx};
  }
  Sink *old = gSink.exchange(fresh, std::memory_order_acq_rel);
  if (prevFn != nullptr) {
    *prevFn = old != nullptr ? old->fn : nullptr;
  }
  if (prevCtx != nullptr) {
    *prevCtx = old != nullptr ? old->ctx : nullptr;
  }
}

bool Log_SetFile(const char *path) {
  int fd = path == nullptr ? STDERR_FILENO
                           : ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    return false;
  }
  int old = gLogFd.exchange(fd);
  if (old != STDERR_FILENO) {
    ::close(old);
  }
  return true;
}

int Log_SetMaxLevel(int level) {
  return gMaxLevel.exchange(level, std::memory_order_relaxed);
}
