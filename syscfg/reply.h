// Answers to requesters, none of whom can be trusted to read them.
#pragma once

#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

struct requester {
    sockaddr_un addr;
    socklen_t len;
};

bool same_requester(const requester &a, const requester &b);

// Sends without waiting. False when the requester's queue is full; one that has gone counts as answered.
bool try_reply(int server_fd, const requester &to, std::string_view text);

// Sends, and waits for room in the requester's queue: 200 ms in all, which only time without waiting gives
// back, eight times as slowly. However many requesters do not read, the others get most of the daemon, until
// the unread answers fill the server's buffer, of some 8 MiB.
void reply(int server_fd, const requester &to, std::string_view text);
