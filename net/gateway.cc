#include "net/gateway.h"

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
#include <ctime>
#include <poll.h>

namespace {

constexpr char log_module[] = "net";
constexpr char default_server[] = LUMD_ECHO_SERVER;
constexpr char echo_port[] = ":54210";
constexpr size_t server_text_max = 128;
constexpr std::string_view echo_request = "ECHOGWADDRRQ", echo_reply = "ECHOGWADDRRP";
constexpr size_t echo_reply_size = 18, echo_reply_max = 20;
constexpr size_t echo_address_at = 12, echo_port_at = 16;
constexpr int echo_tries = 8;
constexpr timeval echo_wait = {0, 250000};

constexpr long default_budget_ms = 3000;
constexpr long metric_limit = 255; // of hops no packet has more
constexpr int furthest_distance = 8;
constexpr int probe_tries = 3;
constexpr uint16_t probe_port = 20000, own_port_mark = 0x8000;
constexpr int ttl_limit = 256; // as 0, refused by the kernel
constexpr size_t packet_max = 1500;

using bytes = std::span<const uint8_t>;

sockaddr_in ipv4_address(in_addr address, uint16_t port)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr = address;
    return result;
}

// ---- time ---------------------------------------------------------------------------------------------

// The time that passes, however the clock of the day is set meanwhile. Cut to microseconds as a whole and not
// lap by lap, or many short laps would take no time.
class stopwatch {
  public:
    timeval lap()
    {
        const int64_t before = std::exchange(last_us_, now_us());
        timeval spent = {};
        spent.tv_sec = static_cast<time_t>((last_us_ - before) / 1000000);
        spent.tv_usec = static_cast<suseconds_t>((last_us_ - before) % 1000000);
        return spent;
    }

  private:
    static int64_t now_us()
    {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
    }
    int64_t last_us_ = now_us();
};

// For poll, rounded up so that it never returns just before the time is over.
int whole_ms(const timeval &time)
{
    if (time.tv_sec < 0)
        return 0;
    if (time.tv_sec >= INT_MAX / 1000)
        return INT_MAX;
    return static_cast<int>(time.tv_sec * 1000 + (time.tv_usec + 999) / 1000);
}

// As poll, for one socket and no longer than left, which the watch's time is taken off. Signals do not end
// it.
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

bool echo_server(sockaddr_in *server, const char *func)
{
    char text[server_text_max];
    const std::string_view setting = server_setting();
    const bool has_port = setting.find(':') != setting.npos;
    const socklen_t length = sizeof *server;
    const std::span<char> room(text);
    if (!copy_text(room, setting) || (!has_port && !copy_text(room.subspan(setting.size()), echo_port)) ||
        sockaddr_parse(text, reinterpret_cast<sockaddr *>(server), &length) < 0) {
        log_trace(LOG_AS(func), "echo server address is not correct.");
        return false;
    }
    log_trace(LOG_AS(func), "Echo addr: %s\n", text);
    return true;
}

enum class echo_outcome { ANSWERED, NOTHING, FAILED };

// Anybody may send to the port that was asked from.
echo_outcome receive_echo(int fd, const sockaddr_in &server, sockaddr_in *result, const char *func)
{
    char reply[echo_reply_max];
    sockaddr_in from = {};
    socklen_t from_length = sizeof from;
    const ssize_t length =
        recvfrom(fd, reply, sizeof reply, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &from_length);
    if (length < 0) {
        log_syserror(LOG_AS(func));
        return errno == EAGAIN ? echo_outcome::NOTHING : echo_outcome::FAILED; // its checksum was wrong
    }
    const std::string_view text(reply, static_cast<size_t>(length));
    if (sockaddr_cmp(generic(from), generic(server)) != 0 || text.size() < echo_reply_size ||
        !text.starts_with(echo_reply)) {
        log_trace(LOG_AS(func), "ignored %d bytes from %s", static_cast<int>(length),
                  sockaddr_ntop(generic(from), from_length));
        return echo_outcome::NOTHING;
    }
    *result = {};
    result->sin_family = AF_INET;
    memcpy(&result->sin_addr, reply + echo_address_at, sizeof result->sin_addr);
    memcpy(&result->sin_port, reply + echo_port_at, sizeof result->sin_port);
    return echo_outcome::ANSWERED;
}

