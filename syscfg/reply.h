// The server's socket, and the answers it sends. No client can be trusted to read them.
//
// Unread answers count against the buffer of the socket that sent them. A client's queue takes few of them,
// unless the client is connected to us: then it takes all. Lists use at most half of the buffer. When the
// buffer is full and does not drain to half, a new socket replaces this one under the same name and
// descriptor, which is logged. Requests waiting in the old one are lost. Clients connected to it still get
// the answers they wait for, until the next renewal; their next request fails, as after a restart.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

inline constexpr char server_path[] = "/tmp/.syscfg-server";

// Waits kept at once; as many lists.
constexpr int max_kept = 1024;

struct requester {
    sockaddr_un addr;
    socklen_t len;
    uid_t uid; // of the sender, from the kernel
};

bool same_requester(const requester &a, const requester &b);

// A bound, close-on-exec server socket, or -1 with errno set. A file in its place that
// cannot be removed is logged with its owner.
[[nodiscard]] int open_server_socket();

// Replaces the socket behind server_fd. False (logged) if none can be opened.
bool renew_server_socket(int server_fd);

// Receives the next request and its sender. Its length, or -1.
[[nodiscard]] ssize_t receive_request(int server_fd, std::span<char> request, requester &from);

// True if unread answers take half of our buffer.
bool is_crowded(int server_fd);

// Sends without waiting. False if the client's queue or our buffer is full; a client that has gone counts as
// answered.
bool try_reply(int server_fd, const requester &to, std::string_view text);

// Sends, waiting for room if need be. All waits share a budget of 200 ms, which refills by 1 ms in 8, so
// clients that do not read cost the daemon at most an eighth of its time. After 200 ms without room in our
// buffer the socket is replaced.
void reply(int server_fd, const requester &to, std::string_view text);
