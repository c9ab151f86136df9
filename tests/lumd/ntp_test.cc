#include "tests/lumd/fixture.h"

#include "app/app.h"
#include "device/board/board.h"
#include "net/resolver.h"

#include <netinet/in.h>
#include <regex>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// found: names are at 127.0.0.1; refused: no query can be made; lost: none ends; unknown: no name server;
// noclock.
std::string mode, asked_name;
in_port_t server_port; // what goes to port 123 arrives here

} // namespace

extern "C" {

#ifdef __LP64__
#define SET_CLOCK(prefix) prefix##_Z15board_set_clockPKcll
#else
#define SET_CLOCK(prefix) prefix##_Z15board_set_clockPKcxx
#endif
int SET_CLOCK(__real_)(const char *call, int64_t sec, int64_t usec);
int SET_CLOCK(__wrap_)(const char *call, int64_t sec, int64_t usec)
{
    errno = EPERM;
    return mode == "noclock" ? -1 : SET_CLOCK(__real_)(call, sec, usec);
}
#define QUERY(prefix) prefix##_Z14resolver_queryP8resolverPKc
int QUERY(__real_)(resolver *res, const char *name);
int QUERY(__wrap_)(resolver *res, const char *name)
{
    asked_name = name;
    const char *there = mode != "unknown" && isalpha(*name) ? "127.0.0.1" : name;
    return mode == "refused" ? -1 : mode == "lost" ? 0 : QUERY(__real_)(res, there);
}
// In the place of libc's, below the wrapper.
ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length)
{
    sockaddr_in moved = *reinterpret_cast<const sockaddr_in *>(to);
    const bool of_ntp = to->sa_family == AF_INET && std::exchange(moved.sin_port, server_port) == htons(123);
    return syscall(SYS_sendto, fd, data, size, flags, of_ntp ? reinterpret_cast<sockaddr *>(&moved) : to,
                   length);
}

} // extern "C"

namespace {

// The client in virtual time, against a server that the test plays.
struct ntp : lumd_test {
    int server = socket(AF_INET, SOCK_DGRAM, 0), database = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_in client = {};
    std::string all; // what happened, behind the milliseconds since the services were loaded
    size_t recorded = 0;
    int64_t began = 0;

