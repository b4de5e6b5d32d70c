#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/base64.h"

namespace {

using corvid::base64::Decode;
using corvid::base64::Encode;

TEST(Base64, RfcVectorsAndEveryByteValueRoundTrip)
{
    // RFC 4648, section 10.
    for (const auto& [plain, encoded] : {std::pair{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="},
                                         {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
                                         {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}}) {
        EXPECT_EQ(Encode(plain), encoded) << plain;
        EXPECT_EQ(Decode(encoded), plain) << encoded;
    }
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes.push_back(static_cast<char>(i));
    EXPECT_EQ(Decode(Encode(bytes)), bytes);
    EXPECT_EQ(Encode("\xfb\xff\xbf"), "+/+/");
    EXPECT_EQ(corvid::base64::DecodedLength(345), 258u); // an SRB signature text: "A" and 344
}

TEST(Base64, MalformedTextIsRejectedWithItsReason)
{
    const char* const outside = "character outside the alphabet";
    for (const auto& [text, reason] :
         {std::pair{"Zm9vY", "length is not a multiple of 4"}, {"Zm9v\nYm9", outside},
          {"Zm_v", outside}, {"Z===", "misplaced padding"}, {"Zg==Zm9v", "misplaced padding"},
          {"Zh==", "non-zero bits in padding"}, {"Zm9=", "non-zero bits in padding"}}) {
        const std::string message = "Invalid base64 text: " + std::string(reason);
        const std::string input = text; // a structured binding cannot be captured (C++20)
        EXPECT_THAT([&] { Decode(input); },
                    testing::ThrowsMessage<std::runtime_error>(testing::StrEq(message)));
    }
}

} // namespace
