// The first-images information of the boot loader's partition, read over
// its good blocks through the context.
//
// Input, all numbers little-endian:
//   byte 0      bits 0-1: erase size 4096 << n; bit 2: the partition ends one
//               block before the end of the information text; bit 3: a
//               bad-block query past the end fails as the kernel's does
//   bytes 1-4   bad-block mask of physical blocks 0-31
//   bytes 5-8   the word at logical offset 0xD068 (0: the images are here)
//   bytes 9-12  the word at 0xD06C, the images' start S
//   bytes 13-   the information text at S + 0xFFC00; erased flash after it
// The partition is just long enough for the text (at most 64 MiB); its
// blocks are held only where written.
//
// Property: each field found is the value of its key in the text, so it
// holds neither ';' nor a zero byte.
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "hardware/firmware_versions.h"
#include "platform/binary_fields.h"

namespace {

constexpr std::uint64_t WORDS_OFFSET = 0xD068;
constexpr std::uint64_t INFO_OFFSET = 0xFFC00;
constexpr std::uint64_t INFO_SIZE = 1024;
constexpr std::uint64_t MAX_PARTITION = 64 << 20;
constexpr std::size_t HEADER = 13;

bool IsValue(const std::string& text)
{
    return text.find_first_of(std::string_view(";\0", 2)) == std::string::npos;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < HEADER)
        return 0;
    const std::size_t erase_size = std::size_t{4096} << (data[0] & 3);
    const std::uint32_t bad_mask = corvid::LoadLe32(data + 1);
    const std::uint32_t start = corvid::LoadLe32(data + 9);
    const std::string_view text = vxfuzz::Text(data + HEADER, size - HEADER).substr(0, INFO_SIZE);

    // Room for the words and the text over the good blocks.
    const std::uint64_t logical_end = std::max<std::uint64_t>(WORDS_OFFSET + 8, start + INFO_OFFSET + INFO_SIZE);
    std::uint64_t blocks = (logical_end + erase_size - 1) / erase_size;
    for (unsigned b = 0; b < 32 && b < blocks; ++b)
        if (bad_mask & (1u << b))
            ++blocks;
    if (data[0] & 4)
        --blocks;
    blocks = std::min(blocks, MAX_PARTITION / erase_size);

    auto nand = std::make_shared<MemoryNand>(blocks * erase_size, erase_size);
    for (unsigned b = 0; b < 32; ++b)
        if (bad_mask & (1u << b))
            nand->bad_blocks.insert(b);
    nand->reject_out_of_range = (data[0] & 8) != 0;
    LayOverGoodBlocks(*nand, WORDS_OFFSET, vxfuzz::Text(data + 5, 8));
    LayOverGoodBlocks(*nand, std::uint64_t{start} + INFO_OFFSET, text);
    vxfuzz::FuzzContext::Get().SetPartition(BOOTLOADER_PARTITION, nand);

    try {
        const bolt::FirstImagesInfo info = bolt::GetFirstImagesInfo();
        VXFUZZ_CHECK(IsValue(info.version) && IsValue(info.minimum_firmware_version));
    } catch (const std::exception&) {
    }
    return 0;
}
