// svcctl: starts and stops services through lines in the daemon's control FIFO, which never answers.
#include "tools/tool.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char fifo_path[] = "/tmp/svcctl";
// The daemon reads at most this much at once; a line that continues in the next read becomes two.
constexpr size_t longest_line = 255;
constexpr long retry_ms = 5;
// A stopped service gets its signal at once and is not waited for; this is how long it has until the start.
constexpr long restart_pause_ms = 1000;

constexpr char usage[] = "usage: svcctl start NAME... | stop NAME... | restart NAME...  [-q] [-t SECONDS]\n"
                         "Writes the request to the daemon, which logs the outcome.\n"
                         "options: -q          write nothing to standard error\n"
                         "         -t SECONDS  how long to wait for the daemon to read (30)\n"
                         "Exit status: 0 written, 1 failed, 2 usage, 5 timed out, 6 no daemon.\n";

struct names {
    char **first;
    char **end;
};

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void sleep_ms(long ms)
{
    const timespec time = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&time, nullptr);
}

template <typename Test>
void wait_until(Test is_so)
{
    for (const int64_t end = now_ms() + int64_t{seconds()} * 1000; !is_so(); sleep_ms(retry_ms)) {
        if (now_ms() >= end)
            leave(code_late, "the daemon does not take the request");
    }
}

int open_fifo()
{
    const int fd = open(fifo_path, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 && (errno == ENXIO || errno == ENOENT))
        leave(code_no_daemon, "no daemon reads %s", fifo_path);
    if (fd < 0)
        leave(code_no, "cannot open %s: %s", fifo_path, strerror(errno));
    struct stat status;
    if (fstat(fd, &status) < 0 || !S_ISFIFO(status.st_mode))
        leave(code_no_daemon, "%s is no FIFO: no daemon reads it", fifo_path);
    return fd;
}

bool write_whole(int fd, std::string_view line)
{
    if (write(fd, line.data(), line.size()) >= 0)
        return true;
    if (errno == EPIPE)
        leave(code_no_daemon, "the daemon has gone");
    if (errno != EAGAIN && errno != EINTR)
        leave(code_no, "cannot write to %s: %s", fifo_path, strerror(errno));
    return false;
}

// One tool at a time, and only if the line fits into one read with what the daemon has not read yet.
void send_line(int fd, std::string_view line)
{
    wait_until([fd] { return flock(fd, LOCK_EX | LOCK_NB) == 0; });
    wait_until([fd, line] {
        int unread = 0;
        const bool fits =
            ioctl(fd, FIONREAD, &unread) == 0 && static_cast<size_t>(unread) + line.size() <= longest_line;
        return fits && write_whole(fd, line);
    });
    flock(fd, LOCK_UN);
}

// Sends as many lines as the names need.
void send_names(int fd, std::string_view keyword, names wanted)
{
    for (char **at = wanted.first; at != wanted.end;) {
        char line[longest_line];
        size_t length = keyword.copy(line, sizeof line);
        for (; at != wanted.end && length + 1 + strlen(*at) < sizeof line; ++at) {
            line[length++] = ' ';
            length += std::string_view(*at).copy(line + length, sizeof line - length);
        }
        line[length++] = '\n';
        send_line(fd, {line, length});
    }
}

void start(int fd, names wanted)
{
    send_names(fd, "start", wanted);
}

void stop(int fd, names wanted)
{
    send_names(fd, "stop", wanted);
}

void restart(int fd, names wanted)
{
    stop(fd, wanted);
    sleep_ms(restart_pause_ms);
    start(fd, wanted);
}

constexpr struct {
    std::string_view name;
    void (*run)(int fd, names wanted);
    size_t least, most; // names
} verbs[] = {
    {"start", start, 1, any_number}, {"stop", stop, 1, any_number}, {"restart", restart, 1, any_number}};

void check_name(std::string_view name)
{
    constexpr size_t longest_name = longest_line - sizeof "start \n" + 1;
    if (name.empty() || name.find_first_of(white_space) != name.npos || name.size() > longest_name)
        leave(code_usage, "\"%s\" is no name: 1 to %zu characters without white space", name.data(),
              longest_name);
}

} // namespace

int main(int argc, char **argv)
{
    constexpr option options[] = {{"quiet", no_argument, nullptr, 'q'},
                                  {"timeout", required_argument, nullptr, 't'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {"version", no_argument, nullptr, 'V'},
                                  {}};
    for (int letter; (letter = getopt_long(argc, argv, "qt:hV", options, nullptr)) != -1;)
        take_common_option(letter, optarg, usage);
    const auto &verb = take_verb(verbs, {argv + optind, argv + argc}, usage);
    const names wanted = {argv + optind + 1, argv + argc};
    std::for_each(wanted.first, wanted.end, check_name);
    signal(SIGPIPE, SIG_IGN);
    verb.run(open_fifo(), wanted);
    leave_done();
}
