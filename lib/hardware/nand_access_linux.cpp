#include "hardware/nand_access_linux.h"

#include <fcntl.h>
#include <mtd/mtd-abi.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>

#include "hardware/context.h"
#include "platform/assert.h"
#include "platform/posix_helpers.h"

// The player is an AArch64 system; the request numbers of the MTD interface
// are the same on every 64-bit Linux target this code is built for.
static_assert(MEMGETINFO == 0x80204D01, "MEMGETINFO");
static_assert(MEMERASE == 0x40084D02, "MEMERASE");
static_assert(MEMWRITEOOB == 0xC0104D03, "MEMWRITEOOB");
static_assert(MEMREADOOB == 0xC0104D04, "MEMREADOOB");
static_assert(MEMGETBADBLOCK == 0x40084D0B, "MEMGETBADBLOCK");
static_assert(MEMSETBADBLOCK == 0x40084D0C, "MEMSETBADBLOCK");
static_assert(sizeof(mtd_info_user) == 32 && sizeof(erase_info_user) == 8 &&
              sizeof(mtd_oob_buf) == 16);

namespace {

struct FreeDeleter {
    void operator()(char* text) const noexcept { std::free(text); }
};
// A word scanned with the allocating %ms conversion.
using ScannedWord = std::unique_ptr<char, FreeDeleter>;

// Strips the quotes that the kernel puts around partition names.
std::string UnquoteName(std::string name)
{
    if (!name.empty() && name.front() == '"')
        name.erase(0, 1);
    if (!name.empty() && name.back() == '"')
        name.pop_back();
    return name;
}

} // namespace

MtdPartition FindMtdPartition(const std::string& name)
{
    const corvid::UniqueFile file(std::fopen(Context::GetInstance()->Path(MTD_TABLE_PATH).c_str(), "re"));
    if (!file)
        throw corvid::ErrnoException(errno);

    // The header, "dev:    size   erasesize  name".
    if (std::fscanf(file.Get(), "%*s %*s %*s %*s") < 0)
        throw std::runtime_error("Failed to read /proc/mtd");

    for (;;) {
        char* device_word = nullptr;
        char* name_word = nullptr;
        unsigned int size = 0;
        unsigned int erase_size = 0;
        const int fields =
            std::fscanf(file.Get(), "%ms %x %x %ms", &device_word, &size, &erase_size, &name_word);
        ScannedWord device_owner(device_word);
        ScannedWord name_owner(name_word);
        if (fields != 4)
            throw std::runtime_error(fmt::format("Failed to find NAND partition named '{}'", name));

        std::string row_name = UnquoteName(name_word);
        if (row_name != name)
            continue;

        std::string device = device_word;
        if (!device.empty() && device.back() == ':')
            device.pop_back();
        return MtdPartition{"/dev/" + device, size, erase_size, std::move(row_name)};
    }
}

NandAccess::Pointer LinuxNandAccess::Create(const std::string& device, std::size_t max_size)
{
    return std::make_shared<LinuxNandAccessImpl>(device, max_size);
}

NandAccess::Pointer LinuxNandAccess::Create(const MtdPartition& partition)
{
    return std::make_shared<LinuxNandAccessImpl>(partition);
}

LinuxNandAccessImpl::LinuxNandAccessImpl(const std::string& device, std::size_t max_size)
{
    m_fd = corvid::OpenThrow(device, O_RDWR | O_SYNC);

    mtd_info_user info{};
    if (::ioctl(m_fd.Get(), MEMGETINFO, &info) < 0)
        throw corvid::ErrnoException(errno); // m_fd closes the device
    m_erase_size = info.erasesize;
    m_write_size = info.writesize;
    m_oob_size = info.oobsize;
    m_total_size = std::min<std::size_t>(max_size, info.size);

    // An erase size of 0 cannot divide anything: treated as failing too.
    CORVID_ASSERT(m_erase_size != 0 && m_total_size % m_erase_size == 0,
                  "lib/hardware/nand_access_linux", 31,
                  "LinuxNandAccessImpl::LinuxNandAccessImpl(const std::string&, size_t)",
                  "m_total_size % m_erase_size == 0");
}

LinuxNandAccessImpl::LinuxNandAccessImpl(const MtdPartition& partition)
    : LinuxNandAccessImpl(partition.device, partition.size)
{
}

