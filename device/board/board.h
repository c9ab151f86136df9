// The board that this machine lacks: a watchdog, an LED behind a GPIO device and the PHYs of the Ethernet
// interfaces. It also keeps a ledger of what would affect the machine itself: setting its clock, signalling
// its first process, sleeping.
//
// All of it is text files below one directory, listed in README.md. A person or a test writes them to drive
// the board and reads them to see what was done with it. Nothing is kept in memory or allocated here, so
// calls may come from a vfork child, a signal handler or a program that starts over. No file there can block:
// anything but a regular file counts as missing.
//
// A front sits between a program and the board: preload.cc before the C library, wrapped.cc under a test
// program. It asks the board first and passes calls that return BOARD_NOT_MINE on to the system, with
// errno unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

enum { BOARD_NOT_MINE = -2 };

// Like the calls of these names. A descriptor of the board is that of the file behind the device; board_close
// only takes note, the front closes it.
int board_open(const char *path);
ssize_t board_write(int fd, const void *data, size_t size);
int board_ioctl(int fd, unsigned long request, void *argument);
void board_close(int fd);
extern "C" int board_kill(pid_t pid, int sig);
unsigned board_sleep(unsigned seconds);

// Records what this call would have set the clock to, or moved it by. Always 0.
extern "C" int board_set_clock(const char *call, int64_t sec, int64_t usec);

// Power-on: creates the directory and everything missing in it, switches the watchdog off, sets its feeds to
// none, and finds or makes the interfaces. -1 with errno set if the directory cannot be written.
int board_power_on();
int board_add_interface(const char *name);

// For the stand-in of the hardware: the watchdog's record as it is (empty: no watchdog), whether a record
// says that the watchdog runs, its time-out, and noting a reset in the ledger.
size_t board_watchdog_record(char *text, size_t size);
bool board_is_armed(const char *record);
int64_t board_watchdog_timeout_us();
void board_note_reset();

// Defined by each front: the directory, the time for the ledgers, and how to let time pass.
const char *board_dir();
int64_t board_now_us();
void board_pause_ms(int64_t ms);
