#include "app/memory.h"
#include "net/net.h"
#include "tests/net/address.h"
#include "tests/support/support.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/un.h>
#include <unistd.h>

namespace {

using support::captured_log;

struct net_test : support::test {
    sockaddr_in in = {};
    sockaddr *addr = reinterpret_cast<sockaddr *>(&in);
    captured_log log;

    int parse(const std::string &text, socklen_t len = sizeof(sockaddr_in))
    {
        in = {};
        return sockaddr_parse(text.c_str(), addr, &len);
    }
};

TEST_F(net_test, addresses_are_read_and_printed)
{
    const char *const good[][2] = {
        {"10.0.0.1", "10.0.0.1"}, {"10.0.0.1:65535", "10.0.0.1:65535"},          {" 1.2.3.4:0", "1.2.3.4"},
        {"1.2.3.4 x", "1.2.3.4"}, {"255.255.255.255:53x", "255.255.255.255:53"}, {"010.1.1.1", "10.1.1.1"},
    };
    for (const auto &[text, printed] : good) {
        EXPECT_EQ(parse(text), 0) << text;
        EXPECT_STREQ(sockaddr_ntop(addr, 0), printed);
    }
    for (const char *bad : {"10.0.0.1:65536", "10.0.0.256", "10.0.0", "10.0.0.1:", "10.0.0.-1", "1..2.3", "",
                            "99999999999999999999.1.1.1", "1.2.3.4:-1", "  1.2.3.4:99999999999999999999"})
        EXPECT_EQ(parse(bad), -1) << bad;
    EXPECT_EQ(parse("1.2.3.4", 15), -1);
    parse("1.2.3.4:258");
    EXPECT_EQ(in.sin_port, htons(258));
    EXPECT_EQ(sockaddr_set_port(addr, 513) + sockaddr_get_port(addr), 1026);
}

TEST_F(net_test, only_ipv4_addresses_are_valid)
{
    address copy;
    const std::pair<const char *, int> cases[] = {
        {"224.0.0.1", 1}, {"239.255.255.255", 1}, {"223.255.255.255", 0}, {"240.0.0.0", 0}};
    for (const auto &[text, multicast] : cases)
        EXPECT_EQ(parse(text) + sockaddr_is_multicast(addr, 16), multicast) << text;
    EXPECT_EQ(sockaddr_copy(copy.any, addr) + sockaddr_cmp(addr, copy.any), 16);
    EXPECT_EQ(sockaddr_copy(copy.any, 15, addr, 16), -1);
    copy.in.sin_port = 1;
    EXPECT_LT(sockaddr_cmp(addr, copy.any), 0);
    EXPECT_EQ(is_valid_addr(addr, 8), 0);
    EXPECT_EQ(is_valid_addr(addr, 0) + is_valid_addr(addr, 16), 2);
    for (const sa_family_t family : {AF_UNIX, AF_INET6}) {
        in.sin_family = family;
        EXPECT_EQ(sockaddr_len(addr), family == AF_UNIX ? 110u : 16u);
        EXPECT_EQ(sockaddr_get_port(addr) + sockaddr_set_port(addr, 1) + sockaddr_is_multicast(addr, 0), -3);
        EXPECT_EQ(sockaddr_copy(addr, addr) + sockaddr_cmp(addr, copy.any), -2);
        EXPECT_EQ(sockaddr_ntop(addr, 0), nullptr);
        EXPECT_EQ(tcp_bind(-1, addr, 16) + tcp_connect(-1, addr, 16) + udp_connect(-1, addr, 16), -3);
        EXPECT_EQ(udp_bind(-1, addr, 16), -1);
    }
    EXPECT_EQ(log.messages(), "FAILED: is_valid_addr\nFAILED: udp_bind\nFAILED: udp_bind\n");
}

// A constructor makes a close-on-exec socket of its own or takes the given one; it closes only its own when
// any of its calls fails, with a line in the log.
TEST_F(net_test, constructors)
{
    using namespace support;
    const std::string path = device_root + "/s", far_path = device_root + "/far";
    const unique_fd listening(unix_listen(-1, far_path.c_str()));
    parse("127.0.0.1");
    const unique_fd tcp(tcp_listen(0, addr, 16));
    EXPECT_EQ(listen(listening.get(), 999) + listen(tcp.get(), 999), 0); // nobody accepts
    const address there(tcp.get());
    const struct {
        int domain, type, none; // the highest descriptor that stands for none
        std::function<int(int)> make;
    } cases[] = {
        {AF_UNIX, SOCK_DGRAM, -1, [&](int fd) { return unix_datagram_listen(fd, path.c_str()); }},
        {AF_UNIX, SOCK_STREAM, -1, [&](int fd) { return unix_listen(fd, path.c_str()); }},
        {AF_UNIX, SOCK_STREAM, -1, [&](int fd) { return unix_connect(fd, far_path.c_str()); }},
        {AF_INET, SOCK_STREAM, 0, [&](int fd) { return tcp_bind(fd, addr, 16); }},
        {AF_INET, SOCK_STREAM, 0, [&](int fd) { return tcp_listen(fd, addr, 16); }},
        {AF_INET, SOCK_DGRAM, 0, [&](int fd) { return udp_bind(fd, addr, 16); }},
        {AF_INET, SOCK_DGRAM, 0, [&](int fd) { return udp_connect(fd, there.any, 16); }},
        {AF_INET, SOCK_STREAM, 0, [&](int fd) { return tcp_connect(fd, there.any, 16); }},
    };
    for (const auto &c : cases) {
        for (const bool given : {false, true}) {
            SCOPED_TRACE(std::to_string(&c - cases) + (given ? " given" : " own"));
            const unsigned kinds = (given ? 0U : unsigned{SOCKET}) | BIND | CONNECT | LISTEN | SETSOCKOPT;
            const int failures = for_each_failure(kinds, [&] {
                in.sin_port = 0;
                log.clear();
                const int fd = given ? socket(c.domain, c.type, 0) : c.none;
                const int made = c.make(fd);
                const bool failed = end_failing();
                EXPECT_EQ(log.messages().starts_with("SYSERROR: "), failed);
                const bool says_so = &c == std::end(cases) - 1 && !given && failed_kind != SOCKET;
                EXPECT_EQ(log.has("tcp_connect(): net: ") && log.has(": close "), failed && says_so);
                int type = c.type;
                socklen_t len = sizeof type;
                if (made >= 0)
                    getsockopt(made, SOL_SOCKET, SO_TYPE, &type, &len);
                EXPECT_EQ(type, c.type);
                EXPECT_TRUE(made < 0 || given || (fcntl(made, F_GETFD) & FD_CLOEXEC));
                EXPECT_TRUE(!given || fcntl(fd, F_GETFD) >= 0) << "the caller's socket was closed";
                close(given ? fd : made);
                return made >= 0;
            });
            EXPECT_GT(failures, 0);
        }
    }
    for (int i = 0; i < 1000; ++i) {
        in.sin_port = 0;
        close(udp_bind(0, addr, 16));
        EXPECT_GE(in.sin_port, 5000) << "the random port, as it is stored";
        EXPECT_GE(ntohs(in.sin_port), 1024) << "nobody else's, on the wire";
    }
    EXPECT_EQ(unix_datagram_listen(0, path.c_str()), -1) << "0 is a descriptor, though of no socket here";
    EXPECT_EQ(get_socket_error(tcp.get()), 0);
    EXPECT_EQ(get_socket_error(0), -1);
}

TEST_F(net_test, long_paths_are_cut_and_a_group_is_joined_on_its_port)
{
    const std::string path = support::device_root + "/" + std::string(120, 'p');
    std::vector<int> made = {unix_datagram_listen(-1, path.c_str()), unix_datagram_listen(-1, path.c_str()),
                             unix_listen(-1, path.c_str()), unix_listen(-1, path.c_str()),
                             unix_connect(-1, path.c_str())};
    for (const size_t length : {108, 107})
        EXPECT_EQ(access(path.substr(0, length).c_str(), F_OK), 0);
    parse("239.1.2.3:45353");
    for (int i = 0; i < 2; ++i) // another of the group shares the port
        made.push_back(udp_bind(-1, addr, 16));
    if (!log.has("No such device")) // no route for multicast here
        EXPECT_STREQ(sockaddr_ntop(address(made.back()).any, 0), "0.0.0.0:45353");
    for (const int fd : made) {
        EXPECT_TRUE(fd >= 0 || log.has("No such device"));
        close(fd);
    }
}

TEST_F(net_test, messages_carry_names_data_and_descriptors)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    const int before = support::open_descriptors();
    const std::string n32(32, 'n');
    const std::tuple<std::string, uint32_t, uint32_t, uint32_t> cases[] = {
        // name, descriptors, room for descriptors, room for data
        {"start", 0, 0, 8}, {"start", 2, 4, 8}, {"start", 3, 1, 8}, {"start", 2, 0, 8},
        {"start", 0, 0, 3}, {n32, 1, 1, 8},     {"", 1, 1, 0},      {"x", 253, 253, 8}};
    for (const auto &[name, sent, room, data_room] : cases) {
        SCOPED_TRACE(name + " " + std::to_string(sent));
        const int with_credentials = sent < 253; // a control message of another kind
        setsockopt(ends[1], SOL_SOCKET, SO_PASSCRED, &with_credentials, sizeof with_credentials);
        const std::string got_name = name.substr(0, 31);
        std::array<int, 300> fds;
        fds.fill(ends[0]);
        char data[] = "12345678", received[8] = "";
        ctlmsg out = {"", fds.data(), sent, data, 8},
               in_message = {"", fds.data(), room, received, data_room};
        name.copy(out.name, sizeof out.name);
        EXPECT_EQ(send_ctlmsg(ends[0], &out), static_cast<ssize_t>(got_name.size() + 9));
        EXPECT_GT(recv_ctlmsg(ends[1], &in_message), 0);
        EXPECT_EQ(in_message.name, got_name);
        EXPECT_EQ(std::string(received, in_message.datalen), std::string(data, data_room));
        EXPECT_EQ(in_message.nfds, room);
        for (uint32_t i = 0; i < room; ++i) {
            EXPECT_TRUE(i < sent ? fcntl(fds[i], F_GETFD) & FD_CLOEXEC : fds[i] == -1) << fds[i];
            close(i < sent ? fds[i] : -1);
        }
        EXPECT_EQ(fds[room], ends[0]);
        EXPECT_EQ(support::open_descriptors(), before);
    }
    ctlmsg bad = {"x", nullptr, 254, nullptr, 0};
    EXPECT_EQ(send_ctlmsg(ends[0], &bad), -1);
    bad.nfds = 0;
    EXPECT_EQ(send_ctlmsg(-1, &bad) + recv_ctlmsg(-1, &bad), -2);
    EXPECT_EQ(log.messages(),
              "SYSERROR: send_ctlmsg: Invalid argument\nSYSERROR: send_ctlmsg: Bad file descriptor\n"
              "SYSERROR: recv_ctlmsg: Bad file descriptor\n");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(net_test, host_names)
{
    in.sin_port = htons(7);
    for (const socklen_t length : {16, 0}) { // 0: not given
        in.sin_addr = {};
        EXPECT_EQ(get_host_addr("localhost", addr, length), 0);
        EXPECT_STREQ(sockaddr_ntop(addr, 0), "127.0.0.1:7");
    }
    EXPECT_EQ(get_host_addr("localhost", addr, 15), -1);
    EXPECT_EQ(get_host_addr("not a name", addr, 16), -1);
    ASSERT_NE(get_host_name(), nullptr);
}

} // namespace
