#include "syscfg/listing.h"

#include "app/app.h"
#include "app/log.h"
#include "app/memory.h"

#include <cstdio>
#include <sys/timerfd.h>

namespace {

constexpr char log_module[] = "syscfg";
constexpr long quick_retry_ns = 2000000;
constexpr long slow_retry_ns = 200000000; // for readers who have taken nothing for 2 s
constexpr int most_quick_retries = 1000;
constexpr int most_lists = 16;
constexpr size_t line_size = 1024 + 1;

// A list under way. The variables are fixed after start-up, so its place among them stays valid.
struct listing {
    listing *next;
    int server_fd;
    const syscfg_var *at; // next to be sent; null when only the closing "!OK" is left
    requester to;
    int idle_retries;
};

listing *lists; // oldest first
int list_count;

// While there are lists. Not one of the loop's timers: those stand still for as long as the wall clock is set
// back, and somebody waits for these lines.
int retry_fd = -1;

// Sends on until all is sent (true) or the requester's queue is full.
bool advance(listing &list)
{
    while (list.at) {
        char line[line_size];
        const int length = snprintf(line, sizeof line, ">%s=\"%s\"\n", list.at->name, list.at->text());
        const size_t cut = std::min(static_cast<size_t>(length), sizeof line - 1);
        if (!try_reply(list.server_fd, list.to, {line, cut}))
            return false;
        list.at = list.at->next;
        list.idle_retries = 0;
    }
    return try_reply(list.server_fd, list.to, "!OK");
}

void retry_callback(void *, int, int fd, app_fd_handler *);

bool retry_every(int fd, long period_ns)
{
    const itimerspec period = {{0, period_ns}, {0, period_ns}};
    return timerfd_settime(fd, 0, &period, nullptr) == 0;
}

bool start_retries()
{
    unique_fd fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!fd || !retry_every(fd.get(), quick_retry_ns) ||
        app_add_fd(fd.get(), POLLIN, nullptr, retry_callback) < 0)
        return false;
    retry_fd = fd.release();
    return true;
}

void stop_retries()
{
    app_remove_fd(retry_fd, nullptr, retry_callback);
    close(std::exchange(retry_fd, -1));
}

void remove_list(listing **at)
{
    listing *list = *at;
    *at = list->next;
    free(list);
    --list_count;
    if (!lists)
        stop_retries();
}

void give_up(listing **at, const char *why)
{
    log_trace(LOG_AS("send_list"), "list given up: %s", why);
    remove_list(at);
}

void retry_callback(void *, int, int fd, app_fd_handler *)
{
    uint64_t expirations;
    if (read(fd, &expirations, sizeof expirations) < 0)
        return;
    bool hurry = false;
    for (listing **at = &lists; *at;) {
        if (advance(**at)) {
            remove_list(at);
            continue;
        }
        int &idle = (*at)->idle_retries;
        idle = std::min(idle + 1, most_quick_retries);
        hurry = hurry || idle < most_quick_retries;
        at = &(*at)->next;
    }
    if (lists)
        retry_every(fd, hurry ? quick_retry_ns : slow_retry_ns);
}

// Keeps what is left of a list. False when something for it cannot be had.
bool keep_list(const listing &list)
{
    auto *kept = new_record<listing>();
    if (!kept || !(lists ? retry_every(retry_fd, quick_retry_ns) : start_retries())) {
        free(kept);
        return false;
    }
    *kept = list;
    listing **end = &lists;
    while (*end)
        end = &(*end)->next;
    *end = kept;
    ++list_count;
    return true;
}

} // namespace

void send_list(const syscfg *db, const requester &to)
{
    listing list = {nullptr, db->server_fd, db->vars, to, 0};
    if (advance(list))
        return;
    if (list_count == most_lists)
        give_up(&lists, "too many are under way");
    if (!keep_list(list))
        log_failed(LOG_HERE);
}

void end_list(const requester &to)
{
    for (listing **at = &lists; *at; at = &(*at)->next) {
        if (same_requester((*at)->to, to)) {
            give_up(at, "its requester asks anew");
            return;
        }
    }
}
