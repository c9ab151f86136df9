#include "app/app.h"
#include "syscfg/computed.h"
#include "tests/syscfg/fixture.h"

#include <chrono>
#include <deque>
#include <fstream>
#include <numeric>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A client with its own socket; one without a name cannot be answered.
class client {
  public:
    explicit client(const std::string &name)
    {
        device_path("/tmp/" + name).copy(own.sun_path, sizeof own.sun_path - 1);
        if (!name.empty())
            EXPECT_EQ(bind(fd, generic(own), sizeof own), 0);
    }
    ~client() { close(fd); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    void send(const std::string &request) const
    {
        sendto(fd, request.data(), request.size(), 0, generic(server), sizeof server);
    }
    // Sends with a control message and returns the answer.
    template <typename Control>
    std::string ask_with(int type, const Control &data, std::string request) const
    {
        sockaddr_un to = {AF_UNIX, {}};
        device_path(server.sun_path).copy(to.sun_path, sizeof to.sun_path - 1);
        iovec text = {request.data(), request.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof data)] = {};
        const msghdr message = {&to, sizeof to, &text, 1, control, sizeof control, 0};
        auto *head = reinterpret_cast<cmsghdr *>(control);
        *head = {CMSG_LEN(sizeof data), SOL_SOCKET, type};
        memcpy(CMSG_DATA(head), &data, sizeof data);
        EXPECT_EQ(sendmsg(fd, &message, 0), ssize_t(request.size()));
        app_poll_once();
        return receive();
    }
    // Asks as another user; needs root.
    std::string ask_as(uid_t user, const std::string &request) const
    {
        return ask_with(SCM_CREDENTIALS, ucred{getpid(), user, getegid()}, request);
    }
    void connect_to_server() const { EXPECT_EQ(connect(fd, generic(server), sizeof server), 0); }
    // Fills an empty queue, but leaves room for this many answers.
    void fill_queue(int room = 0) const
    {
        int length = 0;
        std::ifstream("/proc/sys/net/unix/max_dgram_qlen") >> length;
        while (length-- >= room)
            EXPECT_EQ(sendto(fd, "junk", 4, MSG_DONTWAIT, generic(own), sizeof own), 4);
    }
    // The next answer, or "none".
    std::string receive() const
    {
        char answer[8192];
        const ssize_t length = recv(fd, answer, sizeof answer, MSG_DONTWAIT);
        return length < 0 ? "none" : std::string(answer, static_cast<size_t>(length));
    }
    std::string ask(const std::string &request) const
    {
        send(request);
        app_poll_once();
        return receive();
    }

  private:
    static const sockaddr *generic(const sockaddr_un &addr)
    {
        return reinterpret_cast<const sockaddr *>(&addr);
    }
    static constexpr sockaddr_un server = {AF_UNIX, "/tmp/.syscfg-server"};
    sockaddr_un own = {AF_UNIX, {}};
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
};

// The answers, concatenated in this order.
std::string all(std::initializer_list<std::string> answers)
{
    return std::accumulate(answers.begin(), answers.end(), std::string());
}

struct server_test : syscfg_test {
    database db = start(
        "IFACE string\nEMPTY string\nBOOL bool\nNUM integer\nRO -r string\nCH choice on,off\nBOOL alias b\n"
        "on alias yes\nLONG string\n_x -n sn\nPAT string [0-9]*\n");
    const client one{"1"}, two{"2"}, three{"3"};
};

