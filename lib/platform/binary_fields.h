// Fields of the binary flash formats: little-endian numbers and the 16-bit
// length-prefixed strings of the signed records.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace corvid {

// The little-endian number at bytes.
inline std::uint16_t LoadLe16(const void* bytes)
{
    const auto* b = static_cast<const std::uint8_t*>(bytes);
    return static_cast<std::uint16_t>(b[0] | b[1] << 8);
}

inline std::uint32_t LoadLe32(const void* bytes)
{
    const auto* b = static_cast<const std::uint8_t*>(bytes);
    return std::uint32_t(b[0]) | std::uint32_t(b[1]) << 8 | std::uint32_t(b[2]) << 16 |
           std::uint32_t(b[3]) << 24;
}

inline std::uint64_t LoadLe64(const void* bytes)
{
    const auto* b = static_cast<const std::uint8_t*>(bytes);
    return std::uint64_t(LoadLe32(b)) | std::uint64_t(LoadLe32(b + 4)) << 32;
}

// Appends value as 4 little-endian bytes.
inline void AppendLe32(std::string& out, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
}

// Reads a 16-bit little-endian length and that many bytes from [cursor, end)
// and advances the cursor past them. Throws std::runtime_error
// "Incorrectly expressed string" when the length or the bytes are missing
// (the cursor has then moved past a length it could read).
std::string ReadLengthPrefixedString(const char*& cursor, const char* end);

// Encodes bytes as a length-prefixed string: the low 16 bits of the length,
// then as many bytes.
std::string WriteLengthPrefixedString(std::string_view bytes);

} // namespace corvid
