#include "lumd/proc_se.h"

#include "app/app.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "lumd/child.h"
#include "lumd/exit_record.h"
#include "lumd/proc_command.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "proc_se";
constexpr int started_notice_priority = 16;

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

void started_notice(proc_svcent *entry)
{
    report(entry, SVCENT_STARTED, SVCENT_EV_STARTED);
}

// A pending notice would set an entry whose program has ended, or is being ended by a handler, to started.
// With no child it would stay so, and every later start would take the program for running.
void withdraw_notice(proc_svcent *entry)
{
    app_scheduler_remove<started_notice>(entry);
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

void child_ended(proc_svcent *entry, int status)
{
    const int result = classify_end(entry, status);
    withdraw_notice(entry);
    const bool start_wanted = std::exchange(entry->start_wanted, 0) != 0;
    if (entry->oneshot && (result == 0 || !start_wanted))
        handle_oneshot_end(entry, result);
    else if (entry->state != SVCENT_STOPPED || start_wanted)
        report(entry, SVCENT_STOPPED, SVCENT_EV_STOPPED);
}

int proc_svcent_start(proc_svcent *entry, int, char *const *argv, const svcfg *)
{
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
    if (!entry->oneshot && app_scheduler_add<started_notice>(entry, started_notice_priority) < 0)
        log_failed(LOG_HERE);
    return 0;
}

// A one-shot's stop command becomes the entry's own child, so that its end is reported.
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

int proc_svcent_stop(proc_svcent *entry, char *const *argv)
{
    print_error("%s stop: %s\n", entry->name.get(), argv[0] ? argv[0] : "(null)");
    entry->start_wanted = 0;
    if (entry->state == SVCENT_STOPPED)
        return 0;
    if (!argv[0]) {
        signal_child(entry, SIGTERM);
        return 0;
    }
    const command_handler handler = find_command_handler(argv[0]);
    if (!handler)
        return run_stop_command(entry, argv);
    entry->state = SVCENT_STOPPED;
    withdraw_notice(entry);
    if (handler(entry, argv + 1) >= 0)
        return 0;
    log_failed(LOG_HERE);
    return -1;
}

int proc_svcent_reload(proc_svcent *entry, char *const *argv)
{
    if (!argv[0]) {
        signal_child(entry, SIGHUP);
        return 0;
    }
    const command_handler handler = find_command_handler(argv[0]);
    if (!handler)
        static_cast<void>(proc_svcent_run(argv)); // has written why
    else if (handler(entry, argv + 1) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    return 0;
}

int proc_svcent_release(proc_svcent *entry)
{
    free_record(entry);
    return -1;
}

constexpr svcent_ops operations = {operation<proc_svcent_start>::call, operation<proc_svcent_stop>::call,
                                   operation<proc_svcent_reload>::call, operation<proc_svcent_release>::call,
                                   true};

} // namespace

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
    entry->node.on_end = child_ended;
    return entry;
}
