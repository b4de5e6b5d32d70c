#include "platform/base64.h"

#include <array>
#include <cstdint>
#include <stdexcept>

namespace corvid::base64 {
namespace {

constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t INVALID = 0xFF;

constexpr std::array<std::uint8_t, 256> MakeDecodeTable()
{
    std::array<std::uint8_t, 256> table{};
    for (auto& entry : table)
        entry = INVALID;
    for (std::uint8_t i = 0; i < 64; ++i)
        table[static_cast<unsigned char>(ALPHABET[i])] = i;
    return table;
}

constexpr std::array<std::uint8_t, 256> DECODE_TABLE = MakeDecodeTable();

[[noreturn]] void Fail(const char* reason)
{
    throw std::runtime_error(std::string("Invalid base64 text: ") + reason);
}

} // namespace

std::string Decode(std::string_view text)
{
    if (text.size() % 4 != 0)
        Fail("length is not a multiple of 4");
    std::string out;
    out.reserve(DecodedLength(text.size()));
    for (std::size_t group = 0; group < text.size(); group += 4) {
        const bool last = group + 4 == text.size();
        std::size_t padding = 0;
        if (last) {
            if (text[group + 3] == '=')
                padding = text[group + 2] == '=' ? 2 : 1;
        }
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const unsigned char c = static_cast<unsigned char>(text[group + i]);
            if (i >= 4 - padding) {
                bits <<= 6;
                continue;
            }
            if (c == '=')
                Fail("misplaced padding");
            const std::uint8_t value = DECODE_TABLE[c];
            if (value == INVALID)
                Fail("character outside the alphabet");
            bits = (bits << 6) | value;
        }
        if ((padding == 1 && (bits & 0xFF) != 0) || (padding == 2 && (bits & 0xFFFF) != 0))
            Fail("non-zero bits in padding");
        out.push_back(static_cast<char>(bits >> 16));
        if (padding < 2)
            out.push_back(static_cast<char>((bits >> 8) & 0xFF));
        if (padding < 1)
            out.push_back(static_cast<char>(bits & 0xFF));
    }
    return out;
}

std::string Encode(std::string_view bytes)
{
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t bits = (static_cast<std::uint8_t>(bytes[i]) << 16) |
                                   (static_cast<std::uint8_t>(bytes[i + 1]) << 8) |
                                   static_cast<std::uint8_t>(bytes[i + 2]);
        out.push_back(ALPHABET[bits >> 18]);
        out.push_back(ALPHABET[(bits >> 12) & 63]);
        out.push_back(ALPHABET[(bits >> 6) & 63]);
        out.push_back(ALPHABET[bits & 63]);
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t bits = static_cast<std::uint8_t>(bytes[i]) << 16;
        if (rest == 2)
            bits |= static_cast<std::uint8_t>(bytes[i + 1]) << 8;
        out.push_back(ALPHABET[bits >> 18]);
        out.push_back(ALPHABET[(bits >> 12) & 63]);
        out.push_back(rest == 2 ? ALPHABET[(bits >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

} // namespace corvid::base64
