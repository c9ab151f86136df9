// The built-in kinds on the board, in real time, with the board's own watchdog over the daemon.
#include "tests/device/under_test.h"

#include <gtest/gtest.h>

namespace {

const std::string board = "/board/";

size_t lines_with(const std::string &text, const std::string &path)
{
    size_t count = 0;
    std::istringstream lines(read_file(path));
    for (std::string line; getline(lines, line);)
        count += line.find(text) != line.npos;
    return count;
}

// A child's end within some seconds; -1 when it goes on.
int end_of(pid_t pid, double seconds)
{
    int status = -1;
    return eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds) ? status : -1;
}

struct kinds : testing::Test {
    const double begun = now();
    running_lumd lumd{"/tmp/svc.conf"};

    static void SetUpTestSuite()
    {
        write_file("/etc/syscfg.def", "EVERY string(8)\n");
        write_file("/usr/etc/syscfg.default", "EVERY=1\n");
        write_file("/tmp/svc.conf",
                   "service watchdog\nexec watchdog\nservice net\nexec netmon eth0\nservice web\n"
                   "exec sleep 1001\ndepends net\nstop -kill SIGTERM\nservice reboot\nexec reboot\n"
                   "service job\nexec sched $(EVERY) /tmp/job\nsyscfg EVERY\n");
        for (const std::string path : {"/tmp/job", "/etc/init.d/net.start", "/etc/init.d/net.stop"}) {
            write_file(path, "#!/bin/sh\necho ${0##*/} >>/tmp/ran\n");
            std::filesystem::permissions(path, std::filesystem::perms::all);
        }
        write_file("/etc/init.d/reboot", "#!/bin/sh\nsleep 2.5\n"); // is executable
        write_file(board + "watchdog/timeout", "3");
    }
    static size_t ran(const std::string &script) { return lines_with(script, "/tmp/ran"); }
};

TEST_F(kinds, a_minute_on_the_board)
{
    ASSERT_TRUE(lumd.has_started());
    const pid_t watcher = fork();
    if (watcher == 0)
        _exit(execl("/opt/bin/board", "board", "watch", "/board", std::to_string(lumd.pid).c_str(), nullptr));
    request("start watchdog web job\n");
    ASSERT_TRUE(eventually([&] { return lumd.child("1001") > 0; }));
    write_file(board + "eth0/link", "down");
    const double pulled = now();
    const size_t jobs = ran("job");
    EXPECT_TRUE(eventually([&] { return lumd.child("1001") == 0; }, 20));
    EXPECT_NEAR(now() - pulled, 9, 2); // the fifth check
    EXPECT_NEAR(static_cast<double>(ran("job") - jobs), now() - pulled, 1.5);
    EXPECT_EQ(ask({"EVERY=4", "%apply"}), "!OK!OK");
    const double applied = now();
    const size_t every_second = ran("job");
    EXPECT_FALSE(eventually([&] { return lumd.child("1001") > 0; }, 5)); // as long as it is down
    EXPECT_TRUE(ran("net.start") == 1 && ran("net.stop") == 2);
    write_file(board + "eth0/link", "up");
    EXPECT_TRUE(eventually([&] { return lumd.child("1001") > 0; }, 5));
    EXPECT_EQ(ran("net.start"), 2u);
    EXPECT_EQ(end_of(watcher, begun + 60 - now()), -1);
    EXPECT_NEAR(static_cast<double>(ran("job") - every_second), (now() - applied - 2) / 4, 1.5);
    EXPECT_GE(lines_with("feed", board + "watchdog/log"), 110u);
    const pid_t web = lumd.child("1001");
    kill(lumd.pid, SIGSTOP);
    EXPECT_EQ(end_of(watcher, 6), W_EXITCODE(5, 0));
    kill(web, SIGKILL);
    EXPECT_EQ(end_of(std::exchange(lumd.pid, 0), 1), SIGKILL);
}

TEST_F(kinds, a_reboot)
{
    write_file(board + "system/sleep", "200");
    ASSERT_TRUE(lumd.has_started());
    request("start watchdog job reboot\n");
    EXPECT_TRUE(eventually([] { return lines_with(" stop", board + "watchdog/log") == 1; }, 2));
    EXPECT_TRUE(read_file(board + "watchdog/feeds").find(" off") != std::string::npos);
    EXPECT_EQ(ask({"?EVERY"}), ">1"); // the script still runs
    EXPECT_EQ(lines_with("kill 1 1", board + "system/log"), 0u);
    EXPECT_TRUE(eventually([] { return lines_with("kill 1 1", board + "system/log") >= 3; }, 4));
    EXPECT_GE(lines_with("sleep 60", board + "system/log"), 3u);
    EXPECT_EQ(lines_with("Rebooting...", running_lumd::log_path), 3u);
}

} // namespace
