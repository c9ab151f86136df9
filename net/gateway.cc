#include "net/gateway.h"

#include "app/clock.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "net/icmp_message.h"
#include "net/net.h"
#include "net/sockaddr.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <poll.h>

namespace {

constexpr char log_module[] = "net";
constexpr char default_server[] = LUMD_ECHO_SERVER;
constexpr char echo_port[] = ":54210";
constexpr size_t max_server_text = 128;
constexpr std::string_view echo_request = "ECHOGWADDRRQ", echo_reply = "ECHOGWADDRRP";
constexpr size_t echo_reply_size = 18, max_echo_reply = 20;
constexpr size_t echo_address_at = 12, echo_port_at = 16;
constexpr int echo_tries = 8;
constexpr timeval echo_wait = {0, 250000};

constexpr long default_budget_ms = 3000;
constexpr long max_metric = 255; // no packet makes more hops
constexpr int max_distance = 8;
constexpr int probe_tries = 3;
constexpr uint16_t probe_port = 20000, own_port_mark = 0x8000;
constexpr int max_ttl = 256; // refused by the kernel, as 0 is
constexpr size_t max_packet = 1500;

using bytes = std::span<const uint8_t>;

// ---- time ---------------------------------------------------------------------------------------------

// Counts in whole microseconds, so that many short laps do not add up to nothing.
class stopwatch {
  public:
    timeval lap()
    {
        const int64_t before = std::exchange(last_us_, monotonic_us());
        timeval spent = {};
        spent.tv_sec = static_cast<time_t>((last_us_ - before) / 1000000);
        spent.tv_usec = static_cast<suseconds_t>((last_us_ - before) % 1000000);
        return spent;
    }

