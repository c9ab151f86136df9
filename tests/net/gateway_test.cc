// In network namespaces of its own: the device and three routers in a row. Link i joins node i, 10.0.i.1, to
// node i + 1, 10.0.i.2. Takes the right to make them: unshare --map-root-user --net PROGRAM.
#include "app/memory.h"
#include "net/gateway.h"
#include "net/icmp_message.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <linux/capability.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

using namespace std::literals;

int fail_at;                     // the call from here that fails
std::function<void(int)> server; // answers, and takes the place of waiting so long
// clang-format off
#define WRAP(result, name, parameters, instead) \
    extern "C" result __real_##name parameters; \
    extern "C" result __wrap_##name parameters { return instead; }
#define FAILING(result, name, parameters, call) WRAP(result, name, parameters, fail_at > 0 && --fail_at == 0 ? (errno = EIO, -1) : call)
FAILING(int, socket, (int family, int type, int protocol), __real_socket(family, type, protocol))
FAILING(int, bind, (int fd, const sockaddr *to, socklen_t len), __real_bind(fd, to, len))
FAILING(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t len), __real_setsockopt(fd, level, name, value, len))
FAILING(ssize_t, sendto, (int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t len),
        __real_sendto(fd, data, size, flags, to, len))
FAILING(ssize_t, recvfrom, (int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *len),
        __real_recvfrom(fd, data, size, flags, from, len))
FAILING(int, poll, (pollfd *fds, nfds_t count, int ms), __real_poll(fds, count, server ? server(ms), 0 : ms))
// Whoever looks at the time of day finds it set back by an hour.
time_t set_back() { static time_t clock = 1000000; return clock -= 3600; }
WRAP(int, gettimeofday, (timeval *now, void *), (*now = {set_back(), 0}, 0))
WRAP(int, clock_gettime, (clockid_t id, timespec *now), id == CLOCK_MONOTONIC ? __real_clock_gettime(id, now) : (*now = {set_back(), 0}, 0))
// clang-format on

struct gateway_test : testing::Test {
    static inline sockaddr_in last = {AF_INET, 0, {inet_addr("10.0.2.2")}, {}};
    in_addr out = {};
    int64_t took = 0; // ms, of the last outcome

    static sockaddr *generic(sockaddr_in &addr) { return reinterpret_cast<sockaddr *>(&addr); }
    static void set(const char *name, const char *value) { value ? setenv(name, value, 1) : unsetenv(name); }
    static int64_t now_ms() { return std::chrono::steady_clock::now().time_since_epoch() / 1ms; }
    // What the scenario returns, or the code that it logs.
    std::string outcome(const std::function<const sockaddr_in *()> &scenario)
    {
        testing::internal::CaptureStderr();
        took = -now_ms();
        const sockaddr_in *addr = scenario();
        took += now_ms();
        const std::string log = testing::internal::GetCapturedStderr();
        if (const size_t code = log.find("failed: "); code != log.npos)
            return log.substr(code, log.find('\n', code) - code);
        return addr ? inet_ntoa(addr->sin_addr) + ":"s + std::to_string(ntohs(addr->sin_port)) : "none";
    }

