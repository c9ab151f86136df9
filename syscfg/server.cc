#include "syscfg/server.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "net/net.h"
#include "syscfg/computed.h"
#include "syscfg/listing.h"
#include "syscfg/lookup.h"
#include "syscfg/store.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char log_module[] = "syscfg";
constexpr size_t max_request = 1024;
constexpr size_t max_answer = 4096;
constexpr size_t format_buffer_size = 128;
constexpr int max_applied_names = 1000;

constexpr std::string_view ok = "!OK";
constexpr std::string_view error = "!ERR";
constexpr std::string_view no_entry = "!ERR NOENT";
constexpr std::string_view invalid = "!ERR INVAL";
constexpr std::string_view bad_name = "!ERR BADNAM";
constexpr std::string_view computed_is_read_only = "!ERR RONLY";
constexpr std::string_view no_access = "!ERR ACCESS";

// Of a command that answers later, or in pieces.
constexpr std::string_view no_reply = "";

int waiter_count;
int strange_waiter_count; // of those, the waits of other users
uint32_t next_serial;

struct assignment {
    char name[max_var_name + 1];
    char value[max_var_value + 1];
};

bool parse(std::string_view text, assignment &parsed)
{
    return parse_assignment(text, parsed.name, parsed.value) == 0;
}

// A waiter owns its value; the rest is the variable's.
struct waiter_deleter {
    void operator()(syscfg_waiter *waiter) const
    {
        drop_value(waiter);
        free(waiter);
    }
};

using unique_waiter = std::unique_ptr<syscfg_waiter, waiter_deleter>;

bool is_strange(const requester &from)
{
    return from.uid != geteuid();
}

void unlink_waiter(syscfg_waiter **at)
{
    const unique_waiter waiter(*at);
    *at = waiter->next_waiter;
    --waiter_count;
    strange_waiter_count -= is_strange(waiter->from) ? 1 : 0;
}

// A user can wait under a name, close it, and have the answer sent to the program that gets that name next.
void drop_strangers_waits(const syscfg *db, const requester &from)
{
    for (syscfg_var *var = strange_waiter_count > 0 ? db->vars : nullptr; var; var = var->next) {
        for (syscfg_waiter **at = &var->waiters; *at;) {
            if ((*at)->from.uid != from.uid && same_requester((*at)->from, from))
                unlink_waiter(at);
            else
                at = &(*at)->next_waiter;
        }
    }
}

// Answers the waiters that have waited for the present value.
void release_waiters(const syscfg *db, syscfg_var *var)
{
    for (syscfg_waiter **at = &var->waiters; *at;) {
        if (strcmp((*at)->text(), var->text()) == 0) {
            reply(db->server_fd, (*at)->from, ok);
            unlink_waiter(at);
        } else {
            at = &(*at)->next_waiter;
        }
    }
}

bool has_gone(int probe, const requester &who)
{
    if (who.len <= offsetof(sockaddr_un, sun_path)) // an unbound socket
        return true;
    return connect(probe, reinterpret_cast<const sockaddr *>(&who.addr), who.len) < 0 &&
           (errno == ECONNREFUSED || errno == ENOENT);
}

// Clients that stop waiting do not tell us; drop those first.
void drop_gone_waiters(const syscfg *db)
{
    const unique_fd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    for (syscfg_var *var = probe ? db->vars : nullptr; var; var = var->next) {
        for (syscfg_waiter **at = &var->waiters; *at;) {
            if (has_gone(probe.get(), (*at)->from))
                unlink_waiter(at);
            else
                at = &(*at)->next_waiter;
        }
    }
}

using waiter_place = syscfg_waiter **; // the link to it

uint32_t age_of(waiter_place at)
{
    return next_serial - (*at)->serial;
}

// By user, by address, the oldest first.
bool is_before(waiter_place a, waiter_place b)
{
    const requester &from_a = (*a)->from;
    const requester &from_b = (*b)->from;
    if (from_a.uid != from_b.uid)
        return from_a.uid < from_b.uid;
    if (from_a.len != from_b.len)
        return from_a.len < from_b.len;
    const int order = memcmp(&from_a.addr, &from_b.addr, from_a.len);
    return order != 0 ? order < 0 : age_of(a) > age_of(b);
}

