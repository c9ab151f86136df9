// In network namespaces of its own: the device and three routers in a row. Link i joins node i, 10.0.i.1, to
// node i + 1, 10.0.i.2. Takes the right to make them: unshare --map-root-user --net PROGRAM.
#include "app/memory.h"
#include "net/gateway.h"
#include "net/icmp_message.h"
#include "tests/net/address.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <poll.h>

namespace {

using namespace std::literals;

int fail_at;                     // the call from here that fails
std::function<void(int)> server; // answers, and takes the place of waiting so long
std::string sent;                // "20001:1 " of the UDP probe of try 1, "e" of every ICMP probe
int last_echo = -1;              // the number that it carried; each is one more than the one before
const sockaddr *note(int fd, const void *data, const sockaddr *to)
{
    const int port = ntohs(reinterpret_cast<const sockaddr_in *>(to)->sin_port);
    const auto pid = static_cast<uint16_t>(getpid());
    std::array<uint8_t, 8> bytes = {};
    memcpy(bytes.data(), data, port == 0 ? 8 : 4);
    if (port >= 20000 && port < 20009 && ntohs(address(fd).in.sin_port) == (pid | 0x8000))
        sent += std::to_string(port) + ":" + std::to_string(bytes[0] + bytes[3]) + " ";
    if (port == 0 && bytes[0] == 8 && bytes[4] == pid >> 8 && bytes[5] == (pid & 255)) {
        const int before = std::exchange(last_echo, bytes[6] << 8 | bytes[7]);
        sent += before < 0 || last_echo == before + 1 ? "e" : "?";
    }
    return to;
}
// clang-format off
#define WRAP(result, name, parameters, instead) extern "C" result __real_##name parameters; \
    extern "C" result __wrap_##name parameters { return instead; }
#define FAILING(result, name, parameters, call) \
    WRAP(result, name, parameters, fail_at > 0 && --fail_at == 0 ? (errno = EIO, -1) : call)
FAILING(int, socket, (int family, int type, int protocol), __real_socket(family, type, protocol))
FAILING(int, bind, (int fd, const sockaddr *to, socklen_t len), __real_bind(fd, to, len))
FAILING(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t n),
    __real_setsockopt(fd, level, name, value, n))
FAILING(ssize_t, sendto, (int s, const void *d, size_t n, int f, const sockaddr *to, socklen_t l),
    __real_sendto(s, d, n, f, note(s, d, to), l))
FAILING(ssize_t, recvfrom, (int fd, void *data, size_t n, int f, sockaddr *from, socklen_t *len),
    __real_recvfrom(fd, data, n, f, from, len))
FAILING(int, poll, (pollfd *fds, nfds_t count, int ms), __real_poll(fds, count, server ? server(ms), 0 : ms))
// The time of day goes back by an hour at each look.
time_t set_back() { static time_t clock = 1000000; return clock -= 3600; }
WRAP(int, gettimeofday, (timeval *now, void *), (*now = {set_back(), 0}, 0))
WRAP(int, clock_gettime, (clockid_t id, timespec *now),
    id == CLOCK_MONOTONIC ? __real_clock_gettime(id, now) : (*now = {set_back(), 0}, 0))

struct gateway_test : testing::Test {
    static inline const ipv4_endpoint last = {{inet_addr("10.0.2.2")}, 0};
    static inline bool emulated; // by qemu, which does not pass IP_OPTIONS on
    in_addr out = {};
    int64_t took = 0; // ms, of the last outcome
    int reason = 0;   // errno, of the same

