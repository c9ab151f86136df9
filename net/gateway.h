// The device's address as the outside sees it, behind routers that translate addresses. There are two ways,
// both IPv4 and both blocking: the echo asks a server which address a datagram came from (2 s at most), the
// trace asks a router on the way to dest for the route that led to it.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

// dest is an IPv4 address of len bytes, at least 16; the echo uses only the length. The result is static, is
// overwritten by the next call of the same function, and has a port only when it comes from the echo. Null
// after a log line, with ETIMEDOUT in errno when no answer came in time. docs/outside-address.md lists the
// environment variables that configure them.
sockaddr_in *echo_gateway_addr(const sockaddr *dest, socklen_t len);
sockaddr_in *trace_gateway_addr(const sockaddr *dest, socklen_t len);
sockaddr_in *get_gateway_addr(const sockaddr *dest, socklen_t len); // the echo's, else the trace's

// Only PROBE_ANSWERED writes to out. Any other result but PROBE_NO_ANSWER is a failed system call, logged.
enum probe_result : uint8_t {
    PROBE_ANSWERED = 0,
    PROBE_NO_UDP_SOCKET = 1,
    PROBE_NOT_BOUND = 2,
    PROBE_NO_TTL = 3,
    PROBE_UDP_NOT_SENT = 4,
    PROBE_NO_RAW_SOCKET = 5, // takes CAP_NET_RAW
    PROBE_NO_RECORD_ROUTE = 6,
    PROBE_ICMP_NOT_SENT = 7,
    PROBE_NOT_RECEIVED = 8,
    PROBE_NO_ANSWER = 20
};

// The address by which the router distance hops away (from 1; 0 is the device itself, beyond 8 nothing is
// probed) forwards towards dest. It asks the router behind that one, within timeout_ms in all.
[[nodiscard]] probe_result probe_gateway(in_addr dest, int distance, long timeout_ms, in_addr *out);

// Its two halves: find the router behind the one at distance, and get entry index (from 0, which is the
// device's own) of the route that an echo to router records. Each takes the time it spent off budget.
[[nodiscard]] probe_result udp_ttl_probe(in_addr dest, int distance, timeval *budget, in_addr *out);
[[nodiscard]] probe_result icmp_rr_probe(in_addr router, int index, timeval *budget, in_addr *out);

// In place: a - b, zero when b is longer; a / n, unchanged when n is below 1.
void tv_sub(timeval *a, const timeval *b);
void tv_div(timeval *a, int n);
