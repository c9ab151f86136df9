// Bug reports: the end of the history and the environment, mailed to a mailbox fixed at build time, in a
// plain SMTP dialogue over TCP port 25. Programs on this runtime send one when they see fit; the daemon
// never does.
#pragma once

#include <cstddef>
#include <sys/types.h>

// Adds to the history, which keeps its last 4096 bytes. Preserves errno; safe in a signal handler, even one
// that interrupts another call.
void bugreport_append(const void *text, size_t length);

// Adds everything logged from now on to the history.
void bugreport_enable();

// Mails the report. Blocks as long as the mail server takes, forever if it says nothing; not for signal
// handlers. Returns 0 once the server has accepted the report; else -1, with the number of the failed step on
// standard error.
int bugreport_send();

// Reads a line of at most max bytes, replaces its line feed by a zero and returns its length. Returns max,
// without a zero, if max bytes held no line feed; -1 if the connection failed or ended first. tag only marks
// the trace on standard error.
ssize_t tcp_gets(int fd, char *buffer, size_t max, int tag);