    static void set(const char *name, const char *value) { value ? setenv(name, value, 1) : unsetenv(name); }
    static int64_t now_ms() { return std::chrono::steady_clock::now().time_since_epoch() / 1ms; }
    static std::string routed(const char *text) { return emulated && text[0] == '1' ? "failed: 6" : text; }
    // What the scenario returns, or the code that it logs.
    std::string outcome(const std::function<const sockaddr_in *()> &scenario)
    {
        testing::internal::CaptureStderr();
        const int64_t begun = now_ms();
        const sockaddr_in *addr = scenario();
        reason = errno;
        took = now_ms() - begun;
        const std::string log = testing::internal::GetCapturedStderr();
        const size_t code = log.find("failed: ");
        return code != log.npos ? log.substr(code, log.find('\n', code) - code)
               : addr ? inet_ntoa(addr->sin_addr) + ":"s + std::to_string(ntohs(addr->sin_port))
               : log.find("echo server address is not correct.") != log.npos ? "incorrect" : "none";
    }
    // No kernel answers them; 127.0.0.2 sends us replies with a route, whomever we ask.
    void unanswered_echoes()
    {
        const ipv4_endpoint from({htonl(INADDR_LOOPBACK + 1)}, 0), to({htonl(INADDR_LOOPBACK)}, 0);
        std::ofstream("/proc/sys/net/ipv4/icmp_echo_ignore_all") << 1;
        sent.clear();
        last_echo = -1;
        outcome([&] { EXPECT_EQ(probe_gateway(to.in.sin_addr, 1, 400, &out), 20); return nullptr; });
        EXPECT_TRUE(sent == "20000:0 eee" && took >= 400 && took <= 1900) << sent << took;
        const unique_fd forger(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP));
        ASSERT_EQ(bind(forger.get(), from.get(), from.size()), 0);
        const std::span<const uint8_t> option = icmp_record_route;
        ASSERT_EQ(setsockopt(forger.get(), IPPROTO_IP, IP_OPTIONS, option.data(), option.size()), 0);
        icmp_echo_packet reply = icmp_build_echo(static_cast<uint16_t>(getpid()), 0);
        reply[0] = 0;
        server = [&](int) { sendto(forger.get(), reply.data(), reply.size(), 0, to.get(), to.size()); };
        for (const uint32_t other : {0, 1}) {
            timeval budget = {0, 90000};
            EXPECT_EQ(icmp_rr_probe({htonl(INADDR_LOOPBACK + 1 + other)}, 0, &budget, &out), other ? 20 : 0);
        }
        server = nullptr;
        std::ofstream("/proc/sys/net/ipv4/icmp_echo_ignore_all") << 0;
    }
    static void SetUpTestSuite()
    {
        for (int i = 3, next = -1; i >= 0; --i, next = open("/proc/self/ns/net", O_RDONLY)) {
            ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "see above";
            set("i", std::to_string(i).c_str());
            set("next", ("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(next)).c_str());
            ASSERT_EQ(0, system(R"(
                set -e; ip link set lo up; cd /proc/sys/net/ipv4; echo 1 >ip_forward; echo 0 >icmp_ratelimit
                [ $i != 1 ] || { ip route add blackhole 10.9.0.0/16; ip route add prohibit 10.7.0.0/16; }
                [ $i != 0 ] || ip route add unreachable 10.8.0.0/16
                [ $i != 3 ] || exit 0
                ip link add right type veth peer name left netns $next; ip addr add 10.0.$i.1/24 dev right
                nsenter --net=$next ip addr add 10.0.$i.2/24 dev left; nsenter --net=$next ip link set left up
                [ $i = 0 ] || nsenter --net=$next ip route add 10.0.0.0/24 via 10.0.$i.1
                ip link set right up; ip route add default via 10.0.$i.2)"));
        }
        const unique_fd raw(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP));
        emulated = setsockopt(raw.get(), IPPROTO_IP, IP_OPTIONS, "\1\1\1", 4) < 0 && errno == ENOPROTOOPT;
        timeval patience = {6, 0}; // until the links are up
        in_addr unused;
        ASSERT_EQ(udp_ttl_probe(last.in.sin_addr, 3, &patience, &unused), 0);
    }
};
// clang-format on

TEST_F(gateway_test, the_trace_finds_the_router_at_each_distance)
{
    const struct {
        const char *dest, *metric, *timeout, *expected;
        int least_ms = 0, most_ms = 2500;
        // clang-format off
    } cases[] = { // node 1 refuses 10.7.0.0/16; it tells nobody after it has told that a time is exceeded
        {"10.7.0.1", "0", "300", "failed: 20", 300, 1500}, {"10.9.0.1", "0", "300", "failed: 20", 300, 1500},
        {"10.0.2.2", nullptr, nullptr, "10.0.1.1:0"}, {"10.0.2.2", "1", "9999999999999999999", "10.0.2.1:0"},
        {"10.0.2.2", "2", "9000", "10.0.2.2:0"}, {"10.0.2.2", "-1", "9000", "10.0.0.1:0"},
        {"10.0.2.2", "-2", "9000", "failed: 3 unsent"},
        {"10.0.2.2", "-9999999999", "9000", "failed: 3 unsent"},
        {"10.0.2.2", "254", "9000", "failed: 20 unsent"},
        {"10.0.2.2", "9999999999", "9000", "failed: 20 unsent"},
        {"10.8.0.1", "0", "9000", "failed: 4"}, {"10.9.0.1", "8", "9000", "failed: 20 unsent"},
        {"10.9.0.1", "7", "90", "failed: 20"},
        {"10.9.0.1", "0", "soon", "failed: 20"}, {"10.9.0.1", "0", "-9999999999999999999", "failed: 20"}};
    // clang-format on
    signal(SIGALRM, [](int) {});
    ualarm(7000, 7000); // into every wait
    for (const auto &row : cases) {
        set("GATE_METRIC", row.metric);
        set("GATE_TIMEOUT", row.timeout);
        const ipv4_endpoint dest({inet_addr(row.dest)}, 0);
        sent.clear();
        std::string got = outcome([&] { return errno = 0, trace_gateway_addr(dest.get(), 16); });
        EXPECT_EQ(got.starts_with("failed: 20"), reason == ETIMEDOUT) << reason;
        EXPECT_EQ(got += sent.empty() ? " unsent" : "", routed(row.expected));
        EXPECT_TRUE(took >= row.least_ms && took <= row.most_ms) << took << row.dest << row.metric;
    }
    ualarm(0, 0);
    const sockaddr local = {AF_UNIX, {}};
    EXPECT_EQ(outcome([&] { return trace_gateway_addr(&local, 16); }), "none");
    EXPECT_EQ(outcome([] { return echo_gateway_addr(last.get(), 15); }), "none");
}

TEST_F(gateway_test, every_call_that_fails_has_its_code)
{
    std::string codes;
    const int free_fd = dup(0);
    for (fail_at = 1; fail_at <= 13; fail_at = static_cast<int>(codes.size() / 2) + 1)
        codes += static_cast<char>('0' + probe_gateway(last.in.sin_addr, 1, 300, &out)) + " "s;
    EXPECT_EQ(codes, emulated ? "1 2 3 5 4 8 8 5 6 6 6 6 6 " : "1 2 3 5 4 8 8 5 6 7 8 8 0 ");
    fail_at = 0;
    EXPECT_EQ(dup(0), free_fd + 1);
    set("ECHOSVR_ADDR", "255.255.255.255");
    set("GATE_METRIC", nullptr);
    set("GATE_TIMEOUT", nullptr);
    EXPECT_EQ(outcome([] { return get_gateway_addr(last.get(), last.size()); }), routed("10.0.1.1:0"));
}

TEST_F(gateway_test, the_budget_holds_whatever_happens)
{
    const unique_fd raw(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP));
    const ipv4_endpoint own({htonl(INADDR_LOOPBACK)}, 0);
    int longest = 0;
    server = [&, end = now_ms() + 2000](int ms) { // there is always another packet
        longest = std::max(longest, ms);
        EXPECT_TRUE(now_ms() > end || sendto(raw.get(), &own, sizeof own, 0, own.get(), own.size()) > 0);
    };
    sent.clear();
    timeval budget = {0, 400000};
    const in_addr silent = {inet_addr("10.9.0.1")};
    EXPECT_EQ(outcome([&] { return udp_ttl_probe(silent, 1, &budget, &out) == 20 ? &last.in : nullptr; }),
              "10.0.2.2:0");
    EXPECT_TRUE(took >= 400 && took <= 1900 && !timerisset(&budget)) << took;
    server = nullptr;
    EXPECT_EQ(sent, "20000:0 20001:1 20002:2 ");
    EXPECT_LE(longest, 134) << "a third";
    budget = {-1, 0};
    EXPECT_EQ(udp_ttl_probe(silent, 1, &budget, &out), 20) << "at once";
    if (!emulated)
        unanswered_echoes();
    timeval time = {3, 200000}, less = {1, 300000};
    tv_sub(&time, &less);
    tv_div(&time, 0);
    tv_div(&time, 2);
    EXPECT_EQ(time.tv_sec * 1000000 + time.tv_usec, 950000);
}