  private:
    int64_t last_us_ = monotonic_us();
};

// For poll, rounded up so that it does not return just before the time is over.
int whole_ms(const timeval &time)
{
    if (time.tv_sec < 0)
        return 0;
    if (time.tv_sec >= INT_MAX / 1000)
        return INT_MAX;
    return static_cast<int>(time.tv_sec * 1000 + (time.tv_usec + 999) / 1000);
}

// Polls one socket for at most the time left, and takes the time spent off it. Signals do not end the wait.
int wait_readable(int fd, stopwatch &watch, timeval *left)
{
    for (;;) {
        pollfd entry = {fd, POLLIN, 0};
        const int ready = poll(&entry, 1, whole_ms(*left));
        if (ready < 0 && errno != EINTR)
            return ready;
        const timeval spent = watch.lap();
        tv_sub(left, &spent);
        if (ready >= 0 || !timerisset(left))
            return std::max(ready, 0);
    }
}

// ---- echo ---------------------------------------------------------------------------------------------

const char *server_setting()
{
    for (const char *name : {"ECHOSVR_ADDR", "GKADDR"}) {
        const char *value = getenv(name);
        if (value && *value)
            return value;
    }
    return default_server;
}

// Writes the setting into text, with a port, and parses it. False when it is no address.
bool read_echo_server(std::span<char> text, ipv4_endpoint &server)
{
    const std::string_view setting = server_setting();
    const bool has_port = setting.find(':') != setting.npos;
    const socklen_t length = server.size();
    return copy_text(text, setting) && (has_port || copy_text(text.subspan(setting.size()), echo_port)) &&
           sockaddr_parse(text.data(), server.get(), &length) == 0;
}

enum class echo_outcome {
    ANSWERED,
    LATE,       // nothing came in time
    FOREIGN,    // a datagram that is no reply of the server
    UNREADABLE, // the kernel dropped the datagram for a wrong checksum
    FAILED      // a system call
};

struct echo_datagram {
    char bytes[max_echo_reply];
    size_t length;
    ipv4_endpoint from;
};

// Anybody may send to our port, so the sender is checked.
echo_outcome receive_echo(int fd, const ipv4_endpoint &server, echo_datagram &got)
{
    socklen_t from_length = got.from.size();
    const ssize_t length =
        recvfrom(fd, got.bytes, sizeof got.bytes, MSG_DONTWAIT, got.from.get(), &from_length);
    if (length < 0)
        return errno == EAGAIN ? echo_outcome::UNREADABLE : echo_outcome::FAILED;
    got.length = static_cast<size_t>(length);
    const bool is_reply = sockaddr_cmp(got.from.get(), server.get()) == 0 && got.length >= echo_reply_size &&
                          std::string_view(got.bytes, got.length).starts_with(echo_reply);
    return is_reply ? echo_outcome::ANSWERED : echo_outcome::FOREIGN;
}

echo_outcome ask_echo(int fd, const ipv4_endpoint &server, echo_datagram &got)
{
    if (sendto(fd, echo_request.data(), echo_request.size(), 0, server.get(), server.size()) < 0)
        return echo_outcome::FAILED;
    stopwatch watch;
    timeval left = echo_wait;
    const int ready = wait_readable(fd, watch, &left);
    if (ready > 0)
        return receive_echo(fd, server, got);
    return ready == 0 ? echo_outcome::LATE : echo_outcome::FAILED;
}

// Address and port stay in network byte order.
sockaddr_in read_echo(const echo_datagram &reply)
{
    ipv4_endpoint result;
    memcpy(&result.in.sin_addr, reply.bytes + echo_address_at, sizeof result.in.sin_addr);
    memcpy(&result.in.sin_port, reply.bytes + echo_port_at, sizeof result.in.sin_port);
    return result.in;
}

// ---- trace --------------------------------------------------------------------------------------------

long number_setting(const char *name, long otherwise)
{
    const char *value = getenv(name);
    return value ? strtol(value, nullptr, 10) : otherwise;
}

uint16_t probe_id()
{
    return static_cast<uint16_t>(getpid());
}

unique_fd raw_icmp_socket()
{
    return unique_fd(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
}

bool is_failed_call(probe_result result)
{
    return result != PROBE_ANSWERED && result != PROBE_NO_ANSWER;
}

// Takes packets until is_answer(packet, sender) accepts one or the time is over. A flood of other packets
// does not prolong the wait: after its end, at most one more packet is read.
template <typename Test>
probe_result receive_answer(int fd, timeval left, Test is_answer)
{
    stopwatch watch;
    for (bool at_end = false; !at_end;) {
        at_end = !timerisset(&left);
        const int ready = wait_readable(fd, watch, &left);
        if (ready == 0)
            return PROBE_NO_ANSWER;
        uint8_t packet[max_packet];
        ipv4_endpoint from;
        socklen_t from_length = from.size();
        const ssize_t length =
            ready < 0 ? ready : recvfrom(fd, packet, sizeof packet, MSG_DONTWAIT, from.get(), &from_length);
        if (length < 0 && errno != EAGAIN)
            return PROBE_NOT_RECEIVED;
        if (length > 0 && is_answer(bytes(packet, static_cast<size_t>(length)), from.in.sin_addr))
            return PROBE_ANSWERED;
    }
    return PROBE_NO_ANSWER;
}

// One try gets its share of the budget, which the tries left divide equally, and pays for the time it took.
template <typename Test>
probe_result try_for_answer(int fd, int tries_left, timeval *budget, Test is_answer)
{
    stopwatch watch;
    timeval share = *budget;
    if (share.tv_sec < 0)
        timerclear(&share);
    tv_div(&share, tries_left);
    const probe_result result = receive_answer(fd, share, is_answer);
    const timeval spent = watch.lap();
    tv_sub(budget, &spent);
    return result;
}

// The two probes leave the reason for a failed call in errno.
probe_result probe_by_ttl(in_addr dest, int distance, timeval *budget, in_addr *out)
{
    const unique_fd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!udp)
        return PROBE_NO_UDP_SOCKET;
    const uint16_t own_port = probe_id() | own_port_mark;
    const ipv4_endpoint own({INADDR_ANY}, own_port);
    if (bind(udp.get(), own.get(), own.size()) < 0)
        return PROBE_NOT_BOUND;
    const int ttl = std::clamp(distance, -1, max_ttl - 1) + 1;
    if (setsockopt(udp.get(), IPPROTO_IP, IP_TTL, &ttl, sizeof ttl) < 0)
        return PROBE_NO_TTL;
    const unique_fd icmp = raw_icmp_socket();
    if (!icmp)
        return PROBE_NO_RAW_SOCKET;

    probe_result result = PROBE_NO_ANSWER;
    for (int i = 0; i < probe_tries && result == PROBE_NO_ANSWER; ++i) {
        const auto port = static_cast<uint16_t>(probe_port + i);
        const auto payload = static_cast<uint32_t>(i);
        const ipv4_endpoint to(dest, port);
        if (sendto(udp.get(), &payload, sizeof payload, 0, to.get(), to.size()) < 0)
            return PROBE_UDP_NOT_SENT;
        result = try_for_answer(icmp.get(), probe_tries - i, budget, [&](bytes packet, in_addr from) {
            if (!icmp_returns_datagram(packet, own_port, port))
                return false;
            *out = from;
            return true;
        });
    }
    return result;
}

probe_result probe_by_record_route(in_addr router, int index, timeval *budget, in_addr *out)
{
    static uint16_t sequence;
    const unique_fd icmp = raw_icmp_socket();
    if (!icmp)
        return PROBE_NO_RAW_SOCKET;
    constexpr bytes option = icmp_record_route;
    if (setsockopt(icmp.get(), IPPROTO_IP, IP_OPTIONS, option.data(), option.size()) < 0)
        return PROBE_NO_RECORD_ROUTE;

    const ipv4_endpoint to(router, 0);
    probe_result result = PROBE_NO_ANSWER;
    for (int i = 0; i < probe_tries && result == PROBE_NO_ANSWER; ++i) {
        const icmp_echo_packet echo = icmp_build_echo(probe_id(), sequence++);
        if (sendto(icmp.get(), echo.data(), echo.size(), 0, to.get(), to.size()) < 0)
            return PROBE_ICMP_NOT_SENT;
        result = try_for_answer(icmp.get(), probe_tries - i, budget, [&](bytes packet, in_addr from) {
            std::array<uint8_t, 4> address;
            if (from.s_addr != router.s_addr || !icmp_find_route_entry(packet, probe_id(), index, address))
                return false;
            memcpy(out, address.data(), address.size());
            return true;
        });
    }
    return result;
}

} // namespace

