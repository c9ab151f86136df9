// The commands, the library and the completion, used as people, programs and shells on the device do.
#include "net/net.h"
#include "tests/device/under_test.h"

#include <gtest/gtest.h>

#include <netinet/in.h>

namespace {

struct outcome {
    int status;
    std::string out, err;
};

outcome run(const std::string &command)
{
    write_file("/tmp/command", command);
    FILE *output = popen("timeout 30 sh /tmp/command 2>/tmp/stderr", "r");
    std::string out;
    for (int c; (c = fgetc(output)) != EOF;)
        out += static_cast<char>(c);
    const int status = pclose(output);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, read_file("/tmp/stderr")};
}

// Rows: command | status | standard output, with blanks for line ends, - for none | part of standard error
void expect(const std::string &table)
{
    std::istringstream rows(table);
    for (std::string row; getline(rows, row);) {
        std::vector<std::string> columns;
        for (size_t at = row.find_first_not_of(' '), end; at < row.size(); at = end + 3) {
            end = std::min(row.find(" | ", at), row.size());
            columns.push_back(row.substr(at, end - at));
        }
        if (columns.empty())
            continue;
        columns.resize(4);
        outcome ran = run(columns[0]);
        columns[2] = columns[2].empty() || columns[2] == "-" ? "" : columns[2] + " ";
        std::replace(ran.out.begin(), ran.out.end(), '\n', ' ');
        EXPECT_EQ(std::to_string(ran.status), columns[1]) << columns[0] << "\n" << ran.err;
        EXPECT_EQ(ran.out, columns[2]) << columns[0];
        EXPECT_TRUE(columns[3].empty() ? ran.err.empty() : ran.err.find(columns[3]) != ran.err.npos)
            << columns[0] << "\n"
            << ran.err;
    }
}

struct tools : testing::Test {
    tools()
    {
        static const std::string definitions = read_file("/etc/syscfg.def");
        write_file("/etc/syscfg.def", definitions + "LONG string\n");
        EXPECT_TRUE(lumd.has_started());
    }
    running_lumd lumd{"/etc/svc.conf:/usr/etc/svc.conf"};
};

TEST_F(tools, library_from_c)
{
    expect("library_calls | 0");
}

TEST_F(tools, verbs_and_exit_statuses)
{
    expect(R"_(
        syscfg get MODEL MAC0%- NOTE @version | 0 | gw100 02-00-5E-10-00-2A  1.4.0.02
        syscfg get MODEL NOPE MAC0 | 3 | gw100 | NOPE: no such variable
        syscfg get -q NOPE | 3
        syscfg set HOSTNAME=attic LANGUAGE=german && syscfg get HOSTNAME LANGUAGE | 0 | attic de
        syscfg set WEB_TITLE=' a  b ' NOTE='q"u\' LONG=$(printf %01000d 7) | 0
        syscfg list 'L[AO]*G*' | 0 | LANGUAGE=de LONG=)_" +
           std::string(999, '0') + R"_(7
        syscfg list >/tmp/l; while IFS= read -r v; do syscfg set "$v" || echo $?; done </tmp/l; syscfg list|cmp - /tmp/l | 0
        syscfg set NOTE=$(printf 'a\001\303\251\377\355\240\200\360\237\230\200\300\200"') | 0
        syscfg list --json NO* | 0 | [   {"name": "NOTE", "value": "a\u0001é\ufffd\ufffd\ufffd\ufffd😀\ufffd\ufffd\""} ]
        syscfg --json list X* | 0 | []
        syscfg set NOTE="$(printf 'a\nb=c')"; syscfg list NO* | 1 | - | NOTE is left out
        syscfg set HOSTNAME='Bad Name' | 4 | - | not a value of its type
        syscfg set MODEL=x | 4 | - | read-only
        syscfg set MODEL=gw100 | 0
        syscfg set @time=1 | 4 | - | computed
        syscfg set %save=1 | 3 | - | no such variable
        syscfg set LONG=$(printf %01020d 7) | 4 | - | 1024 bytes
        syscfg set NOTE=1 NOTE | 2 | - | not NAME=VALUE
        syscfg set NOTE='"a" b' | 4 | - | begin with a quote
        syscfg set NOTE='a"b' --save | 4 | - | cannot be saved
        syscfg wait HOSTNAME=attic | 0
        syscfg wait NOTE=now & syscfg set NOTE=now && wait $! | 0
        syscfg -t 1 wait LANGUAGE=fr | 5 | - | no answer in time
        syscfg wait LANGUAGE=xx | 4 | - | not a value
        syscfg wait NOPE=1 | 3 | - | no such variable
        syscfg watch NOPE* | 3 | - | no variable matches
        syscfg apply && syscfg apply NOTE LONG && syscfg save && syscfg reload && syscfg reset | 0
        syscfg apply NOTE NOPE | 3 | - | no such variable
        syscfg set HOSTNAME=saved --save && syscfg set HOSTNAME=x --apply && syscfg reload && syscfg get HOSTNAME | 0 | saved
        syscfg get MODEL >/dev/full | 1 | - | cannot write
        syscfg get MODEL --save | 2 | - | --save goes with set only
        syscfg set NOTE=1 --json | 2 | - | --json goes with list only
        syscfg nosuch | 2 | - | syscfg: "nosuch" is no verb
        syscfg nosuch 2>&1|sed -n 2p|cut -c 1-10 | 0 | usage: sys
        syscfg wait NOTE=1 LONG=2 | 2 | - | wait: "LONG=2" is one operand too many
        syscfg -q get | 2
        syscfg get -t 0 MODEL | 2 | - | SECONDS are 1 to
        svcctl start 'a b' | 2 | - | is no name
        svcctl start | 2 | - | start: an operand is missing
        svcctl | 2 | - | a verb is missing
        netdiag outside trace | 2 | - | ADDRESS is missing
        svcctl --version && svcctl -h|grep -c restart | 0 | svcctl 0.1.0 1
       netdiag --json interfaces|tr -d \"\  | 0 | [ {name:lo,address:127.0.0.1,netmask:255.0.0.0,broadcast:null,peer:null,flags:[up,loopback]} ]
        netdiag route 127.0.0.9 && netdiag --json route 127.0.0.1 | 0 | lo 127.0.0.1 {"interface": "lo", "address": "127.0.0.1"}
        netdiag route 192.0.2.1 | 1 | - | no route to 192.0.2.1
        netdiag -q outside trace || netdiag route 192.0.2.1:5 | 2 | - | is no IPv4 address
        netdiag interfaces|tr '\t' . | 0 | lo: < UP LOOP > .IP addr: 127.0.0.1 .Subnet mask: 255.0.0.0
        : >/dev/mtdblock/5; for verb in save reload reset; do syscfg -q $verb; echo $?; done | 0 | 7 7 7)_");
    expect(": >/tmp/w; syscfg watch N* >/tmp/w 2>&1 & until grep -q watching /tmp/w; do usleep 9000; done; "
           "syscfg set NOTE=w; until grep w$ /tmp/w; do usleep 9000; done; kill $! | 0 | NOTE=w");
    EXPECT_NE(read_file(running_lumd::log_path).find("HOSTNAME=x\n"), std::string::npos) << "applied";
    // First the daemon is silent, then gone.
    kill(lumd.pid, SIGSTOP);
    expect(R"_(
        syscfg -t 1 get MODEL | 5 | - | no answer in time
        syscfg -t 1 list | 5 | - | no answer in time
        svcctl start $(seq 1000 1046) | 0
        svcctl -t 1 start $(seq 1000 1046) | 5 | - | does not take)_");
    lumd.end();
    expect(R"_(
        syscfg get MODEL | 6 | - | does not run
        syscfg list | 6 | - | does not run
        svcctl start a | 6 | - | no daemon reads
        rm /tmp/svcctl; : >/tmp/svcctl; svcctl start a; cat /tmp/svcctl | 0 | - | is no FIFO)_");
}

