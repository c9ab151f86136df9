// netdiag: the state of the device's network: interfaces, the route to an address, the device's address as
// seen from outside. It asks the kernel and the network, not the daemon; the library's log lines go to
// standard error.
#include "net/gateway.h"
#include "net/interfaces.h"
#include "net/sockaddr.h"
#include "tools/json.h"
#include "tools/tool.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <span>

namespace {

constexpr char usage[] =
    "usage: netdiag interfaces                 the IPv4 addresses of the interfaces that are up\n"
    "       netdiag route ADDRESS              the interface towards it, and that interface's address\n"
    "       netdiag outside [ADDRESS]          our address as seen from outside: by echo, else by trace\n"
    "       netdiag outside echo [SERVER]      by asking an echo server, ADDRESS or ADDRESS:PORT\n"
    "       netdiag outside trace ADDRESS      by asking the routers on the way to it; needs root\n"
    "options: --json      print a JSON object or array instead of lines\n"
    "         -q          write nothing to standard error\n"
    "Exit status: 0 done, 1 no route or not found, 2 usage, 5 timed out.\n";

constexpr int same_network = 5; // of ifi_dest_match

using words = std::span<char *const>;

bool wants_json;

// ---- addresses ----

struct address {
    sockaddr_in in;
    [[nodiscard]] const sockaddr *any() const { return reinterpret_cast<const sockaddr *>(&in); }
};

constexpr socklen_t address_length = sizeof(sockaddr_in);

// Only our own spelling is accepted: the parser would ignore text after an address and misread octal numbers.
address read_address(const char *text, bool may_have_port)
{
    address result = {};
    auto *any = reinterpret_cast<sockaddr *>(&result.in);
    if (sockaddr_parse(text, any, &address_length) < 0 ||
        strcmp(sockaddr_ntop(any, address_length), text) != 0 || (!may_have_port && result.in.sin_port != 0))
        leave(code_usage, "\"%s\" is no IPv4 address", text);
    return result;
}

int udp_socket()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        leave(code_no, "no socket: %m");
    return fd;
}

// ---- output ----

void print_member(const char *before, const char *name, const char *text)
{
    printf("%s\"%s\": ", before, name);
    if (text)
        write_json_string(stdout, text);
    else
        printf("null");
}

void print_member(const char *before, const char *name, const unique_endpoint &addr)
{
    print_member(before, name, addr ? sockaddr_ntop(addr->get(), addr->size()) : nullptr);
}

void print_json(const ifi *record)
{
    constexpr struct {
        unsigned flag;
        const char *name;
    } flags[] = {{IFF_BROADCAST, "broadcast"},
                 {IFF_MULTICAST, "multicast"},
                 {IFF_LOOPBACK, "loopback"},
                 {IFF_POINTOPOINT, "pointopoint"}};
    print_member("{", "name", record->name);
    print_member(", ", "address", record->addr);
    print_member(", ", "netmask", record->netmask);
    print_member(", ", "broadcast", record->broadaddr);
    print_member(", ", "peer", record->dstaddr);
    printf(", \"flags\": [\"up\"");
    for (const auto &known : flags) {
        if (record->flags & known.flag)
            printf(", \"%s\"", known.name);
    }
    printf("]}");
}

// ---- verbs ----

void interfaces(words)
{
    const int fd = udp_socket();
    errno = 0;
    const unique_ifi list =
        get_ifi_info(fd, IFI_ALIASES | IFI_LOOPBACK | IFI_BROADCAST | IFI_PEER | IFI_NETMASK);
    if (!list && errno != 0)
        leave(code_no, "the interfaces cannot be read: %m");
    const char *before = "[\n  ";
    for (const ifi *at = list.get(); at; at = at->next) {
        if (!wants_json) {
            print_ifi_info(at);
            continue;
        }
        printf("%s", before);
        print_json(at);
        before = ",\n  ";
    }
    if (wants_json)
        printf(list ? "\n]\n" : "[]\n");
}

