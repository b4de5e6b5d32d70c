// Base64, decoded strictly (the SRB's signature text).
//
// Input: the text.
//
// Properties: a text that decodes is the one encoding of its bytes (so it
// encodes back to itself) and decodes to no more than the reserved room;
// any bytes encode to a text that decodes back to them.
#include <cstdint>
#include <exception>
#include <string>

#include "fuzz_support.h"
#include "platform/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    namespace base64 = corvid::base64;
    const std::string_view input = vxfuzz::Text(data, size);
    try {
        const std::string bytes = base64::Decode(input);
        VXFUZZ_CHECK(bytes.size() <= base64::DecodedLength(input.size()));
        VXFUZZ_CHECK(base64::Encode(bytes) == input);
    } catch (const std::runtime_error&) {
    }
    VXFUZZ_CHECK(base64::Decode(base64::Encode(input)) == input);
    return 0;
}
