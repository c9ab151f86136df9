// The device's own IPv4 interfaces and routes, as the kernel reports them at the time of the call.
//
// A failure is null or -1, with a line in the log where the declaration says so. Nothing is cached; only
// findsaddr keeps the name it found.
#pragma once

#include "app/memory.h"
#include "net/sockaddr.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <net/if.h>
#include <sys/types.h>

using unique_endpoint = unique_record<ipv4_endpoint>;

// One address of an interface, and what belongs to it. An address is null when it was not asked for or does
// not exist.
struct ifi {
    char name[IFNAMSIZ];
    uint16_t flags;       // IFF_...
    unique_endpoint addr; // with the port of the socket that was asked with
    unique_endpoint netmask;
    unique_endpoint broadaddr; // of interfaces with IFF_BROADCAST
    unique_endpoint dstaddr;   // of interfaces with IFF_POINTOPOINT
    ifi *next;                 // freed with the list
};

void free_ifi_info(ifi *list);

struct free_ifi_list {
    void operator()(ifi *list) const { free_ifi_info(list); }
};
using unique_ifi = std::unique_ptr<ifi, free_ifi_list>;

enum ifi_request {
    IFI_ALIASES = 1,   // list names with ":", too
    IFI_LOOPBACK = 2,  // list loopback interfaces, too
    IFI_BROADCAST = 4, // fetch this address of each
    IFI_PEER = 8,
    IFI_NETMASK = 16
};

// The addresses of interfaces that are up; for a socket bound to an address, that one only. Null when there
// are none, or with a reason in errno when they cannot be read. The list ends where memory runs out.
unique_ifi get_ifi_info(int sockfd, int flags);

// Prints one record on standard output.
void print_ifi_info(const ifi *record);

// The name of the interface towards dest, in a static buffer. Among nested routes the longer mask wins if its
// gateway is the smaller number, which none (0) is; of two routes without a gateway, the first. Null, logged,
// without a route or with a table that is cut.
const char *findsaddr(const sockaddr *dest);

// A record with the name and address of the interface towards dest, or null.
unique_ifi get_route_ifaddr(int sockfd, const sockaddr *dest);

// The first address of an interface. *len is the room going in, the length coming out. 0 or -1, logged.
[[nodiscard]] int getifaddr(const char *name, sockaddr *addr, socklen_t *len);

// The address that a socket sends from: its own if it is bound, else that of the interface in USE_INTERFACE,
// else that of the interface towards addr (the default route when addr is not IPv4). 0 or -1, logged.
[[nodiscard]] int getsockifaddr(int sockfd, sockaddr *addr, socklen_t *len);

// How well an interface, given with its netmask, suits dest: 5 on the same network, else 0 to 5 the more the
// addresses have in common; 0 when they are not IPv4, -1 when their families differ.
[[nodiscard]] int ifi_dest_match(const ifi *record, const sockaddr *dest);

// Sends one datagram out of every interface with a broadcast address, until one fails. The result of the last
// sendto, or -1.
[[nodiscard]] ssize_t broadcast(int sockfd, const void *buf, size_t len, int flags, int port);

// Waits for one descriptor, timeout in milliseconds: poll's result below 1, or the events that came.
[[nodiscard]] int poll_fd(int fd, short events, int timeout);
