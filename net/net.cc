#include "net/net.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "net/sockaddr.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <span>
#include <sys/random.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char log_module[] = "net";
constexpr int linger_seconds = 5;
constexpr int unix_backlog = 1;
constexpr int tcp_backlog = 8;
constexpr int min_random_port = 5000;
constexpr int max_random_port_tries = 100;
constexpr size_t ctlmsg_buffer_size = 4096;
constexpr size_t max_passed_fds = 253; // the kernel's own limit for one message

// The socket that a constructor sets up: the caller's, or a new one, closed unless it is released.
class configured_socket {
  public:
    configured_socket(int fd, int lowest_usable, int domain, int type, int protocol)
        : own_(fd < lowest_usable ? socket(domain, type | SOCK_CLOEXEC, protocol) : -1),
          fd_(fd < lowest_usable ? own_.get() : fd)
    {
    }
    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] bool is_own() const { return static_cast<bool>(own_); }
    explicit operator bool() const { return fd_ >= 0; }
    int release()
    {
        own_.release();
        return fd_;
    }

  private:
    unique_fd own_;
    int fd_;
};

configured_socket unix_socket(int fd, int type)
{
    return {fd, 0, AF_UNIX, type, 0};
}
configured_socket inet_socket(int fd, int type, int protocol)
{
    return {fd, 1, AF_INET, type, protocol};
}

struct unix_address {
    sockaddr_un addr;
    socklen_t len;
};

unix_address unix_path_address(std::string_view path, size_t max_length)
{
    unix_address result = {};
    path = path.substr(0, max_length);
    result.addr.sun_family = AF_UNIX;
    memcpy(result.addr.sun_path, path.data(), path.size());
    result.len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    return result;
}

const sockaddr *generic(const sockaddr_un &addr)
{
    return reinterpret_cast<const sockaddr *>(&addr);
}

bool reuse_address(int fd)
{
    const int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

bool set_linger(int fd)
{
    const linger value = {1, linger_seconds};
    return setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0;
}

// Other hosts of the group may hold the port too, so the socket takes the wildcard address.
bool join_group(int fd, const sockaddr_in &group)
{
    ipv4_endpoint any;
    any.in.sin_port = group.sin_port;
    ip_mreq request = {};
    request.imr_multiaddr = group.sin_addr;
    return bind(fd, any.get(), any.size()) == 0 &&
           setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0;
}

// The port is stored as drawn, so a little-endian board puts its bytes on the wire swapped: skip numbers that
// become a privileged port there.
bool bind_random_port(int fd, sockaddr *addr, socklen_t addrlen)
{
    seed_random();
    for (int tries = 0; tries < max_random_port_tries; ++tries) {
        long port = random() & 0xFFFF;
        if (port < min_random_port)
            port += min_random_port;
        as_ipv4(addr).sin_port = static_cast<in_port_t>(port);
        if (sockaddr_get_port(addr) < IPPORT_RESERVED)
            continue;
        if (bind(fd, addr, addrlen) == 0)
            return true;
        if (errno != EINVAL)
            return false;
    }
    return false;
}

bool udp_bind_address(int fd, sockaddr *addr, socklen_t addrlen)
{
    if (sockaddr_is_multicast(addr, addrlen) == 1)
        return join_group(fd, as_ipv4(addr));
    if (as_ipv4(addr).sin_port != 0)
        return bind(fd, addr, addrlen) == 0;
    return bind_random_port(fd, addr, addrlen);
}

} // namespace

void seed_random()
{
    static bool seeded;
    unsigned seed;
    if (seeded || getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed)
        return;
    srandom(seed);
    srand(seed); // a generator of its own in some C libraries
    seeded = true;
}

