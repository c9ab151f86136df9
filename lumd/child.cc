#include "lumd/child.h"

#include <unistd.h>

namespace {

constexpr int first_closed_fd = 3;
constexpr int last_closed_fd = 1023;

void close_inherited()
{
    if (close_range(first_closed_fd, last_closed_fd, 0) == 0)
        return;
    for (int fd = first_closed_fd; fd <= last_closed_fd; ++fd)
        close(fd);
}

// The signals that a child resets to their defaults: those with a handler of ours, all installed before the
// first child, and those that our own parent ignored, because execv keeps them ignored.
const sigset_t &changed_signals()
{
    static sigset_t changed;
    static bool known;
    for (int sig = 1; sig < NSIG && !known; ++sig) {
        struct sigaction action;
        if (sigaction(sig, nullptr, &action) == 0 && action.sa_handler != SIG_DFL)
            sigaddset(&changed, sig);
    }
    known = true;
    return changed;
}

} // namespace

sigchld_guard::sigchld_guard()
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    sigprocmask(SIG_BLOCK, &blocked, &before_);
}

pid_t spawn_child(const char *path, char *const *argv, void (*exec_failed)())
{
    sigset_t none;
    sigemptyset(&none);
    const sigset_t &changed = changed_signals();
    const pid_t pid = vfork();
    if (pid != 0)
        return pid;
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sigismember(&changed, sig) == 1)
            signal(sig, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &none, nullptr);
    close_inherited();
    execv(path, argv);
    signal(SIGPIPE, SIG_IGN); // the log may have lost its reader
    exec_failed();
    _exit(-1);
}
