// Blessing records: one record in a device-data partition, enumerated and
// verified against the stored blessing keys as the player does.
//
// Input: one chunk as `vxtool bless` writes it (tag, length, payload,
// digest). The length and digest are set right before the chunk is stored,
// so that every mutation of the payload reaches the record's own parsing
// instead of failing the partition's integrity check.
//
// Properties: every name handed out is non-empty and free of ':', and no
// record other than a blessing grants the feature kept to blessings.
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "hardware/blessings.h"
#include "hardware/capabilities.h"
#include "hardware/vx_device_data.h"
#include "platform/binary_fields.h"

namespace {

// The unit the seed records were issued for (fuzz/make-corpus).
constexpr const char* SECURE_ID = "5ec1d0000000c0de";
constexpr const char* SERIAL = "FZ0001";
constexpr std::size_t ERASE_SIZE = 131072; // the player's

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view input = vxfuzz::Text(data, size);
    if (input.size() < DEVICE_DATA_TAG_SIZE)
        return 0;
    const std::string tag(input.substr(0, DEVICE_DATA_TAG_SIZE));
    std::string_view payload = input.substr(std::min(input.size(), DEVICE_DATA_CHUNK_HEADER_SIZE));
    if (payload.size() >= DEVICE_DATA_DIGEST_SIZE)
        payload.remove_suffix(DEVICE_DATA_DIGEST_SIZE);

    std::string image = "VXDD";
    corvid::AppendLe32(image, 0);
    image += tag;
    corvid::AppendLe32(image, static_cast<std::uint32_t>(payload.size() + DEVICE_DATA_DIGEST_SIZE));
    image += payload;
    image += DeviceDataDigest(payload);
    if (image.size() + DEVICE_DATA_CHUNK_HEADER_SIZE > ERASE_SIZE)
        return 0;

    auto nand = std::make_shared<MemoryNand>(2 * ERASE_SIZE, ERASE_SIZE);
    nand->reject_out_of_range = true;
    nand->Put(0, image);
    const VeltrixDeviceDataStorageNand storage(nand);
    try {
        blessings::EnumerateBlessings(storage, SECURE_ID, SERIAL,
                                      [&](const std::string& name, const std::string&) {
                                          VXFUZZ_CHECK(!name.empty());
                                          VXFUZZ_CHECK(name.find(':') == std::string::npos);
                                          VXFUZZ_CHECK(tag == blessings::BLESSING_TAG || !IsDeviceBoundOnly(name));
                                      });
    } catch (const std::exception&) {
    }
    return 0;
}
