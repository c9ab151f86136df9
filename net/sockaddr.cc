#include "net/sockaddr.h"

#include "app/log.h"
#include "app/text.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/un.h>

namespace {

constexpr char log_module[] = "sockaddr";
constexpr socklen_t ipv4_len = ipv4_endpoint::size();

bool is_ipv4(const sockaddr *addr)
{
    return addr->sa_family == AF_INET;
}

// Takes a decimal number of 0 to max off the front of text; -1 when there is none.
int take_number(const char *&text, long max)
{
    char *end;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (end == text || errno != 0 || value < 0 || value > max)
        return -1;
    text = end;
    return static_cast<int>(value);
}

} // namespace

socklen_t sockaddr_len(const sockaddr *addr)
{
    return addr->sa_family == AF_UNIX ? static_cast<socklen_t>(sizeof(sockaddr_un)) : ipv4_len;
}

int sockaddr_get_port(const sockaddr *addr)
{
    return is_ipv4(addr) ? ntohs(as_ipv4(addr).sin_port) : -1;
}

int sockaddr_set_port(sockaddr *addr, int port)
{
    if (!is_ipv4(addr))
        return -1;
    as_ipv4(addr).sin_port = htons(static_cast<uint16_t>(port));
    return port;
}

int is_valid_addr(const sockaddr *addr, socklen_t len)
{
    if (!is_ipv4(addr))
        return 0;
    if (len == 0 || len >= ipv4_len)
        return 1;
    log_failed(LOG_HERE);
    return 0;
}

int sockaddr_is_multicast(const sockaddr *addr, socklen_t len)
{
    if (!is_valid_addr(addr, len))
        return -1;
    return IN_MULTICAST(ntohl(as_ipv4(addr).sin_addr.s_addr)) ? 1 : 0;
}

int sockaddr_parse(const char *text, sockaddr *addr, const socklen_t *len)
{
    if (is_space(*text))
        ++text;
    std::array<uint8_t, 4> octets;
    for (size_t i = 0; i < octets.size(); ++i) {
        if (i > 0 && *text++ != '.')
            return -1;
        const int octet = take_number(text, 255);
        if (octet < 0)
            return -1;
        octets[i] = static_cast<uint8_t>(octet);
    }
    int port = 0;
    if (*text == ':') {
        port = take_number(++text, 65535);
        if (port < 0)
            return -1;
    }
    if (*len < ipv4_len)
        return -1;
    in_addr address;
    memcpy(&address, octets.data(), octets.size());
    as_ipv4(addr) = ipv4_endpoint(address, static_cast<uint16_t>(port)).in;
    return 0;
}

const char *sockaddr_ntop(const sockaddr *addr, socklen_t)
{
    static char text[128];
    if (!is_ipv4(addr) || !inet_ntop(AF_INET, &as_ipv4(addr).sin_addr, text, sizeof text))
        return nullptr;
    const size_t length = strlen(text);
    const int port = sockaddr_get_port(addr);
    if (port != 0)
        snprintf(text + length, sizeof text - length, ":%d", port);
    return text;
}

int sockaddr_copy(sockaddr *dst, socklen_t cap, const sockaddr *src, socklen_t srclen)
{
    if (!is_valid_addr(src, srclen) || cap < ipv4_len)
        return -1;
    memcpy(dst, src, ipv4_len);
    return static_cast<int>(ipv4_len);
}

int sockaddr_copy(sockaddr *dst, const sockaddr *src)
{
    return sockaddr_copy(dst, ipv4_len, src, 0);
}

int sockaddr_cmp(const sockaddr *a, const sockaddr *b)
{
    return a->sa_family == b->sa_family ? memcmp(a, b, sockaddr_len(a)) : -1;
}
