#include "app/glob.h"
#include "app/log.h"
#include "tests/support/support.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

using support::captured_log;
using log_test = support::test;

TEST_F(log_test, every_call_writes_its_shape_in_one_write_and_keeps_errno)
{
    const std::string x400(400, 'x');
    const std::string cut_mark = "  FAILED: " + x400.substr(0, 244);
    const struct {
        const char *name;
        std::function<void()> call;
        std::string written;
    } cases[] = {
        {"trace", [] { log_trace(0, "run", "app", 7, "fd %d is %s", 3, "up"); },
         "  run(): app: 7: fd 3 is up\n"},
        {"empty trace", [] { log_trace(0, "run", "app", 7, "%s", ""); }, "  run(): app: 7: \n"},
        {"message of 254", [&] { log_trace(0, "f", "m", 1, "%.254s", x400.c_str()); },
         "  f(): m: 1: " + x400.substr(0, 254) + "\n"},
        {"message cut", [&] { log_trace(0, "f", "m", 1, "%s", x400.c_str()); },
         "  f(): m: 1: " + x400.substr(0, 254) + "\n"},
        {"line cut", [&] { log_trace(0, x400.c_str(), "m", 1, "text"); }, "  " + x400.substr(0, 296)},
        {"checkpoint", [] { log_checkpoint(0, "f", "m", 12); }, "  CHECKPOINT: f(): m: 12\n"},
        {"failed", [] { log_failed(0, "f", "m", 12); }, "  FAILED: f(): m: 12\n"},
        {"failed cut", [&] { log_failed(0, x400.c_str(), "m", 1); }, cut_mark},
        {"system error", [] { log_syserror(0, "f", "m", 12); },
         "  SYSERROR: f(): m: 12: No such file or directory\n"},
        {"text", [] { log_printf(0, "%s!\n", "Aborted"); }, "Aborted!\n"},
        {"text cut", [&] { log_printf(0, "%s", x400.c_str()); }, x400.substr(0, 254)},
        {"no text", [] { log_printf(0, "%s", ""); }, ""},
        {"level below 0", [] { log_printf(-1, "x"); }, ""},
        {"diagnostic", [] { print_error("open %s: %m\n", "/x"); }, "open /x: No such file or directory\n"},
        {"long diagnostic", [&] { print_error("%s%s %m", x400.c_str(), x400.c_str()); },
         x400 + x400 + " No such file or directory"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        captured_log log;
        errno = ENOENT;
        c.call();
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(log.text(), c.written);
        EXPECT_EQ(log.writes.size(), c.written.empty() ? 0u : 1u);
    }
}

TEST_F(log_test, without_memory_a_long_diagnostic_is_cut)
{
    const captured_log log;
    support::fail_call(support::ALLOC, 1, true);
    print_error("%s", std::string(600, 'y').c_str());
    support::end_failing();
    EXPECT_GE(log.text().size(), 511u);
}

TEST_F(log_test, a_file_takes_the_log_over_and_a_bad_path_leaves_it)
{
    support::isolated([] {
        EXPECT_EQ(log_open("/tmp/log/x"), -1) << "there is no such directory";
        support::write_file("/tmp/log/x", "old text that is gone");
        EXPECT_EQ(log_open("/tmp/log/x"), 0);
        log_printf(0, "line\n");
        log_flush();
        EXPECT_EQ(support::read_file("/tmp/log/x"), "line\n");
    });
}

TEST_F(log_test, only_a_positive_level_is_taken)
{
    support::isolated([] {
        const captured_log log;
        EXPECT_EQ(log_set_level(0), 0);
        EXPECT_EQ(log_set_level(3), 3);
        EXPECT_EQ(log_set_level(-5), 3);
        log_trace(2, "f", "m", 1, "x");
        log_failed(0, "f", "m", 1);
        log_printf(2, "x");
        EXPECT_EQ(log.text(), "");
        log_printf(3, "x");
        EXPECT_EQ(log.text(), "x");
    });
}

TEST_F(log_test, glob_matches_all_of_a_name)
{
    const struct {
        const char *pattern;
        const char *name;
        bool match;
    } cases[] = {
        {"dns*", "dns", true},
        {"dns*", "dns12", true},
        {"dns*", "xdns", false},
        {"*_ip", "eth0_ip", true},
        {"*_ip", "_ip", true},
        {"*_ip", "eth0_ipx", false},
        {"*", "", true},
        {"", "", true},
        {"", "a", false},
        {"?", "", false},
        {"a?c", "abc", true},
        {"a?c", "ac", false},
        {"*ab*cab", "abcab", true},
        {"*ab", "aab", true},
        {"a*b*c", "acb", false},
        {"**a", "ba", true},
        {"a**", "a", true},
        {"[a]", "a", false},
        {"*?", "", false},
        {"time", "time", true},
        {"TIME", "time", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(glob_match(c.pattern, c.name), c.match) << c.pattern << " " << c.name;
}

// Trying every way to share the name among the stars would outlast the device.
TEST_F(log_test, glob_ends_for_many_stars)
{
    std::string pattern;
    for (int i = 0; i < 40; ++i)
        pattern += "*a";
    EXPECT_FALSE(glob_match(pattern + "*b", std::string(5000, 'a')));
    EXPECT_TRUE(glob_match(pattern, std::string(5000, 'a')));
}

} // namespace
