// Sockets, each kind by one call.
//
// A constructor takes a descriptor first. Below 0 (Unix kinds) or below 1 (Internet kinds) it creates the
// socket, close-on-exec; any other descriptor is configured as it is. It returns the descriptor, or -1 after
// a log line (without one when the address is not IPv4). On failure it closes a socket that it created, and
// leaves the caller's open.
#pragma once

#include <cstdint>
#include <sys/socket.h>
#include <sys/types.h>

// The first two replace a socket file that stands at path. A path over 108 (datagram) or 107 characters is
// cut.
[[nodiscard]] int unix_datagram_listen(int fd, const char *path);
[[nodiscard]] int unix_listen(int fd, const char *path);
[[nodiscard]] int unix_connect(int fd, const char *path);

[[nodiscard]] int tcp_bind(int fd, const sockaddr *addr, socklen_t addrlen);
[[nodiscard]] int tcp_listen(int fd, const sockaddr *addr, socklen_t addrlen);
[[nodiscard]] int tcp_connect(int fd, const sockaddr *addr, socklen_t addrlen);

// Joins a multicast group, binds to a port, or for port 0 picks one at random and leaves it in addr.
[[nodiscard]] int udp_bind(int fd, sockaddr *addr, socklen_t addrlen);
[[nodiscard]] int udp_connect(int fd, const sockaddr *addr, socklen_t addrlen);

// A named message with descriptors, over a Unix socket. The caller owns the buffers, and closes the
// descriptors that arrive.
struct ctlmsg {
    char name[32];
    int *fds;
    uint32_t nfds; // on receipt: room in fds; unused places become -1
    void *data;
    uint32_t datalen; // on receipt: room in data going in, bytes received coming out
};

// Bytes sent or received, or -1 after a log line.
[[nodiscard]] ssize_t send_ctlmsg(int fd, const ctlmsg *message);
[[nodiscard]] ssize_t recv_ctlmsg(int fd, ctlmsg *message);

// Seeds random() and rand() once from the kernel's entropy, because predictable ports and identifiers let
// anybody forge a reply. Just after boot there may be no entropy yet; the next call tries again.
void seed_random();

// The pending error of a socket; -1 when fd is not a socket (a FIFO, for instance).
[[nodiscard]] int get_socket_error(int fd);

// The machine's name in a static buffer, or null.
const char *get_host_name();

// Looks name up (null: this machine) and writes the family and first address into addr; the port stays. An
// addrlen of 0 means not given. Blocks during the look-up. 0 or -1.
[[nodiscard]] int get_host_addr(const char *name, sockaddr *addr, socklen_t addrlen);
