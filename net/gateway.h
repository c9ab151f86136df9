// The device's address as the outside sees it, behind whatever translates addresses in between. Two ways,
// both IPv4 and both waiting for the network: the echo asks a server which address a datagram came from (2 s
// at the longest), the trace asks a router on the way to dest which routers it was reached through.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

// dest is an IPv4 address of len bytes, 16 at least; the echo looks at its length only. The result is static,
// is overwritten by the next call of the same function, and carries a port only when it comes from the echo.
// Null after a log line, with ETIMEDOUT in errno when nobody answered in time. The settings are environment
// variables; docs/outside-address.md has them.
sockaddr_in *echo_gateway_addr(const sockaddr *dest, socklen_t len);
sockaddr_in *trace_gateway_addr(const sockaddr *dest, socklen_t len);
sockaddr_in *get_gateway_addr(const sockaddr *dest, socklen_t len); // the echo's, else the trace's

// What a probe comes to; only with PROBE_ANSWERED is anything written to out.
enum probe_result {
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
// probed) sends on towards dest. It is asked of the router behind it, in timeout_ms in all. A probe_result.
int probe_gateway(in_addr dest, int distance, long timeout_ms, in_addr *out);

// Its two halves: the router behind the one at distance, and entry index (from 0, which is the device's own)
// of the route that an echo to router records. Each takes the time it spent off budget. A probe_result.
int udp_ttl_probe(in_addr dest, int distance, timeval *budget, in_addr *out);
int icmp_rr_probe(in_addr router, int index, timeval *budget, in_addr *out);

// a - b, zero when b is the longer; a divided by n, as it is when n is below 1. Both in place.
void tv_sub(timeval *a, const timeval *b);
void tv_div(timeval *a, int n);
