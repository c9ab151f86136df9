#include "app/app.h"
#include "net/resolver.h"
#include "tests/net/address.h"
#include "tests/support/support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace support;
using namespace std::string_literals;

int64_t began;     // when the test's last query did
std::string asked; // of every query "last byte of the server's address@milliseconds "
std::vector<std::string> packets;
sockaddr_in sender; // of every reply
int receive_error;  // errno of the next recvfrom
const auto now = [] { return "@" + std::to_string((now_us - began) / 1000) + " "; };

// What stands under the wrapped call: a query is written down instead of sent.
extern "C" ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t len)
{
    const auto *there = reinterpret_cast<const sockaddr_in *>(to);
    if (!to || to->sa_family != AF_INET || there->sin_port != htons(53))
        return syscall(SYS_sendto, fd, data, size, flags, to, len);
    asked += std::to_string(ntohl(there->sin_addr.s_addr) & 255) + now();
    packets.emplace_back(static_cast<const char *>(data), size);
    return static_cast<ssize_t>(size);
}
extern "C" ssize_t recvfrom(int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *len)
{
    const ssize_t got = syscall(SYS_recvfrom, fd, data, size, flags, from, len);
    errno = receive_error;
    return std::exchange(receive_error, 0) ? -1 : (memcpy(from, &sender, sizeof sender), got);
}

const auto number = [](size_t value) { return std::string{char(value >> 8), char(value)}; };
std::string record(size_t type, const std::string &data, size_t klass = 1)
{
    return "\xC0\x0C" + number(type) + number(klass) + "\0\0\0\x3C"s + number(data.size()) + data;
}
// The reply to the last query, which asked for a.b: the first record is at byte 21, its data at 33.
std::string reply_of(const std::string &records, size_t answers = 1, size_t flags = 0x8180, size_t asks = 1)
{
    return packets.back().substr(0, 2) + number(flags) + number(asks) + number(answers) + "\0\0\0\0"s +
           packets.back().substr(12) + records;
}

struct resolver_test : test {
    captured_log log;
    resolver res = {};
    std::string outcome;        // "status@milliseconds " of every callback
    std::function<void()> then; // once, in the callback
    const std::string a = record(1, "\1\2\3\4");

    resolver_test()
    {
        asked.clear();
        packets = {std::string(12, '?')};
        sender = {AF_INET, htons(53), {inet_addr("127.0.0.2")}, {}};
        EXPECT_EQ(servers("nameserver 127.0.0.1\nnameserver 127.0.0.2\n") + init(RESOLVER_A), 2);
    }
    ~resolver_test() override
    {
        resolver_release(&res);
        EXPECT_EQ(timer_run_expired(), -1) << "a timer is left over";
    }
    int servers(const char *text)
    {
        write_file("/etc/resolv.conf", text);
        return _resolver_init();
    }
    int init(uint16_t type)
    {
        resolver_release(&res);
        const int made = resolver_init(&res, type, RESOLVER_IN);
        resolver_set_callback<note>(&res, this);
        return made;
    }
    static void note(resolver_test *self, resolver *, resolver_status status)
    {
        self->outcome += std::to_string(status) + now();
        if (const auto next = std::exchange(self->then, nullptr))
            next();
    }
    int query(const std::string &name)
    {
        began = now_us;
        outcome.clear();
        return resolver_query(&res, name.data());
    }
    void reply(const std::string &packet) // and one pass
    {
        const address own(res.sock.get());
        sendto(res.sock.get(), packet.data(), packet.size(), 0, own.any, own.len);
        app_poll_once();
    }
    // What came of the query after so long.
    std::string got(int64_t ms = 40000)
    {
        run_for(ms);
        return outcome + (!res.sock ? "gone" : std::string(res.result, 0U + std::max(0, res.result_len)));
    }
};

