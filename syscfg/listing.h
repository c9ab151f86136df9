// The answer to "%list": one datagram a variable, then "!OK".
//
// A list is sent as fast as its client reads. Once the client's queue is full, the rest follows in pieces: a
// slow client gets every line and does not hold up the daemon. A list is given up, with a log line, when its
// client sends another request, when memory runs out, or when there are too many: 1,024 in all, or half as
// many of a user other than the daemon's. Then the one that has stood still longest goes, or the newest if
// all are being read; its client gets "!ERR" instead of the rest.
#pragma once

#include "syscfg/reply.h"
#include "syscfg/variables.h"

void send_list(const syscfg *db, const requester &to);

// Call this before answering a request: the client would take the rest of its list for the answer.
void end_list(const requester &to);
