// The answer to "%list": one datagram a variable, then "!OK".
#pragma once

#include "syscfg/reply.h"
#include "syscfg/variables.h"

// Sends the list as fast as the requester takes it, from a timer once its queue is full, so that a slow
// reader gets every line and none holds the daemon. Given up, with a log line, when nothing was taken for
// 2,000 ms, when more than 16 are under way (the oldest), or when memory is out.
void send_list(const syscfg *db, const requester &to);
