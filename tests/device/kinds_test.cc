// The built-in kinds on the board, in real time, with the board's own watchdog over the daemon.
#include "tests/device/under_test.h"

#include <gtest/gtest.h>

namespace {

int end_of(pid_t pid, double seconds) // -1 when it goes on
{
    int status = -1;
    return eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds) ? status : -1;
}

struct kinds : testing::Test {
    const double begun = now();
    running_lumd lumd{"/tmp/svc.conf"};

    kinds() { EXPECT_TRUE(lumd.has_started()); }
    static void SetUpTestSuite()
    {
        EXPECT_EQ(0, system(R"(echo 'EVERY string(8)' >/etc/syscfg.def; echo EVERY=1 >/usr/etc/syscfg.default
echo 3 >/board/watchdog/timeout; echo 200 >/board/system/sleep
printf '#!/bin/sh\nsleep 2.5\n' >/etc/init.d/reboot
printf '#!/bin/sh\necho ${0##*/} >>/tmp/ran\n' | tee /etc/init.d/net.start /etc/init.d/net.stop >/tmp/job
chmod 755 /etc/init.d/net.* /tmp/job)"));
        write_file("/tmp/svc.conf", "service watchdog\nexec watchdog\nservice reboot\nexec reboot\n"
                                    "service net\nexec netmon eth0\nservice web\nexec sleep 1001\n"
                                    "depends net\nstop -kill SIGTERM\n"
                                    "service job\nexec sched $(EVERY) /tmp/job\nsyscfg EVERY\n");
    }
};

TEST_F(kinds, a_minute_on_the_board)
{
    const pid_t watcher = fork();
    if (watcher == 0)
        _exit(execl("/opt/bin/board", "board", "watch", "/board", std::to_string(lumd.pid).c_str(), nullptr));
    request("start watchdog web job\n");
    ASSERT_TRUE(eventually([&] { return lumd.child("1001") > 0; }));
    write_file("/board/eth0/link", "down");
    const double pulled = now(), jobs = count("job", "/tmp/ran");
    EXPECT_TRUE(eventually([&] { return lumd.child("1001") == 0; }, 20));
    EXPECT_NEAR(now() - pulled, 9, 2); // the fifth check
    EXPECT_NEAR(count("job", "/tmp/ran") - jobs, now() - pulled, 1.5);
    EXPECT_EQ(ask({"EVERY=4", "%apply"}), "!OK!OK");
    const double applied = now(), every_second = count("job", "/tmp/ran");
    EXPECT_FALSE(eventually([&] { return lumd.child("1001") > 0; }, 5)); // as long as the link is down
    EXPECT_TRUE(count("net.start", "/tmp/ran") == 1 && count("net.stop", "/tmp/ran") == 2);
    write_file("/board/eth0/link", "up");
    EXPECT_TRUE(eventually([&] { return lumd.child("1001") > 0; }, 5));
    EXPECT_EQ(end_of(watcher, begun + 60 - now()), -1);
    EXPECT_NEAR(count("job", "/tmp/ran") - every_second, (now() - applied - 2) / 4, 1.5);
    const pid_t web = lumd.child("1001");
    kill(lumd.pid, SIGSTOP);
    EXPECT_EQ(end_of(watcher, 6), W_EXITCODE(5, 0));
    kill(web, SIGKILL);
    EXPECT_EQ(end_of(std::exchange(lumd.pid, 0), 1), SIGKILL);
}

TEST_F(kinds, a_reboot)
{
    request("start watchdog job reboot\n");
    EXPECT_TRUE(eventually([] { return count(" off", "/board/watchdog/feeds") == 1; }, 3));
    EXPECT_EQ(ask({"?EVERY"}), ">1"); // the script still runs
    EXPECT_TRUE(eventually([] { return count("sleep 60", "/board/system/log") > 3; }, 4));
    EXPECT_GE(count("kill 1 1", "/board/system/log"), 3);
    EXPECT_GE(count("Rebooting...", running_lumd::log_path), 3);
}

} // namespace
