#include "net/interfaces.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "net/sockaddr.h"

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

struct list_deleter {
    void operator()(ifi *list) const { free_ifi_info(list); }
};
using unique_ifi = std::unique_ptr<ifi, list_deleter>;

struct interface_table {
    std::unique_ptr<char, free_deleter> bytes;
    int length = -1; // -1: not to be had

    [[nodiscard]] int entries() const { return length / static_cast<int>(sizeof(ifreq)); }
    [[nodiscard]] ifreq entry(int i) const
    {
        ifreq copy;
        memcpy(&copy, bytes.get() + static_cast<size_t>(i) * sizeof copy, sizeof copy);
        return copy;
    }
};

// The kernel cuts what does not fit and does not say so: the table is whole when more room makes it no
// longer.
interface_table read_interfaces(int sockfd)
{
    interface_table table;
    for (int size = first_buffer_size;; size += buffer_growth) {
        std::unique_ptr<char, free_deleter> bytes(static_cast<char *>(malloc(static_cast<size_t>(size))));
        ifconf request = {};
        request.ifc_len = size;
        request.ifc_buf = bytes.get();
        const bool has_read = bytes && ioctl(sockfd, SIOCGIFCONF, &request) == 0;
        if (!has_read && (!bytes || errno != EINVAL || size != first_buffer_size)) {
            log_failed(LOG_AS("get_ifi_info"));
            return {};
        }
        const bool is_whole = has_read && request.ifc_len == table.length;
        if (has_read)
            table = {std::move(bytes), request.ifc_len};
        if (is_whole)
            return table;
    }
}

const sockaddr_in &ipv4(const sockaddr *addr)
{
    return *reinterpret_cast<const sockaddr_in *>(addr);
}

uint32_t address(const sockaddr *addr)
{
    return ipv4(addr).sin_addr.s_addr;
}

sockaddr *heap_copy(const sockaddr *addr)
{
    auto *copy = reinterpret_cast<sockaddr *>(new_record<sockaddr_in>());
    if (copy)
        sockaddr_copy(copy, addr);
    return copy;
}

// An address that an ioctl gives for the entry, which tells it by name and address from the interface's other
// ones. Zero is the kernel's word for none. False when memory is out.
bool fetch(int sockfd, unsigned long request, ifreq entry, sockaddr *&out)
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
    reinterpret_cast<sockaddr_in *>(made->addr)->sin_port = port;
    const struct {
        int wanted, needs;
        unsigned long request;
        sockaddr *&out;
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

ifi *get_ifi_info(int sockfd, int flags)
{
    sockaddr_storage storage = {};
    socklen_t len = sizeof storage;
    if (getsockname(sockfd, reinterpret_cast<sockaddr *>(&storage), &len) < 0)
        return nullptr;
    sockaddr_in own = {};
    sockaddr_copy(reinterpret_cast<sockaddr *>(&own), reinterpret_cast<sockaddr *>(&storage));

    const interface_table table = read_interfaces(sockfd);
    ifi *list = nullptr;
    ifi **end = &list;
    for (int i = 0; i < table.entries(); ++i) {
        const ifreq entry = table.entry(i);
        ifreq asked = entry;
        if (!is_taken(entry, own.sin_addr.s_addr, flags) || ioctl(sockfd, SIOCGIFFLAGS, &asked) < 0)
            continue;
        const bool is_hidden = (asked.ifr_flags & IFF_LOOPBACK) && !(flags & IFI_LOOPBACK);
        if (!(asked.ifr_flags & IFF_UP) || is_hidden)
            continue;
        *end = new_ifi(sockfd, entry, asked.ifr_flags, own.sin_port, flags).release();
        if (!*end)
            break;
        end = &(*end)->next;
    }
    return list;
}

void free_ifi_info(ifi *list)
{
    while (list) {
        ifi *next = list->next;
        for (sockaddr *addr : {list->addr, list->netmask, list->broadaddr, list->dstaddr})
            free(addr);
        free(list);
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
        const sockaddr *addr;
    } lines[] = {{"IP addr", record->addr},
                 {"Broadcast addr", record->broadaddr},
                 {"Destination addr", record->dstaddr},
                 {"Subnet mask", record->netmask}};
    for (const auto &line : lines) {
        if (line.addr)
            printf("\t%s: %s\n", line.text, sockaddr_ntop(line.addr, sizeof(sockaddr_in)));
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
    memcpy(result.data(), &ipv4(addr).sin_addr, result.size());
    return result;
}

bool is_private(const octets &addr)
{
    return addr[0] == 127 || addr[0] == 10 || (addr[0] == 192 && addr[1] == 168);
}

} // namespace

int ifi_dest_match(const ifi *record, const sockaddr *dest)
{
    if (record->addr->sa_family != dest->sa_family) {
        const char *text = sockaddr_ntop(record->addr, sizeof(sockaddr_in));
        log_trace(LOG_HERE, "matching interface: %s(%d) not the same family(%d)\n", text ? text : "",
                  record->addr->sa_family, dest->sa_family);
        return -1;
    }
    if (dest->sa_family != AF_INET)
        return 0;
    const uint32_t differing = address(record->addr) ^ address(dest);
    if (record->netmask && (differing & address(record->netmask)) == 0)
        return same_network;
    const octets own = octets_of(record->addr), other = octets_of(dest);
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
    const unique_ifi list(get_ifi_info(sockfd, IFI_BROADCAST));
    if (!list) {
        log_failed(LOG_HERE);
        return -1;
    }
    ssize_t sent = -1;
    for (const ifi *at = list.get(); at; at = at->next) {
        if (!at->broadaddr)
            continue;
        sockaddr_set_port(at->broadaddr, port);
        sent = sendto(sockfd, buf, len, flags, at->broadaddr, sizeof(sockaddr_in));
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
