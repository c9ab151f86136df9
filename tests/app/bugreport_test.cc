#include "app/bugreport.h"
#include "app/log.h"
#include "tests/support/mail_server.h"
#include "tests/support/support.h"

namespace {

using namespace support;
using namespace std::string_literals;

const struct {
    std::string sent, good, tag, write_fails, read_fails, wrong;
} steps[] = {
    {"", "220 ready\r\n", "80", "E081", "E081", "E087"}, // no write here: the fault is a short reply
    {"HELO " LUMD_BUGREPORT_DOMAIN "\r\n", "250-first of two\r\n", "97", "E093", "E098", "E104"},
    {"MAIL FROM:<" LUMD_BUGREPORT_MAILBOX ">\r\n", "250\n", "114", "E110", "E115", "E121"},
    {"RCPT TO:<" LUMD_BUGREPORT_MAILBOX ">\r\n", "2500\r\n", "131", "E127", "E132", "E138"},
    {"DATA\r\n", "354 go on\r\n", "148", "E144", "E149", "E155"},
    {"\n\nA=1\nB=\n\n\n.\r\n", "250 taken\r\n", "193", "E189", "E194", "E200"},
    {"QUIT\r\n", "500 so what\r\n", "205", "", "", ""},
};

// The server behaves up to the last step, whose reply is last_line. GONE: it disconnects without a word
// before that step's send; 1/2: it takes only half of the send.
const std::string gone = "GONE", half = "1/2";
size_t sends, last_step;
std::string last_line;

extern "C" ssize_t send(int fd, const void *text, size_t size, int flags)
{
    const bool last = ++sends == last_step;
    if (last && last_line == gone)
        close(std::exchange(server_end, -1));
    return sendto(fd, text, last && last_line == half ? size / 2 : size, flags, nullptr, 0);
}
// clang-format off
extern "C" size_t __real_fwrite(const void *text, size_t size, size_t count, FILE *file);
extern "C" size_t __wrap_fwrite(const void *text, size_t size, size_t count, FILE *file)
{
    return file == stderr ? size_t(write(2, text, size * count)) : __real_fwrite(text, size, count, file);
}
// clang-format on

struct bugreport_test : test {
    const char *environment[3] = {"A=1", "B=", nullptr};
    char **const real_environment = std::exchange(environ, const_cast<char **>(environment));
    captured_log log;
    std::string received;

    ~bugreport_test() override { environ = real_environment; }
    std::string run(size_t last, const std::string &with)
    {
        const int descriptors = open_descriptors();
        sends = 0, last_step = last, last_line = with, server_says.clear(), received.clear(), log.clear();
        for (size_t i = 0; i < last; ++i)
            server_says += steps[i].good;
        server_says += with;
        const std::string result = std::to_string(bugreport_send());
        char text[256];
        for (ssize_t got; (got = recv(server_end, text, sizeof text, 0)) > 0;)
            received.append(text, static_cast<size_t>(got));
        close(std::exchange(server_end, -1));
        EXPECT_EQ(open_descriptors(), descriptors);
        return result + log.text();
    }
    void expect_failure(size_t last, const std::string &with, const std::string &end)
    {
        const std::string got = run(last, with);
        EXPECT_TRUE(got.starts_with("-1") && got.ends_with("\n" + end)) << got << "\nwanted: " << end;
        EXPECT_EQ(got.find("bugreport: "), got.rfind("bugreport: "));
    }
    void expect_report(const std::string &body, const std::string &quit = "\n")
    {
        std::string sent, said;
        for (size_t i = 0; i < 6; ++i) {
            sent += i == 5 ? body : steps[i].sent;
            said += (i == 5 ? body : "") + "tcp_gets(): " + steps[i].tag + "\ntcp_gets(): " + steps[i].good;
        }
        EXPECT_EQ(run(6, quit), "0" + said + "tcp_gets(): 205\n" + (quit == "\n" ? "tcp_gets(): \n" : ""));
        EXPECT_EQ(received, quit == gone ? "" : sent + steps[6].sent);
    }
};

TEST_F(bugreport_test, every_failure_of_every_step_has_its_number)
{
    const std::string x(8300, 'x'), say = "bugreport: ", told = ": server error: ";
    for (size_t i = 0; i < 6; ++i) {
        const auto &[sent, good, tag, write_fails, read_fails, wrong] = steps[i];
        for (const auto &[with, number] :
             {std::pair(gone, write_fails), {half, write_fails}, {"", read_fails}, {"250", read_fails}})
            expect_failure(i, with, say + number + ": connection error\n");
        for (const std::string with : {"421 no\r\n", "\n", "25\n", "35\n", " 250 220 354\n", "\x1b[2J%n\n"})
            expect_failure(i, with, "tcp_gets(): " + with + say + wrong + told + with);
        expect_failure(i, x, say + wrong + told + x.substr(0, 8191) + "\n");
    }
    fail_call(CONNECT, 1);
    expect_failure(0, "", "bugreport: E076 cannot connect to server!\n");
    EXPECT_TRUE(end_failing());
    const int failures = for_each_failure(SOCKET | SETSOCKOPT | CONNECT | SENDTO | READ | ALLOC, [&] {
        const std::string got = run(6, "\n");
        EXPECT_EQ(got.starts_with("-1"), got.find(say + "E") != got.npos);
        return got[0] == '0' && received.ends_with(steps[6].sent) && got.ends_with("tcp_gets(): \n");
    });
    EXPECT_GT(failures, 200);
}

TEST_F(bugreport_test, reports_that_are_accepted_whatever_becomes_of_quit)
{
    for (const std::string &quit : {"\n"s, ""s, gone})
        expect_report(steps[5].sent, quit);
    for (const auto &[size, piece, variable] : std::initializer_list<std::array<size_t, 3>>{
             {100, 7, 9}, {4096, 4096, 4086}, {4096, 1, 4087}, {4097, 3, 9}, {5000, 5000, 20480}})
        isolated([&, size = size, piece = piece, variable = variable] {
            std::string history, value = "A=" + std::string(variable, 'v');
            for (size_t i = 0; i < size; ++i)
                history += static_cast<char>('a' + i % 23);
            for (size_t at = 0; at < size; at += piece)
                bugreport_append(history.data() + at, std::min(piece, size - at));
            environment[0] = value.c_str(), environment[1] = nullptr;
            history = history.substr(size - std::min<size_t>(size, 4096)) + "\n\n" + value + "\n";
            expect_report(history.substr(0, 8187) + "\n\n.\r\n");
        });
    isolated([&] {
        environ = nullptr, log_printf(0, "too early\n"), bugreport_enable();
        log_printf(0, "kept\n"), log_failed(0, "f", "m", 1);
        expect_report("kept\n  FAILED: f(): m: 1\n\n\n\n\n.\r\n");
    });
}

} // namespace
