// Thin wrappers over POSIX calls that throw on failure.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/handles.h"

namespace corvid {

// The exception of a failed system call: the error number and an optional
// context (the failing operation or the path it was given).
// what() reads "<context>: <strerror text> (errno <n>)", or without a
// context "<strerror text> (errno <n>)".
class ErrnoException : public std::runtime_error {
public:
    explicit ErrnoException(int error, const std::string& context = std::string());

    int GetErrno() const noexcept { return m_errno; }
    const std::string& GetContext() const noexcept { return m_context; }

private:
    int m_errno;
    std::string m_context;
};

// Opens path with O_CLOEXEC added to flags; throws ErrnoException(errno, path).
UniqueFd OpenThrow(const std::string& path, int flags, mode_t mode = 0);

// Reads up to n bytes, repeating short reads until n bytes or end of file.
// Returns the number read. A failed read throws ErrnoException with the
// context "read_all_throw"; an interrupted read is not retried.
std::size_t read_all_throw(int fd, void* buf, std::size_t n);

// Writes all n bytes, repeating short writes. A failed write throws
// ErrnoException without context.
void write_all_throw(int fd, const void* buf, std::size_t n);

// Reads a whole file into a text. Failures throw ErrnoException with the
// path as context (the read itself names read_all_throw).
std::string ReadWholeFile(const std::string& path);

// Replaces the content of path (created with mode, truncated, close-on-exec)
// with data. Failures throw ErrnoException with the path as context.
void WriteWholeFile(const std::string& path, std::string_view data, mode_t mode);

using HardwareAddress = std::array<std::uint8_t, 6>;

// An IPv4 datagram socket used to query a network interface by name.
class NetworkInterfaceSocket {
public:
    // Throws std::logic_error for a null name (string construction) and
    // ErrnoException(errno, "socket") when the socket cannot be opened.
    explicit NetworkInterfaceSocket(const char* name);

    // The interface's Ethernet hardware address. Throws ErrnoException
    // (errno) when the request fails and ErrnoException(EPROTOTYPE) when the
    // interface is not Ethernet.
    HardwareAddress GetHardwareAddress() const;

    const std::string& GetName() const noexcept { return m_name; }

private:
    std::string m_name;
    UniqueFd m_socket;
};

// Fills mac with the hardware address of the named interface.
void GetInterfaceHardwareAddress(const char* name, HardwareAddress& mac);

} // namespace corvid
