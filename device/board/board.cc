#include "device/board/board.h"

#include "device/board/files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Request numbers of the board's drivers.
constexpr unsigned long gpio_set_led = 1;
constexpr unsigned long watchdog_set_options = 0xC0045706;
constexpr uint32_t option_stop = 0;
constexpr char food = 1;

constexpr pid_t init_pid = 1;
constexpr long default_timeout_s = 10;
constexpr int64_t us_per_s = 1000000;

constexpr char watchdog_file[] = "watchdog/feeds", watchdog_log[] = "watchdog/log";
constexpr char timeout_file[] = "watchdog/timeout";
constexpr char led_file[] = "led/level", led_log[] = "led/log";
constexpr char system_log[] = "system/log", longest_sleep_file[] = "system/sleep",
               kill_file[] = "system/kill";

constexpr struct {
    std::string_view path;
    const char *file;
} devices[] = {{"/dev/watchdog", watchdog_file}, {"/dev/gpio", led_file}};

// A record is overwritten in place, so its length never shrinks until the next power-on.
void write_record(int fd, unsigned long long feeds, bool armed)
{
    char text[96];
    const int64_t now = board_now_us();
    const int length =
        snprintf(text, sizeof text, "%llu %lld.%06lld %s\n", feeds, static_cast<long long>(now / us_per_s),
                 static_cast<long long>(now % us_per_s), armed ? "armed" : "off  ");
    if (pwrite(fd, text, static_cast<size_t>(length), 0) != length)
        board_note(watchdog_log, "its record cannot be written");
}

unsigned long long feeds_of(int fd)
{
    char text[96] = {};
    return pread(fd, text, sizeof text - 1, 0) > 0 ? strtoull(text, nullptr, 10) : 0;
}

int watchdog_ioctl(int fd, unsigned long request, const void *argument)
{
    uint32_t options;
    memcpy(&options, argument, sizeof options);
    if (request != watchdog_set_options || options != option_stop) {
        board_note(watchdog_log, "refused request 0x%lx", request);
        errno = request == watchdog_set_options ? EINVAL : ENOTTY;
        return -1;
    }
    write_record(fd, feeds_of(fd), false);
    board_note(watchdog_log, "stop");
    return 0;
}

int gpio_ioctl(int fd, unsigned long request, const void *argument)
{
    struct {
        uint32_t selector, level;
    } led;
    if (request != gpio_set_led) {
        errno = ENOTTY;
        return -1;
    }
    memcpy(&led, argument, sizeof led);
    char text[32];
    const int length = snprintf(text, sizeof text, "%u 0x%08x\n", led.level != 0, led.selector);
    board_note(led_log, "0x%x %u", led.selector, led.level);
    return pwrite(fd, text, static_cast<size_t>(length), 0) == length ? 0 : -1;
}

} // namespace

int board_open(const char *path)
{
    const auto *const found = std::find_if(std::begin(devices), std::end(devices),
                                           [path](const auto &device) { return device.path == path; });
    if (found == std::end(devices) || !board_has_directory(""))
        return BOARD_NOT_MINE;
    const int fd = board_open_file(found->file, O_RDWR);
    if (fd >= 0 && found->file == watchdog_file) {
        board_note(watchdog_log, "open");
        write_record(fd, feeds_of(fd), true);
    }
    return fd;
}

ssize_t board_write(int fd, const void *data, size_t size)
{
    if (!board_is_file(fd, watchdog_file))
        return BOARD_NOT_MINE;
    const bool fed = size == 1 && memcmp(data, &food, 1) == 0;
    board_note(watchdog_log, fed ? "feed" : "odd food");
    write_record(fd, feeds_of(fd) + 1, true);
    return static_cast<ssize_t>(size);
}

int board_ioctl(int fd, unsigned long request, void *argument)
{
    if (board_is_mii(request))
        return board_mii(request, argument);
    if (board_is_file(fd, watchdog_file))
        return watchdog_ioctl(fd, request, argument);
    if (board_is_file(fd, led_file))
        return gpio_ioctl(fd, request, argument);
    return BOARD_NOT_MINE;
}

void board_close(int fd)
{
    if (board_is_file(fd, watchdog_file))
        board_note(watchdog_log, "close");
    else if (board_is_file(fd, led_file))
        board_note(led_log, "close");
}

int board_kill(pid_t pid, int sig)
{
    if (pid != init_pid || sig == 0)
        return BOARD_NOT_MINE;
    char setting[16];
    const bool deliver = board_setting(kill_file, setting) == "deliver";
    board_note(system_log, "kill %d %d", static_cast<int>(pid), sig);
    return deliver ? BOARD_NOT_MINE : 0;
}

unsigned board_sleep(unsigned seconds)
{
    char setting[16];
    const auto text = board_setting(longest_sleep_file, setting);
    const int64_t asked = static_cast<int64_t>(seconds) * 1000;
    board_note(system_log, "sleep %u", seconds);
    board_pause_ms(text.empty() ? asked : std::min<int64_t>(asked, atol(setting)));
    return 0;
}

int board_set_clock(const char *call, int64_t sec, int64_t usec)
{
    board_note(system_log, "%s %lld.%06lld", call, static_cast<long long>(sec), static_cast<long long>(usec));
    return 0;
}

int board_power_on()
{
    if (board_make_directory("") < 0)
        return -1;
    for (const char *dir : {"watchdog", "led", "system"}) {
        if (board_make_directory(dir) < 0)
            return -1;
    }
    char timeout[16];
    snprintf(timeout, sizeof timeout, "%ld", default_timeout_s);
    // The log is kept: it shows what led to the reset.
    return board_write_file(watchdog_file, "0 0.000000 off  ", O_TRUNC) < 0 ||
                   board_write_file(led_file, "0 0x00000000", O_TRUNC) < 0 ||
                   board_write_file(timeout_file, timeout, O_EXCL) < 0
               ? -1
               : 0;
}

size_t board_watchdog_record(char *text, size_t size)
{
    return board_setting(watchdog_file, {text, size}).size();
}

bool board_is_armed(const char *record)
{
    return std::string_view(record).ends_with("armed");
}

int64_t board_watchdog_timeout_us()
{
    char text[16];
    const bool set = !board_setting(timeout_file, text).empty();
    return std::clamp(set ? atol(text) : default_timeout_s, 1L, 86400L) * us_per_s;
}

void board_note_reset()
{
    board_note(system_log, "reset: the watchdog was not fed");
}
