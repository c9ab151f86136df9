#include "lumd/script.h"

#include "app/log.h"
#include "lumd/child.h"

#include <cerrno>
#include <cstdio>
#include <optional>
#include <sys/wait.h>

namespace {

constexpr char log_module[] = "script";
constexpr size_t path_size = 64;

int exit_code_of(pid_t pid)
{
    int status;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR && errno != EAGAIN)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

int run_script(const char *name, const char *action, int wait)
{
    char path[path_size];
    const int length =
        snprintf(path, sizeof path, "/etc/init.d/%s%s%s", name, action ? "." : "", action ? action : "");
    if (length < 0 || length >= static_cast<int>(sizeof path)) {
        log_trace(LOG_HERE, "path too long: %s...", path);
        return -1;
    }
    log_trace(LOG_HERE, "run script: %s", path);
    char *const argv[] = {path, nullptr};
    // The SIGCHLD handler would reap the child before waitpid.
    const sigchld_guard guard;
    const pid_t pid = spawn_child(path, argv, [] { log_syserror(LOG_AS("run_script")); });
    if (pid < 0)
        log_syserror(LOG_HERE);
    return pid < 0 || !wait ? pid : exit_code_of(pid);
}