TEST_F(tools, outside_address)
{
    sockaddr_in here = {AF_INET, htons(54210), {htonl(INADDR_LOOPBACK)}, {}};
    auto *peer = reinterpret_cast<sockaddr *>(&here);
    socklen_t len = sizeof here;
    const int fd = udp_bind(-1, peer, len);
    const pid_t server = fork();
    char asked[13] = "";
    while (server == 0)
        if (recvfrom(fd, asked, 12, 0, peer, &len) == 12 && strcmp(asked, "ECHOGWADDRRQ") == 0)
            sendto(fd, "ECHOGWADDRRP\313\0\161\7\234\105", 18, 0, peer, len);
    expect(R"_(
        netdiag outside echo 127.0.0.1 | 0 | 203.0.113.7:40005 | Echo addr: 127.0.0.1:54210
        netdiag -q --json outside echo 127.0.0.1 && netdiag -q outside echo 127.0.0.1:9 | 5 | {"address": "203.0.113.7", "port": 40005})_");
    kill(server, SIGKILL), waitpid(server, nullptr, 0), close(fd);
}

TEST_F(tools, services)
{
    const auto syslog = [this] { return lumd.child("/tmp/log/messages"); };
    expect("svcctl start syslog | 0");
    ASSERT_TRUE(eventually([&] { return syslog() > 0; }));
    const pid_t old = syslog();
    expect("svcctl restart syslog | 0");
    EXPECT_TRUE(eventually([&] { return syslog() > 0 && syslog() != old; }));
    expect("svcctl stop syslog | 0");
    EXPECT_TRUE(eventually([&] { return syslog() == 0; }));
    // The daemon sees whole names, however many tools and names there are.
    EXPECT_EQ(run("for i in 1 2 3 4; do svcctl start $(seq ${i}001 ${i}090) & done; wait").status, 0);
    const std::string count = "grep -c '^start service: [1-4]0[0-9][0-9]$' /tmp/lumd.log";
    EXPECT_TRUE(eventually([&] { return run(count).out == "360\n"; })) << run(count).out;
}

TEST_F(tools, completion)
{
    std::filesystem::remove("/dev/fd"); // not every device has it
    write_file("/tmp/complete",
               "bash -c '. completion.bash; COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1)); _$1; "
               "echo ${COMPREPLY[*]}' bash \"$@\"");
    expect(R"_(
        sh /tmp/complete syscfg re | 0 | reload reset
        sh /tmp/complete syscfg get -q WEB_A | 0 | WEB_ACCESS
        sh /tmp/complete syscfg set WEB_E | 0 | WEB_ENABLE=
        sh /tmp/complete syscfg set LANGUAGE = | 0 | de en fr
        sh /tmp/complete syscfg -t 2 wait WEB_TITLE = N | 0 | Norvik\ gateway
        sh /tmp/complete syscfg set BEACON_ENABLE = '' | 0 | 0 1
        sh /tmp/complete syscfg list -- | 0 | --json
        syscfg set NOTE='$(touch /tmp/ran)'; sh /tmp/complete syscfg set NOTE = ''; ls /tmp/ran | 1 | \$\(touch\ /tmp/ran\) | No such file
        sh /tmp/complete netdiag outside t | 0 | trace
        sh /tmp/complete svcctl start b | 0 | beacon)_");
}

} // namespace
