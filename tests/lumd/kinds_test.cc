#include "tests/lumd/fixture.h"

#include "app/app.h"
#include "device/board/board.h"
#include "lumd/mii.h"
#include "lumd/script.h"

#include <cmath>
#include <csignal>
#include <filesystem>
#include <random>
#include <regex>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using support::device_path, support::read_file, support::write_file;

// The built-in kinds, in virtual time on the virtual board.
struct kinds : lumd_test {
    std::map<std::string, size_t> seen; // length of each log so far
    int64_t began = 0;

    kinds()
    {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
        write_script("/etc/j", "echo $0 >>" + device_path("/ran"));
    }
    void new_board()
    {
        std::filesystem::remove_all(device_path("/board"));
        board_power_on();
        board_add_interface("eth0");
        board_add_interface("eth1");
        seen.clear();
    }
    void load(const std::string &conf) override
    {
        lumd_test::load(conf);
        new_board();
        began = support::now_us;
    }
    static void write_script(const std::string &path, const std::string &text)
    {
        write_file(path, "#!/bin/sh\n" + text + "\n");
        chmod(device_path(path).c_str(), 0755);
    }
    std::istringstream news(const std::string &name, const std::string &text)
    {
        const size_t from = std::exchange(seen[name], text.size());
        return std::istringstream(text.substr(std::min(from, text.size())));
    }

    // Everything since the last call: what the kinds logged; what the board did, each with the milliseconds
    // since the services were loaded; the fakes' operations.
    std::string events() override
    {
        static const std::regex told(
            R"(script: /etc/init\.d/(\S+)|link (up|down)!|(restart) service:( \w+)|(fail=\d+))"
            R"(|(no packet)|sched_do.*/(j)$|interval=(\S+)|(Rebooting)|netmon (release)!)"
            R"(|(ioctl .*)|(open gpio .*))");
        std::string all, line;
        std::smatch found;
        for (auto lines = news("daemon", log.text()); getline(lines, line);) {
            if (regex_search(line, found, told))
                all += found.format(", $1$2$3$4$5$6$7$8$9$10$11$12");
        }
        for (const std::string name : {"watchdog", "led", "system"}) {
            double sec;
            for (auto lines = news(name, read_file("/board/" + name + "/log"));
                 lines >> sec && getline(lines, line);)
                all += ", " + std::to_string((llround(sec * 1e6) - began) / 1000) + line;
        }
        const std::string fakes = trace();
        all += fakes.empty() ? "" : ", " + fakes;
        return all.substr(std::min<size_t>(all.size(), 2));
    }

    // Steps of the board, the packet counters and the clock, besides those of every service.
    void step(const std::string &text) override
    {
        std::istringstream words(text);
        std::string verb, name, rest;
        getline(words >> verb >> name >> std::ws, rest);
        if (verb == "put") {
            write_file("/board/" + name, rest);
        } else if (verb == "gone") {
            std::filesystem::remove(device_path(name));
        } else if (verb == "packets") { // received and sent by eth0 and eth1
            std::istringstream counts(name + " " + rest + " 0 0");
            std::string rx, tx, table = "Inter-|   Receive\n face |bytes    packets\n";
            for (const std::string device : {"  eth0:", "  eth1: "}) {
                counts >> rx >> tx;
                table += device + "900 " + rx + " 0 0 0 0 0 0 900 " + tx + " 0 0 0 0 0 0\n";
            }
            write_file("/proc/net/dev", table);
        } else if (verb == "clock") {
            tm local = {};
            strptime((name + " " + rest).c_str(), "%y%m%d %H%M%S", &local);
            local.tm_isdst = rest.ends_with("summer") ? 1 : rest.ends_with("winter") ? 0 : -1;
            support::now_us = mktime(&local) * 1000000LL;
            local.tm_mon = local.tm_isdst ? 0 : 6; // leaves the C library in the other season
            local.tm_isdst = -1;
            mktime(&local);
        } else {
            lumd_test::step(text);
        }
    }
};

