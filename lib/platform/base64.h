// Base64 of RFC 4648 (standard alphabet, "=" padding).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvid::base64 {

// The room a decoder reserves for text of len characters: ((len + 2) / 4) * 3.
// The decoded bytes of len characters never exceed it.
constexpr std::size_t DecodedLength(std::size_t len)
{
    return ((len + 2) / 4) * 3;
}

// Decodes strictly: the text is a sequence of complete 4-character groups of
// the standard alphabet, the last of which may end in one or two "=" pad
// characters; the unused low bits of a padded group must be zero. Anything
// else (characters outside the alphabet, white space, a length that is not a
// multiple of 4, misplaced or missing padding) throws std::runtime_error
// "Invalid base64 text: " followed by the reason. The empty text decodes to
// no bytes.
std::string Decode(std::string_view text);

// Encodes bytes as padded standard base64 without line breaks.
std::string Encode(std::string_view bytes);

} // namespace corvid::base64
