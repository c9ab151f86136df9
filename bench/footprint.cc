// What the daemon takes while 32 services run and nothing happens: memory, wake-ups, processor time. This
// program is linked statically, so the daemon shares its C library at most with its services; otherwise all
// of it counts as the daemon's. Runs inside the virtual device; the argument is the number of seconds to
// watch. Without it, nothing is judged.
#include "bench/check.h"
#include "bench/daemon.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <sys/wait.h>

namespace {

constexpr long most_private_dirty_kib = 300;
constexpr long most_proportional_kib = 1229; // 1.2 MiB

bool judging;

std::string read_proc(pid_t pid, const char *name)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
    FILE *file = std::fopen(path.c_str(), "re");
    expect(file, path.c_str());
    std::string text(65536, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file));
    std::fclose(file);
    return text;
}

long number_after(const std::string &text, const char *key)
{
    const size_t at = text.find(key);
    expect(at != text.npos, key);
    return std::strtol(text.c_str() + at + std::strlen(key), nullptr, 10);
}

std::string verdict(long value, long at_most)
{
    if (!judging)
        return "";
    const std::string wanted = ", wanted at most " + std::to_string(at_most) + ": ";
    return wanted + (value <= at_most ? "met" : "missed by " + std::to_string(value - at_most));
}

struct activity {
    long wakeups;
    long preempted;
    long ticks;
    long run_ns; // the scheduler's count, finer than ticks
};

// Fields 14 and 15 of /proc/PID/stat are the ticks in user and kernel mode.
long ticks_of(const std::string &stat)
{
    long user = 0;
    long system = 0;
    const size_t name_end = stat.rfind(')');
    expect(name_end != stat.npos &&
               std::sscanf(stat.c_str() + name_end + 1,
                           " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &user, &system) == 2,
           "stat");
    return user + system;
}

activity activity_of(pid_t pid)
{
    const std::string status = read_proc(pid, "status");
    return {number_after(status, "\nvoluntary_ctxt_switches:"),
            number_after(status, "\nnonvoluntary_ctxt_switches:"), ticks_of(read_proc(pid, "stat")),
            std::strtol(read_proc(pid, "schedstat").c_str(), nullptr, 10)};
}

// Prints the dirty pages by owner.
void tell_dirty(FILE *output, pid_t pid)
{
    std::map<std::string, long> dirty;
    std::istringstream lines(read_proc(pid, "smaps"));
    std::string mapping;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("kB") == line.npos && line.find("VmFlags") == line.npos) {
            const size_t name = line.find_first_of("/[");
            mapping =
                name == line.npos
                    ? "anonymous"
                    : line.substr(line.find_last_of('/') == line.npos ? name : line.find_last_of('/') + 1);
        } else if (line.starts_with("Private_Dirty:")) {
            dirty[mapping] += number_after(line, "Private_Dirty:");
        }
    }
    std::fprintf(output, "  dirty, KiB:");
    for (const auto &[name, kib] : dirty) {
        if (kib > 0)
            std::fprintf(output, " %s %ld", name.c_str(), kib);
    }
    std::fprintf(output, "\n");
}

void tell_memory(FILE *output, pid_t pid, const char *what)
{
    const std::string memory = read_proc(pid, "smaps_rollup");
    const long dirty = number_after(memory, "\nPrivate_Dirty:");
    const long proportional = number_after(memory, "\nPss:");
    std::fprintf(output, "memory with %d %s: resident %ld KiB\n", service_count, what,
                 number_after(memory, "\nRss:"));
    std::fprintf(output, "  private dirty %ld KiB%s\n", dirty,
                 verdict(dirty, most_private_dirty_kib).c_str());
    std::fprintf(output, "  proportional %ld KiB%s\n", proportional,
                 verdict(proportional, most_proportional_kib).c_str());
}

void tell_idleness(FILE *output, pid_t pid, unsigned seconds)
{
    const activity before = activity_of(pid);
    sleep(seconds);
    const activity after = activity_of(pid);
    const long wakeups = after.wakeups - before.wakeups;
    std::fprintf(output, "idle for %u s with %d services: %ld wake-ups%s\n  preempted %ld times; ", seconds,
                 service_count, wakeups, verdict(wakeups, 0).c_str(), after.preempted - before.preempted);
    std::fprintf(output, "processor time %ld ticks, %ld ns\n", after.ticks - before.ticks,
                 after.run_ns - before.run_ns);
}

running_daemon run_busy_daemon(int reports, const char *program)
{
    const running_daemon daemon = run_daemon(reports, program);
    put(daemon.requests, service_request("start", service_count));
    for (int i = 0; i < service_count; ++i)
        take_report(reports);
    sleep(1); // lets it finish its work on the starts
    return daemon;
}

} // namespace

int main(int argc, char **argv)
{
    judging = argc > 1;
    FILE *output = fdopen(check(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "fcntl"), "w");
    const int reports = collect_reports();

    running_daemon daemon = run_busy_daemon(reports, started_program);
    tell_memory(output, daemon.pid, "services that use no C library");
    tell_dirty(output, daemon.pid);
    tell_idleness(output, daemon.pid, judging ? static_cast<unsigned>(std::atoi(argv[1])) : 1);
    kill(daemon.pid, SIGKILL);
    waitpid(daemon.pid, nullptr, 0);

    daemon = run_busy_daemon(reports, ordinary_program);
    tell_memory(output, daemon.pid, "services that use the C library too");
    std::fclose(output);
}
