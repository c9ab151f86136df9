#include "tests/device/under_test.h"

#include <ctime>
#include <gtest/gtest.h>
#include <utility>

namespace {

constexpr char announced[] = "starting lumd...\nlumd started!\n";

struct end_to_end : testing::Test {
    end_to_end()
    {
        write_file("/etc/syscfg.def",
                   "MODEL -r string\nNAME string(16) [a-z]*\nNUM integer\nFLAG bool\nV bool\n"
                   "NOTE -n string\nPICK choice red,green\nred alias crimson\nTZ string(32)\n");
        write_file("/usr/etc/syscfg.default", "NAME=abc\nNUM=42\nFLAG=1\nTZ=+8\nPICK=red\nV=1\n");
        write_file("/dev/mtdblock/5", std::string(73728, '\0')); // as it left the factory
    }
    static const char *with(const std::string &services)
    {
        write_file("/tmp/svc.conf", services);
        return "/tmp/svc.conf";
    }
    static const char *script(const char *path, const std::string &text)
    {
        write_file(path, text);
        std::filesystem::permissions(path, std::filesystem::perms::all);
        return path;
    }
    // Where the log has a text, behind another one; npos when it has not.
    static size_t at(const std::string &text, size_t from = 0)
    {
        return read_file(running_lumd::log_path).find(text, from);
    }
    static size_t at(pid_t pid) { return at("process pid: " + std::to_string(pid) + "\n"); }
    static bool logged(const std::string &text) { return at(text) != std::string::npos; }
};

TEST_F(end_to_end, announces_itself_at_once_and_once)
{
    running_lumd lumd(with(std::string("service a\nexec sleep 1001\nservice b\nexec ") +
                           script("/tmp/broken", "?") + "\n"));
    EXPECT_TRUE(eventually([&] { return lumd.output() == announced; }));
    request("start a b\n");
    // A program that cannot be run is tried again every 2000 ms.
    EXPECT_TRUE(eventually(
        [] { return at("restart service: b", at("restart service: b") + 1) != std::string::npos; }));
    EXPECT_GT(lumd.child("1001"), 0);
    EXPECT_TRUE(logged("proc b exited with status: 255"));
    lumd.end();
    EXPECT_EQ(lumd.output(), announced);
}

TEST_F(end_to_end, start_ups_that_fail)
{
    write_file("/tmp/empty.conf", "");
    for (const char *path_list : {"/none:/tmp/none", "/tmp/empty.conf", static_cast<const char *>(nullptr)}) {
        if (!path_list)
            std::filesystem::remove("/etc/syscfg.def");
        running_lumd lumd(path_list);
        EXPECT_EQ(lumd.exit_status(), 255);
        EXPECT_EQ(lumd.output(), "starting lumd...\n");
        EXPECT_TRUE(logged("cannot initialize lumd!\n"));
    }
    // Without a list both of the device's own are read.
    EXPECT_TRUE(logged("lumd->svcs[0].m_cfg->proc=syslog") && logged("lumd->svcs[5].m_cfg->proc=beacon"));
    EXPECT_TRUE(logged("cannot load syscfg definition!\n"));
}

TEST_F(end_to_end, death_and_return)
{
    running_lumd lumd(
        with("service top\nexec sleep 1003\ndepends mid\nservice mid\nexec sleep 1002\ndepends base\n"
             "service base\nexec sleep 1001\nservice other\nexec sleep 1004\n"));
    ASSERT_TRUE(lumd.has_started());
    request("start top other\n");
    std::multimap<std::string, pid_t> before; // the kernel may leave one out while another is coming
    ASSERT_TRUE(eventually([&] {
        before = lumd.children();
        return before.count("1001") + before.count("1002") + before.count("1003") + before.count("1004") == 4;
    }));
    const auto pid_before = [&](const char *word) { return before.find(word)->second; };
    EXPECT_LT(at(pid_before("1001")), at(pid_before("1002")));
    EXPECT_LT(at(pid_before("1002")), at(pid_before("1003")));
    kill(pid_before("1001"), SIGKILL);
    const double killed = now();
    ASSERT_TRUE(eventually([&] { return lumd.runs_anew("1001", pid_before("1001")); }));
    EXPECT_NEAR(now() - killed, 2.5, 0.501);
    ASSERT_TRUE(eventually([&] { return lumd.runs_anew("1003", pid_before("1003")); }));
    EXPECT_LT(at(lumd.child("1001")), at(lumd.child("1002")));
    EXPECT_EQ(lumd.child("1004"), pid_before("1004"));
    EXPECT_EQ(lumd.children().size(), 4u); // no zombie
    // Only what has been noticed as started is stopped with what it needs.
    EXPECT_TRUE(
        eventually([&] { return at("SERVICE: top callback", at(lumd.child("1003"))) != std::string::npos; }));
    request("stop base\n");
    EXPECT_TRUE(eventually([&] { return lumd.children().size() == 1; }));
}

TEST_F(end_to_end, variables_move_services)
{
    script("/tmp/reload", "#!/bin/sh\necho $1 >>/tmp/reloaded\n");
    running_lumd lumd(
        with("service a\nexec sleep 1001\ndepends V=1\nservice b\nexec sleep 1002\nsyscfg N?M P*\n"
             "reload -/tmp/reload now\n"));
    ASSERT_TRUE(lumd.has_started());
    request("start a b\n");
    ASSERT_TRUE(eventually([&] { return lumd.child("1001") > 0 && lumd.child("1002") > 0; }));
    EXPECT_EQ(ask({"V=0"}), "!OK");
    EXPECT_GT(lumd.child("1001"), 0);
    EXPECT_EQ(ask({"%apply"}), "!OK");
    EXPECT_TRUE(eventually([] { return logged("restart service: a"); })); // which the condition refuses
    EXPECT_EQ(lumd.child("1001"), 0);
    EXPECT_EQ(ask({"V=1", "%save"}), "!OK!OK"); // saving applies
    EXPECT_TRUE(eventually([&] { return lumd.child("1001") > 0; }));
    EXPECT_EQ(ask({"NUM=1", "NAME=x", "%apply:NAME", "%apply:NUM,V"}), "!OK!OK!OK!OK");
    EXPECT_TRUE(eventually([] { return read_file("/tmp/reloaded") == "now\n"; }));
}

TEST_F(end_to_end, time_zone_and_environment)
{
    script("/tmp/show", "#!/bin/sh\necho $TZ $DEBUG >/tmp/shown\n");
    for (const bool inherited : {false, true}) {
        running_lumd lumd(with("service a\nexec -/tmp/show\n"));
        ASSERT_TRUE(lumd.has_started());
        request("start a\n");
        EXPECT_TRUE(eventually([&] { return logged("proc a exited with status: 0"); }));
        EXPECT_EQ(read_file("/tmp/shown"), inherited ? "STD+5 7\n" : "STD-8 1\n");
        tm local = {};
        EXPECT_NE(strptime(ask({"?@time"}).c_str(), ">%Y-%m-%d %H:%M:%S", &local), nullptr);
        EXPECT_NEAR(difftime(timegm(&local), time(nullptr)), (inherited ? -5 : 8) * 3600, 3);
        setenv("TZ", "STD+5", 1);
        setenv("DEBUG", "7", 1);
    }
    unsetenv("TZ");
    unsetenv("DEBUG");
}

TEST_F(end_to_end, answers)
{
    running_lumd lumd(with("service a\n"));
    ASSERT_TRUE(lumd.has_started());
    EXPECT_EQ(ask({"?NAME", "?@version", "?@dns2", "?@dns3", "?@lo_ip", "PICK=crimson", "?PICK", "MODEL=x"}),
              ">abc>1.4.0.02>192.0.2.2!ERR NOENT>127.0.0.1!OK>red!ERR ACCESS");
    EXPECT_EQ(ask({std::string(1024, '?'), std::string("?NAME\0x", 7)}), "!ERR NOENT>abc");
}

// The kernel looks the requester's path up when the answer is sent, and follows links.
TEST_F(end_to_end, does_not_answer_its_own_answers)
{
    running_lumd lumd(with("service a\nexec sleep 99\n"));
    ASSERT_TRUE(lumd.has_started());
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un own = {AF_UNIX, "/tmp/link"}, server = {AF_UNIX, "/tmp/.syscfg-server"};
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    ASSERT_EQ(rename(own.sun_path, "/tmp/moved"), 0);
    ASSERT_EQ(symlink(server.sun_path, own.sun_path), 0);
    for (const std::string_view request : {"?MODEL", "%list", "NUM=1"})
        sendto(sock, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&server), sizeof server);
    const auto came_back = [] { return count("came back", running_lumd::log_path); };
    double settled = 0;
    EXPECT_TRUE(eventually([&] {
        usleep(50000); // the list comes back line by line
        const double before = std::exchange(settled, came_back());
        return settled >= 3 && settled == before;
    }));
    EXPECT_EQ(ask({"?MODEL", "?MODEL"}), ">gw100>gw100");
    EXPECT_EQ(came_back(), settled) << "still going round";
    close(sock);
}

} // namespace
