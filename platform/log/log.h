/*
 * Host log: one line per event.
 *
 * Every call of Log, Log_Level, Warning or Panic is one event and reaches the
 * sink as one piece of text (the formatted message exactly as the caller
 * wrote it). The default sink writes it to standard error with a single
 * write(), adding a line feed when the text lacks one, so concurrent writers
 * never interleave inside a line; control characters inside the text (a
 * line feed in a user's name) are written as \xNN, so one event is always
 * one line. Tests replace the sink to capture lines.
 */
#ifndef GUESTPREP_PLATFORM_LOG_H
#define GUESTPREP_PLATFORM_LOG_H

#include <cstdarg>
#include <cstddef>

enum LogLevel {
  LOG_LEVEL_PANIC = 0,
  LOG_LEVEL_WARNING = 1,
  LOG_LEVEL_INFO = 3,  // what Log() writes
  LOG_LEVEL_VERBOSE = 6,
};

void Log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void LogV(const char *fmt, va_list args) __attribute__((format(printf, 1, 0)));
void Log_Level(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Warning(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Logs the message, then aborts the process. Impossible cases use
 * Panic("NOT_REACHED %s:%d \n", file, line). */
[[noreturn]] void Panic(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Sink: receives each event's level and text (not NUL-terminated past len). */
using LogSinkFn = void (*)(void *ctx, int level, const char *text, size_t len);

/* Replaces the sink; a null fn restores the default (standard error).
 * Call it before other threads log (start-up, tests).
 * Returns the previous sink through the optional out parameters. */
void Log_SetSink(LogSinkFn fn, void *ctx, LogSinkFn *prevFn = nullptr, void **prevCtx = nullptr);

/* Sends events to the named file (appending) instead of standard error.
 * False, with the sink unchanged, when the file cannot be opened. A null
 * path goes back to standard error. */
bool Log_SetFile(const char *path);

/* Events above this level are dropped before reaching the sink (default:
 * LOG_LEVEL_INFO, so verbose lines are off). Returns the previous level. */
int Log_SetMaxLevel(int level);

#define NOT_REACHED() Panic("NOT_REACHED %s:%d \n", __FILE__, __LINE__)

#endif
