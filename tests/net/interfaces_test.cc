// Tables that are fed, and the kernel itself in network namespaces, as ip shows it.
#include "net/interfaces.h"
#include "net/net.h"
#include "tests/net/address.h"
#include "tests/support/support.h"

#include <fstream>
#include <poll.h>

namespace {

using namespace support;

struct interfaces_test : support::test {
    captured_log log;
    static std::string text_of(const unique_endpoint &addr)
    {
        return addr ? sockaddr_ntop(addr->get(), 0) : "";
    }
    static unique_endpoint endpoint(const std::string &text)
    {
        unique_endpoint made(new_record<ipv4_endpoint>());
        made->in = address(text).in;
        return made;
    }
    static std::string sh(const std::string &script)
    {
        write_file("/script", "cd " + device_root + "; exec >said 2>&1; PATH=$PATH:/sbin\n" + script);
        return system(("sh " + device_path("/script")).c_str()) == 0 ? read_file("/said") : "failed";
    }
    // Lines of "name address/mask brd address peer address", ours and ip's.
    static std::string list(int fd, int flags)
    {
        std::string all;
        const unique_ifi first = get_ifi_info(fd, flags);
        for (const ifi *at = first.get(); at; at = at->next)
            all += at->name + (" " + text_of(at->addr)) + "/" + text_of(at->netmask) + " brd " +
                   text_of(at->broadaddr) + " peer " + text_of(at->dstaddr) + "\n";
        return all;
    }
    static std::string list_of_ip(int flags)
    {
        std::string script = R"_(ip -json -4 addr show up | grep -oE '"local":[^}]*"label":"[^"]*"' | sed -E '
            s#"local":"([^"]+)",("address":"([^"]+)",)?"prefixlen":([0-9]+)(.*)#\1/\4 peer \3 \5#
            s#(.*) (peer [^ ]*) ,("broadcast":"([^"]+)",)?.*"label":"(.*)"#\5 \1 brd \4 \2#
            s#/8 #/255.0.0.0 #; s#/16 #/255.255.0.0 #; s#/24 #/255.255.255.0 #
            s#/25 #/255.255.255.128 #; s#/32 #/255.255.255.255 #)_";
        for (const char *cut : {"/:/d", "/^lo /d", "s/brd [^ ]+/brd /", "s/peer .+/peer /", "s|/[^ ]+|/|"})
            script += std::exchange(flags, flags >> 1) & 1 ? "" : "\n" + std::string(cut);
        return sh(script + "'");
    }

    void check_other_sockets()
    {
        for (const auto &[fd, told] : {std::pair(socket(AF_UNIX, SOCK_DGRAM, 0), false),
                                       {socket(AF_INET6, SOCK_DGRAM, 0), false},
                                       {-1, true}}) {
            address given("1.2.3.4");
            log.clear();
            EXPECT_EQ(getsockifaddr(fd, given.any, &given.len), -1);
            EXPECT_EQ(log.has("FAILED: getsockifaddr"), told);
        }
    }

    void check_broadcasts()
    {
        const int all = udp_bind(-1, address("0.0.0.0:7000").any, 16);
        EXPECT_EQ(broadcast(all, "hi", 2, 0, 7000), 2);
        for (const int result : {POLLIN + 2, POLLIN + 2, POLLIN + 2, POLLIN + 2, -1})
            EXPECT_EQ(poll_fd(all, POLLIN, 100) + recv(all, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC), result)
                << "back from each";
        for (const auto &[call, nth, said] :
             {std::tuple(SETSOCKOPT, 1, "SYSERROR"), {ALLOC, 1, "FAILED"}, {SENDTO, 2, "SYSERROR"}}) {
            log.clear();
            fail_call(call, nth);
            EXPECT_TRUE(broadcast(all, "", 0, 0, 7000) == -1 && end_failing() &&
                        log.has(std::string(said) + ": broadcast"))
                << said;
        }
    }
};

TEST_F(interfaces_test, scores)
{
    std::istringstream rows(R"(
        10.0.0.2 255.0.0.0 10.9.9.9 5   192.168.1.2 255.255.255.0 192.168.2.3 2
        8.8.4.1 255.255.255.0 8.8.9.1 4   10.0.0.2 255.255.255.0 8.9.9.9 0
        8.8.4.1 255.255.255.0 10.9.9.9 0   11.0.0.2 255.255.255.0 9.9.9.9 2
        8.8.4.1 255.255.255.255 8.8.4.2 5   8.1.1.1 255.0.0.0 127.1.1.1 0
        192.169.1.1 255.255.0.0 172.1.1.1 2)");
    for (std::string own, mask, dest, score; rows >> own >> mask >> dest >> score;) {
        const ifi record = {"", 0, endpoint(own), endpoint(mask), nullptr, nullptr, nullptr};
        EXPECT_EQ(std::to_string(ifi_dest_match(&record, address(dest).any)), score) << own;
    }
    sockaddr local = {AF_UNIX, {}};
    ifi record = {
        "t0",   0, endpoint("10.0.0.2"), endpoint("255.0.0.0"), endpoint("10.0.0.3"), endpoint("10.0.0.4"),
        nullptr};
    record.flags = IFF_UP | IFF_BROADCAST | IFF_MULTICAST | IFF_LOOPBACK | IFF_POINTOPOINT;
    EXPECT_EQ(ifi_dest_match(&record, &local), -1);
    EXPECT_TRUE(log.has("matching interface: 10.0.0.2(2) not the same family(1)\n"));
    testing::internal::CaptureStdout();
    print_ifi_info(&record);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "t0: < UP BCAST MCAST LOOP P2P >\n\tIP addr: 10.0.0.2\n\tBroadcast addr: 10.0.0.3\n"
              "\tDestination addr: 10.0.0.4\n\tSubnet mask: 255.0.0.0\n");
    record.addr->in.sin_family = AF_UNIX;
    EXPECT_EQ(ifi_dest_match(&record, &local), 0);
}

TEST_F(interfaces_test, route_tables_that_are_fed)
{
    // Of wide and lan, or far and more, the kernel would take the longer mask. Numbers are stored as on the
    // wire.
    std::string cases = R"(
        lan Iface|far_0_5_0_0_0_0_0|lan_201_0_0_0_0_0_FFFF|     lan lan_201_0_0_0_0_0_FFFF|far_0_5_0_0_0_0_0
        wide wide_1_0_0_0_0_0_FF|lan_201_0_0_0_0_0_FFFF         far far_0_5_0_0_0_0_0|more_201_6_0_0_0_0_FFFF
        less far_0_5_0_0_0_0_0|less_201_4_0_0_0_0_FFFF     more more_201_6_0_0_0_0_FFFF|wide_1_0_0_0_0_0_FF
        less less_201_4_0_0_0_0_FFFF|lan_201_0_0_0_0_0_FFFF    junk far_0_5_0_0_0_0_0||
        matching Iface  matching x_301_0_0_0_0_0_FFFF  junk Iface|x_0_0g_0_0_0_0_0
        junk x_0_1FFFFFFFF_0_0_0_0_0    junk )";
    cases += std::string(300, 'x') + "_0_0_0_0_0_0_0";
    for (const size_t cut : {2, 4, 5, 8, 9, 10, 19})
        cases += " junk far_0_5_0_0_0_0_0" + std::string("|lan_201_0_0_0_0_0_", cut);
    cases += " junk far_0_5_0_0_0_0_0|Iface";
    EXPECT_TRUE(!findsaddr(address("1.2.3.4").any) && log.has("open /proc/net/route: No such file"))
        << log.text();
    std::istringstream rows(cases);
    for (std::string found, table; rows >> found >> table; log.clear()) {
        std::replace(table.begin(), table.end(), '|', '\n');
        std::replace(table.begin(), table.end(), '_', ' ');
        write_file("/proc/net/route", table);
        const char *name = findsaddr(address("1.2.3.4").any);
        EXPECT_TRUE(name ? name == found : log.has(found)) << table;
    }
}