    ntp()
    {
        sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(server, reinterpret_cast<sockaddr *>(&address), length), 0);
        getsockname(server, reinterpret_cast<sockaddr *>(&address), &length);
        server_port = address.sin_port;
        const sockaddr_un path = {AF_UNIX, "/tmp/.syscfg-server"};
        EXPECT_EQ(bind(database, reinterpret_cast<const sockaddr *>(&path), sizeof path), 0);
        board_power_on();
    }
    ~ntp() override
    {
        if (manager)
            step("stop n"); // or it would be taken for a process
        close(server), close(database);
    }
    void note(const std::string &what)
    {
        all += ", " + std::to_string((support::now_us - began) / 1000) + " " + what;
    }
    void look()
    {
        static const std::regex lines(
            R"((get ntp failed|resolver error|Unexpected EOF|SYSERROR: \w+|FAILED: \w+|unknown option: .*))"
            R"(|Configuration:\n  -c probe_count (.*)\n  -h hostname    (.*)\n  -i interval    (.*)\n  -p local_port  (.*)\n)"
            R"(|settimeofday (\S+))");
        const std::string record = support::read_file("/board/system/log");
        std::string text = log.text() + record.substr(std::exchange(recorded, record.size()));
        log.clear();
        for (std::smatch found; regex_search(text, found, lines); text = found.suffix())
            note(found.format(found[2].matched ? "$2 $3 $4 $5" : "$1$6"));
        char packet[200];
        socklen_t from = sizeof client;
        ssize_t size;
        while ((size = recvfrom(server, packet, 200, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&client),
                                &from)) > 0) {
            EXPECT_EQ(std::string(packet, static_cast<size_t>(size)), "\x1b" + std::string(47, '\0'));
            note("ask " + std::exchange(asked_name, ""));
        }
        while ((size = recv(database, packet, sizeof packet, MSG_DONTWAIT)) >= 0)
            note(std::string(packet, static_cast<size_t>(size)));
        if (!asked_name.empty() && mode != "found")
            note("query " + std::exchange(asked_name, ""));
    }
    void pass(int64_t ms)
    {
        for (const int64_t end = support::now_us + ms * 1000;;) {
            int64_t wait = 0;
            for (int i = 0; i < 3; ++i, look())
                wait = app_poll_once();
            if (support::now_us >= end)
                return;
            support::now_us =
                wait < 0 ? end : std::min(end, support::now_us + std::max<int64_t>(wait * 1000, 100));
        }
    }
    void play_step(const std::string &text)
    {
        std::istringstream words(text);
        std::string verb;
        uint32_t number = 0;
        std::array<uint32_t, 15> packet = {};
        words >> verb >> number >> packet[10] >> packet[11];
        packet[10] = htonl(packet[10]), packet[11] = htonl(packet[11]);
        if (verb == "answer")
            syscall(SYS_sendto, server, packet.data(), number, 0, &client, sizeof client);
        if (verb == "answer" || verb == "wait" || verb == "count")
            pass(verb == "answer" ? 0 : number);
        else if (verb == "mode")
            mode = text.substr(5);
        else
            step(text);
        if (verb == "count") // and the last
            all = ", " + std::to_string(std::count(all.begin(), all.end(), ',')) + all.substr(all.rfind(','));
    }
    void play_ntp(std::string_view rows)
    {
        for (const auto &[what, services, script] : table(rows)) {
            SCOPED_TRACE(what);
            load(services);
            began = support::now_us, mode = "found";
            for (const std::string &text : split(script, " / ")) {
                SCOPED_TRACE(text);
                const auto parts = split(text, " > ");
                all.clear();
                play_step(parts[0]);
                look();
                EXPECT_EQ(all.substr(std::min<size_t>(all.size(), 2)), parts.size() > 1 ? parts[1] : "");
            }
            step("stop n");
            end_services();
        }
    }
};

// Before anything else could set it.
TEST_F(ntp, only_the_board_has_a_clock)
{
    const timeval to = {86400, 5};
    EXPECT_EQ(settimeofday(&to, nullptr), 0);
    EXPECT_EQ(support::read_file("/board/system/log"), "1000000.000000 settimeofday 86400.000005\n");
}

