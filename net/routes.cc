#include "app/log.h"
#include "app/text.h"
#include "net/interfaces.h"
#include "net/route_table.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr char log_module[] = "net";
constexpr size_t max_line = 256;
constexpr uint32_t no_gateway_yet = 0xFFFFFFFF;

bool is_better(const route &next, const route &chosen)
{
    return (chosen.mask == 0 || next.mask > chosen.mask) && next.gateway < chosen.gateway;
}

// False when a line is junk. The chosen route has no name when none matches.
bool choose_route(route_table &table, in_addr_t to, route &chosen)
{
    chosen = {{}, 0, no_gateway_yet, 0, false};
    char line[max_line + 1];
    while (table.next(line)) {
        route next;
        if (!parse_route(line, next))
            return false;
        if ((to & next.mask) == next.destination && is_better(next, chosen))
            chosen = next;
    }
    return true;
}

const ifi *find_interface(const ifi *list, const char *name)
{
    while (list && strcmp(list->name, name) != 0)
        list = list->next;
    return list;
}

int copy_address(const sockaddr *from, socklen_t from_len, sockaddr *addr, socklen_t *len)
{
    const int copied = sockaddr_copy(addr, *len, from, from_len);
    if (copied < 0)
        return -1;
    *len = static_cast<socklen_t>(copied);
    return 0;
}

// The address of an interface has no port; it gets the socket's.
int use_interface(const char *name, const sockaddr *own, sockaddr *addr, socklen_t *len)
{
    if (getifaddr(name, addr, len) < 0)
        return -1;
    const int port = sockaddr_get_port(own);
    if (port >= 1) {
        log_trace(LOG_AS("getsockifaddr"), "port=%d", port);
        as_ipv4(addr).sin_port = as_ipv4(own).sin_port;
    } else {
        log_trace(LOG_AS("getsockifaddr"), "cannot get sockport: %s", sockaddr_ntop(own, 0));
    }
    return 0;
}

int use_route(int sockfd, sockaddr *addr, socklen_t *len)
{
    ipv4_endpoint dest;
    if (is_valid_addr(addr, *len))
        dest.in = as_ipv4(addr);
    else if (*len >= dest.size())
        as_ipv4(addr) = dest.in;
    const unique_ifi found = get_route_ifaddr(sockfd, dest.get());
    return found ? copy_address(found->addr->get(), dest.size(), addr, len) : -1;
}

} // namespace

const char *findsaddr(const sockaddr *dest)
{
    static route found;
    route_table table;
    if (!table.file) {
        log_trace(LOG_HERE, "open %s: %m\n", table.path);
        return nullptr;
    }
    if (!choose_route(table, as_ipv4(dest).sin_addr.s_addr, found)) {
        log_trace(LOG_HERE, "junk in buffer");
        return nullptr;
    }
    if (found.interface[0] == '\0') {
        log_trace(LOG_HERE, "no matching route!");
        return nullptr;
    }
    return found.interface.data();
}

unique_ifi get_route_ifaddr(int sockfd, const sockaddr *dest)
{
    if (!is_valid_addr(dest, 0))
        return nullptr;
    const unique_ifi list = get_ifi_info(sockfd, IFI_LOOPBACK | IFI_NETMASK);
    const char *name = list ? findsaddr(dest) : nullptr;
    const ifi *there = name ? find_interface(list.get(), name) : nullptr;
    unique_ifi made(there ? new_record<ifi>() : nullptr);
    if (!made)
        return nullptr;
    copy_text(made->name, there->name);
    made->addr.reset(new_record<ipv4_endpoint>());
    if (!made->addr)
        return nullptr;
    *made->addr = *there->addr;
    return made;
}

int getsockifaddr(int sockfd, sockaddr *addr, socklen_t *len)
{
    ipv4_endpoint own;
    socklen_t own_len = own.size();
    if (getsockname(sockfd, own.get(), &own_len) < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    if (own.in.sin_family != AF_INET)
        return -1;
    int result;
    if (own.in.sin_addr.s_addr != INADDR_ANY)
        result = copy_address(own.get(), own_len, addr, len);
    else if (const char *name = getenv("USE_INTERFACE"))
        result = use_interface(name, own.get(), addr, len);
    else
        result = use_route(sockfd, addr, len);
    if (result < 0)
        log_failed(LOG_HERE);
    return result;
}
