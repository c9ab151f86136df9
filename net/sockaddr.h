// IPv4 socket addresses: length, port, validity, text. An address of any other family is refused.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

// An IPv4 address with a port, for calls that take or fill a sockaddr.
struct ipv4_endpoint {
    sockaddr_in in = {AF_INET, 0, {INADDR_ANY}, {}};

    ipv4_endpoint() = default;
    ipv4_endpoint(in_addr address, uint16_t port) : in{AF_INET, htons(port), address, {}} {}

    [[nodiscard]] sockaddr *get() { return reinterpret_cast<sockaddr *>(&in); }
    [[nodiscard]] const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&in); }
    [[nodiscard]] static constexpr socklen_t size() { return sizeof(sockaddr_in); }
};

// An address that is known to be IPv4.
inline const sockaddr_in &as_ipv4(const sockaddr *addr)
{
    return *reinterpret_cast<const sockaddr_in *>(addr);
}
inline sockaddr_in &as_ipv4(sockaddr *addr)
{
    return *reinterpret_cast<sockaddr_in *>(addr);
}

// 110 for AF_UNIX, otherwise 16.
socklen_t sockaddr_len(const sockaddr *addr);

// The port in host byte order; -1 when addr is not IPv4 (set leaves it unchanged then).
[[nodiscard]] int sockaddr_get_port(const sockaddr *addr);
[[nodiscard]] int sockaddr_set_port(sockaddr *addr, int port);

// 1 when addr is IPv4 and len is 0 (not given) or at least 16, else 0. A shorter length is logged.
int is_valid_addr(const sockaddr *addr, socklen_t len);

// 1 when the first octet is 224 to 239, 0 when not, -1 when addr is not valid.
[[nodiscard]] int sockaddr_is_multicast(const sockaddr *addr, socklen_t len);

// Reads "a.b.c.d" or "a.b.c.d:port", after at most one white-space character; the rest of text is ignored.
// 0, or -1 when text is no such address or *len is below 16. *len is not changed.
[[nodiscard]] int sockaddr_parse(const char *text, sockaddr *addr, const socklen_t *len);

// "a.b.c.d", with ":port" unless the port is 0, in a static buffer; null when addr is not IPv4.
const char *sockaddr_ntop(const sockaddr *addr, socklen_t len);

// Copies a valid IPv4 address and returns its length, 16; -1 when src is not valid or cap is below 16.
[[nodiscard]] int sockaddr_copy(sockaddr *dst, socklen_t cap, const sockaddr *src, socklen_t srclen);
[[nodiscard]] int sockaddr_copy(sockaddr *dst, const sockaddr *src);

// -1 when the families differ, else as memcmp over the length of the addresses.
[[nodiscard]] int sockaddr_cmp(const sockaddr *a, const sockaddr *b);
