// The shipped daemon on the virtual device, as its users see it: a process, a FIFO, a socket, files.
#pragma once

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

inline void write_file(const std::string &path, std::string_view text)
{
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_file(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline int count(const std::string &text, const std::string &path)
{
    const std::string all = read_file(path);
    int found = 0;
    for (size_t at = 0; (at = all.find(text, at)) != all.npos; ++at)
        ++found;
    return found;
}

inline double now() // in seconds
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline bool eventually(const std::function<bool()> &done, double seconds = 10)
{
    for (const double end = now() + seconds; !done(); usleep(2000)) {
        if (now() > end)
            return false;
    }
    return true;
}

// Writes into the FIFO once it is empty: a line across two reads would count as two.
inline void request(const std::string &lines)
{
    const int fd = open("/tmp/svcctl", O_WRONLY | O_CLOEXEC);
    int waiting = 0;
    eventually([&] { return ioctl(fd, FIONREAD, &waiting) < 0 || waiting == 0; });
    if (write(fd, lines.data(), lines.size()) < 0)
        perror("/tmp/svcctl");
    close(fd);
}

// A program's socket to the configuration server, with a name chosen by the kernel.
struct client {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    client()
    {
        const sockaddr_un own = {AF_UNIX, {}}, server = {AF_UNIX, "/tmp/.syscfg-server"};
        if (bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own.sun_family) < 0 ||
            connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server) < 0)
            perror("no server");
    }
    ~client() { close(fd); }

    void send(std::string_view text) const { ::send(fd, text.data(), text.size(), 0); }
    [[nodiscard]] std::string receive(int ms = 5000) const // "(none)" if nothing comes
    {
        char text[8192];
        pollfd wait = {fd, POLLIN, 0};
        const ssize_t got = poll(&wait, 1, ms) > 0 ? recv(fd, text, sizeof text, MSG_DONTWAIT) : -1;
        return got < 0 ? "(none)" : std::string(text, static_cast<size_t>(got));
    }
    [[nodiscard]] std::string ask(std::string_view text) const
    {
        send(text);
        return receive();
    }
};

// The answers to these requests, concatenated.
inline std::string ask(const std::vector<std::string> &requests)
{
    std::string answers;
    for (const std::string &text : requests)
        answers += client().ask(text);
    return answers;
}

// A running daemon and its children, with the test's services. It logs to log_path unless prepare, which runs
// just before exec, redirects its descriptors.
struct running_lumd {
    static constexpr char log_path[] = "/tmp/lumd.log";
    pid_t pid;
    int out;
    std::string printed;

    explicit running_lumd(
        const char *path_list, const char *log = log_path, const std::function<void()> &prepare = [] {})
    {
        prctl(PR_SET_CHILD_SUBREAPER, 1); // the daemon's orphans become ours
        unlink("/tmp/svcctl");
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) < 0)
            abort();
        out = ends[0];
        pid = fork();
        if (pid == 0) {
            dup2(ends[1], STDOUT_FILENO);
            dup2(open(log, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
            setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // the daemon keeps its memory until it ends
            prepare();
            execl("/usr/sbin/lumd", "lumd", path_list, nullptr);
            _exit(99);
        }
        close(ends[1]);
    }
    ~running_lumd()
    {
        end();
        close(out);
    }

    void end()
    {
        const auto left = children();
        if (pid > 0)
            kill(pid, SIGKILL);
        for (const auto &[word, child_pid] : left)
            kill(child_pid, SIGKILL);
        while (waitpid(-1, nullptr, 0) > 0)
            ;
        pid = 0;
    }

    // Its standard output so far; has_started compares it with that of a good start.
    const std::string &output()
    {
        char text[256];
        for (ssize_t got; (got = read(out, text, sizeof text)) > 0;)
            printed.append(text, static_cast<size_t>(got));
        return printed;
    }
    bool has_started()
    {
        return eventually([this] { return output() == "starting lumd...\nlumd started!\n"; });
    }
    int exit_status() // -1 if it does not end
    {
        int status = -1;
        const bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
        pid = ended ? 0 : pid;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    [[nodiscard]] std::string proc(const std::string &file) const
    {
        return "/proc/" + std::to_string(pid) + "/" + file;
    }

    // Its children by the last word of their command line, which is empty for a zombie.
    [[nodiscard]] std::multimap<std::string, pid_t> children() const
    {
        std::multimap<std::string, pid_t> found;
        std::istringstream pids(pid > 0 ? read_file(proc("task/" + std::to_string(pid) + "/children")) : "");
        for (pid_t child_pid; pids >> child_pid;) {
            std::string words = read_file("/proc/" + std::to_string(child_pid) + "/cmdline");
            words.resize(words.empty() ? 0 : words.size() - 1);
            found.emplace(words.substr(words.rfind('\0') + 1), child_pid);
        }
        return found;
    }
    [[nodiscard]] pid_t child(const std::string &last_word) const // 0 unless there is exactly one
    {
        const auto all = children();
        return all.count(last_word) == 1 ? all.find(last_word)->second : 0;
    }
    [[nodiscard]] bool runs_anew(const std::string &last_word, pid_t old) const
    {
        const pid_t current = child(last_word);
        return current > 0 && current != old;
    }
};
