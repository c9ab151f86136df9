#include "tests/lumd/fixture.h"

#include "app/app.h"
#include "syscfg/registry.h"

#include <algorithm>
#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct faults : lumd_test {
    // What is not undone runs in processes of its own, until no call is left to fail. Every failure is told
    // but of the silent kinds; run returns how many descriptors may stay.
    void sweep(unsigned kinds, unsigned silent, const std::function<int()> &run) const
    {
        const auto fails_at = [&](unsigned kind, int k, int error) {
            const pid_t child = fork();
            if (child == 0) {
                log.clear();
                const int before = support::open_descriptors();
                support::fail_call(kind, k, false, false, error);
                const int kept = run();
                const bool failed = support::end_failing();
                std::set<std::string> usual = {"", "FAILED: sig_handler"}; // when the last child has ended
                EXPECT_EQ(tells_news(usual), failed && !(kind & silent)) << k << " of " << kind << log.text();
                EXPECT_LE(support::open_descriptors(), before + kept) << k << " of " << kind;
                _exit(HasFailure() ? 2 : failed);
            }
            int status = -1;
            waitpid(child, &status, 0);
            EXPECT_TRUE(status == 0 || status == 1 << 8);
            return status == 1 << 8;
        };
        for (const auto &[kind, errors] : support::call_errors) {
            for (const int error : kinds &kind ? errors : std::vector<int>()) {
                for (int k = 1; fails_at(kind, k, error);)
                    ++k;
            }
        }
    }
};

// The database keeps its socket as long as the process lives, and the FIFO has two descriptors.
TEST_F(faults, of_the_start_up)
{
    support::write_file("/etc/syscfg.def", "A string\nB choice x,y\nx alias z\n%include /etc/more.def\n");
    support::write_file("/etc/more.def", "C integer\n");
    support::write_file("/usr/etc/syscfg.constant", "C=3\n");
    support::write_file("/usr/etc/syscfg.default", "A=1\nB=x\n");
    for (const char *device : {"/dev/mtdblock/5", "/dev/mtdblock/6"})
        support::write_file(device, std::string(131072, '\0'));
    ASSERT_GT(registry_write_hwinfo("M=1\n", 4) + registry_write("syscfg", "A=1\n", 4), 7);
    support::write_file("/etc/svc.conf",
                        "service a\nexec sleep 99\nstop -kill 9\ndepends A=1 b\nsyscfg A* B\nservice b\n");
    // There is another way, or a FIFO.
    sweep(support::ALL_CALLS, support::SETSOCKOPT | support::MKFIFO, [] {
        lumd *fresh = lumd_create();
        const int result = fresh ? lumd_init(fresh, "/etc/svc.conf") : -1;
        EXPECT_TRUE(result == 0 || support::end_failing());
        return result < 0 ? 1 : 3;
    });
}

// Services with commands start, are reloaded, die, wait for their restart and are released; one runs once.
TEST_F(faults, of_a_start)
{
    std::set<std::string> usual;
    const auto round = [&] {
        log.clear();
        step("start b");
        // Nobody is told when there is no memory for the timer of deferred calls.
        const bool untold = process("a") && process("a")->pid > 0 && !app_scheduler.timer;
        step("start c");
        support::run_for(1);
        apply("V=1");
        for (const proc_svcent *killed : {process("a"), process("b")})
            if (killed && killed->pid > 0)
                kill(killed->pid, SIGKILL);
        EXPECT_TRUE(eventually(no_child_left));
        for (int i = 0; i < 5; ++i)
            app_poll_once();
        end_services();
        const bool failed = support::end_failing();
        // Polls and reads are done again; there need not be a record of ends.
        const bool silent = support::failed_kind & (support::POLL | support::READ | support::OPEN);
        EXPECT_TRUE(tells_news(usual) || !failed || silent || untold) << log.text();
        timer_free(std::exchange(app_scheduler.timer, nullptr)); // which round makes it is of no matter
    };
    load("service a;exec sleep 99;stop -kill 9;reload -true;syscfg V;service b;exec sleep 99;depends a;"
         "stop -true;reload -kill 1;syscfg V;service c;exec -true");
    round();
    // A pipe that does not take a notice is full, and others follow.
    EXPECT_GE(support::for_each_failure(support::ALL_CALLS & ~support::WRITE, round), 8);
    support::fail_call(support::VFORK, 1);
    play("start a / log SYSERROR: proc_svcent_start(): proc_se:  / log FAILED: lumd_do_start() / state a 0");
    EXPECT_EQ(app_scheduler.head, nullptr);
    play("start a / runs a");
}

// The pipe for SIGCHLD stays.
TEST_F(faults, of_a_reboot)
{
    support::write_file("/etc/init.d/reboot", "#!/bin/sh\n");
    chmod(support::device_path("/etc/init.d/reboot").c_str(), 0755);
    load("service r;exec reboot");
    sweep(support::ALLOC | support::OPEN | support::PIPE | support::VFORK, 0, [this] {
        step("start r");
        return 2;
    });
}

// Without the pipe services start all the same, and none of their ends is lost once there is one.
TEST_F(faults, of_the_pipe)
{
    if (support::pipe_end() >= 0)
        GTEST_SKIP() << "there is a pipe already: run this test alone";
    load("service a;exec sleep 99;service b;exec sleep 99");
    support::fail_call(support::PIPE, 1);
    play("start a / log FAILED: proc_svcent_signal_init() / runs a / kill a 9 / log FAILED: sig_handler() / "
         "start b / runs b / back a / runs b");
}

} // namespace
