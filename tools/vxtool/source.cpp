#include "source.h"

#include <fmt/format.h>

#include "hardware/context.h"
#include "hardware/nand_image_access.h"

namespace vxtool {

std::set<std::size_t> ParseBlockList(const std::string& text)
{
    std::set<std::size_t> blocks;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const std::string item = text.substr(start, comma == std::string::npos ? comma : comma - start);
        blocks.insert(static_cast<std::size_t>(ParseNumber("--bad-blocks", item)));
        if (comma == std::string::npos)
            return blocks;
        start = comma + 1;
    }
}

SourceOptions TakeSourceOptions(Arguments& args, const std::string& default_mtd)
{
    SourceOptions options;
    std::string mtd, image, erase_size, write_size, bad_blocks;
    const bool have_mtd = TakeOption(args, "--mtd", mtd);
    const bool have_image = TakeOption(args, "--image", image);
    const bool have_erase_size = TakeOption(args, "--erase-size", erase_size);
    const bool have_write_size = TakeOption(args, "--write-size", write_size);
    const bool have_bad_blocks = TakeOption(args, "--bad-blocks", bad_blocks);

    if (have_mtd && have_image)
        throw UsageError("--mtd and --image exclude each other");
    if (!have_image) {
        for (const auto& [given, option] : {std::pair{have_erase_size, "--erase-size"},
                                            std::pair{have_write_size, "--write-size"},
                                            std::pair{have_bad_blocks, "--bad-blocks"}}) {
            if (given)
                throw UsageError(fmt::format("{} needs --image", option));
        }
        options.mtd = have_mtd ? mtd : default_mtd;
        if (options.mtd.empty())
            throw UsageError("--mtd needs a partition name");
        return options;
    }

    if (image.empty())
        throw UsageError("--image needs a file name");
    if (!have_erase_size)
        throw UsageError("--image needs --erase-size");
    options.image = image;
    options.erase_size = static_cast<std::size_t>(ParseNumber("--erase-size", erase_size));
    if (options.erase_size == 0)
        throw UsageError("--erase-size must not be 0");
    if (have_write_size)
        options.write_size = static_cast<std::size_t>(ParseNumber("--write-size", write_size));
    if (options.write_size == 0 || options.erase_size % options.write_size != 0)
        throw UsageError(fmt::format("--write-size {} does not divide --erase-size {}",
                                     options.write_size, options.erase_size));
    if (have_bad_blocks)
        options.bad_blocks = ParseBlockList(bad_blocks);
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
