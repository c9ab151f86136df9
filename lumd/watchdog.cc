#include "app/log.h"
#include "app/memory.h"
#include "lumd/kinds.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "watchdog";
constexpr uint32_t feed_period_ms = 500;
constexpr int default_blink_ms = 1000;
constexpr int least_blink_ms = 100;
constexpr uint32_t default_led = 0xA010;
constexpr char food = 1;

// Numbers of the board's drivers.
constexpr unsigned long gpio_set_led = 1;
constexpr unsigned long watchdog_set_options = 0xC0045706;

// As the GPIO driver wants it.
struct led_request {
    uint32_t led;
    uint32_t led_on;
};

struct watchdog_svcent : svcent {
    int gpio_fd;
    int wd_fd;
    led_request led;
    timer *reset_timer;
    timer *blink_timer;
};

watchdog_svcent *as_watchdog(void *entry)
{
    return static_cast<watchdog_svcent *>(static_cast<svcent *>(entry));
}

// The text of a variable, null when it is missing or empty.
const char *setting(const svcent *entry, const char *name)
{
    const char *text = svcent_getSyscfg(entry, name);
    return text && *text ? text : nullptr;
}

uint32_t blink_period(const svcent *entry, int least, int otherwise)
{
    const char *text = setting(entry, "WD_TIMER");
    return static_cast<uint32_t>(text ? std::max(static_cast<int>(strtol(text, nullptr, 10)), least)
                                      : otherwise);
}

void close_open(int &fd)
{
    if (fd > 0)
        close(std::exchange(fd, -1));
}

void start_timer(timer *timer, const char *func)
{
    if (timer_start(timer, 1) < 0)
        log_failed(LOG_AS(func));
}

void watchdog_reset(void *ctx)
{
    const watchdog_svcent *entry = as_watchdog(ctx);
    if (write(entry->wd_fd, &food, sizeof food) < 0) {
        // No device, or a driver in trouble: the hardware decides.
    }
    start_timer(entry->reset_timer, __func__);
}

void led_blinking(void *ctx)
{
    watchdog_svcent *entry = as_watchdog(ctx);
    entry->led.led_on = (entry->led.led_on + 1) % 2;
    if (ioctl(entry->gpio_fd, gpio_set_led, &entry->led) < 0)
        print_error("ioctl %m\n");
    entry->blink_timer->period_ms =
        blink_period(entry, least_blink_ms, static_cast<int>(entry->blink_timer->period_ms));
    start_timer(entry->blink_timer, __func__);
}

int watchdog_stop(svcent *base, char *const *)
{
    watchdog_svcent *entry = as_watchdog(base);
    timer_free(std::exchange(entry->reset_timer, nullptr));
    timer_free(std::exchange(entry->blink_timer, nullptr));
    close_open(entry->gpio_fd);
    uint32_t no_options = 0;
    if (entry->wd_fd > 0)
        ioctl(entry->wd_fd, watchdog_set_options, &no_options);
    close_open(entry->wd_fd);
    return -1;
}

timer *started_timer(uint32_t period_ms, svcent *entry, timer_callback callback, const char *name)
{
    timer *made = timer_new(period_ms, entry, callback, name);
    start_timer(made, "watchdog_start");
    return made;
}

int watchdog_start(svcent *base, int, char *const *argv, const svcfg *)
{
    watchdog_svcent *entry = as_watchdog(base);
    watchdog_stop(entry, argv);
    const uint32_t period = blink_period(entry, 0, default_blink_ms);
    const char *selector = setting(entry, "WD");
    entry->led.led = selector ? static_cast<uint32_t>(strtoul(selector, nullptr, 0)) : default_led;
    entry->wd_fd = open("/dev/watchdog", O_RDWR | O_CLOEXEC);
    entry->gpio_fd = open("/dev/gpio", O_WRONLY | O_CLOEXEC);
    if (entry->gpio_fd < 0)
        print_error("open gpio %m\n");
    entry->reset_timer = started_timer(feed_period_ms, entry, watchdog_reset, "watchdog_reset");
    entry->blink_timer = started_timer(period, entry, led_blinking, "led_blinking");
    return 0;
}

int watchdog_reload(svcent *base, char *const *)
{
    const watchdog_svcent *entry = as_watchdog(base);
    if (!entry->blink_timer || !setting(entry, "WD_TIMER"))
        return 0;
    timer_stop(entry->blink_timer);
    entry->blink_timer->period_ms = blink_period(entry, least_blink_ms, default_blink_ms);
    start_timer(entry->blink_timer, __func__);
    return 0;
}

int watchdog_release(svcent *base)
{
    char *const no_words[] = {nullptr};
    watchdog_stop(base, no_words);
    free_svcent(as_watchdog(base));
    return 0;
}

constexpr svcent_ops operations = {watchdog_start, watchdog_stop, watchdog_reload, watchdog_release};

} // namespace

svcent *create_watchdog_svcent(service_info *slot, const char *name)
{
    log_trace(LOG_HERE, "create watchdog svcent");
    auto *entry = new_svcent<watchdog_svcent>(LOG_HERE, &operations, slot, name);
    if (!entry)
        return nullptr;
    entry->gpio_fd = -1;
    entry->wd_fd = -1;
    return entry;
}
