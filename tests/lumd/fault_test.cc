#include "tests/lumd/fixture.h"

#include "app/app.h"
#include "lumd/cfgdb.h"
#include "syscfg/registry.h"

#include <algorithm>
#include <csignal>
#include <regex>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct faults : lumd_test {
    // Fails each call in turn, in a forked process since some effects cannot be undone, until no call is left
    // to fail. Every failure, except of the silent kinds, must be logged and make run return false. At most
    // kept descriptors may stay open.
    void sweep(unsigned kinds, unsigned silent, int kept, const std::function<bool()> &run) const
    {
        const auto fails_at = [&](unsigned kind, int k, int error) {
            const int status = support::forked([&] {
                log.clear();
                const int before = support::open_descriptors();
                support::fail_call(kind, k, false, false, error);
                const bool done = run(), failed = support::end_failing(), wrong = failed && !(kind & silent);
                std::set<std::string> usual = {"", "FAILED: sig_handler"}; // at the end of the last child
                EXPECT_EQ(done, !wrong) << k << " of " << kind << log.text();
                EXPECT_EQ(tells_news(usual), wrong) << k << " of " << kind << log.text();
                EXPECT_LE(support::open_descriptors(), before + kept) << k << " of " << kind;
                return HasFailure() ? 2 : int{failed};
            });
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

// The database keeps its socket as long as the process lives, SIGCHLD its pipe; the FIFO has two descriptors.
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
    // Without a link, a variable or a value the daemon starts, but logs it.
    static const std::regex passed_over(
        "failed to read |invalid |cannot open( default|: /etc/more.def)|"
        "(FAILED|SYSERROR): (lumd_init_service_infos|build_|load_|parse_def|add_var)");
    // These failures have a fallback, or leave an existing FIFO.
    sweep(support::ALL_CALLS, support::SETSOCKOPT | support::MKFIFO, 5, [this] {
        lumd *fresh = lumd_create();
        const int result = fresh ? lumd_init(fresh, "/etc/svc.conf") : -1;
        EXPECT_TRUE(result < 0 || support::pipe_end() >= 0) << "ends would go unseen";
        return result == 0 && !regex_search(log.messages(), passed_over) &&
               std::string("1") == cfgdb_getSyscfg(fresh->cfgdb, "A");
    });
}

// Services with commands are started, reloaded, killed, due for a restart and released; one runs once.
TEST_F(faults, of_a_start)
{
    std::set<std::string> usual;
    const auto round = [&] {
        log.clear();
        step("start b");
        // Without memory for the timer of deferred calls, the start of a is never reported.
        const bool untold = process("a") && process("a")->pid > 0 && !app_scheduler.timer;
        step("start c");
        const auto runs = [this](const char *name) { return process(name) && process(name)->pid > 0; };
        const bool ran = runs("c");
        support::run_for(1);
        bool all = ran && runs("a") && runs("b");
        EXPECT_EQ(all || untold, !log.has("FAILED: lumd_do_start"));
        all = all && slot("b")->svcent->state == 1;
        apply("V=1");
        signal_child("a", SIGKILL), signal_child("b", SIGKILL);
        EXPECT_TRUE(eventually(no_child_left));
        for (int i = 0; i < 5; ++i)
            app_poll_once();
        all = all && slot("a")->restart_timer.get() && slot("b")->restart_timer.get() &&
              process("c")->state == 1;
        end_services();
        all = all && !log.has("cannot ");
        const bool failed = support::end_failing();
        // Failed polls and reads are repeated; the record of ended processes is optional.
        const bool silent = support::failed_kind & (support::POLL | support::READ | support::OPEN);
        EXPECT_TRUE(tells_news(usual) || !failed || silent || untold) << log.text();
        timer_free(std::exchange(app_scheduler.timer, nullptr)); // it may be made in any round
        return all;
    };
    load("service a;exec sleep 99;stop -kill 9;reload -true;syscfg V;service b;exec sleep 99;depends a;"
         "stop -true;reload -kill 1;syscfg V;service c;exec -true");
    round();
    // No WRITE: a pipe that refuses a notice counts as full, and later notices follow.
    const unsigned again = support::POLL | support::READ | support::OPEN;
    EXPECT_GE(support::for_each_failure(support::ALL_CALLS & ~support::WRITE, round, again), 8);
    support::fail_call(support::VFORK, 1);
    play("start a / log SYSERROR: proc_svcent_start(): proc_se:  / log FAILED: lumd_do_start() / state a 0");
    EXPECT_EQ(app_scheduler.head, nullptr);
    play("start a / runs a");
}

TEST_F(faults, of_a_reboot)
{
    support::write_file("/etc/init.d/reboot", "#!/bin/sh\n");
    chmod(support::device_path("/etc/init.d/reboot").c_str(), 0755);
    load("service r;exec reboot");
    sweep(support::ALLOC | support::VFORK, 0, 0, [this] {
        step("start r");
        return slot("r")->svcent && !log.has("SYSERROR: ") && !log.has("FAILED: reboot_start") &&
               !log.has("FAILED: create_reboot_svcent"); // a program is tried then
    });
}

} // namespace
