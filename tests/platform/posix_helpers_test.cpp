#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/binary_fields.h"
#include "platform/posix_helpers.h"
#include "support/oracles.h"
#include "support/programs.h"

namespace {

using vxtest::WhatOf;

TEST(ErrnoException, MessageCarriesContextErrorTextAndNumber)
{
    const corvid::ErrnoException with(ENOENT, "/proc/meminfo");
    EXPECT_STREQ(with.what(), "/proc/meminfo: No such file or directory (errno 2)");
    EXPECT_EQ(with.GetErrno(), ENOENT);
    EXPECT_STREQ(corvid::ErrnoException(EPROTOTYPE).what(), "Protocol wrong type for socket (errno 91)");
}

TEST(ReadWriteAll, RepeatShortTransfersAndNameThemselvesAsymmetrically)
{
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    corvid::UniqueFd reader(fds[0]), writer(fds[1]);
    // More than a pipe holds: short writes and short reads on both sides.
    const std::string big(200000, 'x');
    std::string received(big.size() + 10, '\0');
    std::size_t got = 0;
    std::thread consumer([&] { got = corvid::read_all_throw(reader.Get(), received.data(), received.size()); });
    corvid::write_all_throw(writer.Get(), big.data(), big.size());
    writer.Reset();
    consumer.join();
    EXPECT_EQ(received.substr(0, got), big); // fewer than asked: end of file

    // Zero counts touch nothing, not even a bad descriptor.
    EXPECT_EQ(corvid::read_all_throw(-1, nullptr, 0), 0u);
    corvid::write_all_throw(-1, nullptr, 0);
    char c;
    EXPECT_EQ(WhatOf([&] { corvid::read_all_throw(-1, &c, 1); }),
              "read_all_throw: Bad file descriptor (errno 9)");
    EXPECT_EQ(WhatOf([] { corvid::write_all_throw(-1, "x", 1); }), "Bad file descriptor (errno 9)");
}

TEST(WholeFile, WriteWithModeThenRead)
{
    vxtest::TempDir dir;
    const std::string path = dir.Path() + "/issue";
    umask(022);
    corvid::WriteWholeFile(path, std::string(100000, 'm'), 0644);
    EXPECT_EQ(corvid::ReadWholeFile(path), std::string(100000, 'm'));
    corvid::WriteWholeFile(path, "Veltrix\r\n\n", 0600); // truncates; the mode is the creator's
    EXPECT_EQ(corvid::ReadWholeFile(path), "Veltrix\r\n\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(WhatOf([&] { corvid::WriteWholeFile(dir.Path() + "/no/such", "x", 0644); }),
              dir.Path() + "/no/such: No such file or directory (errno 2)");
}

TEST(LengthPrefixedString, ReadsAndRefusesTruncation)
{
    const std::string good("\x03\x00" "abcX", 6);
    const char* cursor = good.data();
    EXPECT_EQ(corvid::ReadLengthPrefixedString(cursor, good.data() + good.size()), "abc");
    EXPECT_EQ(cursor, good.data() + 5);
    for (const std::string& bad : {std::string("\x04\x00" "abc", 5), std::string("\x01", 1)}) {
        cursor = bad.data();
        EXPECT_EQ(WhatOf([&] { corvid::ReadLengthPrefixedString(cursor, bad.data() + bad.size()); }),
                  "Incorrectly expressed string");
    }
    EXPECT_EQ(corvid::WriteLengthPrefixedString(std::string(256, 'a')), vxtest::Field(std::string(256, 'a')));
}

TEST(InterfaceHardwareAddress, LoopbackIsNotEthernetAndUnknownFails)
{
    corvid::HardwareAddress mac{};
    EXPECT_EQ(WhatOf([&] { corvid::GetInterfaceHardwareAddress("lo", mac); }),
              "Protocol wrong type for socket (errno 91)");
    EXPECT_EQ(WhatOf([&] { corvid::GetInterfaceHardwareAddress("no-such-if0", mac); }),
              "No such device (errno 19)");
    EXPECT_THROW(corvid::NetworkInterfaceSocket(nullptr), std::logic_error);
}

} // namespace
