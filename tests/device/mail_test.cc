// Bug reports to a third-party mail server.
#include "tests/device/under_test.h"

#include <gtest/gtest.h>

namespace {

TEST(mail, report_of_any_size_is_accepted)
{
    ASSERT_EQ(system("ip address add " LUMD_BUGREPORT_SERVER "/32 dev lo"), 0);
    const pid_t server = fork();
    if (server == 0) {
        execlp("msmtpd", "msmtpd", "--interface=0.0.0.0", "--command=cat >/tmp/mail; echo %F >/tmp/envelope",
               nullptr);
        _exit(99);
    }
    ASSERT_TRUE(eventually([] { return system("grep -q ':0019 .* 0A ' /proc/net/tcp") == 0; }))
        << "no server";
    const auto report = [](const std::string &words) {
        unlink("/tmp/mail");
        EXPECT_EQ(system(("env -i " + words + " 2>/tmp/said").c_str()), 0) << read_file("/tmp/said");
        const std::string mail = read_file("/tmp/mail"); // skips the server's own header
        return mail.substr(std::min(mail.find("line "), mail.size()));
    };
    // First the name is unknown, since no name server is reachable; then it resolves.
    const std::string large = report("A=" + std::string(20480, 'v') + " /opt/bin/reporter 1000");
    EXPECT_TRUE(large.ends_with("vvv\n\n") && large.find("\nline 999\n\n\n") != large.npos) << large;
    write_file("/etc/hosts", "127.0.0.1 " LUMD_BUGREPORT_DOMAIN "\n");
    EXPECT_EQ(system("ip address del " LUMD_BUGREPORT_SERVER "/32 dev lo"), 0);
    const std::string small = report("A=1 B= /opt/bin/reporter 3");
    EXPECT_TRUE(small.starts_with("line 0\nline 1\nline 2\n\n\n") && small.ends_with("\n\n\n")) << small;
    // An emulator's shell adds variables of its own.
    EXPECT_TRUE(small.find("\nA=1\n") != small.npos && small.find("\nB=\n") != small.npos) << small;
    EXPECT_EQ(read_file("/tmp/envelope"), LUMD_BUGREPORT_MAILBOX " " LUMD_BUGREPORT_MAILBOX "\n");
    EXPECT_NE(read_file("/tmp/said").find("tcp_gets(): 193\ntcp_gets(): 250 "), std::string::npos);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
}

} // namespace
