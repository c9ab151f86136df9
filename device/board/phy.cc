#include "device/board/board.h"
#include "device/board/files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>

namespace {

constexpr unsigned long private_mii_read = SIOCDEVPRIVATE + 1;
constexpr uint16_t nothing = 0xFFFF; // what an undriven bus reads
constexpr char default_phys[] = "1 0x7809 0x0022 0x1619 0x0101";
constexpr size_t most_text = 2048; // 31 PHYs

struct phy {
    uint16_t address;
    uint16_t read[MII_ADVERTISE]; // registers 1 to 4
};

struct interface {
    char name[IFNAMSIZ + 1];

    // Reads a setting of the PHY into the buffer; empty if missing.
    std::string_view setting(const char *what, std::span<char> buffer) const
    {
        char file[IFNAMSIZ + 16];
        snprintf(file, sizeof file, "%s/%s", name, what);
        return board_setting(file, buffer);
    }
};

bool next_number(const char *&text, uint16_t &number)
{
    char *end;
    number = static_cast<uint16_t>(strtoul(text, &end, 0));
    const bool found = end != text;
    text = end;
    return found;
}

bool next_phy(const char *&text, phy &next)
{
    if (!next_number(text, next.address))
        return false;
    for (uint16_t &value : next.read) {
        if (!next_number(text, value))
            return false;
    }
    return true;
}

// The PHY at that address, or the first one for null.
bool find_phy(const interface &of, const uint16_t *address, phy &found)
{
    char text[most_text];
    const char *at = text;
    of.setting("phys", text);
    while (next_phy(at, found)) {
        if (!address || found.address == *address)
            return true;
    }
    return false;
}

bool is_failing(const interface &of, uint16_t reg)
{
    char text[128];
    if (of.setting("failing", text) == "all")
        return true;
    uint16_t failing;
    for (const char *at = text; next_number(at, failing);) {
        if (failing == reg)
            return true;
    }
    return false;
}

uint16_t value_of(const interface &of, const phy &at, uint16_t reg)
{
    if (reg < MII_BMSR || reg > MII_ADVERTISE)
        return 0;
    const uint16_t value = at.read[reg - MII_BMSR];
    char text[16];
    const auto link = of.setting("link", text);
    if (reg != MII_BMSR || (link != "up" && link != "down"))
        return value;
    return static_cast<uint16_t>(link == "up" ? value | BMSR_LSTATUS : value & ~BMSR_LSTATUS);
}

bool is_offered(const interface &of, unsigned long request)
{
    char text[16];
    const auto mode = of.setting("mii", text);
    if (mode == "registers")
        return request == SIOCGMIIREG;
    return mode == (request == private_mii_read ? "private" : "standard");
}

// Drivers differ: the private request reads any address on the bus, and so does the standard request for
// registers alone; with both standard requests a driver knows only its own PHYs.
int answer(const interface &of, unsigned long request, mii_ioctl_data &words)
{
    phy found = {};
    if (request == SIOCGMIIPHY) {
        if (!find_phy(of, nullptr, found))
            return ENODEV;
        words.phy_id = found.address;
        return 0;
    }
    if (is_failing(of, words.reg_num))
        return EIO;
    if (find_phy(of, &words.phy_id, found))
        words.val_out = value_of(of, found, words.reg_num);
    else if (request == SIOCGMIIREG && is_offered(of, SIOCGMIIPHY))
        return ENODEV;
    else
        words.val_out = nothing;
    return 0;
}

} // namespace

bool board_is_mii(unsigned long request)
{
    return request == private_mii_read || request == SIOCGMIIPHY || request == SIOCGMIIREG;
}

int board_mii(unsigned long request, void *interface_request)
{
    auto *with = static_cast<ifreq *>(interface_request);
    interface of = {};
    memcpy(of.name, with->ifr_name, IFNAMSIZ);
    if (strchr(of.name, '/') || of.name[0] == '.' || !of.name[0] || !board_has_directory(of.name))
        return BOARD_NOT_MINE;
    mii_ioctl_data words;
    memcpy(&words, &with->ifr_ifru, sizeof words);
    const int error = is_offered(of, request) ? answer(of, request, words) : EOPNOTSUPP;
    memcpy(&with->ifr_ifru, &words, sizeof words);
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

int board_add_interface(const char *name)
{
    if (board_make_directory(name) < 0)
        return -1;
    const struct {
        const char *file, *text;
    } settings[] = {{"link", "up"}, {"mii", "private"}, {"phys", default_phys}};
    for (const auto &setting : settings) {
        char file[IFNAMSIZ + 16];
        snprintf(file, sizeof file, "%.15s/%s", name, setting.file);
        if (board_write_file(file, setting.text, O_EXCL) < 0)
            return -1;
    }
    return 0;
}
