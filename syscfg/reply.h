// The server's socket, and answers over it to requesters, none of whom can be trusted to read them.
//
// Unread answers count against the buffer of the socket that sent them. A requester's queue takes few of
// them, but that of a requester who is connected to us takes all. Lists use half of the buffer at most. When
// answers fill the rest, too, and half of it does not become free, another socket takes the place of this one
// under the same name and descriptor, which is logged. What waits in the old one is lost, as are the answers
// to those who are connected to it: for them it is a restart of the daemon.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

inline constexpr char server_path[] = "/tmp/.syscfg-server";

// Waits, and lists, that are kept at once.
constexpr int max_kept = 1024;

struct requester {
    sockaddr_un addr;
    socklen_t len;
    uid_t uid; // who sent the request, as the kernel says
};

bool same_requester(const requester &a, const requester &b);

// A bound, close-on-exec server socket, or -1 with errno set. What stands at its name and cannot be removed
// is logged, with its owner.
int open_server_socket();

// Puts a new socket in the place of server_fd. False (logged) when there is none to be had.
bool renew_server_socket(int server_fd);

// The next request and who sent it; its length, or -1.
ssize_t receive_request(int server_fd, std::span<char> request, requester &from);

// Whether unread answers take half of our own buffer.
bool is_crowded(int server_fd);

// Sends without waiting. False when the requester's queue or our own buffer is full; a requester that has
// gone counts as answered.
bool try_reply(int server_fd, const requester &to, std::string_view text);

// Sends, and waits for room: 200 ms in all, which only time without waiting gives back, eight times as
// slowly. However many requesters do not read, the others get most of the daemon. After 200 ms without room
// in our own buffer the socket is renewed.
void reply(int server_fd, const requester &to, std::string_view text);
