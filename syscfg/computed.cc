#include "syscfg/computed.h"

#include "app/file.h"
#include "app/glob.h"
#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"
#include "net/name_servers.h"
#include "net/route_table.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr char resolver_file[] = "/etc/resolv.conf";
constexpr char no_version[] = "00";

int put(std::span<char> output, std::string_view text)
{
    copy_text(output, text);
    return 0;
}

// The kernel prints a gateway as one number whose lowest byte is the first octet.
int print_gateway(std::span<char> output, unsigned gateway)
{
    snprintf(output.data(), output.size(), "%d.%d.%d.%d", gateway & 0xFF, gateway >> 8 & 0xFF,
             gateway >> 16 & 0xFF, gateway >> 24);
    return 0;
}

int default_route(std::string_view, std::span<char> output)
{
    if (output.size() < INET_ADDRSTRLEN)
        return -1;
    route_table table;
    if (!table.file) {
        print_error("open %s: %m\n", table.path);
        return put(output, "0.0.0.0");
    }
    char line[128];
    while (table.next(line)) {
        route entry;
        if (parse_route(line, entry) && entry.is_complete && entry.destination == 0)
            return print_gateway(output, entry.gateway);
    }
    return -1;
}

// The text after "=" in the first line of a file, which is cut to 28 characters; "00" without one.
void read_version(const char *path, std::span<char> out)
{
    char line[29] = "";
    const unique_file file = open_regular_file(path);
    if (file && !fgets(line, sizeof line, file.get()))
        line[0] = '\0';
    std::string_view text = trim_end(line);
    const bool has_value = text.find('=') != text.npos;
    cut_until(text, '=');
    copy_text(out, has_value ? text : no_version);
}

int version(std::string_view, std::span<char> output)
{
    char release[32];
    char patch[32];
    read_version("/usr/etc/VERSION", release);
    read_version("/usr/etc/PATCH", patch);
    snprintf(output.data(), output.size(), "%s.%s", release, patch);
    return 0;
}

int local_time(std::string_view, std::span<char> output)
{
    const time_t now = time(nullptr);
    tm broken_down;
    if (!localtime_r(&now, &broken_down))
        return -1;
    return strftime(output.data(), output.size(), "%Y-%m-%d %H:%M:%S", &broken_down) > 0 ? 0 : -1;
}

// "dns" and "dns1" ask for the first server. "dns_ip" asks for number 0, which does not exist.
long name_server_number(std::string_view name)
{
    constexpr std::string_view prefix = "dns";
    if (name == prefix)
        return 1;
    char number[24];
    copy_text(number, name.substr(prefix.size()));
    return strtol(number, nullptr, 10);
}

int name_server(std::string_view name, std::span<char> output)
{
    const long wanted = name_server_number(name);
    const unique_file file = open_regular_file(resolver_file);
    if (!file)
        return -1;
    char line[255];
    std::string_view address;
    for (long number = 0; next_name_server(file.get(), line, address);) {
        if (++number == wanted)
            return put(output, span_of(address, [](char c) { return !is_space(c); }));
    }
    return -1;
}

// One of the addresses of an interface. The name is the interface's and the suffix; a suffix alone names the
// interface itself.
template <unsigned long Request, size_t SuffixLength>
int interface_address(std::string_view name, std::span<char> output)
{
    if (name.size() > SuffixLength)
        name.remove_suffix(SuffixLength);
    ifreq request = {};
    if (!copy_text(request.ifr_name, name))
        return -1;
    const unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock || ioctl(sock.get(), Request, &request) < 0)
        return -1;
    const sockaddr &address = request.ifr_addr;
    const void *bytes = nullptr;
    if (address.sa_family == AF_INET)
        bytes = &reinterpret_cast<const sockaddr_in *>(&address)->sin_addr;
    return bytes && inet_ntop(AF_INET, bytes, output.data(), static_cast<socklen_t>(output.size())) ? 0 : -1;
}

constexpr struct {
    std::string_view pattern;
    int (*value)(std::string_view name, std::span<char> output);
} computed_vars[] = {
    {"default_route", default_route},
    {"version", version},
    {"time", local_time},
    {"dns*", name_server},
    {"*_ip", interface_address<SIOCGIFADDR, 3>},
    {"*_netmask", interface_address<SIOCGIFNETMASK, 8>},
    {"*_broadcast", interface_address<SIOCGIFBRDADDR, 10>},
};

} // namespace

int get_computed(std::string_view name, std::span<char> output)
{
    for (const auto &var : computed_vars) {
        if (glob_match(var.pattern, name))
            return var.value(name, output);
    }
    return -1;
}
