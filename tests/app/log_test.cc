#include "app/glob.h"
#include "app/log.h"
#include "tests/support/support.h"

#include <cerrno>

namespace {

using support::captured_log;
using log_test = support::test;

TEST_F(log_test, every_call_writes_its_shape_in_one_write_and_keeps_errno)
{
    const std::string x(400, 'x'), cut = x.substr(0, 254);
    const char *long_text = x.c_str();
    const struct {
        std::string written;
        std::function<void()> call;
    } cases[] = {
        {"  run(): app: 7: fd 3 is up\n", [] { log_trace(0, "run", "app", 7, "fd %d is %s", 3, "up"); }},
        {"  run(): app: 7: \n", [] { log_trace(0, "run", "app", 7, "%s", ""); }},
        {"  f(): m: 1: " + cut + "\n", [&] { log_trace(0, "f", "m", 1, "%s", long_text); }},
        {"  f(): m: 1: " + cut + "\n", [&] { log_trace(0, "f", "m", 1, "%.254s", long_text); }},
        {"  " + x.substr(0, 296), [&] { log_trace(0, long_text, "m", 1, "text"); }},
        {"  CHECKPOINT: f(): m: 12\n", [] { log_checkpoint(0, "f", "m", 12); }},
        {"  FAILED: f(): m: 12\n", [] { log_failed(0, "f", "m", 12); }},
        {"  FAILED: " + x.substr(0, 244), [&] { log_failed(0, long_text, "m", 1); }},
        {"  SYSERROR: f(): m: 12: No such file or directory\n", [] { log_syserror(0, "f", "m", 12); }},
        {"Aborted!\n", [] { log_printf(0, "%s!\n", "Aborted"); }},
        {cut, [&] { log_printf(0, "%s", long_text); }},
        {"", [] { log_printf(0, "%s", ""); }},
        {"", [] { log_printf(-1, "below the level"); }},
        {"open /x: No such file or directory\n", [] { print_error("open %s: %m\n", "/x"); }},
        {x + x + " No such file or directory", [&] { print_error("%s%s %m", long_text, long_text); }},
    };
    for (const auto &c : cases) {
        const captured_log log;
        errno = ENOENT;
        c.call();
        EXPECT_EQ(errno, ENOENT) << c.written;
        EXPECT_EQ(log.text(), c.written);
        EXPECT_EQ(log.writes.size(), c.written.empty() ? 0u : 1u);
    }
}

TEST_F(log_test, a_file_takes_the_log_over_and_only_a_positive_level_is_taken)
{
    support::isolated([] {
        EXPECT_EQ(log_open("/tmp/log/x"), -1) << "there is no such directory";
        support::write_file("/tmp/log/x", "old text that is gone");
        EXPECT_EQ(log_open("/tmp/log/x"), 0);
        EXPECT_EQ(log_set_level(0), 0);
        EXPECT_EQ(log_set_level(3), 3);
        EXPECT_EQ(log_set_level(-5), 3);
        log_failed(2, "f", "m", 1);
        log_trace(0, "f", "m", 1, "x");
        log_printf(3, "line\n");
        EXPECT_EQ(support::read_file("/tmp/log/x"), "line\n");
    });
}

TEST_F(log_test, glob_matches_all_of_a_name)
{
    const char *const matching[][2] = {{"dns*", "dns"}, {"*_ip", "_ip"},      {"*", ""},      {"", ""},
                                       {"a?c", "abc"},  {"*ab*cab", "abcab"}, {"*ab", "aab"}, {"**a", "ba"},
                                       {"a**", "a"},    {"*_ip", "l_ip_ip"}};
    const char *const others[][2] = {{"dns*", "xdns"}, {"*_ip", "l_ipx"}, {"", "a"},    {"?", ""},
                                     {"a?c", "ac"},    {"a*b*c", "acb"},  {"[a]", "a"}, {"*?", ""},
                                     {"ab", "AB"},     {"ab", "abc"}};
    for (const auto &[pattern, name] : matching)
        EXPECT_TRUE(glob_match(pattern, name)) << pattern << " " << name;
    for (const auto &[pattern, name] : others)
        EXPECT_FALSE(glob_match(pattern, name)) << pattern << " " << name;
    // To try every way to share a name among many stars would outlast the device.
    std::string stars;
    for (int i = 0; i < 40; ++i)
        stars += "*a";
    EXPECT_FALSE(glob_match(stars + "*b", std::string(5000, 'a')));
    EXPECT_TRUE(glob_match(stars, std::string(5000, 'a')));
}

} // namespace
