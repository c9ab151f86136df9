// A bug report: the end of the history and the environment, mailed to a mailbox that the build fixes, in a
// plain SMTP dialogue over TCP port 25. A program on this runtime sends one when it sees fit; the daemon
// never does.
#pragma once

#include <cstddef>
#include <sys/types.h>

// Adds to the history; its last 4096 bytes are kept. Keeps errno and may be called from a signal handler,
// also in the middle of another call.
void bugreport_append(const void *text, size_t length);

// From now on all that is written to the log is added to the history.
void bugreport_enable();

// Blocks for as long as the mail server takes, which has no end if it says nothing; not for signal handlers.
// 0 when the server has accepted the report. Otherwise -1, after a line on standard error with the number of
// the step that failed.
int bugreport_send();

// Reads a line of at most max bytes and returns its length, its line feed replaced by a zero; max when so
// many came without one, and then there is no zero; -1 when the connection failed or ended before. The tag is
// for the trace on standard error only.
ssize_t tcp_gets(int fd, char *buffer, size_t max, int tag);
