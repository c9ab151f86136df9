#include "syscfg/listing.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/timer.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr char log_module[] = "syscfg";
constexpr uint32_t retry_ms = 2;
constexpr int most_idle_retries = 1000;
constexpr int most_listings = 16;
constexpr size_t line_size = 1024 + 1;

// A list under way. The variables are fixed after start-up, so its place among them stays valid.
struct listing {
    listing *next;
    int server_fd;
    const syscfg_var *at; // next to be sent; null when only the closing "!OK" is left
    requester to;
    int idle_retries;
};

listing *listings; // oldest first
int listing_count;
timer *retry_timer;

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

void end_listing(listing **at)
{
    listing *list = *at;
    *at = list->next;
    free(list);
    --listing_count;
}

void retry_callback(void *)
{
    for (listing **at = &listings; *at;) {
        const bool done = advance(**at);
        const bool given_up = !done && ++(*at)->idle_retries > most_idle_retries;
        if (given_up)
            log_trace(LOG_HERE, "list given up: its reader takes nothing");
        if (done || given_up)
            end_listing(at);
        else
            at = &(*at)->next;
    }
    if (!listings)
        timer_stop(retry_timer);
}

// Keeps what is left of a list for the timer. False when memory is out.
bool keep_listing(const listing &list)
{
    if (!retry_timer)
        retry_timer = timer_new(retry_ms, nullptr, retry_callback, "list_retry");
    auto *kept = new_record<listing>();
    if (!kept || !retry_timer || (!listings && timer_start(retry_timer, -1) < 0)) {
        free(kept);
        return false;
    }
    *kept = list;
    listing **end = &listings;
    while (*end)
        end = &(*end)->next;
    *end = kept;
    ++listing_count;
    return true;
}

} // namespace

void send_list(const syscfg *db, const requester &to)
{
    listing list = {nullptr, db->server_fd, db->vars, to, 0};
    if (advance(list))
        return;
    if (listing_count == most_listings) {
        log_trace(LOG_HERE, "list given up: %d others are under way", most_listings);
        end_listing(&listings);
    }
    if (!keep_listing(list))
        log_failed(LOG_HERE);
}