// The routing table lists neither the device's own addresses nor the loopback network.
const ifi *find_own(const ifi *list, const sockaddr *dest)
{
    for (const ifi *at = list; at; at = at->next) {
        const ipv4_endpoint own(at->addr->in.sin_addr, 0);
        const bool is_inside = (at->flags & IFF_LOOPBACK) && ifi_dest_match(at, dest) == same_network;
        if (is_inside || sockaddr_cmp(own.get(), dest) == 0)
            return at;
    }
    return nullptr;
}

void print_route(const char *name, const ifi *from)
{
    const char *own = from ? sockaddr_ntop(from->addr->get(), address_length) : nullptr;
    if (!wants_json) {
        printf("%s %s\n", name, own ? own : "-");
        return;
    }
    print_member("{", "interface", name);
    print_member(", ", "address", own);
    printf("}\n");
}

void route_to(words operands)
{
    const address dest = read_address(operands[0], false);
    const int fd = udp_socket();
    const unique_ifi list = get_ifi_info(fd, IFI_ALIASES | IFI_LOOPBACK | IFI_NETMASK);
    if (const ifi *own = find_own(list.get(), dest.any()))
        return print_route(own->name, own);
    const char *name = findsaddr(dest.any());
    // A route may also reject its destinations.
    if (!name || strcmp(name, "*") == 0)
        leave(code_no, "no route to %s", operands[0]);
    print_route(name, get_route_ifaddr(fd, dest.any()).get());
}

void print_outside(const sockaddr_in *found)
{
    if (!found)
        leave(errno == ETIMEDOUT ? code_late : code_no, "the outside address is not to be had");
    const auto *addr = reinterpret_cast<const sockaddr *>(found);
    if (!wants_json) {
        printf("%s\n", sockaddr_ntop(addr, address_length));
        return;
    }
    const ipv4_endpoint without_port(found->sin_addr, 0);
    print_member("{", "address", sockaddr_ntop(without_port.get(), address_length));
    if (found->sin_port != 0)
        printf(", \"port\": %d", sockaddr_get_port(addr));
    printf("}\n");
}

void outside(words operands)
{
    const std::string_view way = operands.empty() ? "" : operands[0];
    const bool by_echo = way == "echo", by_trace = way == "trace";
    const words rest = operands.subspan(by_echo || by_trace ? 1 : 0);
    if (rest.size() > 1)
        leave_with_usage(usage, "outside: \"%s\" is neither echo nor trace", operands[0]);
    if (by_trace && rest.empty())
        leave_with_usage(usage, "outside trace: ADDRESS is missing");
    address dest = {};
    if (!rest.empty())
        dest = read_address(rest[0], by_echo);
    errno = 0;
    if (by_trace)
        return print_outside(trace_gateway_addr(dest.any(), address_length));
    if (by_echo && !rest.empty())
        setenv("ECHOSVR_ADDR", rest[0], 1);
    const bool may_trace = !by_echo && !rest.empty();
    print_outside((may_trace ? get_gateway_addr : echo_gateway_addr)(dest.any(), address_length));
}

constexpr struct {
    std::string_view name;
    void (*run)(words operands);
    size_t least, most; // operands
} verbs[] = {{"interfaces", interfaces, 0, 0}, {"route", route_to, 1, 1}, {"outside", outside, 0, 2}};

} // namespace

int main(int argc, char **argv)
{
    constexpr option options[] = {{"json", no_argument, nullptr, 'j'},
                                  {"quiet", no_argument, nullptr, 'q'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {"version", no_argument, nullptr, 'V'},
                                  {}};
    for (int letter; (letter = getopt_long(argc, argv, "qhV", options, nullptr)) != -1;) {
        if (letter == 'j')
            wants_json = true;
        else
            take_common_option(letter, optarg, usage);
    }
    const words given(argv + optind, argv + argc);
    take_verb(verbs, given, usage).run(given.subspan(1));
    leave_done();
}
