// The AVS firmware's status block, converted to its named values.
//
// Input: the 18 little-endian words of the block, as `vxtool avs --dump`
// reads a saved copy (a shorter input is completed with zero bytes).
//
// Properties: the thirteen names are all there, and the status is
// "Enabled" exactly when the magic word says the firmware runs.
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

#include "fuzz_support.h"
#include "hardware/mmio.h"
#include "platform/binary_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::uint8_t block[AVS_STATUS_WORDS * 4] = {};
    std::memcpy(block, data, std::min(size, sizeof block));
    AvsStatusWords words;
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = corvid::LoadLe32(block + 4 * i);

    const auto status = ConvertAvsStatus(words);
    VXFUZZ_CHECK(status.size() == 13);
    VXFUZZ_CHECK(status.at("Status") == (words[13] == AVS_RUNNING_MAGIC ? "Enabled" : "Disabled"));
    return 0;
}
