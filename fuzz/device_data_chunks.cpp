// Device-data chunks: a list of chunks walked and checked as the player
// and the factory tool walk them, and the same list behind an image header.
//
// Input: chunks back to back (as `vxtool bless` writes them).
//
// Properties: the walk hands out chunks that lie back to back inside the
// list, each with its header; the image parser delivers exactly the walked
// chunks whose digest holds, and reports the others as corrupt, in order.
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "hardware/vx_device_data.h"
#include "platform/binary_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view list = vxfuzz::Text(data, size);

    // What the walk finds before it ends: "+TAG" for an intact chunk, "-TAG"
    // for one whose digest fails; chunks too small for a digest give nothing.
    std::vector<std::string> walked;
    std::size_t next = 0;
    try {
        ForEachDeviceDataChunk(list, [&](const DeviceDataChunk& chunk) {
            VXFUZZ_CHECK(chunk.offset == next);
            VXFUZZ_CHECK(chunk.bytes.data() == list.data() + chunk.offset);
            VXFUZZ_CHECK(chunk.bytes.size() >= DEVICE_DATA_CHUNK_HEADER_SIZE);
            VXFUZZ_CHECK(chunk.Length() == corvid::LoadLe32(chunk.bytes.data() + DEVICE_DATA_TAG_SIZE));
            next += chunk.bytes.size();
            if (chunk.HasDigest())
                walked.push_back((DeviceDataDigest(chunk.Payload()) == chunk.Digest() ? "+" : "-") +
                                 chunk.Tag());
        });
        VXFUZZ_CHECK(list.size() - next < DEVICE_DATA_CHUNK_HEADER_SIZE);
    } catch (const std::exception&) {
    }

    std::string image = "VXDD";
    corvid::AppendLe32(image, 0);
    image += list;
    std::vector<std::string> parsed;
    try {
        ParseDeviceData(
            image, [&](const std::string& tag, const std::string&) { parsed.push_back("+" + tag); },
            [&](const std::string& tag) { parsed.push_back("-" + tag); });
    } catch (const std::exception&) {
    }
    VXFUZZ_CHECK(parsed == walked);
    return 0;
}