TEST_F(kinds, netmon_follows_the_link)
{
    step("packets 5 0");
    play_all(R"(
down at the 15th check => service n;exec netmon eth0;service d;depends n => put eth0/link down / start d / wait 29900 / wait 200
  > down, n.stop, n.stop / wait 1800 / wait 200 > restart n / wait 99000 / put eth0/link up / wait 2100 > up, n.start, start d
at the 5th once it was up => service n;exec netmon eth0;service d;depends n => start d / wait 2100 > up, n.start, start d / up d
  / put eth0/link down / wait 9800 / wait 200 > down, n.stop, n.stop, stop d
flapping => service n;exec netmon eth0 => start n / wait 2100 > up, n.start / put eth0/link down / wait 8000 / put eth0/link up / wait 2000
  / put eth0/link down / wait 8000 / put eth0/link up / wait 9000
what cannot be read => service n;exec netmon eth0 => start n / wait 2100 > up, n.start / put eth0/link down / put eth0/failing 4 / wait 4000
  > ioctl error, ioctl error / gone /board/eth0/failing / wait 10000 > down, n.stop, n.stop
-n => service n;exec netmon -n eth0 => put eth0/failing all / start n / wait 2100 > up, n.start / wait 9999 / halt n > n.stop / start n
  / wait 2100 > up, n.start / stop n > n.stop, release
no table of packets => service n;exec netmon eth0 => gone /proc/net/dev / start n / wait 2100 > up, n.start / log file cannot be opened
again => service n;exec netmon eth0 => start n / wait 1500 / start n / wait 1900 / wait 200 > up, n.start / start n / halt n > n.stop
reload => service n;exec netmon eth0;depends A=1;syscfg B => start n / set B=1 > n.reload / set A=1 / wait 2100 > up, n.start / set B=2
  > n.reload
an option it does not know => service n;exec netmon -nx eth0 => start n / log unknown option: x / log FAILED: lumd_do_start() / wait 9999
an option alone => service n;exec netmon -n => start n / log netmon_start(): netmon:  / log missing device name / wait 9999)");
}

TEST_F(kinds, netmon_counts_packets)
{
    play_all(R"(
the sixth restart => service n;exec netmon eth0;service reboot => packets 5 0 / start n / wait 2100 > up, n.start / packets 6 0 / wait 2000
  / packets 6 1 / wait 122000 / wait 200 > fail=1, eth0.restart / wait 130000 / packets 6 2 / wait 122200 > fail=2, eth0.restart / packets 6 3
  / wait 122200 > fail=3, eth0.restart / packets 6 4 / wait 122200 > fail=4, eth0.restart / packets 6 5 / wait 122200 > fail=5, eth0.restart
  / packets 6 6 / wait 122200 > fail=6, eth0.restart, no packet, start reboot
one count for all => service n;exec netmon eth0;service m;exec netmon eth1 => packets 5 0 5 0 / start n / start m / wait 2100
  > up, n.start, up, m.start / packets 6 0 5 1 / wait 122200 > fail=1, eth1.restart / packets 6 1 5 1 / wait 122200 > fail=2, eth0.restart
  / packets 6 2 6 1 / wait 122200 > fail=1, eth0.restart
rx only => service n;exec netmon eth0 => packets 5 0 / start n / wait 2100 > up, n.start / packets 6 0 / wait 99999 / packets 7 0 / wait 99999
a packet in time => service n;exec netmon eth0 => packets 5 1 / start n / wait 110000 > up, n.start / packets 6 2 / wait 99999
wrap => service n;exec netmon eth0 => packets 4294967295 5 / start n / wait 2100 > up, n.start / packets 4294967296 6 / wait 125000)");
    // Ends when the loop continues; otherwise leaves a file as proof that the loop was held.
    write_script("/etc/init.d/eth0.restart",
                 "for i in $(seq 100); do [ ! -e $BOARD_DIR/go ] || exit; sleep .05; done; >" +
                     device_path("/held"));
    play_all("lasts => service n;exec netmon eth0 => packets 5 0 / start n / wait 2100 > up, n.start / "
             "packets 5 1 / wait 122200 > fail=1, eth0.restart / put go");
    EXPECT_NE(access(device_path("/held").c_str(), F_OK), 0) << "the loop was held";
}