echo_outcome ask_echo(int fd, const sockaddr_in &server, sockaddr_in *result, const char *func)
{
    if (sendto(fd, echo_request.data(), echo_request.size(), 0, generic(server), sizeof server) < 0) {
        log_syserror(LOG_AS(func));
        return echo_outcome::FAILED;
    }
    stopwatch watch;
    timeval left = echo_wait;
    const int ready = wait_readable(fd, watch, &left);
    if (ready < 0) {
        log_syserror(LOG_AS(func));
        return echo_outcome::FAILED;
    }
    if (ready == 0) {
        log_failed(LOG_AS(func));
        return echo_outcome::NOTHING;
    }
    return receive_echo(fd, server, result, func);
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

int failed_system_call(const char *func, probe_result result)
{
    log_syserror(LOG_AS(func));
    return result;
}

// Takes packets until is_answer(packet, sender) finds what it waits for, or the time is over. Packets of
// others, however many, do not make it longer: at its end one that is there is still looked at, but only one.
template <typename Test>
int receive_answer(int fd, timeval left, const char *func, Test is_answer)
{
    stopwatch watch;
    for (bool at_end = false; !at_end;) {
        at_end = !timerisset(&left);
        const int ready = wait_readable(fd, watch, &left);
        if (ready == 0)
            return PROBE_NO_ANSWER;
        uint8_t packet[packet_max];
        sockaddr_in from = {};
        socklen_t from_length = sizeof from;
        const ssize_t length = ready < 0 ? ready
                                         : recvfrom(fd, packet, sizeof packet, MSG_DONTWAIT,
                                                    reinterpret_cast<sockaddr *>(&from), &from_length);
        if (length < 0 && errno != EAGAIN)
            return failed_system_call(func, PROBE_NOT_RECEIVED);
        if (length > 0 && is_answer(bytes(packet, static_cast<size_t>(length)), from.sin_addr))
            return PROBE_ANSWERED;
    }
    return PROBE_NO_ANSWER;
}

// One of so many tries that are left: it gets its share of the budget and pays what it took.
template <typename Test>
int try_for_answer(int fd, int tries_left, timeval *budget, const char *func, Test is_answer)
{
    stopwatch watch;
    timeval share = *budget;
    if (share.tv_sec < 0)
        timerclear(&share);
    tv_div(&share, tries_left);
    const int result = receive_answer(fd, share, func, is_answer);
    const timeval spent = watch.lap();
    tv_sub(budget, &spent);
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

int udp_ttl_probe(in_addr dest, int distance, timeval *budget, in_addr *out)
{
    const unique_fd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!udp)
        return failed_system_call(__func__, PROBE_NO_UDP_SOCKET);
    const uint16_t own_port = probe_id() | own_port_mark;
    const sockaddr_in own = ipv4_address({INADDR_ANY}, own_port);
    if (bind(udp.get(), generic(own), sizeof own) < 0)
        return failed_system_call(__func__, PROBE_NOT_BOUND);
    const int ttl = std::clamp(distance, -1, ttl_limit - 1) + 1;
    if (setsockopt(udp.get(), IPPROTO_IP, IP_TTL, &ttl, sizeof ttl) < 0)
        return failed_system_call(__func__, PROBE_NO_TTL);
    const unique_fd icmp = raw_icmp_socket();
    if (!icmp)
        return failed_system_call(__func__, PROBE_NO_RAW_SOCKET);

    int result = PROBE_NO_ANSWER;
    for (int i = 0; i < probe_tries && result == PROBE_NO_ANSWER; ++i) {
        const auto port = static_cast<uint16_t>(probe_port + i);
        const auto payload = static_cast<uint32_t>(i);
        const sockaddr_in to = ipv4_address(dest, port);
        if (sendto(udp.get(), &payload, sizeof payload, 0, generic(to), sizeof to) < 0)
            return failed_system_call(__func__, PROBE_UDP_NOT_SENT);
        result =
            try_for_answer(icmp.get(), probe_tries - i, budget, __func__, [&](bytes packet, in_addr from) {
                if (!icmp_returns_datagram(packet, own_port, port))
                    return false;
                *out = from;
                return true;
            });
    }
    return result;
}

int icmp_rr_probe(in_addr router, int index, timeval *budget, in_addr *out)
{
    static uint16_t sequence;
    const unique_fd icmp = raw_icmp_socket();
    if (!icmp)
        return failed_system_call(__func__, PROBE_NO_RAW_SOCKET);
    if (setsockopt(icmp.get(), IPPROTO_IP, IP_OPTIONS, icmp_record_route.data(), icmp_record_route.size()) <
        0)
        return failed_system_call(__func__, PROBE_NO_RECORD_ROUTE);

    const sockaddr_in to = ipv4_address(router, 0);
    int result = PROBE_NO_ANSWER;
    for (int i = 0; i < probe_tries && result == PROBE_NO_ANSWER; ++i) {
        const icmp_echo_packet echo = icmp_build_echo(probe_id(), sequence++);
        if (sendto(icmp.get(), echo.data(), echo.size(), 0, generic(to), sizeof to) < 0)
            return failed_system_call(__func__, PROBE_ICMP_NOT_SENT);
        result =
            try_for_answer(icmp.get(), probe_tries - i, budget, __func__, [&](bytes packet, in_addr from) {
                std::array<uint8_t, 4> address;
                if (from.s_addr != router.s_addr ||
                    !icmp_find_route_entry(packet, probe_id(), index, address))
                    return false;
                memcpy(out, address.data(), address.size());
                return true;
            });
    }
    return result;
}

int probe_gateway(in_addr dest, int distance, long timeout_ms, in_addr *out)
{
    const long ms = std::clamp(timeout_ms, 0L, static_cast<long>(INT_MAX));
    timeval budget = {};
    budget.tv_sec = ms / 1000;
    budget.tv_usec = ms % 1000 * 1000;
    in_addr router = {};
    int result = PROBE_NO_ANSWER;
    for (int d = distance; d <= furthest_distance && result == PROBE_NO_ANSWER; ++d)
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
    sockaddr_in server;
    if (!echo_server(&server, __func__))
        return nullptr;
    sockaddr_in any = ipv4_address({INADDR_ANY}, 0);
    const unique_fd sock(udp_bind(-1, reinterpret_cast<sockaddr *>(&any), sizeof any));
    if (!sock) {
        log_syserror(LOG_HERE);
        return nullptr;
    }
    echo_outcome outcome = echo_outcome::NOTHING;
    for (int i = 0; i < echo_tries && outcome == echo_outcome::NOTHING; ++i)
        outcome = ask_echo(sock.get(), server, &result, __func__);
    if (outcome == echo_outcome::NOTHING)
        errno = ETIMEDOUT;
    return outcome == echo_outcome::ANSWERED ? &result : nullptr;
}

sockaddr_in *trace_gateway_addr(const sockaddr *dest, socklen_t len)
{
    static sockaddr_in result;
    if (!is_valid_addr(dest, len)) {
        log_failed(LOG_HERE);
        return nullptr;
    }
    result = {};
    const long metric = std::clamp(number_setting("GATE_METRIC", 0), -metric_limit, metric_limit);
    const long budget_ms = number_setting("GATE_TIMEOUT", default_budget_ms);
    in_addr router = {};
    const int failure = probe_gateway(reinterpret_cast<const sockaddr_in *>(dest)->sin_addr,
                                      static_cast<int>(metric) + 1, budget_ms, &router);
    if (failure != PROBE_ANSWERED) {
        const int reason = failure == PROBE_NO_ANSWER ? ETIMEDOUT : errno;
        log_trace(LOG_HERE, "failed: %d", failure);
        errno = reason;
        return nullptr;
    }
    result = ipv4_address(router, 0);
    log_trace(LOG_HERE, "%s", sockaddr_ntop(generic(result), sizeof result));
    return &result;
}

sockaddr_in *get_gateway_addr(const sockaddr *dest, socklen_t len)
{
    sockaddr_in *echo = echo_gateway_addr(dest, len);
    return echo ? echo : trace_gateway_addr(dest, len);
}
