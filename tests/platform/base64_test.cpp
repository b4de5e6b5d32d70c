#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "platform/base64.h"

namespace {

using corvid::base64::Decode;
using corvid::base64::DecodedLength;
using corvid::base64::Encode;

// The test vectors of RFC 4648, section 10.
const std::pair<std::string, std::string> RFC_VECTORS[] = {
    {"", ""},          {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
};

TEST(Base64, RfcVectorsEncodeAndDecode)
{
    for (const auto& [plain, encoded] : RFC_VECTORS) {
        EXPECT_EQ(Encode(plain), encoded) << plain;
        EXPECT_EQ(Decode(encoded), plain) << encoded;
    }
}

TEST(Base64, AllByteValuesAndTheLastAlphabetCharacters)
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes.push_back(static_cast<char>(i));
    EXPECT_EQ(Decode(Encode(bytes)), bytes);
    EXPECT_EQ(Encode("\xfb\xff\xbf"), "+/+/");
    EXPECT_EQ(Decode("+/+/"), "\xfb\xff\xbf");
}

TEST(Base64, MalformedTextIsRejectedWithItsReason)
{
    const std::pair<std::string, std::string> cases[] = {
        {"Zg", "Invalid base64 text: length is not a multiple of 4"},
        {"Zm9vY", "Invalid base64 text: length is not a multiple of 4"},
        {"Zm9v\nYmFy", "Invalid base64 text: length is not a multiple of 4"},
        {"Zm9-", "Invalid base64 text: character outside the alphabet"},
        {"Zm9v Zg=", "Invalid base64 text: character outside the alphabet"},
        {"Zm_v", "Invalid base64 text: character outside the alphabet"},
        {"Zg==Zm9v", "Invalid base64 text: misplaced padding"},
        {"Z===", "Invalid base64 text: misplaced padding"},
        {"====", "Invalid base64 text: misplaced padding"},
        {"Zh==", "Invalid base64 text: non-zero bits in padding"},
        {"Zm9=", "Invalid base64 text: non-zero bits in padding"},
    };
    for (const auto& [text, message] : cases) {
        try {
            Decode(text);
            ADD_FAILURE() << "accepted '" << text << "'";
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), message) << text;
        }
    }
}

TEST(Base64, DecodedLengthIsTheReservedRoom)
{
    EXPECT_EQ(DecodedLength(0), 0u);
    EXPECT_EQ(DecodedLength(1), 0u);
    EXPECT_EQ(DecodedLength(2), 3u);
    EXPECT_EQ(DecodedLength(4), 3u);
    EXPECT_EQ(DecodedLength(5), 3u);
    EXPECT_EQ(DecodedLength(6), 6u);
    // The text of an SRB signature: the type character and 344 characters
    // of base64 for 256 bytes.
    EXPECT_EQ(DecodedLength(345), 258u);
    EXPECT_EQ(Decode(Encode(std::string(256, 'x'))).size(), 256u);
}

} // namespace
