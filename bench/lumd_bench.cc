// What the daemon costs beside the bare system calls. Requests are compared with a server that only polls,
// receives and sends; starts with vfork and execv of the same program (also in a process that starts on
// request); a save with writing the same blocks; a value read by the command with a process that does
// nothing. Everything runs on one processor (see bench/figures.h), inside the virtual device, where the
// daemon's paths are its own.
#include "bench/check.h"
#include "bench/daemon.h"
#include "bench/figures.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

constexpr const char *bare_socket = "/tmp/.bare-server";
constexpr const char *flash = "/dev/mtdblock/5";
constexpr const char *get_command[] = {"/usr/bin/syscfg", "get", "HOSTNAME", nullptr};
constexpr const char *nothing_command[] = {"/opt/bin/nothing", nullptr};
constexpr std::string_view ok = "!OK";

double microseconds(int64_t ns)
{
    return static_cast<double>(ns) / 1e3;
}

// ---- requests ----

// Two requests sent in turn, with the answers they must get.
struct dialogue {
    std::string request[2];
    std::string answer[2];
};

double time_dialogue(int client, const dialogue &said)
{
    constexpr int trips = 50;
    const int64_t begin = monotonic_ns();
    for (int i = 0; i < trips; ++i)
        expect(ask(client, said.request[i % 2]) == said.answer[i % 2], "another answer");
    return microseconds(monotonic_ns() - begin) / trips;
}

// One client waits for a value, another sets it; both get their answer.
double time_wait(int waiter, int setter)
{
    constexpr int trips = 50;
    constexpr std::string_view assignments[] = {"WEB_TITLE=once", "WEB_TITLE=twice"};
    const int64_t begin = monotonic_ns();
    for (int i = 0; i < trips; ++i) {
        put(waiter, "%wait " + std::string(assignments[i % 2]));
        expect(ask(setter, assignments[i % 2]) == ok && receive(waiter) == ok, "another answer to a wait");
    }
    return microseconds(monotonic_ns() - begin) / trips;
}

struct correspondent {
    sockaddr_un address;
    socklen_t length;
};

// The smallest server that answers. It polls as many descriptors as the daemon after a first start: the
// socket, the control FIFO and the pipe that reports ended children.
[[noreturn]] void serve_bare(int fd, std::string_view value)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int control[2];
    int children[2];
    expect(pipe2(control, O_CLOEXEC) == 0 && pipe2(children, O_CLOEXEC) == 0, "pipe2");
    pollfd polled[] = {{fd, POLLIN, 0}, {control[0], POLLIN, 0}, {children[0], POLLIN, 0}};
    correspondent waiter = {};
    const auto send_to = [fd](const correspondent &to, std::string_view text) {
        sendto(fd, text.data(), text.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to.address),
               to.length);
    };
    for (;;) {
        poll(polled, std::size(polled), -1);
        char request[1024];
        correspondent from;
        from.length = sizeof from.address;
        auto *peer = reinterpret_cast<sockaddr *>(&from.address);
        if (recvfrom(fd, request, sizeof request, MSG_DONTWAIT, peer, &from.length) <= 0)
            continue;
        if (request[0] == '%') {
            waiter = from;
            continue;
        }
        if (request[0] != '?' && waiter.length != 0) {
            send_to(waiter, ok);
            waiter.length = 0;
        }
        send_to(from, request[0] == '?' ? value : ok);
    }
}

void serve_bare_beside(const std::string &value)
{
    const int server = bound_socket(bare_socket);
    if (check(fork(), "fork") == 0)
        serve_bare(server, value);
}

void add_requests(const running_daemon &daemon)
{
    const dialogue query = {{"?HOSTNAME", "?HOSTNAME"},
                            {ask(daemon.client, "?HOSTNAME"), ask(daemon.client, "?HOSTNAME")}};
    const dialogue plain = {{"WEB_TITLE=once", "WEB_TITLE=twice"}, {"!OK", "!OK"}};
    const dialogue matched = {{"HOSTNAME=attic", "HOSTNAME=gateway"}, {"!OK", "!OK"}};
    serve_bare_beside(query.answer[0]);
    const int client = daemon.client;
    const int bare = client_of(bare_socket);
    const int waiter = client_of(daemon_socket);
    const int bare_waiter = client_of(bare_socket);
    const auto beside = [=](const char *name, double at_most, const dialogue &said) {
        add_figure({name,
                    "us",
                    200,
                    at_most,
                    {{"lumd", [=] { return time_dialogue(client, said); }},
                     {"bare", [=] { return time_dialogue(bare, said); }}}});
    };
    beside("query", 1.10, query);
    beside("assignment of a text", 0, plain);
    beside("assignment of a text with a pattern", 0, matched);
    add_figure({"wait round trip",
                "us",
                200,
                0,
                {{"lumd", [=] { return time_wait(waiter, client); }},
                 {"bare", [=] { return time_wait(bare_waiter, bare); }}}});
}

// ---- starts ----