void tv_sub(timeval *a, const timeval *b)
{
    if (timercmp(a, b, <))
        timerclear(a);
    else
        timersub(a, b, a);
}

void tv_div(timeval *a, int n)
{
    if (n < 1)
        return;
    const int64_t rest_us = int64_t{a->tv_sec % n} * 1000000 + a->tv_usec;
    a->tv_sec /= n;
    a->tv_usec = static_cast<suseconds_t>(rest_us / n);
}

probe_result udp_ttl_probe(in_addr dest, int distance, timeval *budget, in_addr *out)
{
    const probe_result result = probe_by_ttl(dest, distance, budget, out);
    if (is_failed_call(result))
        log_syserror(LOG_HERE);
    return result;
}

probe_result icmp_rr_probe(in_addr router, int index, timeval *budget, in_addr *out)
{
    const probe_result result = probe_by_record_route(router, index, budget, out);
    if (is_failed_call(result))
        log_syserror(LOG_HERE);
    return result;
}

probe_result probe_gateway(in_addr dest, int distance, long timeout_ms, in_addr *out)
{
    const long ms = std::clamp(timeout_ms, 0L, static_cast<long>(INT_MAX));
    timeval budget = {};
    budget.tv_sec = ms / 1000;
    budget.tv_usec = ms % 1000 * 1000;
    in_addr router = {};
    probe_result result = PROBE_NO_ANSWER;
    for (int d = distance; d <= max_distance && result == PROBE_NO_ANSWER; ++d)
        result = udp_ttl_probe(dest, d, &budget, &router);
    return result != PROBE_ANSWERED ? result : icmp_rr_probe(router, distance, &budget, out);
}

sockaddr_in *echo_gateway_addr(const sockaddr *, socklen_t len)
{
    static sockaddr_in result;
    if (len < sizeof result) {
        log_failed(LOG_HERE);
        return nullptr;
    }
    result = {};
    ipv4_endpoint server;
    char text[max_server_text];
    if (!read_echo_server(text, server)) {
        log_trace(LOG_HERE, "echo server address is not correct.");
        return nullptr;
    }
    log_trace(LOG_HERE, "Echo addr: %s\n", text);
    ipv4_endpoint any;
    const unique_fd sock(udp_bind(-1, any.get(), any.size()));
    if (!sock) {
        log_syserror(LOG_HERE);
        return nullptr;
    }
    for (int i = 0; i < echo_tries; ++i) {
        echo_datagram got;
        switch (ask_echo(sock.get(), server, got)) {
        case echo_outcome::ANSWERED:
            result = read_echo(got);
            return &result;
        case echo_outcome::LATE:
            log_failed(LOG_HERE);
            break;
        case echo_outcome::FOREIGN:
            log_trace(LOG_HERE, "ignored %d bytes from %s", static_cast<int>(got.length),
                      sockaddr_ntop(got.from.get(), got.from.size()));
            break;
        case echo_outcome::UNREADABLE:
            log_syserror(LOG_HERE);
            break;
        case echo_outcome::FAILED:
            log_syserror(LOG_HERE);
            return nullptr;
        }
    }
    errno = ETIMEDOUT;
    return nullptr;
}

sockaddr_in *trace_gateway_addr(const sockaddr *dest, socklen_t len)
{
    static sockaddr_in result;
    if (!is_valid_addr(dest, len)) {
        log_failed(LOG_HERE);
        return nullptr;
    }
    result = {};
    const long metric = std::clamp(number_setting("GATE_METRIC", 0), -max_metric, max_metric);
    const long budget_ms = number_setting("GATE_TIMEOUT", default_budget_ms);
    in_addr router = {};
    const probe_result outcome =
        probe_gateway(as_ipv4(dest).sin_addr, static_cast<int>(metric) + 1, budget_ms, &router);
    if (outcome != PROBE_ANSWERED) {
        log_trace(LOG_HERE, "failed: %d", outcome);
        if (outcome == PROBE_NO_ANSWER)
            errno = ETIMEDOUT;
        return nullptr;
    }
    const ipv4_endpoint found(router, 0);
    log_trace(LOG_HERE, "%s", sockaddr_ntop(found.get(), found.size()));
    result = found.in;
    return &result;
}

sockaddr_in *get_gateway_addr(const sockaddr *dest, socklen_t len)
{
    sockaddr_in *echo = echo_gateway_addr(dest, len);
    return echo ? echo : trace_gateway_addr(dest, len);
}
