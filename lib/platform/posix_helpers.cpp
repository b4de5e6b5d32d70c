#include "platform/posix_helpers.h"

#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "platform/assert.h"

namespace corvid {
namespace {

std::string ErrnoMessage(int error, const std::string& context)
{
    if (context.empty())
        return fmt::format("{} (errno {})", std::strerror(error), error);
    return fmt::format("{}: {} (errno {})", context, std::strerror(error), error);
}

} // namespace

ErrnoException::ErrnoException(int error, const std::string& context)
    : std::runtime_error(ErrnoMessage(error, context)), m_errno(error), m_context(context)
{
}

UniqueFd OpenThrow(const std::string& path, int flags, mode_t mode)
{
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    if (fd < 0)
        throw ErrnoException(errno, path);
    return UniqueFd(fd);
}

std::size_t read_all_throw(int fd, void* buf, std::size_t n)
{
    if (n == 0)
        return 0;
    auto* p = static_cast<char*>(buf);
    std::size_t done = 0;
    while (done < n) {
        const ssize_t r = ::read(fd, p + done, n - done);
        if (r < 0)
            throw ErrnoException(errno, "read_all_throw");
        if (r == 0)
            break;
        done += static_cast<std::size_t>(r);
    }
    return done;
}

void write_all_throw(int fd, const void* buf, std::size_t n)
{
    if (n == 0)
        return;
    const auto* p = static_cast<const char*>(buf);
    while (n > 0) {
        const ssize_t w = ::write(fd, p, n);
        if (w < 0)
            throw ErrnoException(errno);
        CORVID_ASSERT(w != 0, "lib/platform/posix_helpers.cpp", 581,
                      "void corvid::write_all_throw(int, const void*, size_t)", "n != 0");
        p += w;
        n -= static_cast<std::size_t>(w);
    }
}

std::string ReadWholeFile(const std::string& path)
{
    const UniqueFd fd = OpenThrow(path, O_RDONLY);
    std::string text;
    char chunk[4096];
    for (;;) {
        const std::size_t n = read_all_throw(fd.Get(), chunk, sizeof chunk);
        text.append(chunk, n);
        if (n < sizeof chunk)
            return text;
    }
}

void WriteWholeFile(const std::string& path, std::string_view data, mode_t mode)
{
    UniqueFd fd = OpenThrow(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
    write_all_throw(fd.Get(), data.data(), data.size());
    if (::close(fd.Release()) != 0)
        throw ErrnoException(errno, path);
}

NetworkInterfaceSocket::NetworkInterfaceSocket(const char* name)
    : m_name(name), m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    if (!m_socket.IsOpen())
        throw ErrnoException(errno, "socket");
}

HardwareAddress NetworkInterfaceSocket::GetHardwareAddress() const
{
    struct ifreq request;
    std::memset(&request, 0, sizeof request);
    m_name.copy(request.ifr_name, IFNAMSIZ - 1);
    if (::ioctl(m_socket.Get(), SIOCGIFHWADDR, &request) < 0)
        throw ErrnoException(errno);
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER)
        throw ErrnoException(EPROTOTYPE);
    HardwareAddress mac;
    std::memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
    return mac;
}

void GetInterfaceHardwareAddress(const char* name, HardwareAddress& mac)
{
    mac = NetworkInterfaceSocket(name).GetHardwareAddress();
}

} // namespace corvid