// Settings of the board, and the link state read from them.
TEST_F(kinds, phys)
{
    const std::string cases = R"(
link up = 1 / link down = 0 / mii standard = 1 / mii standard; link down = 0 / mii none = -1 / phys = -1
 / mii standard; phys 7 0x7809 0x22 0x1619 0x101 = 1 / mii standard; phys = -1 / phys 31 0x7809 0x22 0x1619 0x101 = 1
 / phys 0 0x7809 0x22 0x1619 0x101 = -1 / phys 1 0x380d 0x22 0x1619 0x101 = -1 / phys 1 0x7809 0x22 0x1619 0xe1 = -1
 / phys 1 0x7809 0x22 0x1619 0x102 = -1 / phys 1 0x7809 0xffff 0x1619 0x101 = -1 / phys 1 0x7809 0x22 0x1619 0x1e1 = 1
 / link as it is; phys 1 0x380d 1 1 0x101 2 0x7809 1 1 0x101 3 0x780d 1 1 0x101 = 0 / failing 1 = -1 / failing 2 = -1
 / failing 3 = -1 / failing 4 = -1 / mii standard; failing 1 = -1 / mii registers = 1
 / mii registers; phys 7 0x7809 0x22 0x1619 0x101; link down = 0 / mii registers; failing 1 = -1)";
    for (const std::string &row : split(cases.substr(1), " / ")) {
        new_board();
        for (const std::string &setting : split(row.substr(0, row.find(" =")), "; "))
            step("put eth0/" + setting);
        EXPECT_EQ(get_link_status("eth0"), stoi(row.substr(row.find(" = ") + 3))) << row;
    }
}

TEST_F(kinds, watchdog)
{
    play_all(R"(
fed and blinking => service w;exec watchdog;service v;exec watchdog => start w > 0 open / wait 1600
  > 500 feed, 1000 feed, 1500 feed, 1000 0xa010 1 / halt w > 1600 stop, 1600 close, 1600 close / start v > 1600 open / stop w
variables => service w;exec watchdog => set WD=0x1f WD_TIMER=50 / start w > 0 open / wait 270 > 50 0x1f 1, 150 0x1f 0, 250 0x1f 1
  / set WD_TIMER=200 / wait 300 > 500 feed, 350 0x1f 0, 550 0x1f 1
text => service w;exec watchdog => set WD=037 WD_TIMER=soon / start w > 0 open / wait 10 > 0 0x1f 1 / set WD_TIMER= / wait 100 > 100 0x1f 0
a reload => service w;exec watchdog;syscfg WD_* => set WD= WD_TIMER=2000 / start w > 0 open / wait 700 > 500 feed / set WD_TIMER=300 / wait 700
  > 1000 feed, 1000 0xa010 1, 1300 0xa010 0 / set WD_TIMER=7 / wait 150 > 1500 feed, 1500 0xa010 1
no devices => service w;exec watchdog => gone /board/watchdog/feeds / gone /board/led/level / set WD_TIMER=1000 / start w
  > open gpio No such file or directory / wait 2100 > ioctl Bad file descriptor, ioctl Bad file descriptor
again => service w;exec watchdog => start w > 0 open / wait 300 / start w > 300 stop, 300 close, 300 open, 300 close / wait 600 > 800 feed
reload before start => service w;exec watchdog;depends A=2;syscfg WD_TIMER => start w / set WD_TIMER=300 / wait 9999)");
}

