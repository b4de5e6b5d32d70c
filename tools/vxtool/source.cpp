#include "source.h"

#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "hardware/nand_image_access.h"
#include "tool_context.h"

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

std::string PartitionUsage(const Partition& partition, const char* alternative)
{
    return fmt::format("[{1}--{0}-mtd NAME | --{0}-image FILE ...]", partition.prefix,
                       alternative ? std::string(alternative) + " | " : "");
}

namespace {

// The options of one spelling ("--env-" or "--"), as given.
struct Spelling {
    std::string prefix;
    bool have_mtd, have_image, have_erase_size, have_write_size, have_bad_blocks;
    std::string mtd, image, erase_size, write_size, bad_blocks;

    Spelling(Arguments& args, std::string option_prefix) : prefix(std::move(option_prefix))
    {
        have_mtd = TakeOption(args, Name("mtd"), mtd);
        have_image = TakeOption(args, Name("image"), image);
        have_erase_size = TakeOption(args, Name("erase-size"), erase_size);
        have_write_size = TakeOption(args, Name("write-size"), write_size);
        have_bad_blocks = TakeOption(args, Name("bad-blocks"), bad_blocks);
    }
    std::string Name(const char* option) const { return prefix + option; }
    bool Given() const { return have_mtd || have_image || have_erase_size || have_write_size || have_bad_blocks; }
};

} // namespace

PartitionOptions::PartitionOptions(Arguments& args, std::initializer_list<Partition> partitions, const Partition* own)
{
    for (const Partition& partition : partitions) {
        Spelling given(args, fmt::format("--{}-", partition.prefix));
        if (own && std::string_view(own->name) == partition.name) {
            Spelling plain(args, "--");
            if (plain.Given() && given.Given())
                throw UsageError(fmt::format("--mtd, --image ... and {}, {} ... name the same partition",
                                             given.Name("mtd"), given.Name("image")));
            if (plain.Given())
                given = std::move(plain);
        }
        if (!given.Given())
            continue;
        const auto name = [&given](const char* option) { return given.Name(option); };

        Source source;
        source.name = partition.name;
        if (given.have_mtd && given.have_image)
            throw UsageError(fmt::format("{} and {} exclude each other", name("mtd"), name("image")));
        if (!given.have_image) {
            for (const auto& [have, option] : {std::pair{given.have_erase_size, "erase-size"},
                                               std::pair{given.have_write_size, "write-size"},
                                               std::pair{given.have_bad_blocks, "bad-blocks"}}) {
                if (have)
                    throw UsageError(fmt::format("{} needs {}", name(option), name("image")));
            }
            source.mtd = given.have_mtd ? given.mtd : partition.name;
            if (source.mtd.empty())
                throw UsageError(fmt::format("{} needs a partition name", name("mtd")));
            m_named.push_back(std::move(source));
            continue;
        }

        if (given.image.empty())
            throw UsageError(fmt::format("{} needs a file name", name("image")));
        if (!given.have_erase_size)
            throw UsageError(fmt::format("{} needs {}", name("image"), name("erase-size")));
        source.image = given.image;
        source.erase_size = static_cast<std::size_t>(ParseNumber(name("erase-size"), given.erase_size));
        if (source.erase_size == 0)
            throw UsageError(fmt::format("{} must not be 0", name("erase-size")));
        if (given.have_write_size)
            source.write_size = static_cast<std::size_t>(ParseNumber(name("write-size"), given.write_size));
        if (source.write_size == 0 || source.erase_size % source.write_size != 0)
            throw UsageError(fmt::format("{} {} does not divide {} {}", name("write-size"), source.write_size,
                                         name("erase-size"), source.erase_size));
        // The device-data reader works in the player's 2048-byte pages.
        if (std::string_view(partition.name) == DEVICE_DATA.name &&
            source.write_size != VeltrixDeviceDataStorageNand::BLOCK_SIZE)
            throw UsageError(fmt::format("{} {}: the device-data partition has pages of {} bytes", name("write-size"),
                                         source.write_size, VeltrixDeviceDataStorageNand::BLOCK_SIZE));
        if (given.have_bad_blocks)
            source.bad_blocks = ParseBlockList(name("bad-blocks"), given.bad_blocks);
        m_named.push_back(std::move(source));
    }
}

bool PartitionOptions::Named(const Partition& partition) const
{
    return Find(partition) != nullptr;
}

bool PartitionOptions::FromImage(const Partition& partition) const
{
    const Source* source = Find(partition);
    return source && !source->image.empty();
}

const PartitionOptions::Source* PartitionOptions::Find(const Partition& partition) const
{
    for (const Source& source : m_named) {
        if (std::string_view(source.name) == partition.name)
            return &source;
    }
    return nullptr;
}

void PartitionOptions::Use() const
{
    // All opened before any is put in place: --devdata-mtd flash0.nvram
    // means the live flash0.nvram, whatever --env-... names.
    ToolContext& context = ToolContext::Get();
    std::vector<NandAccess::Pointer> opened;
    for (const Source& source : m_named) {
        opened.push_back(source.image.empty() ? context.OpenPartition(source.mtd)
                                              : NandImageAccess::Create(source.image, source.erase_size,
                                                                        source.write_size, source.bad_blocks));
    }
    for (std::size_t i = 0; i < m_named.size(); ++i)
        context.UsePartition(m_named[i].name, opened[i]);
}

bool TakeSavedFile(Arguments& args, const SavedFile& file)
{
    std::string path;
    if (!TakeOption(args, file.option, path))
        return false;
    ToolContext::Get().UseFile(file.live_path, path);
    return true;
}

void TakeSavedFiles(Arguments& args, std::initializer_list<SavedFile> files)
{
    for (const SavedFile& file : files)
        TakeSavedFile(args, file);
}

} // namespace vxtool