TEST_F(gateway_test, the_echo_asks_until_it_is_answered)
{
    const std::string good = "ECHOGWADDRRP\12\1\2\3\x12\x34", wrong = "ECHOGWADDRRQ\12\1\2\3\x12\x34";
    const std::string wide = "127.0.0.1" + std::string(115, ' ');
    const struct {
        const char *server, *second;
        std::vector<std::string> replies; // to each request, "-" for none; F: from elsewhere
        std::string expected;             // the result, requests that came, milliseconds of waiting
        // clang-format off
    } cases[] = {
        {"127.0.0.1", nullptr, {good}, "10.1.2.3:4660 1 250"},
        {"127.0.0.1:54210", "x", {good + "more"}, "10.1.2.3:4660 1 250"},
        {"127.0.0.1", "x", {"-", "-", "-", "-", "-", "-", "-", good}, "10.1.2.3:4660 8 2000"},
        {"", "127.0.0.1", {wrong, good}, "10.1.2.3:4660 2 500"},
        {"127.0.0.1", "", {"F" + good, good}, "10.1.2.3:4660 2 500"},
        {nullptr, "127.0.0.1", {good.substr(0, 17), "", good}, "10.1.2.3:4660 3 750"},
        {"127.0.0.1", "", std::vector(9, wrong), "none 8 2000"},
        {"127.0.0.1:54211", "127.0.0.1", {}, "none 0 2000"},
        {nullptr, "", {}, "none 0 2000"}, {"255.255.255.255", "127.0.0.1", {}, "none 0 0"},
        {"localhost", "127.0.0.1", {}, "incorrect 0 0"}, {wide.c_str(), "127.0.0.1", {}, "incorrect 0 0"}};
    // clang-format on
    ipv4_endpoint here({htonl(INADDR_LOOPBACK)}, 54210);
    const unique_fd usual(socket(AF_INET, SOCK_DGRAM, 0)), other(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(bind(usual.get(), here.get(), here.size()), 0);
    for (const auto &row : cases) {
        size_t asked = 0;
        int waited = 0;
        server = [&](int timeout) {
            char request[13] = "";
            socklen_t len = here.size();
            waited += timeout;
            if (recvfrom(usual.get(), request, sizeof request, MSG_DONTWAIT, here.get(), &len) < 0)
                return;
            const std::string &reply = request == "ECHOGWADDRRQ"s ? row.replies.at(asked++) : "-";
            const int from = (reply[0] == 'F' ? other : usual).get(), head = reply[0] == 'F';
            if (reply != "-")
                sendto(from, &reply[head], reply.size() - head, 0, here.get(), len);
        };
        set("ECHOSVR_ADDR", row.server);
        set("GKADDR", row.second);
        sockaddr_in *(*const get)(const sockaddr *, socklen_t) =
            row.expected[0] == '1' ? get_gateway_addr : echo_gateway_addr;
        const std::string got = outcome([&] { return errno = 0, get(last.get(), 16); });
        EXPECT_EQ(got == "none" && waited > 0, reason == ETIMEDOUT) << reason;
        EXPECT_EQ(got + " " + std::to_string(asked) + " " + std::to_string(waited), row.expected);
    }
    server = nullptr;
}

TEST(icmp_message, believes_what_lies_inside_the_packet)
{
    // clang-format off
    const std::string header = "E\0\0\x38\0\0\0\0\x40\1\0\0\12\0\1\2\12\0\0\1"s;
    const std::string dgram = "\x92\x34N!\0\14\0\0"s;
    const std::string expired =
        header + "\13\0\0\0\0\0\0\0"s + header.substr(0, 9) + "\21" + header.substr(10) + dgram;
    const std::string route =
        "I" + header.substr(1) + "\1\1\7\13\14\1\2\3\4\5\6\7\10\0\0\0\0\0\0\0\x12\x34\0\1"s;
    const std::tuple<std::string, size_t, std::string> lies[] = { // what the byte there is changed to
        {expired, 0, "DOe"}, {expired, 20, "\3\14"}, {expired, 21, "\1"},
        {expired, 28, "DFe"}, {expired, 37, "\6"},
        {expired, 48, "\0"s}, {expired, 49, "\0"s}, {expired, 50, "\0"s}, {expired, 51, "\0"s},
        {route, 0, "EDOi"}, {route, 22, "\0\104"s}, {route, 23, "\0\2\12\17\377"s}, {route, 24, "\0\3\4\13"s},
        {route, 36, "\10"}, {route, 40, "\x13"}};
    // clang-format on
    std::array<uint8_t, 4> address = {};
    const auto believed = [&](const std::string &text, int entry = 1) {
        const std::vector<uint8_t> packet(text.begin(), text.end());
        return icmp_returns_datagram(packet, 0x9234, 20001) ||
               icmp_find_route_entry(packet, 0x1234, entry, address);
    };
    EXPECT_FALSE(believed(expired.substr(header.size()))) << "without a header of its own";
    for (const std::string &packet : {expired, route})
        for (size_t length = 0; length <= packet.size(); ++length)
            EXPECT_EQ(believed(packet.substr(0, length)), length == packet.size()) << length;
    EXPECT_EQ(address, (std::array<uint8_t, 4>{5, 6, 7, 8}));
    EXPECT_TRUE(believed(route, 0) && !believed(route, 2) && !believed(route, -1));
    for (const auto &[packet, at, bytes] : lies)
        for (const char to : bytes)
            EXPECT_FALSE(believed(std::string(packet).replace(at, 1, 1, to))) << at << "=" << int(to);
    EXPECT_FALSE(believed(std::string(route).replace(24, 1, "\377"), 2));
}

} // namespace
