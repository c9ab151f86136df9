#include "lumd/proc_command.h"

#include "app/log.h"
#include "app/text.h"
#include "lumd/child.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr char log_module[] = "proc_se";
constexpr const char *program_dirs[] = {"/bin", "/sbin", "/usr/bin", "/usr/sbin"};

constexpr struct {
    std::string_view name;
    command_handler run;
} command_handlers[] = {
    {"kill", proc_svcent_kill},
};

bool is_executable(const char *path)
{
    return access(path, X_OK) == 0;
}

} // namespace

command_handler find_command_handler(const char *name)
{
    for (const auto &handler : command_handlers) {
        if (handler.name == name)
            return handler.run;
    }
    return nullptr;
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
