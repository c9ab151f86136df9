#include "tests/lumd/fixture.h"

#include "app/app.h"
#include "device/board/board.h"
#include "net/resolver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <regex>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;

constexpr timespec long_ago[2] = {};

// found: every name is at 127.0.0.1; refused: queries fail at once; lost: queries never end; unknown: no name
// server; noclock: the clock cannot be set; deaf: the database refuses requests.
std::string mode, asked_name, asked_server;
in_port_t server_port; // receives what is sent to port 123

} // namespace

extern "C" {

int __real_board_set_clock(const char *call, int64_t sec, int64_t usec);
int __wrap_board_set_clock(const char *call, int64_t sec, int64_t usec)
{
    errno = EPERM;
    return mode == "noclock" ? -1 : __real_board_set_clock(call, sec, usec);
}
int __real_resolver_query(resolver *res, const char *name);
int __wrap_resolver_query(resolver *res, const char *name)
{
    asked_name = name;
    const char *there = mode != "unknown" && isalpha(*name) ? "127.0.0.1" : name;
    return mode == "refused" ? -1 : mode == "lost" ? 0 : __real_resolver_query(res, there);
}
// Replaces libc's, below the wrapper.
ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length)
{
    if (!to) // on a connected socket
        return syscall(SYS_sendto, fd, data, size, flags, to, length);
    sockaddr_in moved = *reinterpret_cast<const sockaddr_in *>(to);
    const in_port_t port = to->sa_family == AF_INET ? ntohs(std::exchange(moved.sin_port, server_port)) : 0;
    if (port == 53)
        return asked_server = " "s + inet_ntoa(moved.sin_addr), static_cast<ssize_t>(size);
    if (port == 123)
        to = reinterpret_cast<sockaddr *>(&moved);
    errno = EAGAIN;
    return mode == "deaf" && to->sa_family == AF_UNIX
               ? -1
               : syscall(SYS_sendto, fd, data, size, flags, to, length);
}

} // extern "C"

namespace {

// The client in virtual time, against a server played by the test.
struct ntp : lumd_test {
    int server = socket(AF_INET, SOCK_DGRAM, 0), database = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_in client = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t client_size = sizeof client;
    std::string all; // events, each with the milliseconds since the services were loaded
    size_t recorded = 0;
    int64_t began = 0, seen = 0;