bool same_user(const requester &a, const requester &b)
{
    return a.uid == b.uid;
}

// The largest group of sorted waiters with the same requester; of equal groups, the one with the oldest
// first.
std::span<waiter_place> largest_group(std::span<waiter_place> all,
                                      bool (*same)(const requester &, const requester &))
{
    std::span<waiter_place> largest;
    for (size_t begin = 0, end; begin < all.size(); begin = end) {
        end = begin + 1;
        while (end < all.size() && same((*all[begin])->from, (*all[end])->from))
            ++end;
        const size_t size = end - begin;
        if (size > largest.size() || (size == largest.size() && age_of(all[begin]) > age_of(largest[0])))
            largest = all.subspan(begin, size);
    }
    return largest;
}

// Drops the oldest waiter of the busiest address of the user with the most waiters.
void drop_waiter(const syscfg *db)
{
    waiter_place places[max_kept];
    size_t count = 0;
    for (syscfg_var *var = db->vars; var; var = var->next) {
        for (waiter_place at = &var->waiters; *at && count < max_kept; at = &(*at)->next_waiter)
            places[count++] = at;
    }
    if (count == 0)
        return;
    std::sort(places, places + count, is_before);
    waiter_place at = largest_group(largest_group({places, count}, same_user), same_requester)[0];
    log_trace(LOG_HERE, "more than %d waits, dropped: %s=%s", max_kept, (*at)->name, (*at)->text());
    try_reply(db->server_fd, (*at)->from, error);
    unlink_waiter(at);
}

void keep_waiter(const syscfg *db, syscfg_var *var, syscfg_waiter *waiter, const requester &from)
{
    if (waiter_count == max_kept)
        drop_gone_waiters(db);
    if (waiter_count == max_kept)
        drop_waiter(db);
    waiter->from = from;
    waiter->serial = next_serial++;
    waiter->next_waiter = var->waiters;
    var->waiters = waiter;
    ++waiter_count;
    strange_waiter_count += is_strange(from) ? 1 : 0;
}

std::string_view wait_syscfg(syscfg *db, std::string_view text, const requester &from)
{
    assignment wanted;
    if (!parse(text, wanted)) {
        log_trace(LOG_HERE, "invalid expr: %s", text.data());
        return invalid;
    }
    syscfg_var *var = find_var(db, wanted.name);
    if (!var) {
        log_trace(LOG_HERE, "no var named: %s", wanted.name);
        return no_entry;
    }
    unique_waiter waiter(new_record<syscfg_waiter>());
    if (!waiter) {
        log_failed(LOG_HERE);
        return error;
    }
    static_cast<syscfg_var &>(*waiter) = *var;
    waiter->next = nullptr;
    waiter->value = nullptr;
    waiter->waiters = nullptr;
    const bool accepted = var_types[var->type].set(db, waiter.get(), wanted.value) >= 0;
    if (!accepted || strcmp(waiter->text(), var->text()) == 0)
        return accepted ? ok : no_entry;
    keep_waiter(db, var, waiter.release(), from);
    return no_reply;
}

// Takes the next name and the character that ends it off the list. Empty if no name begins there.
std::string_view take_name(std::string_view &list)
{
    list = skip_space(list);
    const std::string_view name = span_of(list, is_name_char);
    list.remove_prefix(std::min(name.size() + 1, list.size()));
    return name;
}

std::string_view apply_names(syscfg *db, std::string_view list, const requester &)
{
    const char *names[max_applied_names + 1];
    int count = 0;
    while (!list.empty() && count < max_applied_names) {
        const syscfg_var *var = find_var(db, take_name(list));
        if (var && var->changed())
            names[count++] = var->name;
    }
    names[count] = nullptr;
    if (count > 0)
        report_changes(db, names, count);
    return ok;
}

std::string_view do_list(syscfg *db, std::string_view, const requester &from)
{
    send_list(db, from);
    return no_reply;
}

std::string_view do_apply(syscfg *db, std::string_view, const requester &)
{
    apply_syscfg(db);
    return ok;
}

std::string_view do_save(syscfg *db, std::string_view, const requester &)
{
    return save_syscfg(db, true) < 0 ? error : ok;
}

