// vxtool devdata: lists the chunks of the device-data partition.
#include <cstdio>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "command.h"
#include "hardware/context.h"
#include "hardware/vx_device_data.h"
#include "platform/binary_fields.h"
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
// listed as "TAG<tab>-<tab>too-small". The chunks are walked and checked by
// the player's own code, so its messages appear on standard error next to
// the chunk they concern, and a structural error ends the listing (after the
// chunks before it, in the partition or in the image read) the way it ends
// the player's walk, with exit status 1.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {DEVICE_DATA}, &DEVICE_DATA);
    ExpectNoMoreArguments(args);
    partitions.Use();

    VeltrixDeviceDataStorageNand storage(Context::GetInstance()->OpenPartition(DEVICE_DATA.name));
    std::string image, failure;
    try {
        image = storage.ReadImage();
    } catch (const DeviceDataReadError& e) {
        // The chunks before the failure are listed, then the failure.
        image = e.GetImageSoFar();
        failure = e.what();
    }
    nlohmann::json* json = JsonAnswer();
    if (json)
        *json = {{"erased", image.empty()}, {"chunks", nlohmann::json::array()}};
    if (image.empty())
        return 0; // erased partition: no chunks
    // The header is checked by the player's parser, on the image without chunks.
    ParseDeviceData(image.substr(0, DEVICE_DATA_HEADER_SIZE), [](const std::string&, const std::string&) {});
    if (json)
        (*json)["header_word"] = corvid::LoadLe32(image.data() + 4);

    ForEachDeviceDataChunk(std::string_view(image).substr(DEVICE_DATA_HEADER_SIZE),
                           [json](const DeviceDataChunk& chunk) {
        const char* status = "too-small";
        CheckDeviceDataChunk(
            chunk, [&](const std::string&, const std::string&) { status = "ok"; },
            [&](const std::string&) { status = "corrupt"; });
        if (json) {
            (*json)["chunks"].push_back({{"tag", PrintableTag(chunk.Tag())},
                                         {"payload_length", chunk.HasDigest() ? nlohmann::json(chunk.Payload().size())
                                                                              : nlohmann::json(nullptr)},
                                         {"status", status}});
        } else if (!chunk.HasDigest()) {
            fmt::print("{}\t-\t{}\n", PrintableTag(chunk.Tag()), status);
        } else {
            fmt::print("{}\t{}\t{}\n", PrintableTag(chunk.Tag()), chunk.Payload().size(), status);
        }
        std::fflush(stdout);
    });
    if (!failure.empty())
        throw std::runtime_error(failure);
    return 0;
}

const CommandRegistrar reg({"devdata", PartitionUsage(DEVICE_DATA),
                            "list the chunks of the device-data partition with their integrity", &Run,
                            PARTITION_HELP, true});

} // namespace
} // namespace vxtool
