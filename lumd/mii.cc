#include "lumd/mii.h"

#include "app/log.h"
#include "app/memory.h"
#include "app/text.h"

#include <cerrno>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr unsigned long private_mii_read = SIOCDEVPRIVATE + 1;
constexpr int raw_protocol = 255;
constexpr size_t name_size = 8;
constexpr uint16_t first_phy = 1, last_phy = 31;
constexpr uint16_t absent = 0xFFFF;
constexpr uint16_t ability_mask = 0x011F;
constexpr uint16_t ability_wanted = ADVERTISE_CSMA | ADVERTISE_100FULL;

int raw_socket = -1;

bool open_socket()
{
    if (raw_socket < 0)
        raw_socket = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, raw_protocol);
    return raw_socket >= 0;
}

bool request(unsigned long number, const char *device, mii_ioctl_data &words)
{
    ifreq interface = {};
    static_assert(sizeof words <= sizeof interface.ifr_ifru);
    copy_text({interface.ifr_name, name_size}, device);
    memcpy(&interface.ifr_ifru, &words, sizeof words);
    const bool done = ioctl(raw_socket, number, &interface) >= 0;
    memcpy(&words, &interface.ifr_ifru, sizeof words);
    return done;
}

bool is_unknown_request(int error)
{
    return error == EOPNOTSUPP || error == ENOTTY || error == EINVAL;
}

// The request of newer drivers. They have one PHY and fail for the address of any other, so its address is
// asked for first; a driver that does not know that request reads any address.
bool standard_request(const char *device, mii_ioctl_data &words)
{
    mii_ioctl_data known = {};
    const bool is_told = request(SIOCGMIIPHY, device, known);
    if (!is_told && !is_unknown_request(errno))
        return false;
    if (!is_told || known.phy_id == words.phy_id)
        return request(SIOCGMIIREG, device, words);
    words.val_out = absent;
    return true;
}

struct phy_registers {
    uint16_t status, advertised, id1, id2;
};

std::optional<phy_registers> read_phy(const char *device, uint16_t phy)
{
    phy_registers read;
    const bool done = mii_read(device, phy, MII_BMSR, &read.status) == 0 &&
                      mii_read(device, phy, MII_ADVERTISE, &read.advertised) == 0 &&
                      mii_read(device, phy, MII_PHYSID1, &read.id1) == 0 &&
                      mii_read(device, phy, MII_PHYSID2, &read.id2) == 0;
    return done ? std::optional(read) : std::nullopt;
}

bool is_usable(const phy_registers &phy)
{
    return phy.status != absent && phy.advertised != absent && phy.id1 != absent &&
           (phy.status & BMSR_100FULL) && (phy.advertised & ability_mask) == ability_wanted;
}

} // namespace

int mii_read(const char *device, uint16_t phy, uint16_t reg, uint16_t *value)
{
    if (!open_socket())
        return -1;
    mii_ioctl_data words = {phy, reg, 0, 0};
    if (!request(private_mii_read, device, words) &&
        !(is_unknown_request(errno) && standard_request(device, words)))
        return -2;
    *value = words.val_out;
    return 0;
}

link_status get_link_status(const char *device)
{
    for (uint16_t address = first_phy; address <= last_phy; ++address) {
        const auto phy = read_phy(device, address);
        if (!phy) {
            print_error("ioctl error\n");
            return LINK_UNKNOWN;
        }
        if (is_usable(*phy))
            return phy->status & BMSR_LSTATUS ? LINK_UP : LINK_DOWN;
    }
    return LINK_UNKNOWN;
}
