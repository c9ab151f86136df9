// An IPv4 address as the calls of sockets want it: zero, of a text, or that which a socket has.
#pragma once

#include "net/sockaddr.h"

#include <string>

struct address {
    sockaddr_in in = {};
    sockaddr *any = reinterpret_cast<sockaddr *>(&in);
    socklen_t len = sizeof in;
    int parsed = 0; // -1 when the text is no address, which leaves zero

    address() = default;
    explicit address(const std::string &text) { parsed = sockaddr_parse(text.c_str(), any, &len); }
    explicit address(int fd) { getsockname(fd, any, &len); }
};