// Requests, each with its answer and the report to the service manager, one after the other over the
// same values.
TEST_F(server_test, requests_and_answers)
{
    EXPECT_EQ(one.ask("%reset"), "!ERR") << "there are no defaults";
    write_file("/usr/etc/syscfg.default", "NUM=3\nIFACE=default\n");
    for (const auto &row : rows(R"(
        ?EMPTY | > | ?BOOL | > | ?CH | >on | ?NONE | !ERR NOENT | ? | !ERR NOENT | ?@nothing | !ERR NOENT
        IFACE = "a b&c" x | !OK | ?IFACE | >a b&c | ?IFACE%url | >a+b%26c | ?IFACE% | >a b&c
        b=true | !OK | ?BOOL%no:yes | >yes | ?b | >1 | NUM=26 | !OK | ?NUM%04x | >001a | ?NUM%n | >26
        NUM=x | !ERR INVAL | PAT=x | !ERR INVAL | CH=YES | !ERR INVAL | RO=1 | !ERR ACCESS | NONE=1 | !ERR NOENT
        _x= 1 2 | !OK | ?_x | >12 | @time=1 | !ERR RONLY | 1abc=2 | !ERR BADNAM | =2 | !ERR BADNAM
        BOOL | !ERR | BOOL="1 | !ERR | ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456=1 | !ERR | ?@version | >00.00
        %apply:NUM,,EMPTY b IFACE | !OK NUM BOOL IFACE; | %apply: EMPTY NONE | !OK | %apply: | !OK
        %apply | !OK _x NUM BOOL IFACE; | %apply:NUM | !OK | %apply | !OK ; | %apply x | !ERR | %list_ | !ERR | % | !ERR
        NUM=27 | !OK | %save | !OK NUM; | NUM=28 | !OK | %reload | !OK | ?NUM | >27
        %reset | !OK | ?NUM | >3 | ?IFACE | >default
        %wait BOOL=true | !OK | %wait BOOL=on | !ERR NOENT | %wait NONE=1 | !ERR NOENT | %wait BOOL | !ERR INVAL
        %wait RO= | !OK | %wait CH=YES | !ERR NOENT | %wait PAT=a | !ERR NOENT)")) {
        for (size_t i = 0; i + 1 < row.size(); i += 2) {
            reported.clear();
            const std::string answer = one.ask(row[i]);
            EXPECT_EQ(answer + (reported.empty() ? "" : " " + reported), row[i + 1]) << row[i];
            EXPECT_EQ(one.receive(), "none") << row[i];
        }
    }
    EXPECT_EQ(one.ask("%list "), "!ERR");
    EXPECT_EQ(one.ask(std::string("?CH\0x", 5)), ">on") << "a request ends at a zero byte";
    EXPECT_EQ(one.ask("NUM=5" + std::string(2000, ' ')), "!OK") << "cut at 1,024 bytes";
    const std::string l(1019, 'l');
    EXPECT_EQ(all({one.ask("LONG=" + l), one.ask("?LONG")}), "!OK>" + l);
    set(db.get(), "LONG", std::string(4096, 'l'));
    EXPECT_EQ(one.ask("?LONG"), ">" + std::string(4096, 'l'));
    for (const char *line : {"wait_syscfg: invalid expr:  BOOL\n", "wait_syscfg: no var named: NONE\n",
                             "syscfg_exec_cmd: list_\nsyscfg_exec_cmd: unknown command list_\n"})
        EXPECT_NE(log.messages().find(line), std::string::npos) << line;
    write_file(flash5, "");
    reported.clear();
    EXPECT_EQ(all({one.ask("%save"), one.ask("%reset"), one.ask("%reload")}), "!ERR!ERR!ERR");
    EXPECT_EQ(reported, "LONG NUM IFACE;") << "applied all the same";
}

TEST_F(server_test, waiters_are_answered_when_their_value_comes)
{
    EXPECT_EQ(all({one.ask("%wait CH=OFF"), two.ask("%wait CH=off"), three.ask("%wait NUM=5")}),
              "nonenonenone");
    EXPECT_EQ(one.ask("?CH"), ">on") << "a wait holds nobody else";
    const client setter("4");
    EXPECT_EQ(all({setter.ask("NUM=4"), three.receive()}), "!OKnone");
    EXPECT_EQ(all({setter.ask("NUM=5"), three.receive(), one.receive()}), "!OK!OKnone");
    EXPECT_EQ(all({setter.ask("CH=off"), one.receive(), two.receive()}), "!OK!OK!OK");
    EXPECT_EQ(all({setter.ask("CH=on"), setter.ask("CH=off"), one.receive(), two.receive()}),
              "!OK!OKnonenone");
    EXPECT_EQ(all({one.ask("%wait IFACE=x"), setter.ask("IFACE=x"), one.receive()}), "none!OK!OK");
    EXPECT_EQ(all({one.ask("%wait IFACE="), setter.ask("IFACE="), one.receive()}), "none!OK!OK");
}

