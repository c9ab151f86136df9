#include "lumd/proc_se.h"

#include "app/app.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "lumd/child.h"
#include "lumd/exit_record.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "proc_se";
constexpr int started_notice_priority = 16;
constexpr const char *program_dirs[] = {"/bin", "/sbin", "/usr/bin", "/usr/sbin"};

child_node child_list = {&child_list, &child_list, nullptr};
int child_pipe[2] = {-1, -1};

// Set by the handler when a pid found no room in the pipe.
volatile sig_atomic_t notice_lost;

// The list is walked by the SIGCHLD handler: both of these are called with SIGCHLD blocked.

void unlink_child(child_node &node)
{
    node.prev->next = node.next;
    node.next->prev = node.prev;
    node.next = node.prev = &node;
}

void track_child(proc_svcent *entry, pid_t pid)
{
    unlink_child(entry->node);
    entry->pid = pid;
    entry->status = 0;
    entry->ended = 0;
    child_node &node = entry->node;
    node.next = child_list.next;
    node.prev = &child_list;
    child_list.next->prev = &node;
    child_list.next = &node;
}

template <typename Test>
proc_svcent *find_child(Test test)
{
    for (const child_node *node = child_list.next; node != &child_list; node = node->next) {
        if (test(node->entry))
            return node->entry;
    }
    return nullptr;
}

void reap_children(const char *func)
{
    for (;;) {
        int status;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid == 0)
            return;
        if (pid < 0) {
            log_failed(LOG_AS(func));
            return;
        }
        if (proc_svcent *entry = find_child([pid](auto *child) { return child->pid == pid; })) {
            entry->status = status;
            entry->ended = 1;
        }
        if (write(child_pipe[1], &pid, sizeof pid) != sizeof pid) {
            notice_lost = 1;
            log_failed(LOG_AS(func));
            return;
        }
    }
}

void sig_handler(int)
{
    const int saved = errno;
    reap_children(__func__);
    errno = saved;
}

// Logs and records how the child ended. Its exit code, or -1 for a signal.
int classify_end(proc_svcent *entry, int status)
{
    constexpr char func[] = "proc_svcent_signalCallback";
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        log_trace(LOG_AS(func), "proc %s exited with status: %d", entry->name.get(), code);
        entry->failures = 0;
        write_exit_record(entry->name.get(), "exited with", code);
        return code;
    }
    const int number = WTERMSIG(status);
    log_trace(LOG_AS(func), "proc %s kill by signal %d", entry->name.get(), number);
    ++entry->failures;
    write_exit_record(entry->name.get(), "kill by signal", number);
    return -1;
}

void report(proc_svcent *entry, svcent_state state, svcent_event event)
{
    entry->state = state;
    lumd_processServiceCallback(entry->owner, event);
}

void started_notice(void *ctx)
{
    report(static_cast<proc_svcent *>(ctx), SVCENT_STARTED, SVCENT_EV_STARTED);
}

// A program that has ended, or is being ended by a handler, must not be called started any more: the entry
// would stay in that state with no child, and every later start would take it for running.
void withdraw_notice(proc_svcent *entry)
{
    app_scheduler_remove(entry, started_notice);
}

void handle_oneshot_end(proc_svcent *entry, int result)
{
    if (result != 0 || entry->failures != 0)
        print_error("one shot exec error!\n");
    else if (entry->state == SVCENT_STARTED)
        report(entry, SVCENT_STOPPED, SVCENT_EV_STOPPED);
    else
        report(entry, SVCENT_STARTED, SVCENT_EV_STARTED);
}

void handle_end(proc_svcent *entry)
{
    const int result = classify_end(entry, entry->status);
    {
        const sigchld_guard guard;
        unlink_child(entry->node);
        entry->status = 0;
        entry->ended = 0;
        entry->pid = 0;
    }
    withdraw_notice(entry);
    const bool start_wanted = std::exchange(entry->start_wanted, 0) != 0;
    if (entry->oneshot && (result == 0 || !start_wanted))
        handle_oneshot_end(entry, result);
    else if (entry->state != SVCENT_STOPPED || start_wanted)
        report(entry, SVCENT_STOPPED, SVCENT_EV_STOPPED);
}