TEST_F(resolver_test, five_passes_over_the_servers)
{
    query("a.b");
    then = [&] { EXPECT_EQ(resolver_query(&res, "a.b."), 0); }; // a count and a period of its own
    EXPECT_EQ(got(), "62@15000 62@30000 ");
    EXPECT_EQ(asked, "1@0 2@0 1@1000 2@1000 1@3000 2@3000 1@6000 2@6000 1@10000 2@10000 1@15000 2@15000 "
                     "1@16000 2@16000 1@18000 2@18000 1@21000 2@21000 1@25000 2@25000 ");
    const std::string packet = "\1\0\0\1\0\0\0\0\0\0\1a\1b\0\0\1\0\1"s;
    for (size_t i = 1; i <= 20; ++i) // an identifier a query
        EXPECT_EQ(packets[i], packets[i < 11 ? 1 : 11].substr(0, 2) + packet);
    EXPECT_NE(packets[1].substr(0, 2) + packets[11].substr(0, 2), "\x67\xC6\x69\x73"); // unseeded
    reply(reply_of(a));
    EXPECT_EQ(got(), "62@15000 62@30000 0@40000 \1\2\3\4") << "a late reply";
}

TEST_F(resolver_test, the_servers_are_those_of_the_file_as_it_is_now)
{
    unlink("/etc/resolv.conf");
    EXPECT_TRUE(_resolver_init() == -1 && query("a.b") == 0);
    EXPECT_TRUE(log.messages().ends_with("_resolver_init: cannot open resolv.conf\n"));
    EXPECT_EQ(got() + asked, "62@15000 ");
    const struct {
        const char *address, *asked;
        timespec modified; // seconds below 0: there is no file
        bool is_new;
    } cases[] = {{"0.0.0.0", "1@0 ", {100, 0}, false},     {"127.0.0.22", "22@0 ", {100, 0}, false},
                 {"127.0.0.33", "33@0 ", {100, 1}, false}, {"127.0.0.44", "44@0 ", {101, 1}, false},
                 {"127.0.0.55", "55@0 ", {101, 1}, true},  {"127.0.0.66", "55@0 ", {-1, 0}, false}};
    for (const auto &row : cases) {
        const std::string path = row.is_new ? "/etc/new" : "/etc/resolv.conf";
        const timespec times[] = {row.modified, row.modified};
        write_file(path, "nameserver "s + row.address + "\n");
        utimensat(AT_FDCWD, device_path(path).c_str(), times, 0);
        if (row.is_new)
            rename(device_path(path).c_str(), device_path("/etc/resolv.conf").c_str());
        if (row.modified.tv_sec < 0)
            unlink(path.c_str());
        asked.clear();
        query("a.b");
        sender.sin_addr = {inet_addr(row.address)};
        if (sender.sin_addr.s_addr == INADDR_ANY) // answers from its loopback address
            sender.sin_addr = {htonl(INADDR_LOOPBACK)};
        reply(reply_of(a));
        EXPECT_EQ(got(0) + asked, (row.modified.tv_sec < 0 ? "" : "0@0 \1\2\3\4"s) + row.asked);
    }
}

TEST_F(resolver_test, only_a_reply_without_a_header_ends_the_query)
{
    const auto ignores = [&](const std::string &bad) {
        log.clear();
        reply(bad);
        EXPECT_TRUE(log.messages().ends_with("FAILED: resolver_callback\n")) << testing::PrintToString(bad);
        EXPECT_EQ(outcome, "");
    };
    query("a.b");
    const std::string good = reply_of(a), alias = record(5, "\1c\xC0\x0C");
    std::string id0 = good, id1 = good, far = alias;
    id0[0] ^= 1, id1[1] ^= 1, far[10] ^= 1;
    for (const std::string &bad :
         {id0, id1, reply_of(a, 1, 0x100), reply_of(a, 1, 0x8980), reply_of(a, 1, 0x8183), reply_of(a, 0),
          good.substr(0, 12), reply_of(alias), reply_of(alias, 65535), reply_of(far + a, 2),
          good.substr(0, 36), good.substr(0, 32), reply_of("\5ab"), reply_of("\xC0"),
          reply_of(record(1, "1234", 3)), reply_of(a, 1, 0x8180, 65535)})
        ignores(bad);
    for (const auto &[port, address] : {std::pair(54, "127.0.0.2"), std::pair(53, "127.0.0.3")}) {
        sender = {AF_INET, htons(port), {inet_addr(address)}, {}};
        ignores(good);
        ignores("foreign");
    }
    sender = {AF_INET, htons(53), {inet_addr("127.0.0.2")}, {}};
    receive_error = EAGAIN;
    reply(good);
    reply(reply_of(alias + a, 2));
    EXPECT_EQ(got(), "0@0 \1\2\3\4") << "and nothing after it";
    for (const int error : {ECONNREFUSED, 0}) {
        query("a.b");
        receive_error = error;
        ignores(reply_of(a).substr(0, 11));
        reply(reply_of(a));
        EXPECT_EQ(got(), "");
    }
}

