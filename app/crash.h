// Readable call stacks: of a program that dies by SIGSEGV, SIGILL or SIGABRT, of one that is sent SIGALRM,
// and of the running code.
//
// A dump is one line a function, innermost first, "NUMBER: NAME:[ADDRESS]", with "????" for a function
// without a name. Line 0 is where the program was interrupted. It goes to the debug server of
// debug_server_init, to descriptor 0 (the console of the device), which is closed then (after SIGALRM it is
// the null device), and to the serial console. Each of them is tried whatever becomes of the others, and none
// is waited for longer than a moment.
//
// Everything from dump_stack on may run in a signal handler: nothing allocates, nothing but the stack and the
// table of symbols is read, and both handlers hold all other signals off, since a dump's buffers are static.
// A crash inside the C library, which has no frames, is shown from the nearest frame of the program on.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>

// The walk from the frame of frame pointer fp upwards, through frames that lie in the stack and not below
// low: stores at most max return addresses and returns how many.
int backtrace_walk(uintptr_t fp, uintptr_t low, void **out, int max);

// The return addresses of the frames from the caller's caller on; returns how many, at most max.
int app_backtrace(void **out, int max);

// The names of the functions at these addresses, "????" for an unknown one; the first is that of the function
// the caller returns to. 0 when memory is out. The texts live as long as the process.
int app_backtrace_symbols(const char **names, int max);

// Formats and sends out the stack of code interrupted at pc.
void dump_stack(uintptr_t fp, uintptr_t sp, uintptr_t pc);

// One datagram to the debug server, if there is one. Errors are ignored.
void send_debug_message(const void *buffer, size_t length);

// Tells where the program's frames end: in the function that called the one of this frame pointer, and that
// never returns. After symbols_load.
void crash_init(uintptr_t fp);

// Takes the debug server from the environment: DEBUG_SERVER=A.B.C.D:PORT, which may be a broadcast address.
void debug_server_init();

// Syncs and closes the descriptors 0 to 255: the last that a process does.
void close_descriptors();

using signal_handler = void (*)(int sig, siginfo_t *info, void *context);

// Installs a handler that is told the interrupted code and that no other signal interrupts, and unblocks its
// signal. 0, or -1 with errno set.
int install_handler(int sig, signal_handler handler);

// Dumps, closes every descriptor and ends the process by SIGQUIT.
void fatal_signal_handler(int sig, siginfo_t *info, void *context);

// Dumps and goes on.
void sig_alrm_handler(int sig, siginfo_t *info, void *context);
