#include "tests/device/under_test.h"

#include <ctime>
#include <gtest/gtest.h>

namespace {

struct end_to_end : testing::Test {
    end_to_end()
    {
        write_file("/etc/syscfg.def", "MODEL -r string\nNUM integer\nTZ string(32)\n");
        write_file("/usr/etc/syscfg.default", "TZ=+8\n");
        write_file("/dev/mtdblock/5", std::string(73728, '\0')); // as delivered
        write_file("/tmp/svc.conf", "service a\nexec -/tmp/show\n");
        write_file("/tmp/show", "#!/bin/sh\necho $TZ $DEBUG >/tmp/shown\n");
        std::filesystem::permissions("/tmp/show", std::filesystem::perms::all);
    }
    static bool logged(const std::string &text) { return count(text, running_lumd::log_path) > 0; }
};

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
    // Without an argument it reads the device's two own files.
    EXPECT_TRUE(logged("lumd->svcs[0].m_cfg->proc=syslog") && logged("lumd->svcs[5].m_cfg->proc=beacon"));
    EXPECT_TRUE(logged("cannot load syscfg definition!\n"));
}

TEST_F(end_to_end, time_zone_and_environment)
{
    for (const bool inherited : {false, true}) {
        running_lumd lumd("/tmp/svc.conf");
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

// Files that the daemon opens must not become its console, and a console without a reader must not end it.
TEST_F(end_to_end, consoles_that_are_closed_or_dead)
{
    for (const int closed : {1, 2, 4, 7, 0}) { // a bit per descriptor; 0: a pipe without a reader
        running_lumd lumd("/tmp/svc.conf", running_lumd::log_path, [closed] {
            int ends[2];
            for (int fd = 0; fd < 3; ++fd)
                closed & 1 << fd ? close(fd) : 0;
            if (!closed && pipe(ends) == 0 && close(ends[0]) == 0)
                dup2(ends[1], STDOUT_FILENO), dup2(ends[1], STDERR_FILENO), close(ends[1]);
        });
        std::filesystem::remove("/tmp/shown");
        ASSERT_TRUE(eventually([] { return access("/tmp/svcctl", F_OK) == 0; })) << closed;
        request("start a\n");
        EXPECT_TRUE(eventually([] { return read_file("/tmp/shown") == "STD-8 1\n"; })) << closed;
        for (const auto &fd : std::filesystem::directory_iterator(lumd.proc("fd"))) {
            const int number = stoi(fd.path().filename().string());
            const bool is_null = std::filesystem::read_symlink(fd) == "/dev/null";
            EXPECT_TRUE(number < 3 ? is_null || !(closed & 1 << number) : !is_null) << closed << " " << fd;
        }
    }
}

// The kernel resolves the client's path when the answer is sent, and follows links.
TEST_F(end_to_end, does_not_answer_its_own_answers)
{
    running_lumd lumd("/tmp/svc.conf");
    ASSERT_TRUE(lumd.has_started());
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un own = {AF_UNIX, "/tmp/link"}, server = {AF_UNIX, "/tmp/.syscfg-server"};
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    ASSERT_EQ(rename(own.sun_path, "/tmp/moved"), 0);
    ASSERT_EQ(symlink(server.sun_path, own.sun_path), 0);
    for (const std::string_view request : {"?MODEL", "NUM=1"})
        sendto(sock, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&server), sizeof server);
    EXPECT_TRUE(eventually([] { return count("came back", running_lumd::log_path) == 2; }));
    EXPECT_EQ(ask({"?MODEL", "?MODEL"}), ">gw100>gw100");
    EXPECT_EQ(count("came back", running_lumd::log_path), 2) << "still going round";
    close(sock);
}

} // namespace
