// The device-data partition: read through its page cache from a partition
// with bad blocks, then walked chunk by chunk.
//
// Input: one layout byte, then the partition's data from its first good
// block on (as `vxtool mkdevdata` writes it; the erased end may be left
// out). Layout bits 0-5 mark blocks 0-5 of the 8-block partition bad; bit 6
// reads with a filter that takes only blessing records; bit 7 makes a
// bad-block query past the end fail as the kernel's does.
//
// Properties: a second read by the same storage object (the cached page and
// start kept) and a read by a fresh one give the first read's image; when
// the whole partition reads, the filtered image is the whole image without
// the chunks the filter refuses.
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "fuzz_support.h"
#include "hardware/vx_device_data.h"

namespace {

constexpr std::size_t ERASE_SIZE = 4096;
constexpr std::size_t BLOCKS = 8;

std::optional<std::string> ReadImage(const VeltrixDeviceDataStorageNand& storage,
                                     const VeltrixDeviceDataStorageNand::ChunkFilter& filter)
{
    try {
        return storage.ReadImage(filter);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const unsigned layout = data[0];
    const std::string_view content = vxfuzz::Text(data + 1, size - 1);

    auto nand = std::make_shared<MemoryNand>(BLOCKS * ERASE_SIZE, ERASE_SIZE);
    for (unsigned b = 0; b < 6; ++b)
        if (layout & (1u << b))
            nand->bad_blocks.insert(b);
    nand->reject_out_of_range = (layout & 0x80) != 0;
    // Laid out from the first good block straight on, as the factory does.
    std::size_t start = 0;
    while (nand->bad_blocks.count(start) != 0)
        ++start;
    nand->Put(start * ERASE_SIZE, content);

    const auto blessings_only = [](const std::string& tag) { return tag == "BLES" || tag == "BOON"; };
    VeltrixDeviceDataStorageNand::ChunkFilter filter;
    if (layout & 0x40)
        filter = blessings_only;

    const VeltrixDeviceDataStorageNand storage(nand);
    const std::optional<std::string> image = ReadImage(storage, filter);
    VXFUZZ_CHECK(ReadImage(storage, filter) == image);
    VXFUZZ_CHECK(ReadImage(VeltrixDeviceDataStorageNand(nand), filter) == image);

    if (filter) {
        const std::optional<std::string> whole = ReadImage(VeltrixDeviceDataStorageNand(nand), {});
        if (whole && !whole->empty()) {
            std::string expected = whole->substr(0, DEVICE_DATA_HEADER_SIZE);
            ForEachDeviceDataChunk(std::string_view(*whole).substr(DEVICE_DATA_HEADER_SIZE),
                                   [&](const DeviceDataChunk& chunk) {
                                       if (blessings_only(chunk.Tag()))
                                           expected += chunk.bytes;
                                   });
            VXFUZZ_CHECK(image == expected);
        }
    }
    if (!image)
        return 0;

    try {
        ParseDeviceData(*image, [](const std::string&, const std::string&) {});
    } catch (const std::exception&) {
    }
    return 0;
}