TEST_F(server_test, of_1025_waits_those_of_the_gone_are_dropped_or_else_one_of_whoever_has_most)
{
    const client old("old"), setter("4");
    EXPECT_EQ(old.ask("%wait BOOL=1"), "none");
    for (int i = 0; i < 1023; ++i)
        EXPECT_EQ(client(i % 2 ? "gone" + std::to_string(i) : "").ask("%wait IFACE=x"), "none");
    EXPECT_EQ(all({two.ask("%wait NUM=1"), one.ask("%wait BOOL=1")}), "nonenone");
    for (int i = 0; i < 1021; ++i)
        EXPECT_EQ(one.ask("%wait IFACE=x"), "none");
    EXPECT_FALSE(log.has("dropped"));
    EXPECT_EQ(all({three.ask("%wait NUM=1"), one.receive()}), "none!ERR");
    EXPECT_TRUE(log.has("more than 1024 waits, dropped: BOOL=1\n"));
    for (const char *request : {"BOOL=1", "NUM=1"})
        EXPECT_EQ(setter.ask(request), "!OK");
    EXPECT_EQ(all({old.receive(), two.receive(), three.receive(), one.receive()}), "!OK!OK!OKnone");
    EXPECT_EQ(setter.ask("IFACE=x"), "!OK") << "though one does not read 1,021 answers";
}

struct list_test : server_test {
    std::deque<client> many;

    // More variables than a client's queue has room for, and as many clients.
    list_test()
    {
        real_time = true;
        db.reset();
        std::string definition;
        for (int i = 0; i < 700; ++i)
            definition += "V" + std::to_string(i) + " string\n";
        db = start(definition);
        set(db.get(), "V699", std::string(2000, 'x'));
        rlimit files = {};
        getrlimit(RLIMIT_NOFILE, &files);
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    // Lists and waits must not outlive their variables.
    ~list_test() override
    {
        for (const client &who : many)
            who.ask("V1=1");
    }
    const client &one_more() { return many.emplace_back("many" + std::to_string(many.size())); }
    // The next line within the time limit.
    static std::string next(const client &who)
    {
        std::string line = "none";
        run_until([&] { return line != "none" || (line = who.receive()) != "none"; }, 3000);
        return line;
    }
    static void takes_the_rest(const client &who, int from = 698)
    {
        for (int i = from; i >= -1; --i)
            ASSERT_EQ(next(who), i < 0 ? "!OK" : ">V" + std::to_string(i) + "=\"\"\n");
    }
};

TEST_F(list_test, a_list_waits_for_its_reader_and_ends_with_his_next_request)
{
    const client never("never");
    EXPECT_EQ(never.ask("%list").substr(0, 1030), ">V699=\"" + std::string(1017, 'x'));
    EXPECT_EQ(one.ask("%list").size(), 1024u);
    EXPECT_EQ(two.ask("?V1"), ">") << "no list holds another requester";
    takes_the_rest(one);
    const client stopped("stopped");
    stopped.ask("%list");
    run_until([] { return false; }, 2200); // long enough for its retries to become rare
    takes_the_rest(stopped);
    for (int i = 0; i < 30; ++i)
        one_more().ask("%list");
    int ended = 0;
    const auto all_read = [&] {
        for (const client &who : many)
            for (std::string line; (line = who.receive()) != "none";)
                ended += line == "!OK" ? 1 : 0;
        return ended == 30;
    };
    EXPECT_TRUE(run_until(all_read, 10000)) << ended;
    const int descriptors = open_descriptors();
    never.ask("?V1");
    EXPECT_TRUE(log.has("list given up: its requester asks anew\n"));
    EXPECT_EQ(open_descriptors(), descriptors - 1) << "the retries have ended";
}

TEST_F(list_test, of_1025_lists_that_goes_which_stands_still_longest)
{
    EXPECT_EQ(one.ask("%list").size(), 1024u);
    int at = 698;
    while (many.size() < 1023) {
        one_more().fill_queue();
        EXPECT_EQ(many.back().ask("%list"), "junk");
        many.back().fill_queue();
        if (many.size() % 4 == 0) // `one` continues to read
            EXPECT_EQ(next(one), ">V" + std::to_string(at--) + "=\"\"\n");
    }
    EXPECT_FALSE(log.has("list given up"));
    run_until([] { return false; }, 20); // `one` stalls too, but only briefly
    EXPECT_EQ(two.ask("%list").size(), 1024u);
    EXPECT_TRUE(log.has("list given up: too many are under way\n"));
    takes_the_rest(one, at);
    takes_the_rest(two);
    std::string told;
    while ((told = next(many[0])) == "junk")
        continue;
    EXPECT_EQ(told, "!ERR");
    EXPECT_EQ(many[0].receive(), "none");
    while ((told = next(many[1])) == "junk")
        continue;
    EXPECT_EQ(told.size(), 1024u) << "the others go on";
}

TEST_F(list_test, no_user_takes_the_places_of_others)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can send as another user";
    for (int i = 0; i < 600; ++i)
        EXPECT_EQ(one_more().ask_as(65534, "%wait V1=1"), "none");
    for (int i = 0; i < 424; ++i)
        EXPECT_EQ(one.ask("%wait V1=1"), "none");
    EXPECT_EQ(all({two.ask("%wait V1=1"), many[0].receive(), one.receive()}), "none!ERRnone");
    // 512 of them have a list and keep reading, but free too few lines at once to fill the buffer.
    const auto all_read = [this] {
        for (const client &who : many) {
            while (who.receive() != "none")
                continue;
            who.fill_queue(3);
        }
        app_poll_once();
    };
    all_read();
    for (int i = 0; i < 512; ++i)
        EXPECT_EQ(many[i].ask_as(65534, "%list"), "junk");
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < end)
        all_read();
    EXPECT_FALSE(log.has("list given up"));
    many[512].fill_queue();
    many[512].ask_as(65534, "%list");
    EXPECT_TRUE(log.has("list given up: too many are under way\n"));
    EXPECT_EQ(three.ask("%list").size(), 1024u);
    takes_the_rest(three);
    std::string told;
    while ((told = next(many[512])) == "junk")
        continue;
    EXPECT_EQ(told, "!ERR") << "nobody who reads is given up for it";
}

