#include "net/interfaces.h"

#include "app/log.h"
#include "app/text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>

namespace {

constexpr char log_module[] = "net";
constexpr int first_buffer_size = 3200;
constexpr int buffer_growth = 320;
constexpr int same_network = 5;
constexpr int both_public = 2;
constexpr size_t leading_octets = 3;

struct interface_table {
    std::unique_ptr<char, free_deleter> bytes;
    int length = -1; // -1: not read

    [[nodiscard]] int entries() const { return length / static_cast<int>(sizeof(ifreq)); }
    [[nodiscard]] ifreq entry(int i) const
    {
        ifreq copy;
        memcpy(&copy, bytes.get() + static_cast<size_t>(i) * sizeof copy, sizeof copy);
        return copy;
    }
};

// The kernel silently cuts a table that does not fit: it is whole when a larger buffer gets no more of it.
interface_table read_interfaces(int sockfd)
{
    interface_table table;
    for (int size = first_buffer_size;; size += buffer_growth) {
        std::unique_ptr<char, free_deleter> bytes(static_cast<char *>(malloc(static_cast<size_t>(size))));
        ifconf request = {};
        request.ifc_len = size;
        request.ifc_buf = bytes.get();
        const bool has_read = bytes && ioctl(sockfd, SIOCGIFCONF, &request) == 0;
        if (!has_read && (!bytes || errno != EINVAL || size != first_buffer_size))
            return {};
        const bool is_whole = has_read && request.ifc_len == table.length;
        if (has_read)
            table = {std::move(bytes), request.ifc_len};
        if (is_whole)
            return table;
    }
}

uint32_t address(const sockaddr *addr)
{
    return as_ipv4(addr).sin_addr.s_addr;
}

unique_endpoint heap_copy(const sockaddr *addr)
{
    unique_endpoint copy(new_record<ipv4_endpoint>());
    if (copy)
        copy->in = as_ipv4(addr);
    return copy;
}

// Asks for one more address of the entry, which name and address identify among the interface's others. The
// kernel answers zero for none. False when memory is out.
bool fetch(int sockfd, unsigned long request, ifreq entry, unique_endpoint &out)
{
    const bool is_there = ioctl(sockfd, request, &entry) == 0 && entry.ifr_addr.sa_family == AF_INET &&
                          (request == SIOCGIFNETMASK || address(&entry.ifr_addr) != INADDR_ANY);
    if (is_there)
        out = heap_copy(&entry.ifr_addr);
    return !is_there || out;
}

// Null when memory is out.
unique_ifi new_ifi(int sockfd, const ifreq &entry, short entry_flags, in_port_t port, int flags)
{
    unique_ifi made(new_record<ifi>());
    if (!made)
        return nullptr;
    copy_text(made->name, {entry.ifr_name, strnlen(entry.ifr_name, sizeof entry.ifr_name)});
    made->flags = static_cast<uint16_t>(entry_flags);
    made->addr = heap_copy(&entry.ifr_addr);
    if (!made->addr)
        return nullptr;
    made->addr->in.sin_port = port;
    const struct {
        int wanted, needs;
        unsigned long request;
        unique_endpoint &out;
    } more[] = {{IFI_BROADCAST, IFF_BROADCAST, SIOCGIFBRDADDR, made->broadaddr},
                {IFI_PEER, IFF_POINTOPOINT, SIOCGIFDSTADDR, made->dstaddr},
                {IFI_NETMASK, 0, SIOCGIFNETMASK, made->netmask}};
    for (const auto &part : more) {
        const bool is_asked = (flags & part.wanted) && (entry_flags & part.needs) == part.needs;
        if (is_asked && !fetch(sockfd, part.request, entry, part.out))
            return nullptr;
    }
    return made;
}

bool is_taken(const ifreq &entry, in_addr_t bound, int flags)
{
    if (entry.ifr_addr.sa_family != AF_INET)
        return false;
    if (bound != INADDR_ANY && address(&entry.ifr_addr) != bound)
        return false;
    return (flags & IFI_ALIASES) || !memchr(entry.ifr_name, ':', strnlen(entry.ifr_name, IFNAMSIZ));
}

} // namespace

unique_ifi get_ifi_info(int sockfd, int flags)
{
    ipv4_endpoint own;
    socklen_t len = own.size();
    if (getsockname(sockfd, own.get(), &len) < 0)
        return nullptr;
    if (own.in.sin_family != AF_INET)
        own = {};

    const interface_table table = read_interfaces(sockfd);
    if (table.length < 0)
        log_failed(LOG_HERE);
    ifi *list = nullptr;
    ifi **end = &list;
    for (int i = 0; i < table.entries(); ++i) {
        const ifreq entry = table.entry(i);
        ifreq asked = entry;
        if (!is_taken(entry, own.in.sin_addr.s_addr, flags) || ioctl(sockfd, SIOCGIFFLAGS, &asked) < 0)
            continue;
        const bool is_hidden = (asked.ifr_flags & IFF_LOOPBACK) && !(flags & IFI_LOOPBACK);
        if (!(asked.ifr_flags & IFF_UP) || is_hidden)
            continue;
        *end = new_ifi(sockfd, entry, asked.ifr_flags, own.in.sin_port, flags).release();
        if (!*end)
            break;
        end = &(*end)->next;
    }
    return unique_ifi(list);
}

