// vxtool hwconfig: what this unit's hardware configuration derives to.
#include <cstdint>
#include <utility>

#include <fmt/format.h>

#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/hardware_config.h"
#include "hardware/vx_device_data.h"
#include "identity_options.h"
#include "tool_context.h"

namespace vxtool {
namespace {

constexpr const char* USAGE =
    "[--env-mtd NAME | --env-image FILE --env-erase-size BYTES ...] "
    "[--devdata-mtd NAME | --devdata-image FILE --devdata-erase-size BYTES ...] [--boardid FILE]";

// The named bits of the hardware bitfield.
constexpr std::pair<std::uint64_t, const char*> KNOWN_BITS[] = {
    {0x1, "hdmi"},
    {0x10, "ethernet"},
    {0x100, "gpio-connector"},
    {0x10000, "ir-blaster"},
    {0x30000000, "eac3"},
    {0x100000000, "srb-configured"},
    {0x1000000000, "internal-storage-only"},
    {0x2000000000, "no-packet-capture"},
    {0x4000000000, "no-vxn-cloud"},
    {0x8000000000, "vxear"},
    {0x10000000000, "no-lldp-reporting"},
    {0x20000000000, "no-usb-networking"},
    {0x80000000000, "blessings-applied"},
    {0x100000000000, "no-usb-storage"},
    {0xE00000000000, "hdmi-outputs"},
    {0x4000000000000, "clock-boost"},
    {0x8000000000000, "eth1"},
    {0x20000000000000, "dws"},
};

// Prints every field of the configuration, the bitfield and the names of
// its set bits; the library's own messages go to standard error.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    TakeSavedPlayer(args, {SAVED_BOARD_ID}, {SAVED_ENVIRONMENT, SAVED_DEVICE_DATA});
    ExpectNoMoreArguments(args);

    const HardwareConfig config;
    const std::uint64_t bits = config.GetHardwareBitfield();
    fmt::print("board-id: {}\nfamily: {}\nbolt-version: {}\nbootloader-version: {}\n"
               "secure-keys: {:d}\nsecure-boot: {:d}\nsecure-id: {}\nsoc: {}\n"
               "oem-id: {}\noem-model: {}\nsrb-valid: {:d}\nconfigured: {:d}\n"
               "hardware-bitfield: 0x{:x}\n",
               config.GetBoardId(), config.GetFamily(), config.GetBoltVersion(),
               config.GetBootloaderVersion(), config.GetSecureKeys(), config.GetSecureBoot(),
               config.GetSecureId(), config.GetSoc(), config.GetOemId(), config.GetModelName(),
               config.IsSrbValid(), config.IsConfigured(), bits);
    for (const auto& [mask, name] : KNOWN_BITS) {
        if (bits & mask)
            fmt::print("bit 0x{:x} {}\n", bits & mask, name);
    }
    return 0;
}

const CommandRegistrar reg({"hwconfig", USAGE,
                            "derive the unit's hardware configuration, live or from images", &Run});

} // namespace
} // namespace vxtool
