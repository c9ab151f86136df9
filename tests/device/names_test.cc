// Name resolution with the provider's name server, a third-party program.
#include "app/app.h"
#include "net/resolver.h"
#include "tests/device/under_test.h"

#include <gtest/gtest.h>

namespace {

void note(std::string *answer, resolver *of, resolver_status status)
{
    *answer = std::to_string(status) + ": " + std::string(of->result, static_cast<size_t>(of->result_len));
}

// "status: answer", or empty if no answer comes within two seconds.
std::string resolve(const char *name, uint16_t type)
{
    std::string answer;
    resolver res = {};
    EXPECT_EQ(resolver_init(&res, type, RESOLVER_IN), 0);
    resolver_set_callback<note>(&res, &answer);
    EXPECT_EQ(resolver_query(&res, name), 0);
    const double end = now() + 2;
    do {
        const int wait = timer_run_expired();
        pollfd reply = {res.sock.get(), POLLIN, 0};
        if (poll(&reply, 1, wait) > 0)
            app_poll_once();
    } while (answer.empty() && now() < end);
    return answer;
}

TEST(names, of_every_type)
{
    EXPECT_GT(_resolver_init(), 0);
    const std::string address = "0: \xC0" + std::string("\0\2\1", 3);
    EXPECT_EQ(resolve("time.example.net", RESOLVER_A), address);
    EXPECT_EQ(resolve("ntp.example.net.", RESOLVER_A), address) << "behind an alias";
    EXPECT_EQ(resolve("1.2.0.192.in-addr.arpa", RESOLVER_PTR), "0: time.example.net");
    EXPECT_EQ(resolve("example.net", RESOLVER_MX), "0: mail.example.net");
    EXPECT_EQ(resolve("example.net", RESOLVER_TXT), "0: the provider of the virtual device");
    EXPECT_EQ(resolve("nobody.example.net", RESOLVER_A), "") << "no such name";
}

} // namespace
