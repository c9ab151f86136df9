// The children of services that are programs.
//
// A running child is on child_list, from before it can die until its end is handled or its entry is released.
// The SIGCHLD handler reaps every child of the process, notes the status in its entry and passes the pid
// through a pipe; all the rest happens in the pipe's callback, one pid at a time.
#pragma once

#include "lumd/svcent.h"

#include <csignal>
#include <sys/types.h>

struct proc_svcent;

struct child_node {
    child_node *next;
    child_node *prev;
    proc_svcent *entry;

    // Called by the loop after the child has left the list. It may track a new child, or release the entry.
    void (*on_end)(proc_svcent *entry, int status);
};

// Without a child, an entry is on no list: its node is linked to itself.
struct proc_svcent : svcent {
    pid_t pid; // 0 when there is no child
    char path[128];
    int oneshot;
    volatile int status; // as of waitpid, once ended
    volatile sig_atomic_t ended;
    int start_wanted; // started again while a stop handler's work was not done
    int failures;     // ends by a signal since the last normal one
    child_node node = {&node, &node, this, nullptr};

    // A child that is still dying is reaped by the handler, and its pid then found on no list.
    ~proc_svcent();
};

// Makes the handler reap ended children, tracked or not. Call it before the first child is started; further
// calls do nothing. 0, or -1, logged.
[[nodiscard]] int child_reaper_init();

// Makes pid the entry's child. SIGCHLD is blocked from before the child is started.
void track_child(proc_svcent *entry, pid_t pid);

// Signals the child; nothing is sent, and the result is 0, when it is gone. As kill.
int signal_child(const proc_svcent *entry, int number);
