// The library against a server that does what no daemon would. The server needs no process: the replaced recv
// lets it take the request and answer before the library looks for the answer.
#include "syscfg/client.h"
#include "tests/syscfg/fixture.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

static std::function<void()> before_recv;
// Replaces libc's, below the wrapper.
extern "C" ssize_t recv(int fd, void *data, size_t size, int flags)
{
    if (const auto hook = std::exchange(before_recv, nullptr))
        hook();
    return recvfrom(fd, data, size, flags, nullptr, nullptr);
}

// Bypasses the wrapper here, not in the library: a stranger can send as soon as the library has a name.
static std::function<void()> after_bind;
extern "C" int bind(int fd, const sockaddr *address, socklen_t length)
{
    const auto bound = static_cast<int>(syscall(SYS_bind, fd, address, length));
    if (const auto hook = std::exchange(after_bind, nullptr))
        hook();
    return bound;
}

namespace {

int collect(void *context, const char *name, const char *value)
{
    auto &listed = *static_cast<std::string *>(context);
    listed += std::string(name) + "=" + value + ";";
    return std::string(name) == "STOP";
}

// Calls by name with this argument and "v" as the second; returns the result and what was filled in.
std::string call(const std::string &name, const char *text)
{
    std::string listed;
    char error[SYSCFG_ERROR_SIZE] = "", small[5] = "----";
    const std::map<std::string, std::function<int()>> calls = {
        {"list", [&] { return syscfg_list(collect, &listed); }},
        {"command", [&] { return syscfg_command(text, error); }},
        {"get_r", [&] { return syscfg_get_r(text, small, 4); }},
        {"wait", [&] { return syscfg_wait(text, "v"); }},
        {"set", [&] { return syscfg_set(text, "v"); }},
        {"flags", [&] { return syscfg_set_flags(text, "v", 0); }},
        {"noreply", [&] { return syscfg_set_flags(text, "v", SYSCFG_NOREPLY); }},
        {"reload", syscfg_reload},
        {"reset", syscfg_reset},
        {"save", syscfg_save},
        {"apply", syscfg_apply}};
    if (name == "get") {
        const char *value = syscfg_get(text);
        return value ? value : "null";
    }
    const int result = calls.at(name)();
    const std::string filled = name == "get_r" ? small : listed + error;
    return std::to_string(result) + (filled.empty() ? "" : " " + filled);
}

struct client_test : syscfg_test {
    int server = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un path = {AF_UNIX, {}};
    std::string asked = "nothing";

    client_test()
    {
        device_path("/tmp/.syscfg-server").copy(path.sun_path, sizeof path.sun_path - 1);
        EXPECT_EQ(bind(server, reinterpret_cast<sockaddr *>(&path), sizeof path), 0);
    }
    ~client_test() override { close(server); }

