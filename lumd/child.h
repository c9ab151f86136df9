// Starting other programs.
#pragma once

#include <csignal>
#include <sys/types.h>

// Blocks SIGCHLD in its scope, so that the list of children can be changed, and a child that dies at once is
// not reaped before it is on that list.
class sigchld_guard {
  public:
    sigchld_guard();
    ~sigchld_guard() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    sigchld_guard(const sigchld_guard &) = delete;
    sigchld_guard &operator=(const sigchld_guard &) = delete;

  private:
    sigset_t before_;
};

// Runs path with argv (ended by null) in a child that has no descriptor above 2, no signal blocked and none
// ignored. Returns its pid, or -1 with errno set. exec_failed runs in the child, on our memory, when the
// program cannot be run; the child then ends with status 255.
extern "C" [[nodiscard]] pid_t spawn_child(const char *path, char *const *argv, void (*exec_failed)());
