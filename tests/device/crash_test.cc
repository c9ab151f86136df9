// What programs report when they die: the crasher, its stripped copy and the daemon.
#include "app/memory.h"
#include "tests/device/under_test.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <regex.h>

namespace {

// Functions of an anonymous namespace (GLOBAL) may be inlined into their callers.
const std::string innermost = "_ZN6nested9innermostEv ", middle = "_ZN6nested6middleE[jm] ";
const std::string outer = "(\\S*GLOBAL\\S* )?_Z13app_poll_oncev _ZN6nested8on_timerEPv (\\S*GLOBAL\\S* ){1,2}"
                          "_Z17timer_run_expiredv _Z7app_runv main ";
const std::string callers = middle + "_ZN6nested11on_writableEPviiP14app_fd_handler " + outer;
const std::string sending = "  send_debug_message\\(\\): app: [0-9]+: sending info to debug server...\n";

testing::AssertionResult matches(const std::string &text, const std::string &pattern)
{
    regex_t whole;
    const bool same = regcomp(&whole, ("^(" + pattern + ")$").c_str(), REG_EXTENDED) == 0 &&
                      regexec(&whole, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&whole);
    return testing::AssertionResult(same) << text << pattern;
}

// The functions of a dump, or its first line that is malformed.
std::string functions(const std::string &dump)
{
    std::string found, text;
    std::istringstream lines(dump);
    for (int number = 0; getline(lines, text); ++number) {
        const std::string start = std::to_string(number) + ": ";
        if (lines.eof() || !matches(text, start + "[^ :]+:\\[0x[0-9a-f]+]"))
            return text;
        found += text.substr(start.size(), text.rfind(':') - start.size()) + " ";
    }
    return found;
}

// How a crasher ends; SIGKILL after eight seconds.
int end_of(const std::string &words, const std::string &shell = "")
{
    return system((shell + "exec timeout -s 9 8 >/tmp/dump <>/tmp/dump 2>/tmp/said " + words + " 0").c_str());
}

struct crash : testing::Test {
    const unique_fd serial{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    const unique_fd server{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    unique_fd line;

    crash()
    {
        const sockaddr_in any = {AF_INET, htons(4040), {INADDR_ANY}, {}};
        EXPECT_EQ(bind(server.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        setenv("DEBUG_SERVER", "127.255.255.255:4040", 1);
        const std::string path = unlockpt(serial.get()) == 0 ? ptsname(serial.get()) : "";
        line.reset(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)); // keeps the output
        EXPECT_EQ(system(("ln -sf " + path + " /dev/ttyS0; stty raw </dev/ttyS0").c_str()), 0);
    }
    // One datagram, or everything printed.
    static std::string taken(const unique_fd &fd, int reads = 1)
    {
        std::string text, part(8192, '\0');
        for (pollfd wait = {fd.get(), POLLIN, 0}; reads > 0 && poll(&wait, 1, 300) > 0; --reads)
            text.append(part, 0, static_cast<size_t>(read(fd.get(), part.data(), part.size())));
        return text;
    }
};

TEST_F(crash, every_output_names_the_functions)
{
    const std::string rows[][4] = {
        {"", "crasher store 16", "Sigment fault!\n" + sending, innermost + callers},
        {"trap '' QUIT;", "crasher trap", "Illegal instruction!\n" + sending, innermost + callers},
        {"trap '' QUIT;", "crasher abort", "Aborted!\n" + sending, "\\?{4} (\\S+ )*?" + callers},
        {"DEBUG_SERVER=127.0.0.1:4040 ", "crasher kill 6", "Aborted!\n" + sending, "\\?{4} " + callers},
        {"unset DEBUG_SERVER;", "crasher lose", "Illegal instruction!\n", "(_.* main )?"},
        {"", "crasher.stripped abort", "no symbols were associated to this file\nAborted!\n" + sending,
         "(\\?{4} ){9,}"}};
    for (const auto &[shell, words, said, names] : rows) {
        EXPECT_EQ(WTERMSIG(end_of(words, shell)), SIGQUIT);
        const std::string dump = read_file("/tmp/dump");
        EXPECT_TRUE(matches(functions(dump), names));
        EXPECT_TRUE(matches(read_file("/tmp/said"), said));
        EXPECT_EQ(taken(serial, 99), dump);
        EXPECT_EQ(taken(server), shell.starts_with("unset") ? "" : dump);
    }
}

TEST_F(crash, an_alarm_is_survived)
{
    EXPECT_EQ(end_of("crasher kill 14"), W_EXITCODE(7, 0));
    const std::string dump = read_file("/tmp/dump"); // the first dump closes it
    EXPECT_TRUE(matches(functions(dump), "\\?{4} " + callers));
    EXPECT_TRUE(matches(read_file("/tmp/said"), "([^!]+ SIGALRM caught!{6}\n" + sending + "){2} [^!]*"));
    EXPECT_EQ(taken(serial, 99), dump + dump);
    EXPECT_EQ(taken(server) + taken(server), dump + dump);
}

TEST_F(crash, consoles_that_nobody_reads)
{
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    const unique_fd pipe(open("/tmp/pipe", O_RDWR | O_NONBLOCK | O_CLOEXEC));
    for (pollfd full : {pollfd{pipe.get(), POLLOUT, 0}, pollfd{line.get(), POLLOUT, 0}})
        while (write(full.fd, "\n", 1) > 0 || poll(&full, 1, 100) > 0)
            ;
    for (const std::string console : {"/tmp/pipe", "/dev/ttyS0"}) {
        EXPECT_EQ(WTERMSIG(end_of("crasher store 16 <>" + console + " 2>&0")), SIGQUIT) << console;
        EXPECT_TRUE(matches(functions(taken(server)), innermost + callers));
    }
}

// Neither a pipe nor a terminal with output processing may hold up the daemon if its reader stalls.
TEST_F(crash, a_log_that_nobody_reads)
{
    write_file("/tmp/svc.conf", "service wd\nexec watchdog\nservice a\nexec sleep 1001\n");
    ASSERT_TRUE(mkfifo("/tmp/log.pipe", 0600) == 0 && system("stty sane -echo </dev/ttyS0") == 0);
    const unique_fd pipe(open("/tmp/log.pipe", O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::tuple<const char *, int, int> logs[] = {{"/tmp/log.pipe", pipe.get(), pipe.get()},
                                                       {"/dev/ttyS0", line.get(), serial.get()}};
    for (const auto &[path, writer, reader] : logs) {
        SCOPED_TRACE(path);
        while (write(writer, "full\n", 5) > 0)
            ;
        write_file("/dev/watchdog", "");
        running_lumd lumd("/tmp/svc.conf", path);
        ASSERT_TRUE(lumd.has_started());
        request("start wd a\n");
        ASSERT_TRUE(eventually([&] { return lumd.child("1001") > 0; }, 2));
        const auto feeds = [] { return std::filesystem::file_size("/dev/watchdog"); };
        const auto fed = feeds();
        for (int i = 0; i < 20; ++i) // too many to wait a fifth of a second for each
            request("stop a\nstart a\n");
        EXPECT_TRUE(eventually([&] { return feeds() >= fed + 3; }, 3));
        EXPECT_EQ(ask({"?@version"}), ">1.4.0.02");
        EXPECT_TRUE(eventually([&] { return lumd.child("1001") > 0; }, 2));
        std::string log;
        EXPECT_TRUE(eventually([&, from = reader] {
            char part[4096];
            for (pollfd more = {from, POLLIN, 0}; poll(&more, 1, 50) > 0;)
                log.append(part, static_cast<size_t>(read(from, part, sizeof part)));
            request("unknown\n");
            return log.find("lines lost: ") != log.npos;
        }));
    }
}

TEST_F(crash, a_full_text_has_whole_lines)
{
    for (const auto &[shell, depth] : {std::pair{"", "250"}, {"ulimit -s 262144;", "2500000"}}) {
        EXPECT_EQ(WTERMSIG(end_of(std::string("crasher deep ") + depth, shell)), SIGQUIT);
        const std::string dump = taken(server);
        EXPECT_TRUE(matches(dump, "([0-9]+: _ZN6nested\\w+:\\[0x[0-9a-f]+\\]\n)+([0-9]+: main:.*\n)?"));
        EXPECT_TRUE(dump.size() > 4096 - 40 && dump.size() <= 4096) << dump.size();
    }
}

TEST_F(crash, the_daemon)
{
    write_file("/tmp/svc.conf", "service a\nexec sleep 1001\n");
    running_lumd lumd("/tmp/svc.conf");
    ASSERT_TRUE(lumd.has_started());
    for (const std::string wish : {"start a\n", "stop a\n"}) {
        kill(lumd.pid, SIGALRM);
        EXPECT_TRUE(matches(functions(taken(server)), "\\S+ (\\S+ )*main "));
        ASSERT_EQ(ask({"?@version"}), ">1.4.0.02");
        request(wish);
        EXPECT_TRUE(eventually([&] { return lumd.children().size() == (wish == "start a\n"); }));
    }
    kill(lumd.pid, SIGSEGV);
    EXPECT_TRUE(matches(functions(taken(server)), "\\S+ (\\S+ )*main "));
    int status = 0;
    EXPECT_TRUE(waitpid(std::exchange(lumd.pid, 0), &status, 0) > 0 && WTERMSIG(status) == SIGQUIT);
}

} // namespace