// Children died faster than the loop ran: some ends are only noted in their entries, some not even reaped.
void handle_lost_notices()
{
    {
        const sigchld_guard guard;
        notice_lost = 0;
        reap_children(__func__);
    }
    while (proc_svcent *entry = find_child([](auto *child) { return child->ended != 0; }))
        handle_end(entry);
}

void proc_svcent_signalCallback(void *, int events, int fd, app_fd_handler *)
{
    if (!(events & APP_EV_READ))
        return;
    pid_t pid = 0;
    const ssize_t length = read(fd, &pid, sizeof pid);
    log_trace(LOG_HERE, "read %d byte from pipe, pid: %d", static_cast<int>(length), pid);
    if (length != sizeof pid)
        return;
    const auto has_ended = [pid](auto *child) { return child->pid == pid && child->ended; };
    if (proc_svcent *entry = find_child(has_ended))
        handle_end(entry);
    if (notice_lost)
        handle_lost_notices();
}

int proc_svcent_signal_init()
{
    struct sigaction action = {};
    action.sa_handler = sig_handler;
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigset_t child_signal;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    // Whoever started the daemon may have left the signal blocked.
    if (sigaction(SIGCHLD, &action, nullptr) < 0 || sigprocmask(SIG_UNBLOCK, &child_signal, nullptr) < 0 ||
        pipe2(child_pipe, O_CLOEXEC | O_NONBLOCK) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    if (app_add_fd(child_pipe[0], POLLIN, &child_list, proc_svcent_signalCallback) < 0) {
        log_failed(LOG_HERE);
        for (int &end : child_pipe)
            close(std::exchange(end, -1));
        return -1;
    }
    return 0;
}

proc_svcent *as_process(svcent *entry)
{
    return static_cast<proc_svcent *>(entry);
}

int proc_svcent_start(svcent *base, int, char *const *argv, const svcfg *)
{
    proc_svcent *entry = as_process(base);
    if (entry->pid > 0 || entry->state == SVCENT_STARTED) {
        entry->start_wanted = entry->state == SVCENT_STOPPED;
        return 0;
    }
    {
        const sigchld_guard guard;
        const pid_t pid = spawn_child(entry->path, argv, [] { log_syserror(LOG_AS("proc_svcent_start")); });
        if (pid < 0) {
            log_syserror(LOG_HERE);
            return -1;
        }
        log_trace(LOG_HERE, "process pid: %d", pid);
        track_child(entry, pid);
    }
    // No longer stopped: its stop must reach the new child, and its end must be reported.
    entry->state = SVCENT_CREATED;
    if (!entry->oneshot && app_scheduler_add(entry, started_notice, started_notice_priority) < 0)
        log_failed(LOG_HERE);
    return 0;
}

// Signals the child unless it is gone: a pid that has been reaped may be somebody else's by now.
int signal_child(const proc_svcent *entry, int number)
{
    const sigchld_guard guard;
    return entry->pid == 0 || entry->ended ? 0 : kill(entry->pid, number);
}

using command_handler = int (*)(proc_svcent *entry, char *const *argv);

constexpr struct {
    std::string_view name;
    command_handler run;
} command_handlers[] = {
    {"kill", proc_svcent_kill},
};

command_handler find_handler(const char *name)
{
    for (const auto &handler : command_handlers) {
        if (handler.name == name)
            return handler.run;
    }
    return nullptr;
}

// The child that a one-shot's stop command runs in becomes the entry's own, so that its end is reported.
int run_stop_command(proc_svcent *entry, char *const *argv)
{
    print_error("no handler for %s, try to run it as program\n", argv[0]);
    const sigchld_guard guard;
    const pid_t pid = proc_svcent_run(argv);
    if (pid < 0) {
        print_error("cannot run %s\n", argv[0]);
        return -1;
    }
    if (entry->oneshot)
        track_child(entry, pid);
    return 0;
}

int proc_svcent_stop(svcent *base, char *const *argv)
{
    proc_svcent *entry = as_process(base);
    print_error("%s stop: %s\n", entry->name.get(), argv[0] ? argv[0] : "(null)");
    entry->start_wanted = 0;
    if (entry->state == SVCENT_STOPPED)
        return 0;
    if (!argv[0]) {
        signal_child(entry, SIGTERM);
        return 0;
    }
    const command_handler handler = find_handler(argv[0]);
    if (!handler)
        return run_stop_command(entry, argv);
    entry->state = SVCENT_STOPPED;
    withdraw_notice(entry);
    if (handler(entry, argv + 1) >= 0)
        return 0;
    log_failed(LOG_HERE);
    return -1;
}

int proc_svcent_reload(svcent *base, char *const *argv)
{
    proc_svcent *entry = as_process(base);
    if (!argv[0]) {
        signal_child(entry, SIGHUP);
        return 0;
    }
    const command_handler handler = find_handler(argv[0]);
    if (!handler)
        proc_svcent_run(argv);
    else if (handler(entry, argv + 1) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    return 0;
}

// A child that is still dying is reaped by the handler, and its pid then found on no list.
int proc_svcent_release(svcent *base)
{
    proc_svcent *entry = as_process(base);
    {
        const sigchld_guard guard;
        unlink_child(entry->node);
    }
    app_scheduler_remove_ctx(entry);
    free_record(entry);
    return -1;
}

constexpr svcent_ops operations = {proc_svcent_start, proc_svcent_stop, proc_svcent_reload,
                                   proc_svcent_release, true};

bool is_executable(const char *path)
{
    return access(path, X_OK) == 0;
}

} // namespace

int child_reaper_init()
{
    return child_pipe[0] < 0 ? proc_svcent_signal_init() : 0;
}

svcent *create_process_svcent(service_info *slot, const char *name, const char *first_word)
{
    if (!first_word)
        return nullptr;
    const bool oneshot = *first_word == '-';
    const char *program = first_word + (oneshot ? 1 : 0);
    char path[sizeof proc_svcent::path];
    if (!proc_find_program(program, path)) {
        log_trace(LOG_HERE, "can not find %s", program);
        return nullptr;
    }
    log_trace(LOG_HERE, "process service path: %s", path);
    auto *entry = new_svcent<proc_svcent>(LOG_HERE, &operations, slot, name);
    if (!entry)
        return nullptr;
    entry->oneshot = oneshot ? 1 : 0;
    copy_text(entry->path, path);
    entry->node = {&entry->node, &entry->node, entry};
    return entry;
}

int proc_find_program(const char *name, std::span<char> out)
{
    if (*name == '\0')
        return 0;
    if (is_executable(name))
        return copy_text(out, name) ? 1 : 0;
    const auto try_path = [out, name](const char *dir, const char *between) {
        const int length = snprintf(out.data(), out.size(), "%s%s/%s", dir, between, name);
        return static_cast<size_t>(length) < out.size() && is_executable(out.data());
    };
    for (const char *dir : program_dirs) {
        if (try_path(dir, ""))
            return 1;
    }
    const char *home = getenv("HOME");
    return home && try_path(home, "/bin") ? 1 : 0;
}

pid_t proc_svcent_run(char *const *argv)
{
    print_error("proc_svcent_run: %s\n", argv[0]);
    char path[sizeof proc_svcent::path];
    if (!proc_find_program(argv[0], path)) {
        print_error("cannot find program: %s\n", argv[0]);
        return -1;
    }
    const pid_t pid = spawn_child(path, argv, [] { print_error("execv error: %m\n"); });
    if (pid < 0)
        print_error("cannot fork(): %m\n");
    return pid;
}

int proc_svcent_kill(proc_svcent *entry, char *const *argv)
{
    if (entry->pid == 0)
        return 0;
    log_trace(LOG_HERE, "signal name : %s", argv[0] ? argv[0] : "(null)");
    const int number = argv[0] ? parse_sigspec(argv[0]) : -1;
    if (number < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    log_trace(LOG_HERE, "stop service pid %d, signal %d", entry->pid, number);
    if (signal_child(entry, number) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    return 0;
}