// A child shares its parent's memory until execv, so the parent's size does not matter.
void bare_start()
{
    char path[] = "/opt/bin/first_instruction";
    char *const argv[] = {path, nullptr};
    if (vfork() == 0) {
        execv(started_program, argv);
        _exit(127);
    }
}

// Measures until the last program has run its first instruction. Both sides start from the same quiet state.
template <typename Start, typename Stop>
double time_starts(int reports, int services, const running_daemon &daemon, Start start, Stop stop)
{
    std::vector<start_report> started;
    const int64_t begin = monotonic_ns();
    start();
    int64_t last = begin;
    for (int i = 0; i < services; ++i) {
        started.push_back(take_report(reports));
        last = std::max(last, started.back().at_ns);
    }
    stop(started);
    await_ends(daemon, started);
    return microseconds(last - begin);
}

double time_daemon_starts(int reports, int services, const running_daemon &daemon)
{
    const std::string start = service_request("start", services);
    const std::string stop = service_request("stop", services);
    return time_starts(
        reports, services, daemon, [&] { put(daemon.requests, start); },
        [&](const std::vector<start_report> &) { put(daemon.requests, stop); });
}

void end_programs(const std::vector<start_report> &started)
{
    for (const start_report &report : started) {
        kill(static_cast<pid_t>(report.pid), SIGTERM);
        waitpid(static_cast<pid_t>(report.pid), nullptr, 0);
    }
}

double time_bare_starts(int reports, int services, const running_daemon &daemon)
{
    const auto start = [services] {
        for (int i = 0; i < services; ++i)
            bare_start();
    };
    return time_starts(reports, services, daemon, start, end_programs);
}

// The smallest server that starts programs: each byte from the pipe is a number of starts.
int serve_bare_starts()
{
    int ends[2];
    expect(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    if (check(fork(), "fork") != 0)
        return ends[1];
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    struct sigaction unwaited = {};
    unwaited.sa_handler = SIG_DFL;
    unwaited.sa_flags = SA_NOCLDWAIT;
    expect(sigaction(SIGCHLD, &unwaited, nullptr) == 0, "sigaction");
    pollfd polled = {ends[0], POLLIN, 0};
    for (;;) {
        uint8_t services;
        poll(&polled, 1, -1);
        expect(read(ends[0], &services, 1) == 1, "read");
        for (int i = 0; i < services; ++i)
            bare_start();
    }
}

double time_requested_starts(int reports, int services, const running_daemon &daemon, int requests)
{
    const auto start = [=] { put(requests, std::string(1, static_cast<char>(services))); };
    return time_starts(reports, services, daemon, start, end_programs);
}

void add_starts(const running_daemon &daemon, int reports)
{
    const int requests = serve_bare_starts();
    const auto beside = [=](const char *name, int services, int turns) {
        add_figure({name,
                    "us",
                    turns,
                    1.30,
                    {{"lumd", [=] { return time_daemon_starts(reports, services, daemon); }},
                     {"bare", [=] { return time_bare_starts(reports, services, daemon); }},
                     {"bare on request",
                      [=] { return time_requested_starts(reports, services, daemon, requests); }}}});
    };
    beside("start", 1, 100);
    beside("32 services up", service_count, 20);
}

// ---- the command ----

// From vfork to the end of the process.
double time_process(const char *const *argv)
{
    static const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const int64_t begin = monotonic_ns();
    const pid_t pid = vfork();
    if (pid == 0) {
        dup2(nowhere, STDOUT_FILENO);
        execv(argv[0], const_cast<char *const *>(argv));
        _exit(127);
    }
    int status = -1;
    expect(waitpid(pid, &status, 0) == pid && status == 0, argv[0]);
    return microseconds(monotonic_ns() - begin);
}

// ---- many variables ----

std::string numbered(int index)
{
    return "V_" + std::to_string(1000 + index);
}

std::string read_file(const char *path)
{
    std::string text(1 << 20, '\0');
    const int fd = check(open(path, O_RDONLY | O_CLOEXEC), path);
    text.resize(static_cast<size_t>(check(read(fd, text.data(), text.size()), path)));
    close(fd);
    return text;
}

void write_file(const char *path, const std::string &text)
{
    const int fd = check(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), path);
    put(fd, text);
    close(fd);
}

// A daemon whose variables have their numbers as values. Afterwards the device has its own files again.
running_daemon daemon_among(int variables, int reports, const char *log = "/dev/null")
{
    constexpr const char *declarations = "/etc/syscfg.def";
    constexpr const char *defaults = "/usr/etc/syscfg.default";
    const std::string declared_before = read_file(declarations);
    const std::string values_before = read_file(defaults);
    std::string declared;
    std::string values;
    for (int i = 0; i < variables; ++i) {
        declared += numbered(i) + " integer\n";
        values += numbered(i) + "=" + std::to_string(i) + "\n";
    }
    write_file(declarations, declared);
    write_file(defaults, values);
    const running_daemon daemon = run_daemon(reports, started_program, log);
    write_file(declarations, declared_before);
    write_file(defaults, values_before);
    return daemon;
}

