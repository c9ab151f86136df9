// The answer to "%list": one datagram a variable, then "!OK".
//
// It is sent as fast as the requester takes it, in pieces once its queue is full, so that a slow reader gets
// every line, however long it stands still, and none holds the daemon. A list is given up, with a log line,
// when its requester asks for something else, when memory is out, or when there are too many: 1,024 in all,
// or half as many of a user other than the daemon's. Then the one goes that has stood still longest, or the
// newest when all are being read; its requester gets "!ERR" in the place of the rest.
#pragma once

#include "syscfg/reply.h"
#include "syscfg/variables.h"

void send_list(const syscfg *db, const requester &to);

// A request has come from that address: what is left of a list to it would be taken for the answer.
void end_list(const requester &to);