void free_ifi_info(ifi *list)
{
    while (list) {
        ifi *next = list->next;
        free_record(list);
        list = next;
    }
}

void print_ifi_info(const ifi *record)
{
    constexpr struct {
        unsigned flag;
        const char *text;
    } words[] = {{IFF_UP, "UP "},
                 {IFF_BROADCAST, "BCAST "},
                 {IFF_MULTICAST, "MCAST "},
                 {IFF_LOOPBACK, "LOOP "},
                 {IFF_POINTOPOINT, "P2P "}};
    printf("%s: < ", record->name);
    for (const auto &word : words) {
        if (record->flags & word.flag)
            printf("%s", word.text);
    }
    printf(">\n");
    const struct {
        const char *text;
        const unique_endpoint &addr;
    } lines[] = {{"IP addr", record->addr},
                 {"Broadcast addr", record->broadaddr},
                 {"Destination addr", record->dstaddr},
                 {"Subnet mask", record->netmask}};
    for (const auto &line : lines) {
        if (line.addr)
            printf("\t%s: %s\n", line.text, sockaddr_ntop(line.addr->get(), line.addr->size()));
    }
}

int getifaddr(const char *name, sockaddr *addr, socklen_t *len)
{
    const unique_fd packets(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!packets) {
        log_failed(LOG_HERE);
        return -1;
    }
    ifreq request = {};
    std::string_view(name).copy(request.ifr_name, sizeof request.ifr_name);
    if (ioctl(packets.get(), SIOCGIFADDR, &request) < 0) {
        log_trace(LOG_HERE, "Bad device name: %s (%m)", name);
        return -1;
    }
    const int copied = sockaddr_copy(addr, *len, &request.ifr_addr, sizeof(sockaddr_in));
    if (copied < 0) {
        log_failed(LOG_HERE);
        return -1;
    }
    *len = static_cast<socklen_t>(copied);
    return 0;
}

namespace {

using octets = std::array<uint8_t, sizeof(in_addr)>;

octets octets_of(const sockaddr *addr)
{
    octets result;
    memcpy(result.data(), &as_ipv4(addr).sin_addr, result.size());
    return result;
}

bool is_private(const octets &addr)
{
    return addr[0] == 127 || addr[0] == 10 || (addr[0] == 192 && addr[1] == 168);
}

} // namespace

int ifi_dest_match(const ifi *record, const sockaddr *dest)
{
    const sockaddr *addr = record->addr->get();
    if (addr->sa_family != dest->sa_family) {
        const char *text = sockaddr_ntop(addr, ipv4_endpoint::size());
        log_trace(LOG_HERE, "matching interface: %s(%d) not the same family(%d)\n", text ? text : "",
                  addr->sa_family, dest->sa_family);
        return -1;
    }
    if (dest->sa_family != AF_INET)
        return 0;
    const uint32_t differing = address(addr) ^ address(dest);
    if (record->netmask && (differing & address(record->netmask->get())) == 0)
        return same_network;
    const octets own = octets_of(addr), other = octets_of(dest);
    size_t equal = 0;
    while (equal < leading_octets && own[equal] == other[equal])
        ++equal;
    return static_cast<int>(equal) + (is_private(own) || is_private(other) ? 0 : both_public);
}

ssize_t broadcast(int sockfd, const void *buf, size_t len, int flags, int port)
{
    const int on = 1;
    if (setsockopt(sockfd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    const unique_ifi list = get_ifi_info(sockfd, IFI_BROADCAST);
    if (!list) {
        log_failed(LOG_HERE);
        return -1;
    }
    ssize_t sent = -1;
    for (const ifi *at = list.get(); at; at = at->next) {
        if (!at->broadaddr)
            continue;
        at->broadaddr->in.sin_port = htons(static_cast<uint16_t>(port));
        sent = sendto(sockfd, buf, len, flags, at->broadaddr->get(), at->broadaddr->size());
        if (sent < 0) {
            log_syserror(LOG_HERE);
            break;
        }
    }
    return sent;
}

int poll_fd(int fd, short events, int timeout)
{
    pollfd wait = {fd, events, 0};
    const int ready = poll(&wait, 1, timeout);
    return ready < 1 ? ready : wait.revents;
}