// A network of its own with lo and three pairs.
const char network[] =
    R"(set -e; ip link set lo up; for i in 0 1 2; do ip link add v$i type veth peer name w$i
    ip link set v$i up; ip link set w$i up; ip addr add 10.7.$i.1/24 brd + dev v$i; done
    ip addr add 10.2.0.1/16 brd + dev v0 label v0:1; ip addr add 10.3.0.1/25 dev v0
    ip addr add 10.7.0.2/24 brd + dev v0; ip r add default via 10.7.1.9
    ip r add 10.6.0.0/24 dev w2; ip r add blackhole 10.5/16
    [ ! -w /dev/net/tun ] || { ip tuntap add t1 mode tun; ip addr add 10.8.0.1/24 dev t1
    ip tuntap add t0 mode tun
    ip addr add 10.9.0.1 peer 10.9.0.2 dev t0; ip link set t0 up; } # not everybody may make them)";

TEST_F(interfaces_test, addresses_of_interfaces_and_sockets)
{
    // The address a socket is bound to, USE_INTERFACE, the destination, the address, what is logged.
    std::istringstream rows(R"(
        10.7.0.1:77 v1 1.2.3.4 10.7.0.1:77 -    0.0.0.0:77 v0 1.2.3.4 10.7.0.1:77 port=77
        - v0 1.2.3.4 10.7.0.1 sockport:         - w2 - - requested
        0.0.0.0:7 - 10.7.2.5:9 10.7.2.1:7 -     0.0.0.0:78 - - 10.7.1.1:78 -
        - - 10.6.0.1 - FAILED                   - - 10.5.0.1 - FAILED
        - nosuch - - name:                      0.0.0.0:1 v0 1.2.3.4 10.7.0.1:1 port=1)");
    if (access("/dev/net/tun", W_OK) < 0)
        puts("[   NOTE   ] without /dev/net/tun no interface has a peer");
    if (system("unshare -n true 2>/dev/null || unshare -rn true") != 0)
        GTEST_SKIP() << "the kernel gives this user no network namespace";
    isolated([&, this, uid = getuid()] {
        device_prefixes.clear();
        real_time = true;
        // As root, or as the root of a user namespace.
        if (unshare(CLONE_NEWNET) < 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0)
            std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
        ASSERT_EQ(sh(network), "");
        const int any = socket(AF_INET, SOCK_DGRAM, 0);
        for (std::string own, use, dest, result, said; rows >> own >> use >> dest >> result >> said;) {
            use == "-" ? unsetenv("USE_INTERFACE") : setenv("USE_INTERFACE", use.c_str(), 1);
            const int fd = own == "-" ? dup(any) : udp_bind(-1, address(own).any, 16);
            for_each_failure(
                ALLOC | OPEN | SOCKET,
                [&, this] {
                    log.clear();
                    address given(dest);
                    given.len = 99;
                    const int done = getsockifaddr(fd, given.any, &given.len);
                    const bool spoilt = end_failing() && done < 0 && log.has("FAILED: getsockifaddr");
                    EXPECT_EQ(done < 0 ? "-" : sockaddr_ntop(given.any, 0), spoilt ? "-" : result) << dest;
                    EXPECT_EQ(given.len, done < 0 ? 99U : 16U);
                    EXPECT_TRUE(spoilt || said == "-" || log.has(said)) << log.text();
                    return !spoilt && (done < 0 ? "-" : sockaddr_ntop(given.any, 0)) == result;
                },
                ALLOC); // of a list, one that comes behind the right one
            EXPECT_EQ(list(fd, 0).size() < 40, own[0] == '1') << "of a bound one, only its own";
            address narrow(dest);
            narrow.len = 15;
            log.clear();
            EXPECT_EQ(getsockifaddr(fd, narrow.any, &narrow.len), -1);
            EXPECT_TRUE(narrow.len == 15 && sockaddr_cmp(narrow.any, address(dest).any) == 0) << dest;
            EXPECT_TRUE(log.has("FAILED: getsockifaddr"));
        }
        check_other_sockets();
        for (int flags = 0; flags < 32; ++flags)
            EXPECT_EQ(list(any, flags), list_of_ip(flags)) << flags;
        for_each_failure(ALLOC, [&, whole = list(any, 31)] {
            const std::string some = list(any, 31);
            EXPECT_TRUE(whole.starts_with(some));
            return some == whole;
        });
        check_broadcasts();
        const char many[] = R"(for i in $(seq 150); do echo "link add x$i type veth peer name y$i
            link set x$i up\nlink set y$i up\naddr add 10.40.$i.1/24 dev x$i
            addr add 10.41.$i.1/25 dev y$i"; done | ip -batch -)";
        EXPECT_EQ(sh(many), "");
        EXPECT_EQ(list(any, 31), list_of_ip(31));
    });
}

} // namespace
