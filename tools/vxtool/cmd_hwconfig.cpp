// vxtool hwconfig: what this unit's hardware configuration derives to.
#include <cstdint>

#include <fmt/format.h>

#include "command.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/hardware_config.h"
#include "hardware/vx_device_data.h"
#include "json_answer.h"
#include "source.h"

namespace vxtool {
namespace {

// Prints every field of the configuration, the bitfield and the names of
// its set bits; the library's own messages go to standard error.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {ENVIRONMENT, DEVICE_DATA});
    TakeSavedFiles(args, {SAVED_BOARD_ID});
    ExpectNoMoreArguments(args);
    partitions.Use();

    const HardwareConfig config;
    const std::uint64_t bits = config.GetHardwareBitfield();
    if (nlohmann::json* json = JsonAnswer()) {
        nlohmann::json names = nlohmann::json::array();
        for (const Capability& capability : CAPABILITIES) {
            if (bits & capability.mask)
                names.push_back(capability.name);
        }
        *json = {{"board_id", config.GetBoardId()},
                 {"family", config.GetFamily()},
                 {"bolt_version", config.GetBoltVersion()},
                 {"bootloader_version", config.GetBootloaderVersion()},
                 {"secure_keys", config.GetSecureKeys()},
                 {"secure_boot", config.GetSecureBoot()},
                 {"secure_id", config.GetSecureId()},
                 {"soc", config.GetSoc()},
                 {"oem_id", config.GetOemId()},
                 {"oem_model", config.GetModelName()},
                 {"srb_valid", config.IsSrbValid()},
                 {"configured", config.IsConfigured()},
                 {"hardware_bitfield", bits},
                 {"hardware_bitfield_hex", HexText(bits)},
                 {"capabilities", names}};
        return 0;
    }
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

const CommandRegistrar reg({"hwconfig", PartitionUsage(ENVIRONMENT) + " " + PartitionUsage(DEVICE_DATA) +
                                            " [--boardid FILE]",
                            "derive the unit's hardware configuration, live or from images", &Run, PARTITION_HELP,
                            true});

} // namespace
} // namespace vxtool
