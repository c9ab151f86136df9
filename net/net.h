// Sockets, each kind by one call.
//
// A constructor takes a descriptor first. One that stands for none (below 0 for the Unix kinds, below 1 for
// the Internet kinds) makes it create the socket, close-on-exec; any other is configured as it is. It returns
// the descriptor, or -1 after a log line (quietly when the address is no IPv4 address); a socket that it
// created is closed then, one that was passed in never.
#pragma once

#include <cstdint>
#include <sys/socket.h>
#include <sys/types.h>

// Bind to path, whatever socket file stood there. A path over 108 (datagram) or 107 characters is cut.
int unix_datagram_listen(int fd, const char *path);
int unix_listen(int fd, const char *path);
int unix_connect(int fd, const char *path);

int tcp_bind(int fd, const sockaddr *addr, socklen_t addrlen);
int tcp_listen(int fd, const sockaddr *addr, socklen_t addrlen);
int tcp_connect(int fd, const sockaddr *addr, socklen_t addrlen);

// Joins a multicast group, binds to a port, or for port 0 picks one at random and leaves it in addr.
int udp_bind(int fd, sockaddr *addr, socklen_t addrlen);
int udp_connect(int fd, const sockaddr *addr, socklen_t addrlen);

// A named message with descriptors, over a Unix socket. The caller owns what the pointers name; descriptors
// that arrive are the caller's to close.
struct ctlmsg {
    char name[32];
    int *fds;
    uint32_t nfds; // on receipt: room in fds, where places that no descriptor came for are -1
    void *data;
    uint32_t datalen; // on receipt: room in data going in, bytes that came going out
};

// Bytes sent or received, or -1 after a log line.
ssize_t send_ctlmsg(int fd, const ctlmsg *message);
ssize_t recv_ctlmsg(int fd, ctlmsg *message);

// Ports and identifiers that can be foretold let anybody answer: seeds random() and rand(), once, from the
// kernel's entropy. A board that has just come up may have none yet; the next call tries again.
void seed_random();

// The pending error of a socket, or -1 when there is none to ask (a FIFO, for instance).
int get_socket_error(int fd);

// The machine's name in a static buffer, or null.
const char *get_host_name();

// Writes the family and first address of name (null: of this machine) into addr, whose port stays; a length
// of 0 is not given. Blocks while the C library looks it up. 0 or -1.
int get_host_addr(const char *name, sockaddr *addr, socklen_t addrlen);
