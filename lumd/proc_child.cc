#include "lumd/proc_child.h"

#include "app/app.h"
#include "app/keep_errno.h"
#include "app/log.h"
#include "lumd/child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "proc_se";

// The handler walks the list: it is changed with SIGCHLD blocked.
child_node child_list = {&child_list, &child_list, nullptr, nullptr};
int child_pipe[2] = {-1, -1};

// Set by the handler when a pid found no room in the pipe.
volatile sig_atomic_t notice_lost;

void unlink_child(child_node &node)
{
    node.prev->next = node.next;
    node.next->prev = node.prev;
    node.next = node.prev = &node;
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

// False once waitpid fails, which it does when no child is left, or when the pipe is full.
bool reap_children()
{
    for (;;) {
        int status;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid <= 0)
            return pid == 0;
        if (proc_svcent *entry = find_child([pid](auto *child) { return child->pid == pid; })) {
            entry->status = status;
            entry->ended = 1;
        }
        if (write(child_pipe[1], &pid, sizeof pid) != sizeof pid) {
            notice_lost = 1;
            return false;
        }
    }
}

void sig_handler(int)
{
    const keep_errno kept;
    if (!reap_children())
        log_failed(LOG_HERE);
}

void handle_end(proc_svcent *entry)
{
    const int status = entry->status;
    {
        const sigchld_guard guard;
        unlink_child(entry->node);
        entry->status = 0;
        entry->ended = 0;
        entry->pid = 0;
    }
    entry->node.on_end(entry, status);
}

// The pipe was full: some ends are only noted in their entries, and some children are not reaped yet.
void handle_lost_notices()
{
    {
        const sigchld_guard guard;
        notice_lost = 0;
        if (!reap_children())
            log_failed(LOG_HERE);
    }
    while (proc_svcent *entry = find_child([](auto *child) { return child->ended != 0; }))
        handle_end(entry);
}

void proc_svcent_signalCallback(child_node *, int events, int fd, app_fd_handler *)
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
    // The parent of the daemon may have left the signal blocked.
    if (sigaction(SIGCHLD, &action, nullptr) < 0 || sigprocmask(SIG_UNBLOCK, &child_signal, nullptr) < 0 ||
        pipe2(child_pipe, O_CLOEXEC | O_NONBLOCK) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    if (app_add_fd<proc_svcent_signalCallback>(child_pipe[0], POLLIN, &child_list) < 0) {
        log_failed(LOG_HERE);
        for (int &end : child_pipe)
            close(std::exchange(end, -1));
        return -1;
    }
    return 0;
}

} // namespace

proc_svcent::~proc_svcent()
{
    {
        const sigchld_guard guard;
        unlink_child(node);
    }
    app_scheduler_remove_ctx(this);
}

int child_reaper_init()
{
    return child_pipe[0] < 0 ? proc_svcent_signal_init() : 0;
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

int signal_child(const proc_svcent *entry, int number)
{
    const sigchld_guard guard;
    return entry->pid == 0 || entry->ended ? 0 : kill(entry->pid, number);
}