TEST_F(kinds, sched)
{
    play_all(R"(
60 s => service j;exec sched 60 /etc/j;service d;depends j => start d > 60/60, start d / wait 59900 / wait 200 > j / wait 59800 / wait 200 > j
daily => service j;exec sched 3:0:0 /etc/j => clock 240110 020000 / start j > 3600/86400 / wait 3600100 > j / wait 86399700 / wait 200 > j
at the exact second => service j;exec sched 3:0:0 /etc/j => clock 240110 030000 / start j > 86400/86400
over midnight => service j;exec sched 0:0:5 /etc/j => clock 241231 235950 / start j > 15/86400 / wait 15100 > j
an hour of the next day => service j;exec sched 25:00:00 /etc/j => clock 240110 020000 / start j > 82800/86400
the longest => service j;exec sched 255:255:255 /etc/j => clock 240110 000000 / start j > 933555/86400
later on the day summer begins => service j;exec sched 5:00:00 /etc/j => clock 240331 003000 / start j > 12600/86400
later on the day it ends => service j;exec sched 5:00:00 /etc/j => clock 241027 003000 / start j > 19800/86400
the day before it begins, an hour late => service j;exec sched 5:00:00 /etc/j => clock 240330 120000 / start j > 61200/86400
the hour that comes twice, first => service j;exec sched 2:30:00 /etc/j => clock 241027 021000 summer / start j > 1200/86400
and again => service j;exec sched 2:30:00 /etc/j => clock 241027 021000 winter / start j > 1200/86400
and over => service j;exec sched 2:30:00 /etc/j => clock 241027 041000 / start j > 80400/86400
the hour that is skipped => service j;exec sched 2:30:00 /etc/j => clock 240331 015000 / start j > 2400/86400
the second before 1970 => service j;exec sched 0:59:59 /etc/j => clock 700101 005950 / start j > 9/86400
late on the day it ends => service j;exec sched 0:30:00 /etc/j => clock 241027 234500 / start j > 2700/86400
what follows three numbers => service j;exec sched 5:00:00:x /etc/j => clock 240110 040000 / start j > 3600/86400
set => service j;exec sched 3:0:0 /etc/j => clock 240110 020000 / start j > 3600/86400 / clock 240110 025958 / wait 1900 / wait 200 > j
beyond => service j;exec sched 3:0:0 /etc/j => clock 700110 020000 / start j > 3600/86400 / clock 240110 140000 / wait 10 > j / wait 86400100
  > j
back => service j;exec sched 3:0:0 /etc/j => clock 240110 020000 / start j > 3600/86400 / clock 240110 010000 / wait 7199900 / wait 200 > j
variable => service j;exec sched @(JOB) /etc/j;syscfg JOB => set JOB=60 / start j > 60/60 / wait 60100 > j / set JOB=5 / wait 1900 / wait 200
  > restart j, 5/5 / wait 5000 > j / set JOB= / wait 9999 > restart j / log invalid time spec: / set JOB=7 / wait 2100 > restart j, 7/7
again => service j;exec sched 60 /etc/j => start j > 60/60 / wait 30000 / start j > 60/60 / wait 59900 / wait 200 > j
reload before start => service j;exec sched 60 /etc/j;depends A=2;syscfg B => start j / set B=1 / wait 9999 > restart j
no such variable => service j;exec sched @(NONE /etc/j => start j / log cannot get syscfg: NONE / wait 99999
no program => service j;exec sched 60 => start j / log sched_start(): sched: / log missing argument / wait 99999
no closing quote => service j;exec sched 60 "x => start j / log missing argument / wait 99999
none that runs => service j;exec sched 60 /etc/none => start j / log not executable /etc/none / wait 99999)");
    EXPECT_EQ(split(read_file("/ran"), "\n").size(), 13u); // jobs that ran
    for (const std::string &spec : split("0 abc -5 60s 4294968 1:2 1:2: :1:2 256:0:0 1:2:-3", " "))
        play_all("no => service j;exec sched " + spec + " /etc/j => start j / log time spec: " + spec);
}

// Ends in the loop that never returns.
TEST_F(kinds, reboot)
{
    write_script("/etc/init.d/reboot", "while [ -d $BOARD_DIR -a ! -e $BOARD_DIR/go ]; do sleep .02; done");
    support::on_idle = [this, pauses = 0]() mutable {
        if (support::poll_timeouts.back() != 60000 || ++pauses < 3)
            return;
        began = support::now_us - 120000900;
        const std::string all = events();
        EXPECT_TRUE(all.ends_with("60000 kill 1 1, 60000 sleep 60, 120000 kill 1 1, 120000 sleep 60")) << all;
        fflush(nullptr);
        _exit(HasFailure());
    };
    const std::string begin =
        "=> service watchdog;exec watchdog;service r;exec reboot;syscfg A;service d;depends r => "
        "start watchdog > 0 open / ";
    support::isolated([&] {
        play_all("script " + begin + R"(wait 100 / start d > reboot, start d / start r > reboot / wait 1990
  > Rebooting, 500 feed, 1000 feed, 1100 stop, 1100 close, 1000 0xa010 1, 1100 close / halt r / set A=1 / stop r / wait 990 > Rebooting
  / put go / log FAILED: sig_handler() / wait 1000 > came back)");
    });
    support::isolated([&] {
        support::fail_call(support::VFORK, 1);
        play_all("none " + begin + "start r > reboot / wait 1000 > came back");
    });
}

// Meanwhile services die and other signals arrive.
TEST_F(kinds, waiting_scripts_learn_how_they_ended)
{
    const std::string ends[] = {"0", "7", "255", "-1"};
    for (const std::string &end : ends)
        write_script("/etc/init.d/s." + end, end == "-1" ? "kill -9 $$" : "exit " + end);
    load("service a;exec sleep 99;service b;exec true");
    play("start a / runs a / start b");
    struct sigaction interrupts = {};
    interrupts.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupts, nullptr);

    const itimerval often = {{0, 700}, {0, 700}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    for (int i = 0; i < 1000; ++i) {
        support::now_us += 2100000; // restarts b
        app_poll_once();
        if (i % 10 == 0)
            signal_child("a", SIGKILL);
        EXPECT_EQ(run_script("s", ends[i % 4].c_str(), 1), stoi(ends[i % 4])) << i;
    }
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_TRUE(log.has("proc a kill by signal 9") && log.has("proc b exited with status: 0"));
    const std::string longest(64 - sizeof "/etc/init.d/", 'l');
    EXPECT_EQ(run_script(longest.c_str(), nullptr, 1), 255);
    log.clear();
    EXPECT_EQ(run_script((longest + "l").c_str(), nullptr, 1), -1);
    EXPECT_TRUE(log.has("path too long: /etc/init.d/l") && !log.has("run script"));
}

TEST_F(kinds, children_start_clean_and_leave_no_zombie)
{
    if (support::pipe_end() >= 0)
        GTEST_SKIP() << "there was a process service before: run this test alone";
    for (const char *path : {"/etc/j", "/etc/p", "/etc/init.d/s.now"})
        write_script(path, "(echo $#; ls /proc/self/fd; grep -E 'SigBlk|SigIgn' /proc/self/status) >" +
                               device_path("/${0##*/}"));
    for (const bool old : {false, true}) {
        old_kernel = old;
        support::isolated([this] {
            const sigset_t all = {{~0UL}};
            sigprocmask(SIG_BLOCK, &all, nullptr);
            signal(SIGINT, SIG_IGN);
            for (const int fd : {40, 700, 1023})
                dup2(STDERR_FILENO, fd);
            load("service j;exec sched 1 /etc/j;service p;exec -/etc/p");
            play("start p / ends p / start j > 1/1 / wait 1500 > j");
            EXPECT_GT(run_script("s", "now", 0), 0);
            EXPECT_TRUE(eventually(no_child_left));
        });
        for (const char *name : {"/j", "/s.now", "/p"})
            EXPECT_EQ(read_file(name),
                      "0\n0\n1\n2\n3\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    }
    old_kernel = false;
}

// No descriptors, timers, children or memory, whatever is asked in whatever state, and whatever fails.
TEST_F(kinds, nothing_is_left_over)
{
    load("service w;exec watchdog;syscfg V;service n;exec netmon eth0;depends w;syscfg V;service j;"
         "exec sched 1 /etc/j;syscfg V");
    step("packets 5 1 5 1");
    const std::string round = "start n/start j/wait 2500/set V=1/wait 2500";
    const auto any = split(round + "/start w/wait 900/halt w/halt n/halt j/stop w/stop n/stop j", "/");
    std::mt19937 random(1);
    std::string rounds = round;
    for (int i = 0; i < 2000; ++i)
        rounds += "/" + any[random() % any.size()];
    std::map<std::string, std::set<std::string>> usual;
    std::map<std::string, std::vector<std::string>> whole; // everything done, without times
    for (const char *action : {"start", "stop", "reload"})
        write_script("/etc/init.d/n." + std::string(action), "echo $0 >>" + device_path("/ran"));
    const auto play_and_end = [&](const std::string &steps) {
        for (const std::string &text : split(steps, "/"))
            step(text);
        end_services();
        // Results of the watchdog's device are ignored.
        const bool silent = support::failed_kind & (support::OPEN | support::WRITE | support::IOCTL);
        EXPECT_TRUE(tells_news(usual[steps]) || !support::end_failing() || silent) << log.text();
        EXPECT_LE(log.has("FAILED: sched_start()"), log.has("FAILED: lumd_do_start()")) << log.text();
        std::vector<std::string> done = split(read_file("/ran"), "\n");
        std::sort(done.begin(), done.end());
        done.push_back(regex_replace(events(), std::regex("\\b[0-9]+ "), ""));
        const bool all =
            whole.emplace(steps, done).first->second == done && !log.has("file cannot be opened");
        step("gone /ran");
        log.clear(), seen.erase("daemon");
        return all;
    };
    play_and_end(round); // opens the process's lasting sockets and pipe
    support::for_each_failure(0, [&] { return play_and_end(rounds); });
    using namespace support; // no WRITE: a pipe that refuses a notice counts as full
    EXPECT_GE(for_each_failure(ALLOC | OPEN | SOCKET | VFORK | IOCTL, [&] { return play_and_end(round); }),
              50);
    EXPECT_EQ(for_each_failure(WRITE, [&] { return play_and_end("start w/wait 600/set V=1/wait 600"); }), 8);
}

} // namespace