void LinuxNandAccessImpl::UseRawMode()
{
    if (::ioctl(m_fd.Get(), MTDFILEMODE, MTD_FILE_MODE_RAW) != 0)
        throw corvid::ErrnoException(errno);
}

int LinuxNandAccessImpl::ReadOob(std::uint64_t offset, void* buffer, std::size_t length)
{
    mtd_oob_buf request{};
    request.start = static_cast<std::uint32_t>(offset);
    request.length = static_cast<std::uint32_t>(std::min(length, m_oob_size));
    request.ptr = static_cast<unsigned char*>(buffer);
    const int result = ::ioctl(m_fd.Get(), MEMREADOOB, &request);
    if (result < 0)
        throw corvid::ErrnoException(errno);
    return result;
}

int LinuxNandAccessImpl::WriteOob(std::uint64_t offset, const void* buffer, std::size_t length)
{
    mtd_oob_buf request{};
    request.start = static_cast<std::uint32_t>(offset);
    request.length = static_cast<std::uint32_t>(std::min(length, m_oob_size));
    // The kernel only reads through this pointer for a write.
    request.ptr = static_cast<unsigned char*>(const_cast<void*>(buffer));
    const int result = ::ioctl(m_fd.Get(), MEMWRITEOOB, &request);
    if (result < 0)
        throw corvid::ErrnoException(errno);
    return result;
}

bool LinuxNandAccessImpl::IsBadBlock(std::uint64_t offset)
{
    __kernel_loff_t position = static_cast<__kernel_loff_t>(offset);
    const int result = ::ioctl(m_fd.Get(), MEMGETBADBLOCK, &position);
    if (result < 0)
        throw corvid::ErrnoException(errno);
    return result != 0;
}

bool LinuxNandAccessImpl::IsOobErased(std::uint64_t offset)
{
    if (m_oob_size == 0)
        return true;
    // Real chips have at most a few hundred OOB bytes per page; the heap is
    // only used for geometries beyond that.
    std::array<std::uint8_t, 1024> stack_buffer;
    std::vector<std::uint8_t> large_buffer;
    std::uint8_t* oob = stack_buffer.data();
    if (m_oob_size > stack_buffer.size()) {
        large_buffer.resize(m_oob_size);
        oob = large_buffer.data();
    }
    ReadOob(offset, oob, m_oob_size);
    return std::all_of(oob, oob + m_oob_size, [](std::uint8_t b) { return b == 0xFF; });
}

int LinuxNandAccessImpl::MarkBadBlock(std::uint64_t offset)
{
    __kernel_loff_t position = static_cast<__kernel_loff_t>(offset);
    const int result = ::ioctl(m_fd.Get(), MEMSETBADBLOCK, &position);
    if (result < 0)
        throw corvid::ErrnoException(errno);
    return result;
}

int LinuxNandAccessImpl::EraseBlock(std::uint64_t offset)
{
    erase_info_user request{};
    request.start = static_cast<std::uint32_t>(offset);
    request.length = static_cast<std::uint32_t>(m_erase_size);
    const int result = ::ioctl(m_fd.Get(), MEMERASE, &request);
    if (result < 0)
        throw corvid::ErrnoException(errno);
    return result;
}

void LinuxNandAccessImpl::SeekTo(std::uint64_t offset, const char* operation)
{
    const off_t result = ::lseek(m_fd.Get(), static_cast<off_t>(offset), SEEK_SET);
    if (result < 0)
        throw corvid::ErrnoException(errno, operation);
    if (static_cast<std::uint64_t>(result) != offset)
        throw std::runtime_error(fmt::format("{} seek failure", operation));
}

std::size_t LinuxNandAccessImpl::Read(std::uint64_t offset, void* buffer, std::size_t length)
{
    // The texts name the block layer, which is where readers come from.
    SeekTo(offset, "NandBlockAccess::Read");
    return corvid::read_all_throw(m_fd.Get(), buffer, std::min(length, m_erase_size));
}

void LinuxNandAccessImpl::Write(std::uint64_t offset, const void* buffer, std::size_t length)
{
    SeekTo(offset, "NandBlockAccess::Write");
    corvid::write_all_throw(m_fd.Get(), buffer, length);
}
