#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "lumd/child.h"
#include "lumd/kinds.h"

#include <charconv>
#include <ctime>
#include <optional>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "sched";
constexpr int day_s = 86400;
constexpr uint32_t most_seconds = UINT32_MAX / 1000;
constexpr size_t variable_name_max = 30;

struct sched_svcent : svcent {
    int interval; // seconds between the runs after the first
    unique_timer timer;
    unique_text path;
};

// When to run first, in seconds from now, and then how often.
struct schedule {
    int first;
    int interval;
};

struct time_of_day {
    uint8_t hour, minute, second;
};

// A whole decimal number.
template <typename Number>
std::optional<Number> parse_number(std::string_view text)
{
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

std::optional<time_of_day> parse_time(std::string_view text)
{
    const auto hour = parse_number<uint8_t>(cut_until(text, ':'));
    const auto minute = parse_number<uint8_t>(cut_until(text, ':'));
    const auto second = parse_number<uint8_t>(cut_until(text, ':'));
    if (!hour || !minute || !second)
        return {};
    return time_of_day{*hour, *minute, *second};
}

// Converts a local time in the season that its tm_isdst names, or in the other one if it does not fall into
// that season. With -1 there, the C library chooses by what it converted last. As a result -1 is a valid
// time.
std::optional<time_t> to_clock(tm local)
{
    tm other = local;
    local.tm_wday = -1; // stays when it cannot be converted
    const time_t then = mktime(&local);
    if (local.tm_wday == -1)
        return {};
    if (local.tm_isdst == other.tm_isdst)
        return then;
    const int season = other.tm_isdst = local.tm_isdst;
    other.tm_wday = -1;
    const time_t in_other_season = mktime(&other);
    const bool is_skipped = other.tm_wday == -1 || other.tm_isdst != season; // by the change itself
    return is_skipped ? then : in_other_season;
}

// Seconds until the next local time `at`; none if the clock cannot be converted.
std::optional<int> calc_timeout(time_of_day at)
{
    // Not time(), which lags by some milliseconds: a job that is started in its own second is due tomorrow.
    timeval clock;
    gettimeofday(&clock, nullptr);
    const time_t now = clock.tv_sec;
    tm local;
    if (!localtime_r(&now, &local))
        return {};
    log_trace(LOG_HERE, "time now: %d/%d %d:%d:%d", local.tm_mon + 1, local.tm_mday, local.tm_hour,
              local.tm_min, local.tm_sec);
    log_trace(LOG_HERE, "sched: %d:%d:%d", at.hour, at.minute, at.second);
    local.tm_hour = at.hour;
    local.tm_min = at.minute;
    local.tm_sec = at.second;
    std::optional<time_t> then = to_clock(local);
    if (then && *then <= now)
        *then += day_s;
    if (then && *then <= now) { // a day of 25 hours
        ++local.tm_mday;
        then = to_clock(local);
    }
    if (!then)
        return {};
    const int left = static_cast<int>(*then - now);
    log_trace(LOG_HERE, "timout=%d", left);
    return left;
}

std::optional<schedule> parse_schedule(std::string_view spec)
{
    if (spec.find(':') != spec.npos) {
        const auto at = parse_time(spec);
        const auto first = at ? calc_timeout(*at) : std::nullopt;
        return first ? std::optional(schedule{*first, day_s}) : std::nullopt;
    }
    const auto seconds = parse_number<uint32_t>(spec);
    if (!seconds || *seconds < 1 || *seconds > most_seconds)
        return {};
    return schedule{static_cast<int>(*seconds), static_cast<int>(*seconds)};
}

// A spec of the form $(NAME) stands for the value of that variable. Null, logged, when it has none.
const char *resolve_spec(const svcent *entry, const char *spec)
{
    std::string_view text = spec;
    if (!text.starts_with("$("))
        return spec;
    text = span_of(skip_space(text.substr(2)), [](char c) { return c != ')' && !is_space(c); });
    char name[variable_name_max + 1];
    copy_text(name, text);
    const char *value = svcent_getSyscfg(entry, name);
    if (!value)
        log_trace(LOG_AS("sched_start"), "cannot get syscfg: %s", name);
    return value;
}

void drop_schedule(sched_svcent *entry)
{
    entry->timer.reset();
    entry->path.reset();
}

void sched_do(sched_svcent *entry);

int start_timer(sched_svcent *entry, int seconds)
{
    return entry->timer.start<sched_do>(static_cast<uint32_t>(seconds) * 1000, entry, "sched_do");
}

void sched_do(sched_svcent *entry)
{
    log_trace(LOG_HERE, "%s", entry->path.get());
    if (start_timer(entry, entry->interval) < 0)
        log_failed(LOG_HERE);
    char *const argv[] = {entry->path.get(), nullptr};
    if (spawn_child(entry->path.get(), argv, [] {}) < 0)
        log_syserror(LOG_HERE);
}

int arm(sched_svcent *entry, schedule when, const char *path)
{
    entry->interval = when.interval;
    entry->path.reset(new_text(path));
    if (!entry->path || start_timer(entry, when.first) < 0) {
        log_failed(LOG_AS("sched_start"));
        drop_schedule(entry);
        return -1;
    }
    log_trace(LOG_AS("sched_start"), "sched=%p timer=%p interval=%d/%d path=%s", static_cast<void *>(entry),
              static_cast<const void *>(entry->timer.get()), when.first, when.interval, path);
    return 0;
}

int sched_start(sched_svcent *entry, int argc, char *const *argv, const svcfg *)
{
    drop_schedule(entry);
    if (argc < 3 || !argv[2]) {
        log_trace(LOG_HERE, "missing argument\n");
        return -1;
    }
    const char *spec = resolve_spec(entry, argv[1]);
    if (!spec)
        return -1;
    const auto when = parse_schedule(spec);
    if (!when) {
        log_trace(LOG_HERE, "invalid time spec: %s\n", spec);
        return -1;
    }
    if (access(argv[2], X_OK) < 0) {
        log_trace(LOG_HERE, "not executable %s\n", argv[2]);
        return -1;
    }
    if (arm(entry, *when, argv[2]) < 0)
        return -1;
    lumd_processServiceCallback(entry->owner, SVCENT_EV_STARTED);
    return 0;
}

int sched_stop(sched_svcent *entry, char *const *)
{
    drop_schedule(entry);
    return 0;
}

// The manager starts the service again, which reads the variable.
int sched_reload(sched_svcent *entry, char *const *)
{
    drop_schedule(entry);
    lumd_processServiceCallback(entry->owner, SVCENT_EV_STOPPED);
    return 0;
}

constexpr const svcent_ops &operations =
    operations_of<sched_svcent, sched_start, sched_stop, sched_reload, true>;

} // namespace

svcent *create_sched_svcent(service_info *slot, const char *name)
{
    log_trace(LOG_HERE, "create sched svcent");
    return new_svcent<sched_svcent>(LOG_HERE, &operations, slot, name);
}
