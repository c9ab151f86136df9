// Answers to requesters, none of whom can be trusted to read them.
#pragma once

#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

struct requester {
    sockaddr_un addr;
    socklen_t len;
};

// Sends without waiting. False when the requester's queue is full; one that has gone counts as answered.
bool try_reply(int server_fd, const requester &to, std::string_view text);

// Sends, and waits for room in the requester's queue: up to 200 ms in all since reply_begin.
void reply(int server_fd, const requester &to, std::string_view text);

// A new request begins, with its own 200 ms.
void reply_begin();