// For a client connected to the server, the kernel queues answers without limit.
TEST_F(list_test, who_is_connected_and_does_not_read_silences_nobody)
{
    const std::string renewed =
        "renew_server_socket: unread answers fill the socket, another one takes its place\n";
    one_more().connect_to_server();
    const int descriptors = open_descriptors();
    one.connect_to_server();
    EXPECT_EQ(two.ask("%wait V1=1"), "none");
    EXPECT_EQ(many[0].ask("%wait V1=1"), "none");
    log.clear();
    for (int i = 0; i < 40000 && log.text().empty(); ++i)
        one.ask("?V1"), one.send("?V1"), app_poll_once();
    EXPECT_EQ(log.messages(), renewed);
    EXPECT_EQ(all({three.ask("?V1"), three.ask("V1=1"), two.receive(), many[0].receive()}), ">!OK!OK!OK");
    EXPECT_EQ(open_descriptors(), descriptors + 1) << "the old socket, for those connected to it";
    one.connect_to_server();
    EXPECT_EQ(one.ask("?V1"), ">1") << "as after a restart";
    log.clear();
    for (int i = 0; i < 40; ++i) {
        one_more().connect_to_server();
        many.back().send("%list");
        app_poll_once();
    }
    EXPECT_EQ(two.ask("?V1"), ">1") << "lists leave room for answers";
    EXPECT_EQ(next(two), "none");
    EXPECT_TRUE(log.messages().ends_with(renewed));
    two.ask("%list");
    EXPECT_EQ(next(two), ">V698=\"\"\n");
}

TEST_F(server_test, who_does_not_read_holds_the_daemon_for_200_ms_at_most)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 15; ++i) {
        one.send("?CH");
        app_poll_once();
        EXPECT_EQ(two.ask("?CH"), ">on") << i;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(350));
    while (one.receive() != "none")
        continue;
    EXPECT_EQ(one.ask("?CH"), ">on");
}