    // Takes a request; commas separate the answers.
    void serve(const std::string &answers)
    {
        char request[2048];
        sockaddr_un from = {};
        socklen_t length = sizeof from;
        const ssize_t got =
            recvfrom(server, request, sizeof request, 0, reinterpret_cast<sockaddr *>(&from), &length);
        if (got < 0)
            return;
        asked.assign(request, static_cast<size_t>(got));
        if (length == 0) // wants no answer
            return;
        const std::string name = std::string(1, '\0') + ".syscfg-client-" + std::to_string(getpid());
        EXPECT_EQ(std::string(from.sun_path, sizeof from.sun_path),
                  name + std::string(108 - name.size(), '\0'));
        EXPECT_EQ(length, 110u);
        for (size_t at = 0, end; at <= answers.size(); at = end + 1) {
            end = std::min(answers.find(',', at), answers.size());
            sendto(server, answers.data() + at, end - at, 0, reinterpret_cast<sockaddr *>(&from), length);
        }
    }
    // With "signal", a signal arrives instead of an answer.
    std::string call_and_serve(const std::string &name, const std::string &argument,
                               const std::string &answers)
    {
        asked = "nothing";
        before_recv = [&] { serve(answers); };
        fail_call(answers == "signal" ? RECV : 0U, 1, false, false, EINTR);
        const std::string result = call(name, argument.c_str());
        end_failing();
        before_recv = nullptr;
        serve(""); // takes a request that awaited no answer
        return result;
    }
};

// "x*40" means forty times x.
std::string repeated(std::string text)
{
    for (size_t star; (star = text.find('*')) != text.npos;) {
        size_t digits = 0;
        const size_t count = std::stoul(text.substr(star + 1), &digits);
        text.replace(star - 1, 2 + digits, std::string(count, text[star - 1]));
    }
    return text;
}

// Columns: call, argument, server's answers, request, result, log.
TEST_F(client_test, calls)
{
    for (const auto &row : rows(R"(
        get | NAME | >a b | ?NAME | a b
        get | NAME | > | ?NAME |
        get | NAME | !ERR NOENT | ?NAME | null
        get | NAME | abc | ?NAME | null
        get | NAME | | ?NAME | null | Success
        get | NAME | signal | ?NAME | null | Interrupted system call
        get | n*40 | >x*500 | ?n*32 | x*161
        get_r | N%-:x | >abc | ?N%-:x | 0 abc
        get_r | N | >abcd | ?N | 0 abcd
        get_r | N | >abcdef | ?N | 0 abcd
        get_r | N | !ERR | ?N | -1 ----
        set | N | !OK | N=v | 0
        set | N | !OKAY | N=v | 0
        set | N | !O | N=v | -1
        set | N | !ERR INVAL | N=v | -1
        set | !OK | | !OK=v | -1 | Success
        set | n*159 | !OK | n*159=v | 0
        set | n*160 | | nothing | -1
        flags | N | !OK | N=v | 0
        flags | N | >x | N=v | -1
        flags | !OK | | !OK=v | -1 | Success
        flags | N | signal | N=v | -1 | Interrupted system call
        flags | n*160 | | nothing | -1
        noreply | N | | N=v | 0
        wait | N | !OK | %wait N=v | 0
        wait | N | !ERR NOENT | %wait N=v | -1
        wait | N | signal | %wait N=v | -1 | Interrupted system call
        wait | n*161 | !OK | %wait n*161=v | 0
        wait | n*162 | | nothing | -1
        command | save | !OK | %save | 0
        command | x | !ERR | %x | -1
        command | x | !ERR NOENT | %x | -1 NOENT
        command | x | !ERR x*119 | %x | -1 x*119
        command | x | !ERR x*500 | %x | -1 x*120
        command | x | x*500 | %x | -1
        command | x | | %x | -1 | Success
        command | c*32 | !OK | %c*32 | 0
        command | c*33 | | nothing | -1
        reload | | !OK | %reload | 0
        reset | | !OK | %reset | 0
        save | | !ERR | %save | -1
        apply | | !OK | %apply | 0
        list | | !OK | %list | 0
        list | | >A="1"\n,,junk,!OKK,!ERR,>B=2 ",>C="x,>D="y"z,>=,!OK | %list | 0 A=1;B=2 ";C=x;D=y;=;
        list | | >A="x*500,!OK | %list | 0 A=x*157;
        list | | >A=1,>STOP=2,>B=3,>,!OK | %list | 0 A=1;STOP=2;
        list | | >A=1,>B,!OK | %list | -1 A=1;
        list | | signal | %list | -1)")) {
        SCOPED_TRACE(row[0] + " " + row[1] + " | " + row[2]);
        log.clear();
        EXPECT_EQ(call_and_serve(row[0], repeated(row[1]), repeated(row[2])), repeated(row[4]));
        EXPECT_EQ(asked, repeated(row[3]));
        const std::string why = row.size() < 6 ? "" : row[5];
        EXPECT_EQ(log.text(),
                  why.empty() ? "" : "syscfg: cannot recv from /tmp/.syscfg-server: " + why + "\n");
    }
}

TEST_F(client_test, failures_of_the_system)
{
    for (const char *name : {"get", "set", "flags", "noreply", "wait", "command", "save", "list"}) {
        SCOPED_TRACE(name);
        log.clear();
        const int descriptors = open_descriptors();
        for (const calls kind : {SOCKET, SENDTO, BIND}) {
            if (kind == BIND && name == std::string("noreply"))
                continue; // binds no name
            fail_call(kind, 1);
            const std::string result = call(name, "N");
            EXPECT_TRUE(end_failing());
            EXPECT_EQ(result.substr(0, 2), name == std::string("get") ? "nu" : "-1");
        }
        call_and_serve(name, "N", ">N=,!OK");
        EXPECT_EQ(open_descriptors(), descriptors);
        const std::string not_sent =
            "syscfg: cannot send to /tmp/.syscfg-server: No buffer space available\n";
        EXPECT_EQ(log.text(), "syscfg: cannot create socket: Too many open files\n" +
                                  (name == std::string("list") ? "" : not_sent));
    }
}

TEST_F(client_test, one_call_at_a_time_in_a_process)
{
    fail_call(CONNECT, 1); // optional: the call succeeds without it
    before_recv = [this] {
        serve(">outer");
        EXPECT_EQ(syscfg_get("INNER"), nullptr);
        EXPECT_EQ(errno, EADDRINUSE);
        const pid_t other = fork();
        if (other == 0)
            _exit(syscfg_set_flags("OTHER", "1", SYSCFG_NOREPLY));
        int status = -1;
        EXPECT_TRUE(waitpid(other, &status, 0) == other && status == 0);
    };
    EXPECT_STREQ(syscfg_get("OUTER"), "outer");
    EXPECT_TRUE(end_failing());
    EXPECT_EQ(log.text(), "");
}

// A message that another user sends as soon as the client has its name must not reach it.
TEST_F(client_test, nobody_but_the_server_is_heard)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    int stranger = -1;
    after_bind = [&] {
        sockaddr_un name = {AF_UNIX, {}};
        snprintf(name.sun_path + 1, sizeof name.sun_path - 1, ".syscfg-client-%d", getpid());
        const pid_t child = fork();
        if (child == 0) {
            const bool other = setresuid(65534, 65534, 65534) == 0;
            const bool sent = sendto(socket(AF_UNIX, SOCK_DGRAM, 0), ">forged", 7, 0,
                                     reinterpret_cast<sockaddr *>(&name), sizeof name) == 7;
            _exit(!other ? 1 : sent ? 2 : errno == EPERM ? 0 : 3);
        }
        waitpid(child, &stranger, 0);
    };
    EXPECT_EQ(call_and_serve("get", "N", ">true"), "true");
    EXPECT_EQ(stranger, 0);
}

TEST_F(client_test, the_thread_that_serves_does_not_wait_for_itself)
{
    int sent = 0;
    while (sent < 100000 && syscfg_set_flags("N", "1", SYSCFG_NOREPLY) == 0)
        ++sent;
    EXPECT_TRUE(sent > 0 && sent < 100000 && errno == EAGAIN) << sent << " " << strerror(errno);
}

} // namespace
