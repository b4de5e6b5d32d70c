#include "source.h"

#include <fmt/format.h>

#include "hardware/context.h"
#include "hardware/nand_image_access.h"
#include "hardware/vx_device_data.h"

namespace vxtool {

std::set<std::size_t> ParseBlockList(const std::string& option, const std::string& text)
{
    std::set<std::size_t> blocks;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const std::string item = text.substr(start, comma == std::string::npos ? comma : comma - start);
        blocks.insert(static_cast<std::size_t>(ParseNumber(option, item)));
        if (comma == std::string::npos)
            return blocks;
        start = comma + 1;
    }
}

SourceOptions TakeSourceOptions(Arguments& args, const std::string& default_mtd, const std::string& prefix)
{
    const auto name = [&prefix](const char* option) { return "--" + prefix + option; };
    SourceOptions options;
    std::string mtd, image, erase_size, write_size, bad_blocks;
    const bool have_mtd = TakeOption(args, name("mtd"), mtd);
    const bool have_image = TakeOption(args, name("image"), image);
    const bool have_erase_size = TakeOption(args, name("erase-size"), erase_size);
    const bool have_write_size = TakeOption(args, name("write-size"), write_size);
    const bool have_bad_blocks = TakeOption(args, name("bad-blocks"), bad_blocks);
    options.given = have_mtd || have_image || have_erase_size || have_write_size || have_bad_blocks;

    if (have_mtd && have_image)
        throw UsageError(fmt::format("{} and {} exclude each other", name("mtd"), name("image")));
    if (!have_image) {
        for (const auto& [given, option] : {std::pair{have_erase_size, "erase-size"},
                                            std::pair{have_write_size, "write-size"},
                                            std::pair{have_bad_blocks, "bad-blocks"}}) {
            if (given)
                throw UsageError(fmt::format("{} needs {}", name(option), name("image")));
        }
        options.mtd = have_mtd ? mtd : default_mtd;
        if (options.mtd.empty())
            throw UsageError(fmt::format("{} needs a partition name", name("mtd")));
        return options;
    }

    if (image.empty())
        throw UsageError(fmt::format("{} needs a file name", name("image")));
    if (!have_erase_size)
        throw UsageError(fmt::format("{} needs {}", name("image"), name("erase-size")));
    options.image = image;
    options.erase_size = static_cast<std::size_t>(ParseNumber(name("erase-size"), erase_size));
    if (options.erase_size == 0)
        throw UsageError(fmt::format("{} must not be 0", name("erase-size")));
    if (have_write_size)
        options.write_size = static_cast<std::size_t>(ParseNumber(name("write-size"), write_size));
    if (options.write_size == 0 || options.erase_size % options.write_size != 0)
        throw UsageError(fmt::format("{} {} does not divide {} {}", name("write-size"), options.write_size,
                                     name("erase-size"), options.erase_size));
    // The device-data reader works in the player's 2048-byte pages.
    if (default_mtd == DEVICE_DATA_PARTITION && options.write_size != VeltrixDeviceDataStorageNand::BLOCK_SIZE)
        throw UsageError(fmt::format("{} {}: the device-data partition has pages of {} bytes", name("write-size"),
                                     options.write_size, VeltrixDeviceDataStorageNand::BLOCK_SIZE));
    if (have_bad_blocks)
        options.bad_blocks = ParseBlockList(name("bad-blocks"), bad_blocks);
    return options;
}

NandAccess::Pointer OpenSource(const SourceOptions& options)
{
    if (!options.image.empty())
        return NandImageAccess::Create(options.image, options.erase_size, options.write_size,
                                       options.bad_blocks);
    return Context::GetInstance()->OpenPartition(options.mtd);
}

NandAccess::Pointer OpenSource(Arguments& args, const std::string& default_mtd)
{
    return OpenSource(TakeSourceOptions(args, default_mtd));
}

} // namespace vxtool
