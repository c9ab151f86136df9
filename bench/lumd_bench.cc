// What the daemon costs beside the bare system calls: a query beside a server that only polls, receives and
// sends, a start beside a vfork and execv of the same program, a value read by the command beside a process
// that does nothing. Everything runs on one processor, and the sides take turns; a round's figure is the
// median of its measurements, the reported one the median of the rounds. Runs inside the virtual device,
// where the daemon's paths are its own.
#include "bench/clock.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int rounds = 11;
constexpr int patience_ms = 5000;

constexpr const char *program = "/opt/bin/first_instruction";
constexpr const char *service_file = "/tmp/bench.conf";
constexpr std::string_view service_text = "service probe\nexec /opt/bin/first_instruction\n";
constexpr std::string_view query = "?HOSTNAME";
constexpr const char *get_command[] = {"/usr/bin/syscfg", "get", "HOSTNAME", nullptr};
constexpr const char *nothing_command[] = {"/opt/bin/nothing", nullptr};
constexpr const char *daemon_socket = "/tmp/.syscfg-server";
constexpr const char *bare_socket = "/tmp/.bare-server";

const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);

template <typename Result>
Result check(Result result, const char *what)
{
    if (result < 0) {
        std::fprintf(stderr, "lumd_bench: %s: %m\n", what);
        std::exit(1);
    }
    return result;
}

void expect(bool is_so, const char *what)
{
    check(is_so ? 0 : -1, what);
}

