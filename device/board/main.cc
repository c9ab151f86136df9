// board: the part of the virtual board that runs by itself.
//   board prepare DIR [INTERFACE...]   power-on: creates DIR and whatever is missing in it; watchdog off
//   board watch DIR PID                the hardware watchdog: once it is open and not fed in time, kills PID,
//                                      the device, with SIGKILL. Ends with PID.
// Exit status: 0 done, or PID has ended by itself; 1 failed; 2 usage; 5 the watchdog reset the device.
#include "device/board/board.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

enum exit_code { code_done = 0, code_failed = 1, code_usage = 2, code_reset = 5 };

constexpr int tick_ms = 100;
// If this machine stood still, e.g. suspended, the device is not blamed for it.
constexpr int64_t longest_tick_us = 2 * tick_ms * 1000;

const char *directory;

exit_code fail(const char *what)
{
    fprintf(stderr, "board: %s: %s\n", what, strerror(errno));
    return code_failed;
}

exit_code prepare(char *const *interfaces)
{
    if (board_power_on() < 0)
        return fail(directory);
    for (; *interfaces; ++interfaces) {
        if (board_add_interface(*interfaces) < 0)
            return fail(*interfaces);
    }
    return code_done;
}

// A pidfd holds the process, so its id cannot be reused.
exit_code watch(pid_t pid)
{
    const auto device = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (device < 0)
        return fail("no such process");
    char last[96] = "", now[96];
    int64_t hungry_us = 0;
    for (int64_t seen = board_now_us();;) {
        pollfd ended = {device, POLLIN, 0};
        if (poll(&ended, 1, tick_ms) > 0)
            return code_done;
        const int64_t before = std::exchange(seen, board_now_us());
        board_watchdog_record(now, sizeof now);
        const bool waits = board_is_armed(now) && strcmp(now, last) == 0;
        hungry_us = waits ? hungry_us + std::min(seen - before, longest_tick_us) : 0;
        strcpy(last, now);
        if (hungry_us < board_watchdog_timeout_us())
            continue;
        board_note_reset();
        syscall(SYS_pidfd_send_signal, device, SIGKILL, nullptr, 0);
        return code_reset;
    }
}

} // namespace

const char *board_dir()
{
    return directory;
}

int64_t board_now_us()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

void board_pause_ms(int64_t) {}

int main(int argc, char **argv)
{
    const std::string_view verb = argc >= 3 ? argv[1] : "";
    directory = argc >= 3 ? argv[2] : "";
    if (verb == "prepare")
        return prepare(argv + 3);
    if (verb == "watch" && argc == 4 && atoi(argv[3]) > 1)
        return watch(atoi(argv[3]));
    fprintf(stderr, "usage: board prepare DIR [INTERFACE...] | board watch DIR PID\n");
    return code_usage;
}
