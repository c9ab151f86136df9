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
    unique_fd gpio_fd;
    unique_fd wd_fd;
    led_request led;
    unique_timer reset_timer;
    unique_timer blink_timer;

    ~watchdog_svcent() { close_devices(); }
    void close_devices();
};

void watchdog_svcent::close_devices()
{
    gpio_fd.reset();
    uint32_t no_options = 0;
    if (wd_fd)
        ioctl(wd_fd.get(), watchdog_set_options, &no_options);
    wd_fd.reset();
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

void check_started(int result, const char *func)
{
    if (result < 0)
        log_failed(LOG_AS(func));
}

void watchdog_reset(watchdog_svcent *entry)
{
    if (write(entry->wd_fd.get(), &food, sizeof food) < 0) {
        // Without a device, or if its driver fails, the hardware decides.
    }
    check_started(entry->reset_timer.start(), __func__);
}

void led_blinking(watchdog_svcent *entry);

int start_blinking(watchdog_svcent *entry, uint32_t period_ms)
{
    return entry->blink_timer.start<led_blinking>(period_ms, entry, "led_blinking");
}

void led_blinking(watchdog_svcent *entry)
{
    entry->led.led_on = (entry->led.led_on + 1) % 2;
    if (ioctl(entry->gpio_fd.get(), gpio_set_led, &entry->led) < 0)
        print_error("ioctl %m\n");
    const auto period = static_cast<int>(entry->blink_timer.get()->period_ms);
    check_started(start_blinking(entry, blink_period(entry, least_blink_ms, period)), __func__);
}

int watchdog_stop(watchdog_svcent *entry, char *const *)
{
    entry->reset_timer.reset();
    entry->blink_timer.reset();
    entry->close_devices();
    return -1;
}

int watchdog_start(watchdog_svcent *entry, int, char *const *argv, const svcfg *)
{
    watchdog_stop(entry, argv);
    const uint32_t period = blink_period(entry, 0, default_blink_ms);
    const char *selector = setting(entry, "WD");
    entry->led.led = selector ? static_cast<uint32_t>(strtoul(selector, nullptr, 0)) : default_led;
    entry->wd_fd.reset(open("/dev/watchdog", O_RDWR | O_CLOEXEC));
    entry->gpio_fd.reset(open("/dev/gpio", O_WRONLY | O_CLOEXEC));
    if (!entry->gpio_fd)
        print_error("open gpio %m\n");
    check_started(entry->reset_timer.start<watchdog_reset>(feed_period_ms, entry, "watchdog_reset"),
                  __func__);
    check_started(start_blinking(entry, period), __func__);
    return 0;
}

int watchdog_reload(watchdog_svcent *entry, char *const *)
{
    if (entry->blink_timer.get() && setting(entry, "WD_TIMER"))
        check_started(start_blinking(entry, blink_period(entry, least_blink_ms, default_blink_ms)), __func__);
    return 0;
}

constexpr const svcent_ops &operations =
    operations_of<watchdog_svcent, watchdog_start, watchdog_stop, watchdog_reload, false>;

} // namespace

svcent *create_watchdog_svcent(service_info *slot, const char *name)
{
    log_trace(LOG_HERE, "create watchdog svcent");
    return new_svcent<watchdog_svcent>(LOG_HERE, &operations, slot, name);
}