int unix_datagram_listen(int fd, const char *path)
{
    configured_socket sock = unix_socket(fd, SOCK_DGRAM);
    const unix_address address = unix_path_address(path, sizeof(sockaddr_un::sun_path));
    char terminated[sizeof(sockaddr_un::sun_path) + 1]; // sun_path may be filled to its last byte
    copy_text(terminated, path);
    if (sock)
        unlink(terminated);
    if (!sock || bind(sock.fd(), generic(address.addr), address.len) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return sock.release();
}

int unix_listen(int fd, const char *path)
{
    configured_socket sock = unix_socket(fd, SOCK_STREAM);
    const unix_address address = unix_path_address(path, sizeof(sockaddr_un::sun_path) - 1);
    if (sock)
        unlink(address.addr.sun_path);
    if (!sock || bind(sock.fd(), generic(address.addr), address.len) < 0 ||
        listen(sock.fd(), unix_backlog) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return sock.release();
}

int unix_connect(int fd, const char *path)
{
    configured_socket sock = unix_socket(fd, SOCK_STREAM);
    const unix_address address = unix_path_address(path, sizeof(sockaddr_un::sun_path) - 1);
    if (!sock || connect(sock.fd(), generic(address.addr), address.len) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return sock.release();
}

int tcp_bind(int fd, const sockaddr *addr, socklen_t addrlen)
{
    if (!is_valid_addr(addr, addrlen))
        return -1;
    configured_socket sock = inet_socket(fd, SOCK_STREAM, IPPROTO_TCP);
    if (!sock || !reuse_address(sock.fd()) || bind(sock.fd(), addr, addrlen) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return sock.release();
}

int tcp_listen(int fd, const sockaddr *addr, socklen_t addrlen)
{
    const int bound = tcp_bind(fd, addr, addrlen);
    if (bound < 0)
        return -1;
    unique_fd own(fd < 1 ? bound : -1);
    if (!set_linger(bound) || listen(bound, tcp_backlog) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    own.release();
    return bound;
}

int tcp_connect(int fd, const sockaddr *addr, socklen_t addrlen)
{
    if (!is_valid_addr(addr, addrlen))
        return -1;
    configured_socket sock = inet_socket(fd, SOCK_STREAM, IPPROTO_TCP);
    if (!sock || !set_linger(sock.fd()) || connect(sock.fd(), addr, addrlen) < 0) {
        log_syserror(LOG_HERE);
        if (sock.is_own())
            log_trace(LOG_HERE, "close %d", sock.fd());
        return -1;
    }
    return sock.release();
}

int udp_bind(int fd, sockaddr *addr, socklen_t addrlen)
{
    if (!is_valid_addr(addr, addrlen)) {
        log_failed(LOG_HERE);
        return -1;
    }
    configured_socket sock = inet_socket(fd, SOCK_DGRAM, 0);
    if (!sock || !reuse_address(sock.fd()) || !udp_bind_address(sock.fd(), addr, addrlen)) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return sock.release();
}

int udp_connect(int fd, const sockaddr *addr, socklen_t addrlen)
{
    if (!is_valid_addr(addr, addrlen))
        return -1;
    configured_socket sock = inet_socket(fd, SOCK_DGRAM, IPPROTO_UDP);
    if (!sock || connect(sock.fd(), addr, sizeof(sockaddr_in)) < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    return sock.release();
}

ssize_t send_ctlmsg(int fd, const ctlmsg *message)
{
    char name[sizeof message->name];
    copy_text(name, {message->name, strnlen(message->name, sizeof message->name)});
    iovec pieces[] = {{name, strlen(name) + 1}, {message->data, message->datalen}};
    msghdr header = {};
    header.msg_iov = pieces;
    header.msg_iovlen = std::size(pieces);

    alignas(cmsghdr) char control[CMSG_SPACE(max_passed_fds * sizeof(int))] = {};
    if (message->nfds > max_passed_fds) {
        errno = EINVAL;
        log_syserror(LOG_HERE);
        return -1;
    }
    if (message->nfds > 0) {
        const size_t bytes = message->nfds * sizeof(int);
        header.msg_control = control;
        header.msg_controllen = CMSG_SPACE(bytes);
        cmsghdr *passed = CMSG_FIRSTHDR(&header);
        passed->cmsg_level = SOL_SOCKET;
        passed->cmsg_type = SCM_RIGHTS;
        passed->cmsg_len = CMSG_LEN(bytes);
        memcpy(CMSG_DATA(passed), message->fds, bytes);
    }
    const ssize_t sent = sendmsg(fd, &header, 0);
    if (sent < 0)
        log_syserror(LOG_HERE);
    return sent;
}

namespace {

// Descriptors beyond the caller's room are closed, or they would leak.
void take_fds(msghdr &header, std::span<int> room)
{
    size_t taken = 0;
    for (cmsghdr *part = CMSG_FIRSTHDR(&header); part; part = CMSG_NXTHDR(&header, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t passed = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < passed; ++i) {
            int fd;
            memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
            unique_fd own(fd);
            if (taken < room.size())
                room[taken++] = own.release();
        }
    }
}

} // namespace

ssize_t recv_ctlmsg(int fd, ctlmsg *message)
{
    const std::span<int> room(message->fds, message->nfds);
    std::ranges::fill(room, -1);
    char buffer[ctlmsg_buffer_size];
    iovec piece = {buffer, sizeof buffer};
    alignas(cmsghdr) char control[CMSG_SPACE(max_passed_fds * sizeof(int))];
    msghdr header = {};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t received = recvmsg(fd, &header, MSG_CMSG_CLOEXEC);
    if (received < 0) {
        log_syserror(LOG_HERE);
        return -1;
    }
    const std::string_view bytes(buffer, static_cast<size_t>(received));
    const std::string_view name = bytes.substr(0, bytes.find('\0'));
    copy_text(message->name, name);
    const std::string_view data = bytes.substr(std::min(name.size() + 1, bytes.size()));
    message->datalen = static_cast<uint32_t>(std::min<size_t>(data.size(), message->datalen));
    if (message->datalen > 0)
        memcpy(message->data, data.data(), message->datalen);
    take_fds(header, room);
    return received;
}

int get_socket_error(int fd)
{
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : -1;
}

const char *get_host_name()
{
    static char name[255];
    if (gethostname(name, sizeof name) < 0)
        return nullptr;
    name[sizeof name - 1] = '\0';
    return name;
}

int get_host_addr(const char *name, sockaddr *addr, socklen_t addrlen)
{
    if (!name)
        name = get_host_name();
    if (!name || (addrlen != 0 && addrlen < sizeof(sockaddr_in)))
        return -1;
    const hostent *host = gethostbyname(name);
    if (!host || host->h_addrtype != AF_INET || !host->h_addr_list[0])
        return -1;
    sockaddr_in &ipv4 = as_ipv4(addr);
    ipv4.sin_family = AF_INET;
    memcpy(&ipv4.sin_addr, host->h_addr_list[0], sizeof ipv4.sin_addr);
    return 0;
}
