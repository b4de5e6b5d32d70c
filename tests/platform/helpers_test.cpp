// The platform helpers: POSIX wrappers, key/value splitting, base64 and the
// guarded print.
#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "platform/base64.h"
#include "platform/key_value.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"
#include "support/oracles.h"

struct Throwing {}; // a value whose formatting throws

template <>
struct fmt::formatter<Throwing> : fmt::formatter<int> {
    template <typename Context>
    auto format(const Throwing&, Context&) const -> decltype(std::declval<Context>().out())
    {
        throw std::runtime_error("no text for this value");
    }
};

namespace {

using corvid::base64::Decode;
using corvid::base64::Encode;
using vxtest::WhatOf;

TEST(ReadWriteAll, RepeatShortTransfersNameThemselvesAndServeWholeFiles)
{
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    corvid::UniqueFd reader(fds[0]), writer(fds[1]);
    // More than a pipe holds: short writes and short reads on both sides.
    const std::string big(200000, 'x');
    std::string in(big.size() + 10, '\0');
    std::size_t got = 0;
    std::thread consumer([&] { got = corvid::read_all_throw(reader.Get(), in.data(), in.size()); });
    corvid::write_all_throw(writer.Get(), big.data(), big.size());
    writer.Reset();
    consumer.join();
    EXPECT_EQ(in.substr(0, got), big); // fewer than asked: end of file

    // Zero counts touch nothing, not even a bad descriptor.
    EXPECT_EQ(corvid::read_all_throw(-1, nullptr, 0), 0u);
    corvid::write_all_throw(-1, nullptr, 0);
    char c;
    EXPECT_EQ(WhatOf([&] { corvid::read_all_throw(-1, &c, 1); }),
              "read_all_throw: Bad file descriptor (errno 9)");
    EXPECT_EQ(WhatOf([] { corvid::write_all_throw(-1, "x", 1); }), "Bad file descriptor (errno 9)");

    // Whole files, read in more than one piece.
    vxtest::TempDir dir;
    const std::string path = dir.Path() + "/issue";
    corvid::WriteWholeFile(path, std::string(100000, 'm'), 0644);
    EXPECT_EQ(corvid::ReadWholeFile(path), std::string(100000, 'm'));
    corvid::WriteWholeFile(path, "Veltrix\r\n\n", 0644); // truncates
    EXPECT_EQ(corvid::ReadWholeFile(path), "Veltrix\r\n\n");
    EXPECT_EQ(WhatOf([&] { corvid::WriteWholeFile(dir.Path() + "/no/such", "x", 0644); }),
              dir.Path() + "/no/such: No such file or directory (errno 2)");
}

TEST(InterfaceHardwareAddress, LoopbackIsNotEthernetAndUnknownFails)
{
    corvid::HardwareAddress mac{};
    EXPECT_EQ(WhatOf([&] { corvid::GetInterfaceHardwareAddress("lo", mac); }),
              "Protocol wrong type for socket (errno 91)");
    EXPECT_EQ(WhatOf([&] { corvid::GetInterfaceHardwareAddress("no-such-if0", mac); }),
              "No such device (errno 19)");
}

TEST(ParseKeyValuePairs, PairsInTextOrderAndTheLastOfAKeyInAMap)
{
    const struct {
        const char *text, *pairs, *kv, *trim, *expected; // "key=value;" per call
    } cases[] = {
        {"quiet vx.debug=1\tvx.debug=0 root=/dev/x=y ", " \t", "=", "",
         "quiet=;vx.debug=1;vx.debug=0;root=/dev/x=y;"},
        {";version=8.0.1;;minimum_firmware_version=8.0.0;k=;=v; x ", ";", "=", "",
         "version=8.0.1;minimum_firmware_version=8.0.0;k=;=v; x =;"},
        // Only the first separator character splits; a second one belongs to
        // the value and is removed only as a trim character.
        {"k:: v \n   \n\t\nkey only \nsep:\nx: \t", "\n", ": ", " \t", "k=: v;key=only;sep=;x=;"},
        {"\n\n\n", "\n", ": ", " \t", ""},
    };
    for (const auto& c : cases) {
        std::string calls;
        corvid::ParseKeyValuePairs(c.text, c.pairs, c.kv, c.trim,
                                   [&](const std::string& k, const std::string& v) {
                                       calls += k + "=" + v + ";";
                                   });
        EXPECT_EQ(calls, c.expected) << c.text;
    }
    // As a map, the last of repeated keys stays.
    EXPECT_EQ(corvid::ParseKeyValuePairs("a=1 b=2 a=3", " ", "=", ""),
              (std::map<std::string, std::string>{{"a", "3"}, {"b", "2"}}));
}

TEST(Base64, RfcVectorsEveryByteValueAndMalformedTextWithItsReason)
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

    const char* const outside = "character outside the alphabet";
    for (const auto& text_reason :
         {std::pair{"Zm9vY", "length is not a multiple of 4"}, {"Zm9v\nYm9", outside},
          {"Zm_v", outside}, {"Z===", "misplaced padding"}, {"Zg==Zm9v", "misplaced padding"},
          {"Zh==", "non-zero bits in padding"}, {"Zm9=", "non-zero bits in padding"}})
        EXPECT_EQ(WhatOf([&] { Decode(text_reason.first); }),
                  "Invalid base64 text: " + std::string(text_reason.second));
}

TEST(GuardedPrint, FormatsOrReportsTheUnformattedText)
{
    testing::internal::CaptureStderr();
    corvid::PrintGuarded("hw={:x} sk={:d} {}KB.\n", 0x1fULL, true, 204799UL);
    corvid::PrintGuarded("value {:q}\n", 5);
    corvid::PrintGuarded("ERROR: {}\n", Throwing{}); // not a format error, but a standard exception
    corvid::PrintGuarded("{} {}\n", 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "hw=1f sk=1 204799KB.\n"
              "Message 'value {:q}\n' threw 'invalid type specifier'\n"
              "Message 'ERROR: {}\n' threw 'no text for this value'\n"
              "Message '{} {}\n' threw 'argument not found'\n");
    EXPECT_THROW(corvid::PrintPlain("{:q}", 5), fmt::format_error); // the plain print lets it escape
}

} // namespace