std::string_view do_reload(syscfg *db, std::string_view, const requester &)
{
    return load_syscfg(db) < 0 ? error : ok;
}

std::string_view do_reset(syscfg *db, std::string_view, const requester &)
{
    return reset_syscfg(db) < 0 ? error : ok;
}

constexpr struct {
    std::string_view word;
    bool takes_rest; // the word is a prefix, and the rest goes to the command
    std::string_view (*run)(syscfg *db, std::string_view rest, const requester &from);
} commands[] = {
    {"list", false, do_list},      {"wait", true, wait_syscfg}, {"apply", false, do_apply},
    {"apply:", true, apply_names}, {"save", false, do_save},    {"reload", false, do_reload},
    {"reset", false, do_reset},
};

std::string_view syscfg_exec_cmd(syscfg *db, std::string_view request, const requester &from)
{
    request.remove_prefix(1);
    log_trace(LOG_HERE, "%s", request.data());
    for (const auto &command : commands) {
        if (command.takes_rest ? request.starts_with(command.word) : request == command.word)
            return command.run(db, request.substr(command.word.size()), from);
    }
    log_trace(LOG_HERE, "unknown command %s", request.data());
    return error;
}

// The answer lies in out, or is a constant.
std::string_view syscfg_query(const syscfg *db, std::string_view request, std::span<char> out)
{
    request.remove_prefix(1);
    const std::span<char> text = out.subspan(1);
    out[0] = '>';
    if (request.starts_with('@')) {
        if (get_computed(request.substr(1), text) < 0)
            return no_entry;
    } else {
        char formatted[format_buffer_size] = "";
        const size_t name_end = request.find('%');
        const char *option = name_end == request.npos ? nullptr : request.data() + name_end + 1;
        const char *value = get_value(db, request.substr(0, name_end), option, formatted);
        if (!value)
            return no_entry;
        copy_text(text, value);
    }
    return {out.data(), strlen(out.data())};
}

std::string_view syscfg_set_request(const syscfg *db, std::string_view request)
{
    assignment wanted;
    if (!parse(request, wanted))
        return error;
    if (wanted.name[0] == '@')
        return computed_is_read_only;
    if (!is_letter(wanted.name[0]) && wanted.name[0] != '_')
        return bad_name;
    syscfg_var *var = find_var(db, wanted.name);
    if (!var)
        return no_entry;
    if (var->read_only())
        return no_access;
    if (var_types[var->type].set(db, var, wanted.value) < 0)
        return invalid;
    if (var->changed())
        release_waiters(db, var);
    return ok;
}

// The kernel follows links. If a client's path becomes a link to our socket, we would answer our own answers
// for ever.
bool is_own_address(const requester &from)
{
    constexpr size_t head = offsetof(sockaddr_un, sun_path);
    const char *path = from.addr.sun_path;
    return from.len > head && std::string_view(path, strnlen(path, from.len - head)) == server_path;
}

void handle_request(syscfg *db, std::string_view request, const requester &from)
{
    char answer[1 + max_answer + 1];
    std::string_view sent;
    switch (request.empty() ? '\0' : request.front()) {
    case '%':
        sent = syscfg_exec_cmd(db, request, from);
        break;
    case '?':
        sent = syscfg_query(db, request, answer);
        break;
    default:
        sent = syscfg_set_request(db, request);
    }
    if (!sent.empty())
        reply(db->server_fd, from, sent);
}

} // namespace

void syscfg_recvCallback(void *ctx, int events, int fd, app_fd_handler *)
{
    auto *db = static_cast<syscfg *>(ctx);
    if (events & APP_EV_READ) {
        char request[max_request + 1];
        requester from;
        const ssize_t length = receive_request(fd, {request, max_request}, from);
        if (length <= 0) {
            log_failed(LOG_HERE);
        } else {
            request[length] = '\0';
            if (is_own_address(from)) {
                log_trace(LOG_HERE, "an answer of our own came back: %s", request);
                return;
            }
            end_list(from);
            drop_strangers_waits(db, from);
            handle_request(db, request, from);
        }
    }
    if (events & APP_EV_ERROR)
        log_trace(LOG_HERE, "%s", strerror(get_socket_error(fd)));
}