TEST_F(resolver_test, answers_are_decoded_by_their_type)
{
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        // the result; type and data
        {"\1\2\3\4", {"\1\1\2\3\4"}},
        {"\0raw"s, {"\x63\0raw"s}},
        {"www.a.b", {"\x0C\3www\xC0\x0C"}},
        {"a.b", {"\x0C\xC0\x15"}},
        {"x", {"\x0C\1x\0\1y\0"s, "\x0C\1x\xC0\x21", "\x0C\1x\xC0\x07", "\x0C\1x\x40\x0C"}},
        {"zy", {"\x0C\5zy"}},
        {"mx.b", {"\x0F\0\5\2mx\xC0\x0E"s}},
        {"hi", {"\x10\2hi\3foo", "\x10\7hi"}},
        {"", {"\1", "\x0C\0"s, "\x0F", "\x10"}}};
    for (const auto &[expected, answers] : cases) {
        for (const std::string &answer : answers) {
            init(static_cast<uint8_t>(answer[0]));
            query("a.b");
            reply(reply_of(record(res.qtype, answer.substr(1))));
            EXPECT_EQ(got(0), "0@0 " + expected) << testing::PrintToString(answer);
            std::string copy(1024, '!');
            EXPECT_EQ(resolver_result(&res, copy.data(), res.result_len - 1) + copy[0], '!' - 1);
            EXPECT_EQ(copy.substr(0, resolver_result(&res, copy.data(), res.result_len)), expected);
        }
    }
    std::string labels(1300, '\77'), text(1024, '!');
    const std::span message(reinterpret_cast<const uint8_t *>(labels.data()), labels.size());
    EXPECT_EQ(dns_decode(message, {12, 1000}, RESOLVER_PTR, text), 767u);
    EXPECT_EQ(text.find('!'), 767u);
}

TEST_F(resolver_test, names_and_addresses)
{
    std::string lines = "#nameserver 1.1.1.1\nnameserver ::1\n nameserver\t127.0.0.1\nnameserver127.0.0.2\n";
    for (int i = 3; i <= 20; ++i)
        lines += "nameserver 127.0.0." + std::to_string(i) + "\n";
    EXPECT_EQ(servers(lines.c_str()), 16);
    query(".");
    EXPECT_EQ(asked, "1@0 2@0 3@0 4@0 5@0 6@0 7@0 8@0 9@0 10@0 11@0 12@0 13@0 14@0 15@0 16@0 ");
    EXPECT_EQ(packets.back().substr(12), "\0\0\1\0\1"s);
    const std::string l63(63, 'x'), n255 = l63 + "." + l63 + "." + l63 + "." + l63, x64 = l63 + "x";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"0@0 \12\0\0\1"s, {"10.0.0.1"}},
        {"0@0 \1\2\3\4", {"1.2.3.4", "1.2.3.4.5"}},
        {"0@0 \1\0\0\2"s, {"1...2"}},
        {"62@15000 ", {"", "300.1.1.1", "1.2.3", "1.2.3.4a", "00000000000001.2.3.4", n255}},
        {"", {x64, "a." + x64, n255 + ".", "a..b", ".a", "a..", ".."}}};
    for (const auto &[expected, names] : cases) {
        for (const std::string &name : names) {
            init(RESOLVER_A);
            packets.clear();
            log.clear();
            EXPECT_EQ(query(name), expected.empty() ? -1 : 0) << name;
            EXPECT_EQ(log.messages().ends_with("FAILED: resolver_query\n"), expected.empty()) << name;
            EXPECT_EQ(packets.size(), expected.starts_with("62") ? 16u : 0u) << name;
            EXPECT_EQ(got(), expected) << name;
        }
    }
}