TEST_F(server_test, hostile_datagrams_change_nothing)
{
    const client nameless("");
    for (const char *request : {"?CH", "%list", "%wait CH=off", "x", "CH=off"})
        EXPECT_EQ(nameless.ask(request), "none");
    EXPECT_EQ(one.ask("?CH"), ">off") << "unnamed, yet obeyed";
    log.clear();
    EXPECT_EQ(one.ask(""), "none");
    EXPECT_EQ(log.messages(), "FAILED: syscfg_recvCallback\n");
    EXPECT_EQ(one.ask("?CH"), ">off");
    EXPECT_EQ(one.ask("?NONE"), "!ERR NOENT");
    const int descriptors = open_descriptors();
    EXPECT_EQ(one.ask_with(SCM_RIGHTS, std::array{1, 1, 1}, "?CH"), ">off");
    EXPECT_EQ(open_descriptors(), descriptors);
}

// A file with its text, then names and their values in turn.
TEST_F(syscfg_test, computed_variables)
{
    for (const auto &row : rows(R"(
        /x | | default_route | 0.0.0.0 | version | 00.00 | dns | none | lo_ip | 127.0.0.1 | lo_netmask | 255.0.0.0
        /x | | nosuch_ip | none | _ip | none | abcdefghijklmnopq_ip | none | lo_ipx | none | | none | eth0 | none
        /proc/net/route | Iface D G\n eth0 0001A8C0 0 1 0 0 0 FFFFFF\n | default_route | none
        /proc/net/route | Iface D G\n e 1 0 1 0 0 0 0\n x\n w 0 FE01A8C0 3 0 0 0 0\n p 0 1 3 0 0 0 0\n | default_route | 192.168.1.254
        /proc/net/route | y 0 7 3 0 z 0 0\n w 00000000 FE01A8C0 3 0 0 0 0 0 0\n | default_route | 192.168.1.254
        /usr/etc/VERSION | VERSION=1.2.3 \nx=9\n | version | 1.2.3.00
        /usr/etc/PATCH   | PATCH=05 | version | 1.2.3.05
        /usr/etc/VERSION | PRODUCT=77777777777777777777777777777777 | version | 77777777777777777777.05
        /usr/etc/VERSION | 1.2.3\n | version | 00.05
        /etc/resolv.conf | # x\nsearch y\n nameserver 10.0.0.1 # z\nnameserver   10.0.0.2\nnameserver 10.0.0.3 | dns1 | 10.0.0.1
        /x | | dns | 10.0.0.1 | dns3 | 10.0.0.3 | dns4 | none | dns0 | none | dns_ip | none | dns4294967297 | none)")) {
        write_file(row[0] == "/x" ? "/tmp/log/x" : row[0], row[1]);
        for (size_t i = 2; i + 1 < row.size(); i += 2) {
            char output[64] = "none";
            EXPECT_EQ(get_computed(row[i], output), row[i + 1] == "none" ? -1 : 0) << row[i];
            EXPECT_TRUE(row[i + 1] == "none" || row[i + 1] == output) << row[i] << " " << output;
        }
    }
    EXPECT_EQ(log.text(), "open /proc/net/route: No such file or directory\n");
    char small[15];
    EXPECT_EQ(get_computed("default_route", small), -1);
}

TEST_F(server_test, a_failing_call_costs_an_answer_at_most)
{
    const auto scenario = [&] {
        bool answered = true;
        for (const auto &[request, right] : {std::pair("NUM=12", "!OK"),
                                             {"?NUM%04x", ">000c"},
                                             {"?@lo_ip", ">127.0.0.1"},
                                             {"%wait NUM=13", "none"},
                                             {"%apply", "!OK"}}) {
            std::string answer = one.ask(request);
            for (int i = 0; answer == "none" && i < 3; ++i)
                app_poll_once(), answer = one.receive();
            EXPECT_TRUE(answer == right || answer == "none" || answer.starts_with("!ERR") ||
                        failed_kind == SENDTO)
                << request << answer; // an unsent request changes the next answer
            answered = answered && answer == right;
        }
        one.ask("%list");
        end_failing();
        one.ask("NUM=13"); // for clients still waiting
        while (one.receive() != "none")
            app_poll_once();
        EXPECT_EQ(all({one.ask("NUM=7"), one.ask("?NUM")}), "!OK>7");
        return answered;
    };
    scenario(); // allocates what is kept
    EXPECT_GT(for_each_failure(ALL_CALLS, scenario, SENDTO | POLL | RECV | IOCTL), 40);
}

} // namespace
