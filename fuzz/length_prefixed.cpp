// The 16-bit length-prefixed strings of the signed records, read one after
// another to the end of the input.
//
// Input: the bytes.
//
// Properties: each string read is the bytes after its length, the cursor
// moves past exactly those, and writing the string gives those bytes back;
// a failed read leaves the cursor where the rules say (unmoved when fewer
// than 2 bytes were left, past the length otherwise) and never past the end.
#include <cstdint>
#include <exception>
#include <string>

#include "fuzz_support.h"
#include "platform/binary_fields.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const char* const begin = reinterpret_cast<const char*>(data);
    const char* const end = begin + size;
    const char* cursor = begin;
    while (cursor != end) {
        const char* const before = cursor;
        try {
            const std::string value = corvid::ReadLengthPrefixedString(cursor, end);
            VXFUZZ_CHECK(cursor == before + 2 + value.size() && cursor <= end);
            VXFUZZ_CHECK(value == std::string_view(before + 2, value.size()));
            VXFUZZ_CHECK(corvid::WriteLengthPrefixedString(value) == std::string_view(before, cursor - before));
        } catch (const std::runtime_error&) {
            VXFUZZ_CHECK(cursor == (end - before < 2 ? before : before + 2));
            break;
        }
    }
    return 0;
}