double microseconds(int64_t ns)
{
    return static_cast<double>(ns) / 1e3;
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void put(int fd, std::string_view text)
{
    expect(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
}

template <typename Call>
int with_address(Call call, int fd, const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    return call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

int bound_socket(const char *path)
{
    const int fd = check(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    check(with_address(bind, fd, path), path);
    return fd;
}

// ---- the query ----

std::string ask(int client)
{
    char answer[1024];
    put(client, query);
    return {answer, static_cast<size_t>(check(read(client, answer, sizeof answer), "read"))};
}

double time_query(int client, std::string_view expected)
{
    constexpr int trips = 50;
    const int64_t begin = monotonic_ns();
    for (int i = 0; i < trips; ++i)
        expect(ask(client) == expected, "another answer");
    return microseconds(monotonic_ns() - begin) / trips;
}

// The least that answers. It polls as many descriptors as the daemon does once a program has been started:
// the socket, the control FIFO and the pipe that tells of ended children.
[[noreturn]] void serve_bare(int fd, std::string_view answer)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int control[2];
    int children[2];
    expect(pipe2(control, O_CLOEXEC) == 0 && pipe2(children, O_CLOEXEC) == 0, "pipe2");
    pollfd polled[] = {{fd, POLLIN, 0}, {control[0], POLLIN, 0}, {children[0], POLLIN, 0}};
    for (;;) {
        poll(polled, std::size(polled), -1);
        char request[1024];
        sockaddr_un from;
        socklen_t length = sizeof from;
        auto *peer = reinterpret_cast<sockaddr *>(&from);
        if (recvfrom(fd, request, sizeof request, MSG_DONTWAIT, peer, &length) > 0)
            sendto(fd, answer.data(), answer.size(), MSG_DONTWAIT, peer, length);
    }
}

// ---- the start ----

// Both sides start out of the same calm: whatever the last start left to do is done when the daemon, which
// handles one thing after the other, has answered twice.
void settle(int client)
{
    usleep(1000);
    ask(client);
    ask(client);
}

int64_t take_report(int reports)
{
    pollfd wait = {reports, POLLIN, 0};
    int64_t at = 0;
    expect(poll(&wait, 1, patience_ms) == 1 && read(reports, &at, sizeof at) == sizeof at,
           "the program did not start");
    return at;
}

// A child shares its parent's memory until execv, so it does not matter how large the parent is.
double time_bare_start(int reports)
{
    char name[] = "first_instruction";
    char *const argv[] = {name, nullptr};
    const int64_t begin = monotonic_ns();
    const pid_t pid = vfork();
    if (pid == 0) {
        execv(program, argv);
        _exit(127);
    }
    const int64_t at = take_report(reports);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return microseconds(at - begin);
}

double time_start(int reports, int fifo)
{
    const int64_t begin = monotonic_ns();
    put(fifo, "start probe\n");
    const int64_t at = take_report(reports);
    put(fifo, "stop probe\n");
    return microseconds(at - begin);
}

// ---- the command ----

// From its vfork to its end.
double time_process(const char *const *argv)
{
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

// ---- the daemon and the figures ----

pid_t run_daemon()
{
    put(check(open(service_file, O_WRONLY | O_CREAT | O_CLOEXEC, 0600), service_file), service_text);
    const pid_t pid = check(fork(), "fork");
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_RDWR | O_CLOEXEC), STDERR_FILENO);
    execl("/usr/sbin/lumd", "lumd", service_file, nullptr);
    _exit(127);
}

// A round: the sides take turns, measurement by measurement.
template <typename Lumd, typename Bare>
void add_figure(const char *name, int turns, Lumd lumd, Bare bare)
{
    const auto round = [=](benchmark::State &state) {
        std::vector<double> ours;
        std::vector<double> theirs;
        for ([[maybe_unused]] auto _ : state) {
            for (int turn = 0; turn < turns; ++turn) {
                ours.push_back(lumd());
                theirs.push_back(bare());
            }
            state.SetIterationTime(median(ours) / 1e6);
        }
        state.counters["lumd"] = median(ours);
        state.counters["bare"] = median(theirs);
    };
    benchmark::RegisterBenchmark(name, round)->UseManualTime()->Iterations(1)->Repetitions(rounds);
}

// One line a figure.
struct figures : benchmark::BenchmarkReporter {
    FILE *output;
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        std::vector<double> lumd;
        std::vector<double> bare;
        std::vector<double> ratio;
        for (const Run &run : runs) {
            if (run.run_type != Run::RT_Iteration)
                return;
            lumd.push_back(run.counters.at("lumd"));
            bare.push_back(run.counters.at("bare"));
            ratio.push_back(lumd.back() / bare.back());
        }
        const auto [least, most] = std::minmax_element(ratio.begin(), ratio.end());
        std::fprintf(output,
                     "%s: lumd %.2f us, bare %.2f us, ratio %.3f, spread %.3f to %.3f in %zu rounds\n",
                     runs.front().run_name.function_name.c_str(), median(lumd), median(bare), median(ratio),
                     *least, *most, runs.size());
    }
};

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    // Standard output becomes the pipe into which started programs report, the daemon's as well as ours.
    figures reporter;
    reporter.output = fdopen(check(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "fcntl"), "w");
    int ends[2];
    expect(pipe2(ends, O_CLOEXEC) == 0 && dup2(ends[1], STDOUT_FILENO) >= 0, "pipe2");
    const int reports = ends[0];

    run_daemon();
    const int client = bound_socket("/tmp/.bench-client");
    for (int tries = 0; with_address(connect, client, daemon_socket) < 0; ++tries) {
        expect(tries < patience_ms, "no daemon");
        usleep(1000);
    }
    const std::string answer = ask(client);
    char announced[sizeof "starting lumd...\nlumd started!\n" - 1];
    expect(read(reports, announced, sizeof announced) == sizeof announced, "the daemon announced nothing");
    const int fifo = check(open("/tmp/svcctl", O_WRONLY | O_CLOEXEC), "/tmp/svcctl");
    time_start(reports, fifo); // from here on the daemon has all of its descriptors

    const int bare_server = bound_socket(bare_socket);
    if (check(fork(), "fork") == 0)
        serve_bare(bare_server, answer);
    const int bare_client = bound_socket("/tmp/.bench-bare-client");
    check(with_address(connect, bare_client, bare_socket), bare_socket);

    add_figure(
        "query", 200, [&] { return time_query(client, answer); },
        [&] { return time_query(bare_client, answer); });
    add_figure(
        "start", 100, [&] { return settle(client), time_start(reports, fifo); },
        [&] { return settle(client), time_bare_start(reports); });
    add_figure(
        "syscfg get", 100, [] { return time_process(get_command); },
        [] { return time_process(nothing_command); });
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fclose(reporter.output);
}
