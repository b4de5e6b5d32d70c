// The vocabulary of the hardware capability bitfield: one row for every bit
// or group of bits that has a name, with the blessing that changes it.
// HardwareConfig's blessing handler, the blessings' device-bound rule,
// "vxtool hwconfig" and the tests all read this table, so a new boon is one
// row here (and one in the tests' own CAPABILITY_ORACLE).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct Capability {
    // The bit or bits of the hardware bitfield that the row names.
    std::uint64_t mask;
    // What "vxtool hwconfig" prints when any of those bits is set: what a set
    // bit means ("no-vxn-cloud": the service is forbidden).
    const char* name;
    // The blessing that changes the bitfield, compared ignoring ASCII case,
    // or nullptr when none does. It sets the bits of set, then clears those
    // of clear.
    const char* blessing = nullptr;
    std::uint64_t set = 0;
    std::uint64_t clear = 0;
    // Only a blessing bound to the device ("BLES") may grant it: a boon that
    // names it anywhere is refused whole, and the name is skipped in any
    // record that is not device-bound.
    bool device_bound_only = false;
};

// In bit order, the order "vxtool hwconfig" prints them in. Names that
// disable a piece of hardware clear the bits that announce it; names that
// disable a service set a bit that forbids it.
inline constexpr Capability CAPABILITIES[] = {
    {.mask = 0x1, .name = "hdmi", .blessing = "disable-hdmi", .clear = 0x1 | 0xE00000000000},
    {.mask = 0x10, .name = "ethernet"},
    {.mask = 0x100, .name = "gpio-connector", .blessing = "disable-gpio-connector", .clear = 0x100},
    {.mask = 0x10000, .name = "ir-blaster", .blessing = "disable-ir-blaster", .clear = 0x10000},
    {.mask = 0x30000000, .name = "eac3", .blessing = "eac3", .set = 0x30000000, .device_bound_only = true},
    {.mask = 0x100000000, .name = "srb-configured"},
    {.mask = 0x1000000000, .name = "internal-storage-only", .blessing = "internal-storage-only",
     .set = 0x1000000000},
    {.mask = 0x2000000000, .name = "no-packet-capture", .blessing = "disable-packet-capture", .set = 0x2000000000},
    {.mask = 0x4000000000, .name = "no-vxn-cloud", .blessing = "disable-vxn-cloud", .set = 0x4000000000},
    {.mask = 0x8000000000, .name = "vxear", .blessing = "vxear", .set = 0x8000000000},
    {.mask = 0x10000000000, .name = "no-lldp-reporting", .blessing = "disable-lldp-reporting",
     .set = 0x10000000000},
    {.mask = 0x20000000000, .name = "no-usb-networking", .blessing = "disable-usb-networking",
     .set = 0x20000000000},
    {.mask = 0x80000000000, .name = "blessings-applied"},
    {.mask = 0x100000000000, .name = "no-usb-storage", .blessing = "disable-usb-storage", .set = 0x100000000000},
    {.mask = 0xE00000000000, .name = "hdmi-outputs"},
    {.mask = 0x4000000000000, .name = "clock-boost", .blessing = "enable-clock-boost", .set = 0x4000000000000},
    {.mask = 0x8000000000000, .name = "eth1", .blessing = "disable-eth1-interface", .clear = 0x8000000000000},
    {.mask = 0x20000000000000, .name = "dws", .blessing = "enable-dws", .set = 0x20000000000000},
};

// The mask of the row called name; a name not in the table does not compile.
consteval std::uint64_t CapabilityMask(std::string_view name)
{
    for (const Capability& capability : CAPABILITIES) {
        if (name == capability.name)
            return capability.mask;
    }
    throw "no capability of that name";
}

// Bits the program itself sets or tests.
inline constexpr std::uint64_t HW_ETHERNET = CapabilityMask("ethernet");             // an Ethernet port
inline constexpr std::uint64_t HW_SRB_CONFIGURED = CapabilityMask("srb-configured"); // every signed record
inline constexpr std::uint64_t HW_NO_VXN_CLOUD = CapabilityMask("no-vxn-cloud");     // also OEM Norva
inline constexpr std::uint64_t HW_BLESSINGS_READ = CapabilityMask("blessings-applied"); // before the blessings

// The row whose blessing is name, compared whole and ignoring ASCII case (an
// embedded NUL is a byte like any other); nullptr when there is none.
const Capability* FindBlessing(std::string_view name);

// Whether name is the blessing of a device-bound-only row (FindBlessing).
bool IsDeviceBoundOnly(std::string_view name);

// The blessing name of the first device-bound-only row that text contains
// anywhere, ignoring ASCII case; nullptr when it names none.
const char* MentionedDeviceBoundOnlyBlessing(std::string_view text);

namespace capabilities_detail {

constexpr char Lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }

constexpr bool EqualIgnoringCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (Lower(a[i]) != Lower(b[i]))
            return false;
    }
    return true;
}

constexpr bool IsLowerCase(std::string_view text)
{
    for (const char c : text) {
        if (c != Lower(c))
            return false;
    }
    return true;
}

// What a row must be for the readers of the table to be right: rows name
// disjoint bits, no two blessings share a name, blessings are written in
// lower case, every bit a blessing changes has a name to be printed by, and
// a device-bound-only row has a blessing.
consteval bool TableIsConsistent()
{
    std::uint64_t named = 0;
    for (const Capability& row : CAPABILITIES) {
        if (row.mask == 0 || (named & row.mask) != 0)
            return false;
        named |= row.mask;
    }
    for (const Capability& row : CAPABILITIES) {
        if ((row.set | row.clear) & ~named)
            return false;
        if (row.blessing == nullptr ? (row.set | row.clear || row.device_bound_only) : !IsLowerCase(row.blessing))
            return false;
        for (const Capability& other : CAPABILITIES) {
            if (&other != &row && row.blessing && other.blessing && EqualIgnoringCase(row.blessing, other.blessing))
                return false;
        }
    }
    return true;
}
static_assert(TableIsConsistent(), "CAPABILITIES: overlapping bits, a repeated or upper-case blessing, or an "
                                   "unnamed bit");

} // namespace capabilities_detail