// Steps through the variables, so that consecutive queries differ.
double time_queries(int client, int variables)
{
    constexpr int trips = 50;
    constexpr int step = 37;
    static int last;
    int64_t spent = 0;
    for (int i = 0; i < trips; ++i) {
        last = (last + step) % variables;
        const std::string request = "?" + numbered(last);
        const std::string expected = ">" + std::to_string(last);
        const int64_t begin = monotonic_ns();
        const bool answered = ask(client, request) == expected;
        spent += monotonic_ns() - begin;
        expect(answered, "another answer");
    }
    return microseconds(spent) / trips;
}

void add_look_ups(int few, int many, int very_many)
{
    const auto beside = [few](const char *name, int client, int variables) {
        add_figure({name,
                    "us",
                    100,
                    1.05,
                    {{"lumd", [=] { return time_queries(client, variables); }},
                     {"among 100", [=] { return time_queries(few, 100); }}}});
    };
    beside("query among 1,000 variables", many, 1000);
    beside("query among 5,000 variables", very_many, 5000);
}

// ---- the save ----

constexpr size_t block_size = 4096;

// The number of blocks that the second blob, the saved values, reaches into by the registry's header.
int saved_blocks()
{
    constexpr off_t second_length = 20 + 24 + 20;
    constexpr size_t first_byte = 256 + 512;
    const int fd = check(open(flash, O_RDONLY | O_CLOEXEC), flash);
    uint8_t length[4];
    expect(pread(fd, length, sizeof length, second_length) == sizeof length, flash);
    close(fd);
    const size_t bytes = length[0] | length[1] << 8 | length[2] << 16;
    expect(bytes > 0, "nothing is saved");
    return static_cast<int>((first_byte + bytes + block_size - 1) / block_size);
}

double time_save(int client)
{
    const int64_t begin = monotonic_ns();
    const bool saved = ask(client, "%save") == ok;
    const int64_t end = monotonic_ns();
    expect(saved, "not saved");
    return microseconds(end - begin);
}

// Reads every block before writing it, as flash demands.
double time_bare_save(int blocks, int syncs)
{
    uint8_t block[block_size];
    const int64_t begin = monotonic_ns();
    const int fd = open(flash, O_RDWR | O_CLOEXEC);
    for (off_t at = 0; at < static_cast<off_t>(blocks * block_size); at += block_size) {
        expect(pread(fd, block, sizeof block, at) == sizeof block, flash);
        expect(pwrite(fd, block, sizeof block, at) == sizeof block, flash);
    }
    if (syncs == 0)
        fsync(fd);
    close(fd);
    for (int i = 0; i < syncs; ++i)
        sync();
    return microseconds(monotonic_ns() - begin);
}

void add_save(const char *name, int client)
{
    expect(ask(client, "%save") == ok, "not saved");
    const int blocks = saved_blocks();
    add_figure({name,
                "us",
                10,
                0,
                {{"lumd", [=] { return time_save(client); }},
                 {"bare with three syncs", [=] { return time_bare_save(blocks, 3); }},
                 {"bare with one fsync", [=] { return time_bare_save(blocks, 0); }}}});
}

// ---- the boot ----

// Whatever the number of variables, the same few values are saved; the others come from the defaults.
void add_boot(int reports, const std::string &saved)
{
    const auto among = [=](int variables) {
        write_file(flash, saved);
        const running_daemon booted = daemon_among(variables, reports, "/tmp/bench.log");
        end_daemon(booted);
        return microseconds(booted.boot_ns);
    };
    add_figure({"boot with 5,000 variables",
                "us",
                3,
                6.00,
                {{"lumd", [=] { return among(5000); }},
                 {"with 1,000", [=] { return among(1000); }},
                 {"with 100", [=] { return among(100); }}}});
}

} // namespace

int main(int argc, char **argv)
{
    FILE *output = fdopen(check(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "fcntl"), "w");
    const int reports = collect_reports();
    const int few = daemon_among(100, reports).client;
    const std::string few_saved = read_file(flash);
    const int many = daemon_among(1000, reports).client;
    const int very_many = daemon_among(5000, reports).client;
    const running_daemon daemon = run_daemon(reports); // the last: programs that are run find this one
    time_daemon_starts(reports, 1, daemon);            // from here on it has all of its descriptors

    add_requests(daemon);
    add_look_ups(few, many, very_many);
    add_starts(daemon, reports);
    add_figure({"syscfg get",
                "us",
                100,
                0,
                {{"lumd", [] { return time_process(get_command); }},
                 {"process that does nothing", [] { return time_process(nothing_command); }}}});
    add_save("save of the device's variables", daemon.client);
    add_save("save of 1,000 variables", many);
    add_boot(reports, few_saved); // the last: nobody finds the daemon above any more
    run_figures(argc, argv, output);
    std::fclose(output);
}
