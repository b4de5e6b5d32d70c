#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/posix_helpers.h"
#include "support/sandbox.h"

using corvid::ErrnoException;

namespace {

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
    ~Pipe()
    {
        close(fds[0]);
        if (fds[1] >= 0)
            close(fds[1]);
    }
    void CloseWriter()
    {
        close(fds[1]);
        fds[1] = -1;
    }
};

TEST(ErrnoException, MessageCarriesContextErrorTextAndNumber)
{
    const ErrnoException with(ENOENT, "/proc/meminfo");
    EXPECT_STREQ(with.what(), "/proc/meminfo: No such file or directory (errno 2)");
    EXPECT_EQ(with.GetErrno(), ENOENT);
    EXPECT_STREQ(ErrnoException(EPROTOTYPE).what(), "Protocol wrong type for socket (errno 91)");
}

TEST(ReadAllThrow, ReadsUntilCountOrEndOfFile)
{
    Pipe p;
    ASSERT_EQ(write(p.fds[1], "abc", 3), 3);
    p.CloseWriter();
    char buffer[10] = {};
    EXPECT_EQ(corvid::read_all_throw(p.fds[0], buffer, 10), 3u);
    EXPECT_EQ(std::string(buffer, 3), "abc");

    // Short reads are repeated until the count is complete.
    Pipe q;
    std::thread writer([&] {
        for (const char* part : {"12", "345", "6789"})
            ASSERT_GT(write(q.fds[1], part, std::char_traits<char>::length(part)), 0);
    });
    char digits[9];
    EXPECT_EQ(corvid::read_all_throw(q.fds[0], digits, 9), 9u);
    writer.join();
    EXPECT_EQ(std::string(digits, 9), "123456789");
}

TEST(ReadAllThrow, ZeroCountAndFailures)
{
    EXPECT_EQ(corvid::read_all_throw(-1, nullptr, 0), 0u); // no read at all
    char c;
    try {
        corvid::read_all_throw(-1, &c, 1);
        FAIL();
    } catch (const ErrnoException& e) {
        EXPECT_STREQ(e.what(), "read_all_throw: Bad file descriptor (errno 9)");
    }
}

TEST(WriteAllThrow, WritesEverythingOrThrowsWithoutContext)
{
    corvid::write_all_throw(-1, nullptr, 0); // no write at all
    Pipe p;
    const std::string big(200000, 'x'); // more than a pipe holds at once
    std::string received;
    std::thread reader([&] {
        char buffer[4096];
        ssize_t n;
        while ((n = read(p.fds[0], buffer, sizeof buffer)) > 0)
            received.append(buffer, static_cast<size_t>(n));
    });
    corvid::write_all_throw(p.fds[1], big.data(), big.size());
    p.CloseWriter();
    reader.join();
    EXPECT_EQ(received, big);
    try {
        corvid::write_all_throw(-1, "x", 1);
        FAIL();
    } catch (const ErrnoException& e) {
        EXPECT_STREQ(e.what(), "Bad file descriptor (errno 9)");
    }
}

TEST(WholeFile, WriteWithModeThenRead)
{
    vxtest::TempDir dir;
    const std::string path = dir.Path() + "/issue";
    umask(022);
    corvid::WriteWholeFile(path, "old content that is longer", 0644);
    corvid::WriteWholeFile(path, "Veltrix\r\n\n", 0600); // truncates; mode kept from creation
    EXPECT_EQ(corvid::ReadWholeFile(path), "Veltrix\r\n\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_THROW(corvid::WriteWholeFile(dir.Path() + "/no/such", "x", 0644), ErrnoException);
    try {
        corvid::ReadWholeFile(dir.Path() + "/missing");
        FAIL();
    } catch (const ErrnoException& e) {
        EXPECT_EQ(e.GetErrno(), ENOENT);
        EXPECT_EQ(e.GetContext(), dir.Path() + "/missing");
    }
    const std::string large(100000, 'm');
    corvid::WriteWholeFile(path, large, 0644);
    EXPECT_EQ(corvid::ReadWholeFile(path), large);
}

TEST(LengthPrefixedString, ReadsAndRefusesTruncation)
{
    const std::string good("\x03\x00" "abcX", 6);
    const char* cursor = good.data();
    EXPECT_EQ(corvid::ReadLengthPrefixedString(cursor, good.data() + good.size()), "abc");
    EXPECT_EQ(cursor, good.data() + 5);

    const std::string binary("\x02\x00\x00\xff", 4);
    cursor = binary.data();
    EXPECT_EQ(corvid::ReadLengthPrefixedString(cursor, binary.data() + 4), std::string("\0\xff", 2));

    for (const std::string& bad : {std::string("\x04\x00" "abc", 5), std::string("\x01", 1),
                                  std::string()}) {
        cursor = bad.data();
        try {
            corvid::ReadLengthPrefixedString(cursor, bad.data() + bad.size());
            FAIL();
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Incorrectly expressed string");
        }
    }
    // A 256-byte string has the length bytes 0x00 0x01.
    EXPECT_EQ(corvid::WriteLengthPrefixedString(std::string(256, 'a')).substr(0, 3),
              std::string("\x00\x01" "a", 3));
}

TEST(InterfaceHardwareAddress, LoopbackIsNotEthernetAndUnknownFails)
{
    corvid::HardwareAddress mac{};
    try {
        corvid::GetInterfaceHardwareAddress("lo", mac);
        FAIL();
    } catch (const ErrnoException& e) {
        EXPECT_EQ(e.GetErrno(), EPROTOTYPE);
        EXPECT_EQ(e.GetContext(), "");
    }
    try {
        corvid::GetInterfaceHardwareAddress("no-such-if0", mac);
        FAIL();
    } catch (const ErrnoException& e) {
        EXPECT_EQ(e.GetErrno(), ENODEV);
    }
    EXPECT_THROW(corvid::NetworkInterfaceSocket(nullptr), std::logic_error);
}

} // namespace
