// Readable call stacks: of a program dying from SIGSEGV, SIGILL or SIGABRT, of one that gets SIGALRM, and of
// the running code.
//
// A dump has one line per function, innermost first: "NUMBER: NAME:[ADDRESS]", with "????" for an unknown
// name. Line 0 is where the program was interrupted. The dump goes to the debug server of
// debug_server_init, to descriptor 0 (the device's console), which is then closed (after SIGALRM: replaced
// by the null device), and to the serial console. Each is tried independently; a console that takes nothing
// for a second is given up.
//
// Everything from dump_stack on may run in a signal handler: it does not allocate and reads only the stack
// and the symbol table. Both handlers block all other signals, since a dump's buffers are static. The C
// library has no frames; a crash inside it is shown from the nearest frame of the program.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>

// Walks from the frame at fp outwards, through frames inside the stack and not below low. Stores at most max
// return addresses and returns their number.
int backtrace_walk(uintptr_t fp, uintptr_t low, void **out, int max);

// The return addresses from the caller's caller outwards; returns their number, at most max.
int app_backtrace(void **out, int max);

// The functions at these addresses, "????" if unknown, starting with the one the caller returns to. Returns
// their number, 0 if out of memory. The texts live as long as the process.
int app_backtrace_symbols(const char **names, int max);

// Formats and sends the stack of code interrupted at pc.
void dump_stack(uintptr_t fp, uintptr_t sp, uintptr_t pc);

// Sends one datagram to the debug server, if any. Errors are ignored.
void send_debug_message(const void *buffer, size_t length);

// Marks the outermost frame: that of the caller of the function with frame pointer fp; the caller must never
// return. Call after symbols_load.
void crash_init(uintptr_t fp);

// Reads DEBUG_SERVER=A.B.C.D:PORT from the environment; the address may be a broadcast address.
void debug_server_init();

// Syncs and closes descriptors 0 to 255; the last act of a process.
void close_descriptors();

using signal_handler = void (*)(int sig, siginfo_t *info, void *context);

// Installs a handler that runs with all other signals blocked and gets the interrupted context, and unblocks
// its signal. Returns 0, or -1 with errno set.
int install_handler(int sig, signal_handler handler);

// Dumps, closes all descriptors and ends the process with SIGQUIT.
void fatal_signal_handler(int sig, siginfo_t *info, void *context);

// Dumps and continues.
void sig_alrm_handler(int sig, siginfo_t *info, void *context);
