#include "tests/lumd/fixture.h"

#include <filesystem>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct process_kind : lumd_test {};

TEST_F(process_kind, scripts)
{
    play_all(R"(
a one-shot that failed => service o;exec -seven;service n;depends o => start n / ends o / state o 0 / timer o 0
  / log proc o exited with status: 7 / log one shot exec error!
the end of a one-shot's stop program is its own => service o;exec -true;stop -true => start o / ends o / state o 1
  / halt o / log no handler for true, try to run it as program / back o / ends o / state o 1
without a stop command a stop is a death => service a;exec sleep 99;service b;depends a => start b / runs a > start b
  / start a / up b / halt a > stop b / log a stop: (null) / state a 1 / back a / log proc a kill by signal 15
  / runs a > start b / stop a / wait 9999 / state a -1
a stop handler takes charge of the end => service a;exec sleep 99;stop -kill SIGUSR1 => start a / runs a / halt a
  / state a 2 / ends a / log proc a kill by signal 10 / timer a 0 / start a / runs a / start a / halt a / state a 2
a stop handler that cannot => service a;exec sleep 99;stop -kill SIGNO => start a / runs a / halt a / state a 2
  / log signal num out of range / log FAILED: proc_svcent_stop(): proc_se:
a reload handler that cannot => service a;exec sleep 99;syscfg A;reload -kill SIGNO => start a / runs a / set A=1
  / log FAILED: proc_svcent_reload(): proc_se:  / state a 1
a stop program that cannot be found => service a;exec sleep 99;stop -nosuch => start a / runs a / halt a / state a 1
  / log cannot find program: nosuch / log cannot run nosuch
reload is SIGHUP => service a;exec sleep 99;syscfg A => start a / runs a / set A=1 / back a
  / log proc a kill by signal 1
reload by a handler => service a;exec sleep 99;syscfg A;reload -kill 12 => start a / runs a / set A=1 / back a
  / log proc a kill by signal 12
no program => service a;exec nosuch => start a / log can not find nosuch / state a -1
a program that cannot be run is tried again every time => service a;exec broken => start a / back a / back a / back a
  / log SYSERROR: proc_svcent_start(): proc_se:  / log proc a exited with status: 255)");
}

TEST_F(process_kind, ends_are_recorded_where_a_record_exists)
{
    load("service kept;exec -seven;service unkept;exec -nine");
    support::write_file("/tmp/log/kept.svc.log", "old\n");
    play("start kept / ends kept / start unkept / ends unkept");
    EXPECT_EQ(support::read_file("/tmp/log/kept.svc.log"), "old\nexited with 7\n");
    EXPECT_FALSE(std::filesystem::exists(support::device_path("/tmp/log/unkept.svc.log")));
    support::write_file("/tmp/log/unkept.svc.log", "");
    play("start unkept / ends unkept");
    EXPECT_EQ(support::read_file("/tmp/log/unkept.svc.log"), "kill by signal 9\n");
}

// What a stranger can prepare in /tmp leads to no other file.
TEST_F(process_kind, an_end_is_recorded_in_no_file_behind_a_link)
{
    namespace fs = std::filesystem;
    load("service kept;exec -seven");
    const fs::path dir = support::device_path("/tmp/log"), record = dir / "kept.svc.log";
    const fs::path elsewhere = support::device_path("/tmp/elsewhere"), passwd = elsewhere / "kept.svc.log";
    const std::function<void()> traps[] = {
        [&] { fs::create_directory_symlink(elsewhere, dir); },
        [&] { fs::create_directory(dir), fs::create_symlink(passwd, record); },
        [&] { fs::create_directory(dir), fs::create_hard_link(passwd, record); },
        [&] { fs::create_directory(dir), mkfifo(record.c_str(), 0666); },
    };
    for (const auto &set_trap : traps) {
        support::write_file("/tmp/elsewhere/kept.svc.log", "");
        set_trap();
        play("start kept / ends kept");
        EXPECT_EQ(support::read_file("/tmp/elsewhere/kept.svc.log"), "");
        fs::remove_all(dir);
    }
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a directory away";
    support::write_file("/tmp/log/kept.svc.log", "");
    ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
    play("start kept / ends kept");
    EXPECT_EQ(support::read_file("/tmp/log/kept.svc.log"), "") << "its directory is a stranger's";
}

TEST_F(process_kind, signal_specs)
{
    std::istringstream rows(
        "SIGHUP=1 SIGTERM=15 SIGUSR1=10 SIGCHLD=17 SIGSYS=31 SIGRTMIN=32 9=9 10x=10 63=63 64=-1 "
        "sigrtmin+2=36 SIGRTMIN+0=34 SIGRTMIN+-2=32 SigRTmax-1=63 SIGRTMAX-0=-1 0=-1 -9=-1 "
        "SIGRTMAX-64=-1 SIGRTMIN+99999999999999999999=-1 4294967305=-1 sigterm=-1 TERM=-1 =-1 "
        "SIGRTMAX=-1 SIGTERMS=-1");
    for (std::string row; rows >> row;) {
        log.clear();
        const int number = stoi(row.substr(row.rfind('=') + 1));
        EXPECT_EQ(parse_sigspec(row.substr(0, row.rfind('=')).c_str()), number) << row;
        EXPECT_EQ(log.has("parse_sigspec(): proc_se: "), number < 0) << row;
    }
}

} // namespace
