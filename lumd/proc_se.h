// Services that are external programs.
//
// An entry is created (0), anew with every child, until its started-notice has run, which the manager gets
// one loop pass after the program was started; started (1) until the program's end has been seen, reported as
// event 2; stopped (2) then, or once a "stop" handler has taken charge of its end, which is not reported any
// more, unless the service was started again meanwhile and would stay down for good. A one-shot program
// counts as started when it has ended well.
//
// A running child is on child_list, from before it can die until its end is handled or its entry is released.
// The SIGCHLD handler reaps every child of the process, notes the status in its entry and passes the pid
// through a pipe; all the rest happens in the pipe's callback, one pid at a time.
#pragma once

#include "lumd/svcent.h"

#include <csignal>
#include <span>
#include <sys/types.h>

struct proc_svcent;

struct child_node {
    child_node *next;
    child_node *prev;
    proc_svcent *entry;
};

struct proc_svcent : svcent {
    pid_t pid; // 0 when there is no child
    char path[128];
    int oneshot;
    volatile int status; // as of waitpid, once ended
    volatile sig_atomic_t ended;
    int start_wanted; // started again while a stop handler's work was not done
    int failures;     // ends by a signal since the last normal one
    child_node node;
};

// An entry for the program that first_word names (after a "-": one-shot), or null, logged.
svcent *create_process_svcent(service_info *slot, const char *name, const char *first_word);

// 1 and the path in out when name is executable itself, in a program directory or in $HOME/bin; else 0.
int proc_find_program(const char *name, std::span<char> out);

// Runs an argument list as a child that nobody tracks; pid, or -1 with a message.
pid_t proc_svcent_run(char *const *argv);

// Sends the signal that argv[0] names to the entry's child, if it has one. 0 or -1, logged.
int proc_svcent_kill(proc_svcent *entry, char *const *argv);

// The number that a signal name, a number, SIGRTMIN+n or SIGRTMAX-n stands for; -1, logged, when it is none
// or not between 1 and SIGRTMAX - 1.
int parse_sigspec(const char *spec);