    ntp()
    {
        EXPECT_EQ(bind(server, reinterpret_cast<sockaddr *>(&client), client_size), 0);
        getsockname(server, reinterpret_cast<sockaddr *>(&client), &client_size);
        server_port = client.sin_port;
        const sockaddr_un path = {AF_UNIX, "/tmp/.syscfg-server"};
        EXPECT_EQ(bind(database, reinterpret_cast<const sockaddr *>(&path), sizeof path), 0);
        board_power_on();
    }
    ~ntp() override { EXPECT_EQ(close(server) + close(database) + fcntl(STDIN_FILENO, F_GETFD), 0); }
    void note(const std::string &what) { all += ", " + std::to_string((seen - began) / 1000) + " " + what; }
    bool look() // collects the results of the last pass
    {
        static const std::regex lines(
            R"((get ntp failed|resolver error|Unexpected EOF|error: |SYSERROR: \w+|FAILED: \w+|unknown option: .*))"
            R"(|Configuration:\n  -c probe_count (.*)\n  -h hostname    (.*)\n  -i interval    (.*)\n  -p local_port  (.*)\n)"
            R"(|settimeofday (\S+))");
        const std::string record = support::read_file("/board/system/log");
        std::string text = log.text() + record.substr(std::exchange(recorded, record.size()));
        log.clear();
        for (std::smatch found; regex_search(text, found, lines); text = found.suffix())
            note(found.format(found[2].matched ? "$2 $3 $4 $5" : "$1$6"));
        char packet[200];
        ssize_t size;
        while ((size = recvfrom(server, packet, sizeof packet, MSG_DONTWAIT,
                                reinterpret_cast<sockaddr *>(&client), &client_size)) > 0) {
            EXPECT_EQ(std::string(packet, size_t(size)), "\x1b" + std::string(47, '\0'));
            note("ask " + std::exchange(asked_name, ""));
        }
        while ((size = recv(database, packet, sizeof packet, MSG_DONTWAIT)) >= 0)
            note(std::string(packet, size_t(size)));
        if (!asked_name.empty() && mode != "found")
            note("query " + std::exchange(asked_name, "") + std::exchange(asked_server, ""));
        seen = support::now_us;
        return false;
    }
    void load(const std::string &conf) override
    {
        lumd_test::load(conf);
        began = seen = support::now_us, mode = "found", asked_name = asked_server = "";
    }
    std::string events() override
    {
        const std::string came = std::exchange(all, "");
        return came.substr(std::min<size_t>(came.size(), 2));
    }
    void step(const std::string &text) override
    {
        std::istringstream words(text);
        std::string verb;
        uint32_t number = 0, packet[15] = {};
        words >> verb >> number >> packet[10] >> packet[11];
        packet[10] = htonl(packet[10]), packet[11] = htonl(packet[11]);
        if (verb == "answer")
            syscall(SYS_sendto, server, packet, std::exchange(number, 0), 0, &client, client_size);
        if (verb == "mode")
            mode = text.substr(5);
        else if (verb == "servers") // same time stamp: only its text differs from the last one
            support::write_file("/etc/resolv.conf", "nameserver " + text.substr(8)),
                utimensat(AT_FDCWD, support::device_path("/etc/resolv.conf").c_str(), long_ago, 0);
        else if (verb == "answer" || verb == "wait" || verb == "count")
            support::run_until([&] { return look(); }, number);
        else
            lumd_test::step(text);
        look();
        if (verb == "count") // and the last one
            all = ", " + std::to_string(std::count(all.begin(), all.end(), ',')) + all.substr(all.rfind(','));
    }
};

TEST_F(ntp, clock_and_variable)
{
    play_all(R"(
default, told once => service n;exec ntp => start n > 0 4 ntp.example.com 36000 0 / wait 9000 > 0 ask ntp.example.com, 5000 ask ntp.example.com
  / count 15900 > 3, 20000 ask ntp.example.com / wait 200 > 25000 get ntp failed, 25000 NTP_SYNC=1 / wait 59800
  / count 21000 > 5, 105000 ask ntp.example.com / wait 5000 > 110000 get ntp failed
  / answer 48 0 42949 > 110900 2085978496.000009, 110900 NTP_SYNC=1 / wait 35999800 / wait 200 > 36110900 ask ntp.example.com
success => service n;exec ntp -i 700 -h time.lan => start n > 0 0 time.lan 700 0 / wait 100 > 0 ask time.lan
  / answer 48 3913056000 4294967295 > 100 1704067200.999992, 100 NTP_SYNC=1 / wait 699900 / wait 100 > 700100 ask time.lan
without end => service n;exec ntp -h time.lan => start n > 0 0 time.lan 600 0 / count 599000 > 120, 595000 ask time.lan
replies => service n;exec ntp -h 127.0.0.1 -i -5 => start n > 0 0 127.0.0.1 -5 0 / wait 10 > 0 ask 127.0.0.1 / answer 0 > 10 Unexpected EOF
  / answer 47 / wait 4980 / wait 20 > 5000 ask 127.0.0.1 / answer 60 2208988800 4295 > 5010 0.000001, 5010 NTP_SYNC=1
  / wait 900 / wait 200 > 6010 ask 127.0.0.1
no clock => service n;exec ntp -h 127.0.0.1 -c 1 -i 9 => start n > 0 1 127.0.0.1 9 0 / wait 10 > 0 ask 127.0.0.1 / mode noclock
  / answer 48 1 > 10 SYSERROR: ntp_recvCallback, 10 NTP_SYNC=1 / mode found
  / wait 19500 > 9010 ask 127.0.0.1, 14010 ask 127.0.0.1, 19010 get ntp failed
unknown default => service n;exec ntp => mode unknown / start n > 0 4 ntp.example.com 36000 0, 0 query ntp.example.com
  / count 76000 > 11, 75000 NTP_SYNC=1
not told => service n;exec ntp -h time.lan -c 1 -i 70 => mode deaf / start n > 0 1 time.lan 70 0, 0 query time.lan
  / count 60000 > 4, 10000 get ntp failed / mode found / count 21000 > 4, 80000 NTP_SYNC=1
set, not told => service n;exec ntp -h 127.0.0.1 -c 1 -i 36000 => start n > 0 1 127.0.0.1 36000 0 / wait 10 > 0 ask 127.0.0.1
  / mode deaf / answer 48 1 > 10 2085978497.000000 / mode found / wait 69900 > 60010 ask 127.0.0.1, 65010 ask 127.0.0.1
  / wait 200 > 70010 get ntp failed, 70010 NTP_SYNC=1 / wait 999999
no closing quote => service n;exec ntp "x => start n > 0 4 ntp.example.com 36000 0 / wait 10 > 0 ask ntp.example.com
nor a value => service n;exec ntp -h "x => start n > 0 unknown option: -?, 0 FAILED: lumd_do_start / wait 99999
no query => service n;exec ntp -h time.lan => mode refused / start n > 0 0 time.lan 600 0, 0 query time.lan / wait 4900 / mode lost
  / wait 200 > 5000 query time.lan / wait 19800 / mode found / wait 200 > 25000 ask time.lan
variable => service n;exec ntp -p 4123 -c 9 -h @(T) => start n > 0 4 ntp.example.com 36000 4123 / set T=time.lan
  / start n > 0 9 time.lan 600 4123 / wait 10 > 0 ask time.lan
unknown option => service n;exec ntp -x => start n > 0 unknown option: -?, 0 FAILED: lumd_do_start / wait 99999
again => service n;exec ntp -h time.lan -h @(NONE -c 1 => start n > 0 1 time.lan 600 0 / wait 6000 > 0 ask time.lan, 5000 ask time.lan
  / start n > 6000 1 time.lan 600 0 / wait 4900 > 6000 ask time.lan / wait 200 > 11000 ask time.lan
late => service n;exec ntp -h 127.0.0.1 => start n > 0 0 127.0.0.1 600 0 / halt n / wait 9999 / start n > 9999 0 127.0.0.1 600 0
  / wait 10 > 9999 ask 127.0.0.1 / halt n / answer 48 1 / halt n / wait 9999 / start n > 20008 0 127.0.0.1 600 0 / stop n / wait 9999
a start reads the servers => service n;exec ntp -h time.lan => mode unknown / servers 127.0.0.2
  / start n > 0 0 time.lan 600 0, 0 query time.lan 127.0.0.2
  / halt n / servers 127.0.0.3 / start n > 0 0 time.lan 600 0, 0 query time.lan 127.0.0.3
)");
}

// No descriptors, timers or memory, whatever fails.
TEST_F(ntp, nothing_is_left_over)
{
    load("service n;exec ntp -h 127.0.0.1");
    std::string whole; // everything done, without times
    const auto play_and_end = [&, this] {
        for (const char *text : {"mode unknown", "start n", "wait 16000", "start n", "wait 10", "answer 48 1",
                                 "halt n", "halt n", "start n", "stop n", "start n", "wait 10", "stop n"})
            step(text);
        end_services();
        timer_free(std::exchange(app_scheduler.timer, nullptr)); // it outlives its calls
        const std::string done = std::regex_replace(events(), std::regex("\\b[0-9]+ "), "");
        whole = whole.empty() ? done : whole;
        return done == whole;
    };
    lumd_start_service(manager, "n");
    EXPECT_TRUE(log.has("cannot open resolv.conf"));
    play_and_end();
    whole.clear();
    const unsigned made_good = support::OPEN | support::POLL | support::RECV | support::WRITE;
    EXPECT_GE(support::for_each_failure(support::ALL_CALLS, play_and_end, made_good), 100);
}

} // namespace
