// IPv4 socket addresses: length, port, validity, text. Any other family is refused where an address is meant.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

// As the calls of the system take it.
inline const sockaddr *generic(const sockaddr_in &addr)
{
    return reinterpret_cast<const sockaddr *>(&addr);
}

// 110 for AF_UNIX, otherwise 16.
socklen_t sockaddr_len(const sockaddr *addr);

// The port in host byte order; -1 when addr is not IPv4 (set leaves it unchanged then).
int sockaddr_get_port(const sockaddr *addr);
int sockaddr_set_port(sockaddr *addr, int port);

// 1 when addr is IPv4 and len is 0 (not given) or at least 16, else 0. A shorter length is logged.
int is_valid_addr(const sockaddr *addr, socklen_t len);

// 1 when the first octet is 224 to 239, 0 when not, -1 when addr is not valid.
int sockaddr_is_multicast(const sockaddr *addr, socklen_t len);

// Reads "a.b.c.d" or "a.b.c.d:port" (one white-space character before it is passed over, what follows it
// ignored). 0, or -1 when text is no such address or *len is below 16. *len is not changed.
int sockaddr_parse(const char *text, sockaddr *addr, const socklen_t *len);

// "a.b.c.d", with ":port" when there is one, in a static buffer; null when addr is not IPv4.
const char *sockaddr_ntop(const sockaddr *addr, socklen_t len);

// Copies a valid IPv4 address and returns its length, 16; -1 when src is not valid or cap is below 16.
int sockaddr_copy(sockaddr *dst, socklen_t cap, const sockaddr *src, socklen_t srclen);
int sockaddr_copy(sockaddr *dst, const sockaddr *src);

// -1 when the families differ, else as memcmp over the length of the addresses.
int sockaddr_cmp(const sockaddr *a, const sockaddr *b);
