// The configuration server: one request a datagram, answered on a local socket (see docs/protocol.md).
//
// Requests are handled one at a time and to completion, except that a wait is kept until its value is set and
// a list goes on while its reader is slow. A kept wait holds a place among 1,024; one more takes the place of
// a requester that has gone, or else the user who holds the most gives up the oldest of the address that
// holds the most, which is told "!ERR". Only assignments through the socket release waiters.
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
