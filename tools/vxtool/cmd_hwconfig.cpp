// vxtool hwconfig: what this unit's hardware configuration derives to.
#include <cstdint>

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
    for (const Capability& capability : CAPABILITIES) {
        if (bits & capability.mask)
            fmt::print("bit 0x{:x} {}\n", bits & capability.mask, capability.name);
    }
    return 0;
}

const CommandRegistrar reg({"hwconfig", USAGE,
                            "derive the unit's hardware configuration, live or from images", &Run});

} // namespace
} // namespace vxtool
