// The board that this machine lacks: a watchdog, a LED behind a GPIO device, the PHYs of the Ethernet
// interfaces; and a ledger of what would reach the machine itself: its clock, its first process, its time to
// sleep.
//
// All of it is text in files below one directory (README.md has the list), which a person or a test writes to
// drive the board and reads to see what was done with it. Nothing is kept in memory and nothing here
// allocates, so a call may come from a child of vfork, a signal handler or a program that starts anew. No
// file there can block: what is not a regular file is not there.
//
// A front stands between a program and the board: preload.cc before the C library, wrapped.cc under a test
// program. It asks the board first, and passes on to the system what answers BOARD_NOT_MINE, with errno as it
// was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

enum { BOARD_NOT_MINE = -2 };

// As the calls of these names. A descriptor of the board is that of the file behind the device; board_close
// only takes notice, the front closes it.
int board_open(const char *path);
ssize_t board_write(int fd, const void *data, size_t size);
int board_ioctl(int fd, unsigned long request, void *argument);
void board_close(int fd);
extern "C" int board_kill(pid_t pid, int sig);
unsigned board_sleep(unsigned seconds);

// What a call of that name would have set the clock to, or moved it by. Always 0.
extern "C" int board_set_clock(const char *call, int64_t sec, int64_t usec);

// Power comes on: the directory with all that is missing in it, the watchdog off, nothing fed yet. The
// interfaces are found or made. -1 with errno set when it cannot be written.
int board_power_on();
int board_add_interface(const char *name);

// For whoever stands in for the hardware: the watchdog's record as it is (empty: no watchdog), whether one
// says that the watchdog runs, its time-out, and the reset on the ledger.
size_t board_watchdog_record(char *text, size_t size);
bool board_is_armed(const char *record);
int64_t board_watchdog_timeout_us();
void board_note_reset();

// What a front defines: the directory, the time of the ledgers, and how to pass time.
const char *board_dir();
int64_t board_now_us();
void board_pause_ms(int64_t ms);
