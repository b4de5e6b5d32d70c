#include "hardware/nand_image_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

NandImageAccess::NandImageAccess(const std::string& path, std::size_t erase_size,
                                 std::size_t write_size, const std::set<std::size_t>& bad_blocks,
                                 bool writable)
    : m_fd(corvid::OpenThrow(path, writable ? O_RDWR : O_RDONLY)), m_path(path),
      m_erase_size(erase_size), m_write_size(write_size), m_bad_blocks(bad_blocks),
      m_writable(writable)
{
    if (m_erase_size == 0)
        throw std::runtime_error("The erase size of a NAND image must not be 0");
    if (m_write_size == 0 || m_erase_size % m_write_size != 0)
        throw std::runtime_error(fmt::format(
            "The write size {} does not divide the erase size {}", m_write_size, m_erase_size));

    struct stat status {};
    if (::fstat(m_fd.Get(), &status) < 0)
        throw corvid::ErrnoException(errno, path);
    m_total_size = static_cast<std::size_t>(status.st_size);
    if (m_total_size % m_erase_size != 0)
        throw std::runtime_error(
            fmt::format("{}: size {} is not a whole number of {}-byte erase blocks", path,
                        m_total_size, m_erase_size));
    const std::size_t blocks = m_total_size / m_erase_size;
    if (!m_bad_blocks.empty() && *m_bad_blocks.rbegin() >= blocks)
        throw std::runtime_error(fmt::format("{}: bad block {} is beyond the {} blocks of the image",
                                             path, *m_bad_blocks.rbegin(), blocks));
}

NandAccess::Pointer NandImageAccess::Create(const std::string& path, std::size_t erase_size,
                                            std::size_t write_size,
                                            const std::set<std::size_t>& bad_blocks, bool writable)
{
    return std::make_shared<NandImageAccess>(path, erase_size, write_size, bad_blocks, writable);
}

void NandImageAccess::CheckRange(std::uint64_t offset, std::uint64_t length,
                                 const char* context) const
{
    if (offset > m_total_size || length > m_total_size - offset)
        throw corvid::ErrnoException(EINVAL, context);
}

void NandImageAccess::CheckWritable(const char* context) const
{
    if (!m_writable)
        throw corvid::ErrnoException(EBADF, context);
}

int NandImageAccess::ReadOob(std::uint64_t, void*, std::size_t)
{
    return 0;
}

int NandImageAccess::WriteOob(std::uint64_t, const void*, std::size_t)
{
    return 0;
}

bool NandImageAccess::IsBadBlock(std::uint64_t offset)
{
    return m_bad_blocks.count(static_cast<std::size_t>(offset / m_erase_size)) != 0;
}

bool NandImageAccess::IsOobErased(std::uint64_t)
{
    return true;
}

int NandImageAccess::MarkBadBlock(std::uint64_t offset)
{
    CheckRange(offset, 1, "MarkBadBlock");
    m_bad_blocks.insert(static_cast<std::size_t>(offset / m_erase_size));
    return 0;
}

int NandImageAccess::EraseBlock(std::uint64_t offset)
{
    CheckWritable("EraseBlock");
    CheckRange(offset, m_erase_size, "EraseBlock");
    if (offset % m_erase_size != 0)
        throw corvid::ErrnoException(EINVAL, "EraseBlock");
    if (IsBadBlock(offset))
        throw corvid::ErrnoException(EIO, "EraseBlock");
    const std::string erased(m_erase_size, static_cast<char>(0xFF));
    Write(offset, erased.data(), erased.size());
    return 0;
}

std::size_t NandImageAccess::Read(std::uint64_t offset, void* buffer, std::size_t length)
{
    CheckRange(offset, 0, "Read");
    const std::size_t wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>({length, m_erase_size, m_total_size - offset}));
    auto* out = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < wanted) {
        const ssize_t n = ::pread(m_fd.Get(), out + done, wanted - done,
                                  static_cast<off_t>(offset + done));
        if (n < 0)
            throw corvid::ErrnoException(errno, m_path);
        if (n == 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    return done;
}

void NandImageAccess::Write(std::uint64_t offset, const void* buffer, std::size_t length)
{
    CheckWritable("Write");
    CheckRange(offset, length, "Write");
    const auto* in = static_cast<const char*>(buffer);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = ::pwrite(m_fd.Get(), in + done, length - done,
                                   static_cast<off_t>(offset + done));
        if (n < 0)
            throw corvid::ErrnoException(errno, m_path);
        if (n == 0)
            throw corvid::ErrnoException(EIO, m_path);
        done += static_cast<std::size_t>(n);
    }
}