TEST_F(ntp, clock_and_variable)
{
    play_ntp(R"(
default, told once => service n;exec ntp => start n > 0 4 ntp.example.com 36000 0 / wait 9000 > 0 ask ntp.example.com, 5000 ask ntp.example.com
  / count 15900 > 3, 20000 ask ntp.example.com / wait 200 > 25000 get ntp failed, 25000 NTP_SYNC=1 / wait 59800
  / count 21000 > 5, 105000 ask ntp.example.com / wait 5000 > 110000 get ntp failed
  / answer 48 3913056000 2147483648 > 110900 1704067200.499996, 110900 NTP_SYNC=1 / wait 35999800 / wait 200 > 36110900 ask ntp.example.com
success => service n;exec ntp -i 700 -h time.lan => start n > 0 0 time.lan 700 0 / wait 100 > 0 ask time.lan
  / answer 48 3913056000 4294967295 > 100 1704067200.999992, 100 NTP_SYNC=1 / wait 699900 / wait 100 > 700100 ask time.lan
  / wait 5000 > 705100 ask time.lan / answer 48 0 42949 > 705100 2085978496.000009, 705100 NTP_SYNC=1 / wait 699900
  / wait 100 > 1405100 ask time.lan / answer 48 1 > 1405100 2085978497.000000, 1405100 NTP_SYNC=1
without end => service n;exec ntp -h time.lan => start n > 0 0 time.lan 600 0 / count 599000 > 120, 595004 ask time.lan
replies => service n;exec ntp -h 127.0.0.1 => start n > 0 0 127.0.0.1 600 0 / wait 10 > 0 ask 127.0.0.1 / answer 0 > 10 Unexpected EOF
  / answer 47 / wait 4980 / wait 20 > 5000 ask 127.0.0.1 / answer 60 2208988800 4295 > 5010 0.000001, 5010 NTP_SYNC=1
no clock => service n;exec ntp -h 127.0.0.1 -c 1 -i 9 => start n > 0 1 127.0.0.1 9 0 / wait 10 > 0 ask 127.0.0.1 / mode noclock
  / answer 48 1 > 10 SYSERROR: ntp_recvCallback, 10 NTP_SYNC=1 / mode found / wait 9000 > 9010 ask 127.0.0.1
unknown default => service n;exec ntp => mode unknown / start n > 0 4 ntp.example.com 36000 0, 0 query ntp.example.com
  / count 76000 > 11, 75000 NTP_SYNC=1
refused => service n;exec ntp -h time.lan => mode refused / start n > 0 0 time.lan 600 0, 0 query time.lan / wait 4900
  / wait 200 > 5000 query time.lan / mode found / wait 5000 > 10000 ask time.lan
lost => service n;exec ntp -h time.lan => mode lost / start n > 0 0 time.lan 600 0, 0 query time.lan / wait 19900
  / wait 200 > 20000 query time.lan
variable => service n;exec ntp -p 4123 -h @(T) => set T=127.0.0.1 / start n > 0 0 127.0.0.1 600 4123 / wait 10 > 0 ask 127.0.0.1
  / set T=time.lan / start n > 10 0 time.lan 600 4123 / wait 10 > 10 ask time.lan
no such variable => service n;exec ntp -c 9 -h @(NONE) => start n > 0 4 ntp.example.com 36000 0
no end of the name => service n;exec ntp -h time.lan -h @(NONE => start n > 0 0 time.lan 600 0
unknown option => service n;exec ntp -x => start n > 0 unknown option: -?, 0 FAILED: lumd_do_start / wait 99999
no value => service n;exec ntp -h => start n > 0 unknown option: -?, 0 FAILED: lumd_do_start / wait 99999
again => service n;exec ntp -h time.lan => start n > 0 0 time.lan 600 0 / wait 3000 > 0 ask time.lan / start n > 3000 0 time.lan 600 0
  / wait 4900 > 3000 ask time.lan / wait 200 > 8000 ask time.lan
late => service n;exec ntp -h 127.0.0.1 => start n > 0 0 127.0.0.1 600 0 / halt n / wait 9999 / start n > 9999 0 127.0.0.1 600 0
  / wait 10 > 9999 ask 127.0.0.1 / halt n / answer 48 1 / halt n / wait 9999 / start n > 20008 0 127.0.0.1 600 0 / stop n / wait 9999
)");
}

// Of descriptors, timers and memory, whatever fails.
TEST_F(ntp, nothing_is_left_over)
{
    load("service n;exec ntp -h 127.0.0.1;service p;exec true");
    const auto play_and_end = [this] {
        for (const char *text : {"mode unknown", "start n", "wait 9000", "start n", "wait 10", "answer 48 1",
                                 "halt n", "halt n", "start n", "stop n", "start n", "wait 10", "stop n"})
            play_step(text);
        end_services();
        timer_free(std::exchange(app_scheduler.timer, nullptr)); // it outlives its calls
    };
    step("start p"); // the pipe of the process
    play_and_end();
    EXPECT_GE(support::for_each_failure(support::ALLOC, play_and_end), 10);
    EXPECT_GE(support::for_each_failure(
                  support::SOCKET | support::BIND | support::SETSOCKOPT | support::SENDTO, play_and_end),
              10);
}

} // namespace
