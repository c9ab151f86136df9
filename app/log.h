// The daemon's log: one line, one write, to standard error (or to the file of log_open). Nothing here
// changes errno, and all of it may be called from a signal handler.
//
// A text waits a fifth of a second at most for a reader that has stalled. Then it is lost, and so is each
// following one, at once, until there is room again: the first to get through is preceded by a line with the
// number of those lost.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <sys/types.h>

// A call site writes log_failed(LOG_HERE); its file defines log_module, the name of its module.
#define LOG_HERE LOG_AS(__func__)

// The same in a helper that logs under the name of the function it works for.
#define LOG_AS(func) 0, func, log_module, __LINE__

// "  func(): module: line: message"; the message is cut at 254 characters, the line at 298.
void log_trace(int level, const char *func, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

// A point that was reached, a step that failed, a system call that failed (with the text of errno).
void log_checkpoint(int level, const char *func, const char *file, int line);
void log_failed(int level, const char *func, const char *file, int line);
void log_syserror(int level, const char *func, const char *file, int line);

// The bare text, cut at 254 characters.
void log_printf(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// As write; -1 with EAGAIN when the text, or the end of it, is lost to a reader that has stalled.
ssize_t log_write(const void *buffer, size_t length);
void log_flush();

// Opens standard output and error anew for ourselves, once, at start-up: a write to a pipe or terminal is not
// to wait, and the flags of the descriptors that we were given are not ours alone.
void log_start();

// Gives copy all that goes to the log from now on, before it is written and whatever then becomes of it;
// null: nothing. It is called in signal handlers too, and keeps errno.
void log_set_copy(void (*copy)(const void *text, size_t length));

// Makes path, emptied, the log; 0, or -1 and the log stays where it is.
int log_open(const char *path);

// Lines below level are dropped from now on; a level of 0 or less changes nothing. Returns the level in
// force.
int log_set_level(int level);

// A diagnostic outside the log, to standard error: the whole text, however long, in one write as far as a
// pipe takes it whole (PIPE_BUF).
void print_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The same, to standard output.
void print_output(const char *format, ...) __attribute__((format(printf, 1, 2)));
