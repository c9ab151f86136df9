// What the commands of a program's service do.
#pragma once

#include "lumd/proc_child.h"

#include <span>

// A stop or reload command that the daemon carries out itself; argv is what follows its name. 0 or -1.
using command_handler = int (*)(proc_svcent *entry, char *const *argv);

// Null when there is none of that name: the command is a program.
command_handler find_command_handler(const char *name);

// 1 and the path in out when name is executable itself, in a program directory or in $HOME/bin; else 0.
int proc_find_program(const char *name, std::span<char> out);

// Runs an argument list as an untracked child; pid, or -1 with a message.
[[nodiscard]] pid_t proc_svcent_run(char *const *argv);

// Sends the signal that argv[0] names to the entry's child, if it has one. 0 or -1, logged.
[[nodiscard]] int proc_svcent_kill(proc_svcent *entry, char *const *argv);

// The number of a signal: its name, a number, SIGRTMIN+n or SIGRTMAX-n (proc_signal.cc). -1, logged, for
// anything else and for a number not between 1 and SIGRTMAX - 1.
[[nodiscard]] int parse_sigspec(const char *spec);
