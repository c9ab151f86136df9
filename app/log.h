// The daemon's log: one write per line, to standard error (or to the file of log_open). Nothing here changes
// errno, and everything may be called from a signal handler.
//
// A text waits at most a fifth of a second for a stalled reader and is then lost. Later texts are lost at
// once until there is room again; the first to get through follows a line with the number of lost ones.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <sys/types.h>

// Call sites write log_failed(LOG_HERE); the file defines log_module, the name of its module.
#define LOG_HERE LOG_AS(__func__)

// For a helper that logs under the name of the function it serves.
#define LOG_AS(func) 0, func, log_module, __LINE__

// "  func(): module: line: message"; the message is cut at 254 characters, the line at 298.
void log_trace(int level, const char *func, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

// A point reached, a failed step, a failed system call (with the text of errno).
void log_checkpoint(int level, const char *func, const char *file, int line);
void log_failed(int level, const char *func, const char *file, int line);
void log_syserror(int level, const char *func, const char *file, int line);

// The bare text, cut at 254 characters.
void log_printf(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Like write; -1 with EAGAIN if a stalled reader lost the text or its end.
ssize_t log_write(const void *buffer, size_t length);
void log_flush();

// Reopens standard output and error for this process alone, once, at start-up: writes to a pipe or terminal
// must not block, and changing the flags of inherited descriptors would affect other processes.
void log_start();

// Passes everything logged from now on to copy, before it is written and whether or not it gets through; null
// turns this off. copy also runs in signal handlers and must preserve errno.
void log_set_copy(void (*copy)(const void *text, size_t length));

// Empties path and makes it the log. Returns 0, or -1 and the log stays where it is.
int log_open(const char *path);

// Drops lines below level from now on; a level of 0 or less changes nothing. Returns the level in force.
int log_set_level(int level);

// A diagnostic outside the log, to standard error: the whole text, in one write up to PIPE_BUF bytes, which a
// pipe takes whole.
void print_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The same, to standard output.
void print_output(const char *format, ...) __attribute__((format(printf, 1, 2)));
