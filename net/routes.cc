#include "app/file.h"
#include "app/log.h"
#include "app/text.h"
#include "net/interfaces.h"
#include "net/sockaddr.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

namespace {

constexpr char log_module[] = "net";
constexpr char route_file[] = "/proc/net/route";
constexpr size_t longest_line = 256;
constexpr uint32_t no_gateway_yet = 0xFFFFFFFF;

// Interface, destination, gateway, four columns of no interest here, mask.
constexpr size_t columns = 8;
enum column : size_t { name_column = 0, destination_column = 1, gateway_column = 2, mask_column = 7 };

std::string_view cut_word(std::string_view &text)
{
    text = skip_space(text);
    const std::string_view word = span_of(text, [](char c) { return !is_space(c); });
    text.remove_prefix(word.size());
    return word;
}

bool read_hex(std::string_view word, uint32_t &out)
{
    const char *end = word.data() + word.size();
    const auto parsed = std::from_chars(word.data(), end, out, 16);
    return parsed.ec == std::errc() && parsed.ptr == end;
}

bool is_better(const route &next, const route &chosen)
{
    return (chosen.mask == 0 || next.mask > chosen.mask) && next.gateway < chosen.gateway;
}

// False when a line is junk. The chosen route has no name when none matches.
bool choose_route(FILE *table, in_addr_t to, route &chosen)
{
    chosen = {{}, 0, no_gateway_yet, 0};
    char line[longest_line + 1];
    for (bool is_first = true; fgets(line, sizeof line, table); is_first = false) {
        route next;
        if (is_first && std::string_view(line).starts_with("Iface"))
            continue;
        if (!parse_route(line, next))
            return false;
        if ((to & next.mask) == next.destination && is_better(next, chosen))
            chosen = next;
    }
    return true;
}

ifi *find_interface(ifi *list, const char *name)
{
    while (list && strcmp(list->name, name) != 0)
        list = list->next;
    return list;
}

} // namespace

bool parse_route(std::string_view line, route &out)
{
    std::string_view words[columns];
    line = line.substr(0, line.find('\0'));
    for (std::string_view &word : words)
        word = cut_word(line);
    copy_text(out.interface, words[name_column]);
    return !words[name_column].empty() && read_hex(words[destination_column], out.destination) &&
           read_hex(words[gateway_column], out.gateway) && read_hex(words[mask_column], out.mask);
}

const char *findsaddr(const sockaddr *dest)
{
    static route found;
    const unique_file table = open_regular_file(route_file);
    if (!table) {
        log_trace(LOG_HERE, "open %s: %m\n", route_file);
        return nullptr;
    }
    if (!choose_route(table.get(), reinterpret_cast<const sockaddr_in *>(dest)->sin_addr.s_addr, found)) {
        log_trace(LOG_HERE, "junk in buffer");
        return nullptr;
    }
    if (found.interface[0] == '\0') {
        log_trace(LOG_HERE, "no matching route!");
        return nullptr;
    }
    return found.interface.data();
}

ifi *get_route_ifaddr(int sockfd, const sockaddr *dest)
{
    if (!is_valid_addr(dest, 0))
        return nullptr;
    ifi *list = get_ifi_info(sockfd, IFI_LOOPBACK | IFI_NETMASK);
    const char *name = list ? findsaddr(dest) : nullptr;
    const ifi *there = name ? find_interface(list, name) : nullptr;
    ifi *made = there ? new_record<ifi>() : nullptr;
    if (made) {
        copy_text(made->name, there->name);
        made->addr = reinterpret_cast<sockaddr *>(new_record<sockaddr_in>());
    }
    if (made && made->addr)
        sockaddr_copy(made->addr, there->addr);
    else
        free_ifi_info(std::exchange(made, nullptr));
    free_ifi_info(list);
    return made;
}

namespace {

int copy_address(const sockaddr *from, socklen_t from_len, sockaddr *addr, socklen_t *len)
{
    const int copied = sockaddr_copy(addr, *len, from, from_len);
    if (copied < 0)
        return -1;
    *len = static_cast<socklen_t>(copied);
    return 0;
}

// The port of the socket, which the address of an interface has none of.
int use_interface(const char *name, const sockaddr *own, sockaddr *addr, socklen_t *len)
{
    if (getifaddr(name, addr, len) < 0)
        return -1;
    const int port = sockaddr_get_port(own);
    if (port >= 1) {
        log_trace(LOG_AS("getsockifaddr"), "port=%d", port);
        sockaddr_set_port(addr, port);
    } else {
        log_trace(LOG_AS("getsockifaddr"), "cannot get sockport: %s", sockaddr_ntop(own, 0));
    }
    return 0;
}

int use_route(int sockfd, sockaddr *addr, socklen_t *len)
{
    sockaddr_in dest = {};
    dest.sin_family = AF_INET;
    auto *to = reinterpret_cast<sockaddr *>(&dest);
    if (is_valid_addr(addr, *len))
        sockaddr_copy(to, addr);
    else if (*len >= sizeof dest)
        sockaddr_copy(addr, to);
    ifi *found = get_route_ifaddr(sockfd, to);
    const int result = found ? copy_address(found->addr, sizeof dest, addr, len) : -1;
    free_ifi_info(found);
    return result;
}

} // namespace

int getsockifaddr(int sockfd, sockaddr *addr, socklen_t *len)
{
    sockaddr_storage storage = {};
    socklen_t own_len = sizeof storage;
    auto *own = reinterpret_cast<sockaddr *>(&storage);
    if (getsockname(sockfd, own, &own_len) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    if (own->sa_family != AF_INET)
        return -1;
    int result;
    if (reinterpret_cast<const sockaddr_in *>(own)->sin_addr.s_addr != INADDR_ANY)
        result = copy_address(own, own_len, addr, len);
    else if (const char *name = getenv("USE_INTERFACE"))
        result = use_interface(name, own, addr, len);
    else
        result = use_route(sockfd, addr, len);
    if (result < 0)
        log_failed(LOG_HERE);
    return result;
}
