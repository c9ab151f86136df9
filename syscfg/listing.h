// The answer to "%list": one datagram a variable, then "!OK".
//
// It is sent as fast as the requester takes it, in pieces once its queue is full, so that a slow reader gets
// every line, however long it stands still, and none holds the daemon. A list is given up, with a log line,
// when its requester asks for something else, when 16 younger ones are under way, or when memory is out.
#pragma once

#include "syscfg/reply.h"
#include "syscfg/variables.h"

void send_list(const syscfg *db, const requester &to);

// A request has come from that address: what is left of a list to it would be taken for the answer.
void end_list(const requester &to);
