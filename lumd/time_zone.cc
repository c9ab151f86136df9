#include "lumd/time_zone.h"

#include "app/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr char log_module[] = "main";
constexpr size_t zone_size = 132;

// The C library counts west of Greenwich, people count east.
char opposite(char sign)
{
    return sign == '+' ? '-' : '+';
}

bool is_sign(char c)
{
    return c == '+' || c == '-';
}

} // namespace

int init_tz(const char *value)
{
    log_trace(LOG_HERE, "init time zone: %s", value);
    if (*value == '\0') {
        log_checkpoint(LOG_HERE);
        return 0;
    }
    const bool has_name = !is_sign(*value);
    char zone[zone_size];
    const int length = has_name ? snprintf(zone, sizeof zone, "%s", value)
                                : snprintf(zone, sizeof zone, "STD%c%s", opposite(*value), value + 1);
    if (length >= static_cast<int>(sizeof zone)) {
        log_failed(LOG_HERE);
        return 0;
    }
    char *sign = strchr(zone, '+');
    if (!sign)
        sign = strchr(zone, '-');
    if (has_name && sign)
        *sign = opposite(*sign);
    log_trace(LOG_HERE, "set time zone: %s", zone);
    setenv("TZ", zone, 0);
    tzset();
    return 0;
}