TEST_F(resolver_test, a_query_ends_the_one_before_and_release_ends_all)
{
    for (const auto &[name, answer] : {std::pair("b.c", "62@15000 "), std::pair("9.9.9.9", "0@0 \t\t\t\t")}) {
        for (const char *before : {"a.b", "1.2.3.4"}) {
            query("a.b");
            run_for(3000);
            query(before);
            const std::string late = reply_of(a);
            EXPECT_EQ(query(name), 0);
            reply(late);
            EXPECT_EQ(got(), answer) << before;
            query(before);
            resolver_release(&res);
            resolver_release(&res);
            EXPECT_EQ(got(), "gone") << before;
            EXPECT_FALSE(log.has("error: ")) << "the loop still polls the socket";
            init(RESOLVER_A);
        }
    }
    query("a.b");
    EXPECT_EQ(query(std::string(256, 'x')), -1) << "refused without harm to the one under way";
    EXPECT_STREQ(res.name, "a.b");
    reply(reply_of(a));
    EXPECT_EQ(got(), "0@0 \1\2\3\4");
    const auto release = [&] { resolver_release(&res); }; // from inside the callback
    for (const char *name : {"1.2.3.4", "a.b"}) {
        query(name);
        then = [&] {
            EXPECT_EQ(resolver_query(&res, "5.6.7.8"), 0);
            then = release;
        };
        reply(reply_of(a));
        EXPECT_EQ(got(), "0@0 0@0 gone");
        init(RESOLVER_A);
    }
    query("a.b");
    then = release;
    EXPECT_EQ(got(), "62@15000 gone");
}

TEST_F(resolver_test, a_call_that_fails_is_told)
{
    std::string whole; // all that is sent, and when
    const auto scenario = [&] {
        log.clear();
        outcome.clear();
        asked.clear();
        const bool begun = init(RESOLVER_A) == 0 && query("a.b") == 0;
        EXPECT_EQ(begun, got().starts_with("62@")) << log.messages();
        EXPECT_EQ(end_failing(), log.has("SYSERROR") || log.has("FAILED"));
        resolver_release(&res);
        const std::string queries = std::exchange(asked, "");
        whole = whole.empty() ? queries : whole;
        return begun && queries == whole;
    };
    scenario(); // the loop keeps what it needs for it
    EXPECT_EQ(for_each_failure(SOCKET | BIND | SENDTO | RECV | ALLOC, scenario), 46);
    // A server that cannot be sent to leaves the others; a pass that reaches none does not count.
    const std::string others = " 1@3000 2@3000 1@6000 2@6000 1@10000 2@10000 62@15000 ";
    for (const auto &[first, all, expected] :
         {std::tuple(1, false, "2@1000" + others),
          {2, false, "1@1000" + others},
          {1, true, "1@2000 2@2000 1@4000 2@4000 1@7000 2@7000 1@11000 2@11000 62@16000 "s}}) {
        init(RESOLVER_A);
        query("a.b");
        log.clear();
        asked.clear();
        fail_call(SENDTO, first, all);
        EXPECT_TRUE(got(1500) == "" && end_failing() && log.has("SYSERROR: resolver_send_requests"));
        EXPECT_EQ(log.has("FAILED: resolver_send_requests"), all);
        const std::string status = got();
        EXPECT_EQ(asked + status, expected);
    }
    fail_call(ALLOC, 1);
    EXPECT_EQ(query("1.2.3.4"), -1);
}

} // namespace
