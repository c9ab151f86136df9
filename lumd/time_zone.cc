#include "lumd/time_zone.h"

#include "app/log.h"
#include "app/memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr char log_module[] = "main";
constexpr int offset_size = 132;

// The C library counts hours west of Greenwich, the setting counts them east.
char opposite(char sign)
{
    return sign == '+' ? '-' : '+';
}

bool is_sign(char c)
{
    return c == '+' || c == '-';
}

void turn_first_sign(char *zone)
{
    char *sign = strchr(zone, '+');
    if (!sign)
        sign = strchr(zone, '-');
    if (sign)
        *sign = opposite(*sign);
}

} // namespace

int init_tz(const char *value)
{
    const unique_text copy(value ? new_text(value) : nullptr);
    log_trace(LOG_HERE, "init time zone: %s", copy ? copy.get() : "(null)");
    if (!copy || *copy == '\0') {
        log_checkpoint(LOG_HERE);
        return 0;
    }
    const char *zone = copy.get();
    char offset[offset_size];
    if (is_sign(*zone)) {
        if (snprintf(offset, sizeof offset, "STD%c%s", opposite(*zone), zone + 1) >= offset_size) {
            log_failed(LOG_HERE);
            return 0;
        }
        zone = offset;
    } else {
        turn_first_sign(copy.get());
    }
    log_trace(LOG_HERE, "set time zone: %s", zone);
    setenv("TZ", zone, 0);
    tzset();
    return 0;
}
