#include "platform/binary_fields.h"

#include <stdexcept>

namespace corvid {

std::string ReadLengthPrefixedString(const char*& cursor, const char* end)
{
    if (end - cursor < 2)
        throw std::runtime_error("Incorrectly expressed string");
    const std::size_t length = LoadLe16(cursor);
    cursor += 2;
    if (length > static_cast<std::size_t>(end - cursor))
        throw std::runtime_error("Incorrectly expressed string");
    std::string value(cursor, length);
    cursor += length;
    return value;
}

std::string WriteLengthPrefixedString(std::string_view bytes)
{
    const std::size_t length = bytes.size() & 0xFFFF;
    std::string encoded;
    encoded.reserve(2 + length);
    encoded.push_back(static_cast<char>(length & 0xFF));
    encoded.push_back(static_cast<char>(length >> 8));
    encoded.append(bytes.substr(0, length));
    return encoded;
}

} // namespace corvid
