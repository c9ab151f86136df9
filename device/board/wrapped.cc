// The front under a test program, through -Wl,--wrap. For open, write and ioctl, which test programs already
// replace, that replacement asks the board.
#include "device/board/board.h"

#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <sys/time.h>

const char *board_dir()
{
    const char *dir = getenv("BOARD_DIR");
    return dir ? dir : "";
}

int64_t board_now_us()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

void board_pause_ms(int64_t ms)
{
    poll(nullptr, 0, static_cast<int>(ms));
}

extern "C" {

int __real_close(int fd);
int __wrap_close(int fd)
{
    board_close(fd);
    return __real_close(fd);
}

int __real_kill(pid_t pid, int sig);
int __wrap_kill(pid_t pid, int sig)
{
    const int done = board_kill(pid, sig);
    return done != BOARD_NOT_MINE ? done : __real_kill(pid, sig);
}

unsigned __wrap_sleep(unsigned seconds)
{
    return board_sleep(seconds);
}

int __wrap_settimeofday(const timeval *to, const struct timezone *)
{
    return board_set_clock("settimeofday", to->tv_sec, to->tv_usec);
}

} // extern "C"