    static void SetUpTestSuite()
    {
        for (int i = 3, next = -1; i >= 0; --i) {
            ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "see above";
            set("i", std::to_string(i).c_str());
            set("next", ("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(next)).c_str());
            next = open("/proc/self/ns/net", O_RDONLY);
            const int built = system(
                R"(set -e; ip link set lo up; cd /proc/sys/net/ipv4; echo 1 >ip_forward; echo 0 >icmp_ratelimit
                [ $i != 1 ] || { ip route add blackhole 10.9.0.0/16; ip route add prohibit 10.7.0.0/16; }
                [ $i != 0 ] || ip route add unreachable 10.8.0.0/16
                [ $i != 3 ] || exit 0
                ip link add right type veth peer name left netns $next; ip addr add 10.0.$i.1/24 dev right
                nsenter --net=$next ip addr add 10.0.$i.2/24 dev left; nsenter --net=$next ip link set left up
                [ $i = 0 ] || nsenter --net=$next ip route add 10.0.0.0/24 via 10.0.$i.1
                ip link set right up; ip route add default via 10.0.$i.2)");
            ASSERT_EQ(built, 0);
        }
    }
};

TEST_F(gateway_test, the_trace_finds_the_router_at_each_distance)
{
    const struct {
        const char *dest, *metric, *timeout, *expected;
        int least_ms = 0, most_ms = 290;
        // clang-format off
    } cases[] = {
        {"10.0.2.2", nullptr, nullptr, "10.0.1.1:0"}, {"10.0.2.2", "1", "9999999999999999999", "10.0.2.1:0"},
        {"10.0.2.2", "2", "300", "10.0.2.2:0"}, {"10.0.2.2", "-1", "300", "10.0.0.1:0"},
        {"10.0.2.2", "-2", "300", "failed: 3"}, {"10.0.2.2", "-9999999999", "300", "failed: 3"},
        {"10.0.2.2", "254", "300", "failed: 20"}, {"10.0.2.2", "9999999999", "300", "failed: 20"},
        {"10.8.0.1", "0", "300", "failed: 4"}, {"10.9.0.1", "8", "300", "failed: 20"},
        {"10.9.0.1", "0", "300", "failed: 20", 300, 600}, {"10.7.0.1", "0", "300", "failed: 20", 300, 600},
        {"10.9.0.1", "0", "soon", "failed: 20"}, {"10.9.0.1", "0", "-9999999999999999999", "failed: 20"}};
    // clang-format on
    for (const auto &row : cases) {
        set("GATE_METRIC", row.metric), set("GATE_TIMEOUT", row.timeout);
        sockaddr_in dest = {AF_INET, 0, {inet_addr(row.dest)}, {}};
        EXPECT_EQ(outcome([&] { return trace_gateway_addr(generic(dest), sizeof dest); }), row.expected);
        EXPECT_TRUE(took >= row.least_ms && took <= row.most_ms) << took << row.dest << row.timeout;
    }
    sockaddr_in ipv6 = {AF_INET6, 0, {}, {}};
    EXPECT_EQ(outcome([&] { return trace_gateway_addr(generic(ipv6), 16); }), "none");
}

TEST_F(gateway_test, every_call_that_fails_has_its_code)
{
    const auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open_files();
    std::string codes;
    for (int k = 1, code = -1; code != 0; ++k) {
        fail_at = k, code = probe_gateway(last.sin_addr, 1, 300, &out);
        codes += std::to_string(code) + " ";
    }
    EXPECT_EQ(codes, "1 2 3 5 4 8 8 5 6 7 8 8 0 ");
    EXPECT_EQ(open_files(), before);
    fail_at = 0;
    timeval budget = {1, 0};
    EXPECT_EQ(udp_ttl_probe(last.sin_addr, INT_MAX, &budget, &out), 3);
    EXPECT_EQ(icmp_rr_probe({inet_addr("10.8.0.1")}, 1, &budget, &out), 7);
    set("ECHOSVR_ADDR", "255.255.255.255"), set("GATE_METRIC", nullptr), set("GATE_TIMEOUT", nullptr);
    const auto get = [] { return get_gateway_addr(generic(last), sizeof last); };
    EXPECT_EQ(outcome(get), "10.0.1.1:0");
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    EXPECT_EXIT((syscall(SYS_capset, &header, none), _exit(get() ? 1 : 0)), testing::ExitedWithCode(0),
                "failed: 5");
}

TEST_F(gateway_test, nothing_that_happens_meanwhile_changes_the_budget)
{
    const pid_t flood = fork();
    const unique_fd raw(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP));
    sockaddr_in own = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    for (const int64_t end = now_ms() + 5000; flood == 0;)
        if (sendto(raw.get(), &own, sizeof own, 0, generic(own), sizeof own) < 0 || now_ms() > end)
            _exit(0);
    signal(SIGALRM, [](int) {});
    for (const bool flooded : {true, false}) {
        timeval budget = {0, 400000};
        ualarm(7000, 7000);
        const in_addr silent = {inet_addr("10.9.0.1")};
        EXPECT_EQ(outcome([&] { return udp_ttl_probe(silent, 1, &budget, &out) == 20 ? nullptr : &last; }),
                  "none");
        ualarm(0, 0);
        EXPECT_TRUE(took >= 400 && took <= 700 && !timerisset(&budget)) << took;
        if (flooded)
            kill(flood, SIGKILL), waitpid(flood, nullptr, 0);
    }
    timeval time = {3, 200000}, less = {1, 300000};
    tv_sub(&time, &less), tv_div(&time, 0), tv_div(&time, 2);
    EXPECT_EQ(time.tv_sec * 1000000 + time.tv_usec, 950000);
    tv_sub(&time, &less);
    EXPECT_FALSE(timerisset(&time));
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
        {"127.0.0.1", nullptr, {good}, "10.1.2.3:4660 1 250"}, {"127.0.0.1:54210", "x", {good + "more"}, "10.1.2.3:4660 1 250"},
        {"127.0.0.1", "x", {"-", "-", "-", "-", "-", "-", "-", good}, "10.1.2.3:4660 8 2000"},
        {"", "127.0.0.1", {wrong, good}, "10.1.2.3:4660 2 500"}, {"127.0.0.1", "", {"F" + good, good}, "10.1.2.3:4660 2 500"},
        {nullptr, "127.0.0.1", {good.substr(0, 17), "", good}, "10.1.2.3:4660 3 750"},
        {"127.0.0.1", "", std::vector(9, wrong), "none 8 2000"}, {"127.0.0.1:54211", "127.0.0.1", {}, "none 0 2000"},
        {nullptr, "", {}, "none 0 2000"}, {"255.255.255.255", "127.0.0.1", {}, "none 0 0"},
        {"localhost", "127.0.0.1", {}, "none 0 0"}, {wide.c_str(), "127.0.0.1", {}, "none 0 0"}};
    // clang-format on
    sockaddr_in here = {AF_INET, htons(54210), {htonl(INADDR_LOOPBACK)}, {}};
    const unique_fd usual(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)),
        other(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(bind(usual.get(), generic(here), sizeof here), 0);
    const auto echo = [] { return echo_gateway_addr(nullptr, 16); };
    for (const auto &row : cases) {
        size_t asked = 0;
        int waited = 0;
        server = [&](int timeout) {
            char request[13];
            socklen_t len = sizeof here;
            waited += timeout;
            if (recvfrom(usual.get(), request, sizeof request, 0, generic(here), &len) < 0)
                return;
            EXPECT_EQ(std::string(request, 12), "ECHOGWADDRRQ");
            const std::string &reply = row.replies.at(asked++);
            const size_t head = reply.starts_with("F");
            if (reply != "-")
                sendto((head ? other : usual).get(), &reply[head], reply.size() - head, 0, generic(here),
                       len);
        };
        set("ECHOSVR_ADDR", row.server), set("GKADDR", row.second);
        const std::string got = outcome(echo);
        EXPECT_EQ(got + " " + std::to_string(asked) + " " + std::to_string(waited), row.expected);
    }
    set("GKADDR", "127.0.0.1"), set("ECHOSVR_ADDR", nullptr);
    for (const int k : {1, 2, 3, 4, 5}) { // socket, setsockopt, bind, sendto, poll
        fail_at = k;
        EXPECT_EQ(outcome(echo), "none") << k;
        EXPECT_EQ(fail_at, 0);
    }
    server = nullptr;
}

TEST(icmp_message, believes_what_lies_inside_the_packet)
{
    const std::string header = "E\0\0\x38\0\0\0\0\x40\1\0\0\12\0\1\2\12\0\0\1"s;
    const std::string returned =
        header + "\13\0\0\0\0\0\0\0E\0\0\x20\0\0\0\0\1\21\0\0\12\0\0\1\12\0\2\2\x92\x34N\x21\0\14\0\0"s;
    const std::string route =
        "L" + header.substr(1) + "\1\1\7\13\14\1\2\3\4\5\6\7\10\0\0\0\0\0\0\0\x12\x34\0\1"s;
    // Which bytes make what they are changed to unbelievable; the length of the packet likewise.
    const struct {
        bool of_route;
        size_t at;
        uint8_t to;
    } cases[] = {};
    (void)cases, (void)returned, (void)route;
}

} // namespace
