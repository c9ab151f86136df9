// The device's own IPv4 interfaces and routes, as the kernel tells them at the time of the call.
//
// A failure is null or -1, with a line in the log where the declaration says so. Nothing is kept but the name
// that findsaddr has found.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <net/if.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/types.h>

// One address of an interface; the addresses are IPv4 and on the heap, null when not asked for or not there.
struct ifi {
    char name[IFNAMSIZ];
    uint16_t flags; // IFF_...
    sockaddr *addr; // with the port of the socket that was asked with
    sockaddr *netmask;
    sockaddr *broadaddr; // of interfaces with IFF_BROADCAST
    sockaddr *dstaddr;   // of interfaces with IFF_POINTOPOINT
    ifi *next;
};

enum ifi_request {
    IFI_ALIASES = 1, // also names with ":"
    IFI_LOOPBACK = 2,
    IFI_BROADCAST = 4, // from here on what to fetch of each
    IFI_PEER = 8,
    IFI_NETMASK = 16
};

// The addresses of interfaces that are up; of a socket bound to an address, that one only. The caller frees
// the list; null when it is empty, or with a reason in errno when it cannot be read. When memory ends, the
// list ends.
ifi *get_ifi_info(int sockfd, int flags);
void free_ifi_info(ifi *list);

// One record for people, on standard output.
void print_ifi_info(const ifi *record);

// What a line of /proc/net/route says. Addresses stand in memory as on the wire, and are compared as the
// numbers that they are there.
struct route {
    std::array<char, 32> interface; // "*" of a route that refuses
    uint32_t destination, gateway, mask;
};

// False when the line is cut or junk.
bool parse_route(std::string_view line, route &out);

// The name of the interface towards dest in a static buffer. Among nested routes the longer mask wins if its
// gateway is the smaller number, which none (0) is; two routes without gateway: the first. Null, logged,
// without a route or with a table that is cut.
const char *findsaddr(const sockaddr *dest);

// Name and address of the interface towards dest, for free_ifi_info.
ifi *get_route_ifaddr(int sockfd, const sockaddr *dest);

// The first address of an interface. *len is the room going in, the length coming out. 0 or -1, logged.
int getifaddr(const char *name, sockaddr *addr, socklen_t *len);

// The address that a socket speaks from: the one it is bound to, that of the interface in USE_INTERFACE, or
// that towards what addr holds (anything but an IPv4 address: the default route). 0 or -1, logged.
int getsockifaddr(int sockfd, sockaddr *addr, socklen_t *len);

// How well an interface, given with its netmask, suits dest: 5 on the same network, else 0 to 5 the more the
// addresses have in common; 0 when they are not IPv4, -1 when their families differ.
int ifi_dest_match(const ifi *record, const sockaddr *dest);

// Sends one datagram out of every interface with a broadcast address, until one fails. The result of the last
// sendto, or -1.
ssize_t broadcast(int sockfd, const void *buf, size_t len, int flags, int port);

// Waits for one descriptor, timeout in milliseconds: poll's result below 1, or the events that came.
int poll_fd(int fd, short events, int timeout);
