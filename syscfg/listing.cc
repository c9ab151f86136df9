#include "syscfg/listing.h"

#include "app/app.h"
#include "app/log.h"
#include "app/memory.h"

#include <cstdio>
#include <sys/timerfd.h>

namespace {

constexpr char log_module[] = "syscfg";
constexpr int first_retry_ms = 2;
constexpr int max_retry_ms = 200;
constexpr int crowd_patience_ms = 1000;
constexpr uint64_t max_expirations = 1000; // after so many every list is due
constexpr int max_of_stranger = max_kept / 2;
constexpr size_t line_size = 1024 + 1;

constexpr std::string_view sent = "!OK";
constexpr std::string_view given_up = "!ERR";

// A list under way. The variables are fixed after start-up, so its place among them stays valid.
struct listing {
    listing *next;
    int server_fd;
    const syscfg_var *at; // the next to send; null if only the end is left
    std::string_view end;
    requester to;
    int retry_ms; // doubles while the client takes nothing
    int left_ms;  // until the next retry
    int64_t still_ms;
};

listing *lists; // oldest first

// Open while there are lists. The loop's timers would not do: they stand still while the wall clock is set
// back, and clients wait for these lines.
int retry_fd = -1;
int armed_ms;
int crowded_ms; // how long the server's buffer has had no room for lists

// True once all is sent; false if the client's queue is full or lists have used their share of the buffer.
bool advance(listing &list)
{
    while (list.at) {
        char line[line_size];
        const int length = snprintf(line, sizeof line, ">%s=\"%s\"\n", list.at->name, list.at->text());
        const size_t cut = std::min(static_cast<size_t>(length), sizeof line - 1);
        if (is_crowded(list.server_fd) || !try_reply(list.server_fd, list.to, {line, cut}))
            return false;
        list.at = list.at->next;
    }
    return try_reply(list.server_fd, list.to, list.end);
}

// Advances, and sets when to try again.
bool retry(listing &list)
{
    const syscfg_var *before = list.at;
    if (advance(list))
        return true;
    if (list.at != before) {
        list.retry_ms = first_retry_ms;
        list.still_ms = 0;
    } else if (!is_crowded(list.server_fd)) {
        list.retry_ms = std::min(2 * list.retry_ms, max_retry_ms);
    }
    list.left_ms = list.retry_ms;
    return false;
}

void retry_callback(void *, int, int fd, app_fd_handler *);

bool arm(int fd, int ms)
{
    const timespec time = {0, ms * 1000000L};
    const itimerspec period = {time, time};
    armed_ms = ms;
    return timerfd_settime(fd, 0, &period, nullptr) == 0;
}

bool start_retries()
{
    unique_fd fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!fd || !arm(fd.get(), first_retry_ms) || app_add_fd(fd.get(), POLLIN, nullptr, retry_callback) < 0)
        return false;
    retry_fd = fd.release();
    crowded_ms = 0;
    return true;
}

void stop_retries()
{
    app_remove_fd(retry_fd, nullptr, retry_callback);
    close(std::exchange(retry_fd, -1));
}

void remove_list(listing **at)
{
    const unique_record<listing> list(*at);
    *at = list->next;
    if (!lists)
        stop_retries();
}

// Selects lists, some of a user.
using choice = bool (*)(const listing &list, uid_t user);

bool holds_place(const listing &list, uid_t)
{
    return list.end == sent;
}

bool is_of_user(const listing &list, uid_t user)
{
    return holds_place(list, user) && list.to.uid == user;
}

bool is_given_up(const listing &list, uid_t)
{
    return list.end == given_up;
}

int count_lists(choice chosen, uid_t user)
{
    int count = 0;
    for (const listing *list = lists; list; list = list->next)
        count += chosen(*list, user) ? 1 : 0;
    return count;
}

// The list whose client has taken nothing for longest; null if all clients are reading.
listing **longest_still(choice chosen, uid_t user)
{
    listing **longest = nullptr;
    for (listing **at = &lists; *at; at = &(*at)->next) {
        if (chosen(**at, user) && (*at)->retry_ms > first_retry_ms &&
            (!longest || (*at)->still_ms > (*longest)->still_ms))
            longest = at;
    }
    return longest;
}

// The client may have no room for the error yet. It is kept for up to max_kept clients.
void give_up(listing **at)
{
    listing *list = *at;
    list->at = nullptr;
    list->end = given_up;
    if (retry(*list))
        return remove_list(at);
    if (count_lists(is_given_up, 0) <= max_kept)
        return;
    listing **oldest = &lists;
    while (!is_given_up(**oldest, 0))
        oldest = &(*oldest)->next;
    remove_list(oldest);
}

void log_given_up(const char *why)
{
    log_trace(LOG_AS("send_list"), "list given up: %s", why);
}

void retry_callback(void *, int, int fd, app_fd_handler *)
{
    uint64_t expirations;
    if (read(fd, &expirations, sizeof expirations) < 0)
        return;
    const int passed_ms = static_cast<int>(std::min<uint64_t>(expirations, max_expirations)) * armed_ms;
    crowded_ms = is_crowded(lists->server_fd) ? crowded_ms + passed_ms : 0;
    if (crowded_ms >= crowd_patience_ms) {
        renew_server_socket(lists->server_fd);
        crowded_ms = 0;
    }
    int next_ms = max_retry_ms;
    for (listing **at = &lists; *at;) {
        listing &list = **at;
        list.still_ms += passed_ms;
        list.left_ms -= passed_ms;
        if (list.left_ms <= 0 && crowded_ms == 0 && retry(list)) {
            remove_list(at);
            continue;
        }
        next_ms = std::min(next_ms, std::max(list.left_ms, first_retry_ms));
        at = &list.next;
    }
    if (lists)
        arm(fd, next_ms);
}

// Keeps the rest of a list as the newest. The link to it, or null without memory or a timer.
listing **keep_list(const listing &list)
{
    unique_record<listing> kept(new_record<listing>());
    if (!kept || !(lists ? armed_ms == first_retry_ms || arm(retry_fd, first_retry_ms) : start_retries()))
        return nullptr;
    *kept = list;
    listing **end = &lists;
    while (*end)
        end = &(*end)->next;
    *end = kept.release();
    return end;
}

} // namespace

void send_list(const syscfg *db, const requester &to)
{
    listing list = {nullptr, db->server_fd, db->vars, sent, to, first_retry_ms, first_retry_ms, 0};
    if (advance(list))
        return;
    listing **newest = keep_list(list);
    if (!newest) {
        log_failed(LOG_HERE);
        try_reply(list.server_fd, to, given_up);
        return;
    }
    choice too_many = nullptr;
    if (count_lists(holds_place, to.uid) > max_kept)
        too_many = holds_place;
    if (to.uid != geteuid() && count_lists(is_of_user, to.uid) > max_of_stranger)
        too_many = is_of_user;
    if (!too_many)
        return;
    log_given_up("too many are under way");
    listing **still = longest_still(too_many, to.uid);
    give_up(still ? still : newest);
}

void end_list(const requester &to)
{
    for (listing **at = &lists; *at; at = &(*at)->next) {
        if (same_requester((*at)->to, to)) {
            log_given_up("its requester asks anew");
            remove_list(at);
            return;
        }
    }
}
