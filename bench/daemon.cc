#include "bench/daemon.h"

#include "bench/check.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace {

constexpr int patience_ms = 5000;
constexpr const char *service_file = "/tmp/bench.conf";
constexpr const char *control_fifo = "/tmp/svcctl";

template <typename Call>
int with_address(Call call, int fd, const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    return call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

std::string service_name(int index)
{
    return (index < 10 ? "s0" : "s") + std::to_string(index);
}

void write_service_file(const char *program)
{
    std::string text;
    for (int i = 0; i < service_count; ++i)
        text += "service " + service_name(i) + "\nexec " + program + "\n";
    const int fd = check(open(service_file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), service_file);
    put(fd, text);
    close(fd);
}

void take(int reports, void *into, size_t size, const char *what)
{
    pollfd wait = {reports, POLLIN, 0};
    expect(poll(&wait, 1, patience_ms) == 1 && read(reports, into, size) == static_cast<ssize_t>(size), what);
}

} // namespace

int collect_reports()
{
    int ends[2];
    expect(pipe2(ends, O_CLOEXEC) == 0 && dup2(ends[1], STDOUT_FILENO) >= 0, "pipe2");
    return ends[0];
}

start_report take_report(int reports)
{
    start_report report;
    take(reports, &report, sizeof report, "a program did not start");
    return report;
}

running_daemon run_daemon(int reports, const char *program, const char *log)
{
    write_service_file(program);
    unlink(daemon_socket);
    unlink(control_fifo);
    running_daemon started = {};
    const int log_fd = check(open(log, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), log);
    const int64_t begin = monotonic_ns();
    started.pid = vfork();
    if (started.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(log_fd, STDERR_FILENO);
        execl("/usr/sbin/lumd", "lumd", service_file, nullptr);
        _exit(127);
    }
    check(started.pid, "vfork");
    char begun[sizeof "starting lumd...\n" - 1];
    char announced[sizeof "lumd started!\n" - 1];
    take(reports, begun, sizeof begun, "the daemon does not begin");
    take(reports, announced, sizeof announced, "the daemon does not start");
    started.boot_ns = monotonic_ns() - begin;
    close(log_fd);
    started.client = client_of(daemon_socket);
    started.requests = check(open(control_fifo, O_WRONLY | O_CLOEXEC), control_fifo);
    return started;
}

void end_daemon(const running_daemon &daemon)
{
    close(daemon.client);
    close(daemon.requests);
    kill(daemon.pid, SIGKILL);
    waitpid(daemon.pid, nullptr, 0);
}

std::string service_request(const char *verb, int services)
{
    std::string line = verb;
    for (int i = 0; i < services; ++i)
        line += " " + service_name(i);
    return line + "\n";
}

// The daemon handles one event after another: once it has answered twice, everything earlier is done.
void await_ends(const running_daemon &daemon, const std::vector<start_report> &started)
{
    for (const start_report &report : started) {
        for (int tries = 0; kill(static_cast<pid_t>(report.pid), 0) == 0 || errno != ESRCH; ++tries) {
            expect(tries < patience_ms, "a program does not end");
            usleep(1000);
        }
    }
    usleep(1000);
    ask(daemon.client, "?HOSTNAME");
    ask(daemon.client, "?HOSTNAME");
}

int bound_socket(const std::string &path)
{
    const int fd = check(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    check(with_address(bind, fd, path.c_str()), path.c_str());
    return fd;
}

int client_of(const char *server)
{
    static int clients;
    const int fd = bound_socket("/tmp/.bench-client-" + std::to_string(clients++));
    check(with_address(connect, fd, server), server);
    return fd;
}

std::string receive(int client)
{
    char answer[4097];
    return {answer, static_cast<size_t>(check(read(client, answer, sizeof answer), "read"))};
}

std::string ask(int client, std::string_view request)
{
    put(client, request);
    return receive(client);
}
