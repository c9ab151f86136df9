// The configuration server: one request a datagram, answered on a local socket (see docs/protocol.md).
//
// Requests are handled one at a time and to completion, with two exceptions: a wait is kept until its value
// is set, and a list goes on while its reader is slow. At most 1,024 waits are kept. When they are all taken,
// the waits of clients that have gone are dropped. If there are none, the user with the most waits loses one:
// the oldest of the address that has the most, which is answered "!ERR". Only assignments through the socket
// release waiters.
#pragma once

#include "app/app.h"
#include "syscfg/reply.h"
#include "syscfg/variables.h"

// A wait: laid out as the variable waited for, with the wanted value as the variable's type normalises it.
struct syscfg_waiter : syscfg_var {
    syscfg_waiter *next_waiter; // of the same variable, newest first
    requester from;
    uint32_t serial;
};

// The loop's callback for the server socket; ctx is the database.
void syscfg_recvCallback(void *ctx, int events, int fd, app_fd_handler *handler);
