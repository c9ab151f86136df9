// Name resolution and the clock, with the provider's name server and time server.
#include "app/app.h"
#include "net/resolver.h"
#include "tests/device/under_test.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <time.h>

namespace {

// "status: answer", or nothing when there is none within two seconds.
std::string resolve(const char *name, uint16_t type)
{
    std::string told;
    resolver res = {};
    EXPECT_EQ(resolver_init(&res, type, RESOLVER_IN), 0);
    resolver_set_callback(&res, &told, [](void *ctx, resolver *of, int status) {
        *static_cast<std::string *>(ctx) =
            std::to_string(status) + ": " + std::string(of->result, static_cast<size_t>(of->result_len));
    });
    EXPECT_EQ(resolver_query(&res, name), 0);
    const double end = now() + 2;
    do {
        const int wait = timer_run_expired();
        pollfd reply = {res.sock, POLLIN, 0};
        if (poll(&reply, 1, wait) > 0)
            app_poll_once();
    } while (told.empty() && now() < end);
    resolver_release(&res);
    return told;
}

double at(clockid_t clock)
{
    timespec time;
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// By how many seconds the clock would have been wrong, each time that it was set.
std::vector<double> errors()
{
    const double came_up = at(CLOCK_REALTIME) - at(CLOCK_MONOTONIC);
    std::istringstream log(read_file("/board/system/log"));
    std::vector<double> all;
    for (double since, set; log >> since && log.ignore(32, 'y') && log >> set;)
        all.push_back(set - since - came_up);
    std::sort(all.begin(), all.end());
    return all;
}

struct provided_time : testing::Test {
    static void SetUpTestSuite()
    {
        _resolver_init();
        write_file("/etc/syscfg.def", "NTP_SYNC -n bool\n");
        write_file("/usr/etc/syscfg.default", "NTP_SYNC=0\n");
        write_file("/tmp/svc.conf", "service time\nexec ntp -h ntp.example.net -i 1\n"
                                    "service log\nexec sleep 1001\ndepends NTP_SYNC=1\n");
    }
};

TEST_F(provided_time, names_of_every_type)
{
    const std::string address = "0: \xC0" + std::string("\0\2\1", 3);
    EXPECT_EQ(resolve("time.example.net", RESOLVER_A), address);
    EXPECT_EQ(resolve("ntp.example.net.", RESOLVER_A), address) << "behind an alias";
    EXPECT_EQ(resolve("1.2.0.192.in-addr.arpa", RESOLVER_PTR), "0: time.example.net");
    EXPECT_EQ(resolve("example.net", RESOLVER_MX), "0: mail.example.net");
    EXPECT_EQ(resolve("example.net", RESOLVER_TXT), "0: the provider of the virtual device");
    EXPECT_EQ(resolve("nobody.example.net", RESOLVER_A), "") << "no such name";
}

TEST_F(provided_time, who_waits_for_the_time_starts)
{
    running_lumd lumd("/tmp/svc.conf");
    ASSERT_TRUE(lumd.has_started());
    request("start log\n");
    EXPECT_EQ(ask({"?NTP_SYNC", "%apply"}), ">0!OK");
    EXPECT_FALSE(eventually([&] { return lumd.child("1001") > 0; }, 1));
    request("start time\n");
    EXPECT_EQ(ask({"%wait NTP_SYNC=1", "%apply:NTP_SYNC"}), "!OK!OK");
    EXPECT_TRUE(eventually([&] { return lumd.child("1001") > 0; }));
    EXPECT_TRUE(eventually([] { return errors().size() >= 5; }));
    EXPECT_NEAR(errors().at(2), 0, 0.05); // of most, as the machine may have stood still at one of them
}

} // namespace
