// vxtool devdata: lists the chunks of the device-data partition.
#include <cstdint>
#include <cstdio>
#include <string>

#include <fmt/format.h>

#include "command.h"
#include "hardware/vx_device_data.h"
#include "source.h"

namespace vxtool {
namespace {

// The tag as text; bytes outside printable ASCII (and the backslash) as \xNN.
std::string PrintableTag(const std::string& tag)
{
    std::string text;
    for (const char c : tag) {
        const auto b = static_cast<unsigned char>(c);
        if (b < 0x20 || b > 0x7E || b == '\\')
            text += fmt::format("\\x{:02x}", b);
        else
            text += c;
    }
    return text;
}

// Lists every chunk in flash order as "TAG<tab>PAYLOAD-LENGTH<tab>STATUS",
// STATUS being "ok" or "corrupt"; a chunk too short to hold its digest is
// listed as "TAG<tab>-<tab>too-small". Each chunk is checked by the player's
// own parser on its own, so its messages appear on standard error next to
// the chunk they concern, and a structural error ends the listing the way it
// ends the player's walk.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const NandAccess::Pointer nand = OpenSource(args, "flash0.devid");
    ExpectNoMoreArguments(args);

    VeltrixDeviceDataStorageNand storage(nand);
    const std::string image = storage.ReadImage();
    if (image.empty())
        return 0; // erased partition: no chunks
    const std::string header = image.substr(0, 8);

    std::size_t at = 8;
    while (at + 8 <= image.size()) {
        const std::string tag = image.substr(at, 4);
        const std::uint32_t length = LoadLe32(image.data() + at + 4);
        // Hands the rest of the image to the parser, which throws the
        // structural error it finds there.
        if (length > DEVICE_DATA_MAX_CHUNK_LENGTH || length > image.size() - at - 8) {
            ParseDeviceData(header + image.substr(at),
                            [](const std::string&, const std::string&) {});
            break;
        }
        const char* status = "too-small";
        ParseDeviceData(
            header + image.substr(at, 8 + length),
            [&](const std::string&, const std::string&) { status = "ok"; },
            [&](const std::string&) { status = "corrupt"; });
        if (length < DEVICE_DATA_DIGEST_SIZE)
            fmt::print("{}\t-\t{}\n", PrintableTag(tag), status);
        else
            fmt::print("{}\t{}\t{}\n", PrintableTag(tag), length - DEVICE_DATA_DIGEST_SIZE, status);
        std::fflush(stdout);
        at += 8 + length;
    }
    return 0;
}

const CommandRegistrar reg({"devdata", SOURCE_USAGE,
                            "list the chunks of the device-data partition with their integrity",
                            &Run});

} // namespace
} // namespace vxtool
