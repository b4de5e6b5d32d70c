#include "fuzz_support.h"

#include <sys/mount.h>
#include <unistd.h>

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/assert.h"
#include "platform/posix_helpers.h"

// Prints through the sanitizers' own report channel, which stays open when
// the fuzzer silences the program's standard error; absent without them.
extern "C" void __sanitizer_report_error_summary(const char* summary) __attribute__((weak));

namespace vxfuzz {

MemoryNand::MemoryNand(std::uint64_t total_size, std::size_t erase_size, std::size_t write_size)
    : m_total_size(total_size), m_erase_size(erase_size), m_write_size(write_size)
{
    if (erase_size == 0)
        throw std::invalid_argument("MemoryNand needs an erase size");
}

void MemoryNand::Put(std::uint64_t offset, std::string_view bytes)
{
    while (!bytes.empty() && offset < m_total_size) {
        const std::uint64_t index = offset / m_erase_size;
        const std::size_t in_block = offset % m_erase_size;
        const std::size_t n = std::min(bytes.size(), m_erase_size - in_block);
        auto [block, added] = m_blocks.try_emplace(index);
        if (added)
            block->second.assign(m_erase_size, '\xFF');
        block->second.replace(in_block, n, bytes.substr(0, n));
        bytes.remove_prefix(n);
        offset += n;
    }
}

void MemoryNand::PutOverGoodBlocks(std::uint64_t logical_offset, std::string_view bytes)
{
    const std::uint64_t blocks = m_total_size / m_erase_size;
    for (std::uint64_t index = 0; index < blocks && !bytes.empty(); ++index) {
        if (bad_blocks.count(index) != 0)
            continue;
        if (logical_offset >= m_erase_size) {
            logical_offset -= m_erase_size;
            continue;
        }
        const std::size_t n = std::min<std::uint64_t>(bytes.size(), m_erase_size - logical_offset);
        Put(index * m_erase_size + logical_offset, bytes.substr(0, n));
        bytes.remove_prefix(n);
        logical_offset = 0;
    }
}

bool MemoryNand::IsBadBlock(std::uint64_t offset)
{
    if (offset >= m_total_size && reject_out_of_range)
        throw corvid::ErrnoException(EINVAL);
    return bad_blocks.count(offset / m_erase_size) != 0;
}

int MemoryNand::MarkBadBlock(std::uint64_t offset)
{
    bad_blocks.insert(offset / m_erase_size);
    return 0;
}

int MemoryNand::EraseBlock(std::uint64_t offset)
{
    if (offset >= m_total_size)
        throw corvid::ErrnoException(EINVAL);
    if (IsBadBlock(offset))
        throw corvid::ErrnoException(EIO);
    m_blocks.erase(offset / m_erase_size);
    return 0;
}

std::size_t MemoryNand::Read(std::uint64_t offset, void* buffer, std::size_t length)
{
    if (offset > m_total_size)
        throw corvid::ErrnoException(EINVAL, "NandBlockAccess::Read");
    const std::size_t n = std::min<std::uint64_t>({length, m_erase_size, m_total_size - offset});
    auto* out = static_cast<char*>(buffer);
    for (std::size_t done = 0; done < n;) {
        const std::uint64_t at = offset + done;
        const std::size_t in_block = at % m_erase_size;
        const std::size_t piece = std::min(n - done, m_erase_size - in_block);
        const auto block = m_blocks.find(at / m_erase_size);
        if (block == m_blocks.end())
            std::memset(out + done, 0xFF, piece);
        else
            std::memcpy(out + done, block->second.data() + in_block, piece);
        done += piece;
    }
    return n;
}

void MemoryNand::Write(std::uint64_t offset, const void* buffer, std::size_t length)
{
    if (offset > m_total_size || length > m_total_size - offset)
        throw corvid::ErrnoException(EINVAL, "NandBlockAccess::Write");
    Put(offset, std::string_view(static_cast<const char*>(buffer), length));
}

namespace {

// In memory where possible: the targets that read files write one per input.
std::string MakeScratchRoot()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp && *tmp ? tmp : "/tmp";
    if (::access("/dev/shm", W_OK | X_OK) == 0)
        base = "/dev/shm";
    std::string pattern = base + "/vxfuzz.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr)
        throw corvid::ErrnoException(errno, pattern);
    static std::string s_root;
    s_root = pattern;
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(s_root, ignored);
    });
    return pattern;
}

} // namespace

FuzzContext::FuzzContext(const std::string& root) : Context(corvid::RootDir(root)) {}

FuzzContext& FuzzContext::Get()
{
    static FuzzContext context(MakeScratchRoot());
    return context;
}

std::string FuzzContext::WriteFile(const std::string& live_path, std::string_view content)
{
    const std::string path = Path(live_path);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.flush())
        throw std::runtime_error("cannot write " + path);
    return path;
}

void FuzzContext::SetPartition(const std::string& name, NandAccess::Pointer nand)
{
    m_partitions[name] = std::move(nand);
}

NandAccess::Pointer FuzzContext::OpenPartition(const std::string& name)
{
    const auto found = m_partitions.find(name);
    if (found == m_partitions.end())
        throw std::runtime_error(fmt::format("Failed to find NAND partition named '{}'", name));
    return found->second;
}

NandAccess::Pointer FuzzContext::OpenWholeDevice(const std::string& name)
{
    return OpenPartition(name);
}

std::unique_ptr<EventDevice> FuzzContext::OpenGpioEventDevice(int)
{
    throw corvid::ErrnoException(ENOENT, Path(GPIO_EVENT_DEVICE_PATH));
}

corvid::HardwareAddress FuzzContext::GetInterfaceAddress(const std::string&)
{
    throw corvid::ErrnoException(ENODEV);
}

void PropertyFailed(const char* condition, const char* file, int line)
{
    const std::string report = fmt::format("vxfuzz: property failed: {} at {}:{}", condition, file, line);
    if (__sanitizer_report_error_summary != nullptr)
        __sanitizer_report_error_summary(report.c_str());
    else
        std::fprintf(stderr, "%s\n", report.c_str());
    std::abort();
}

} // namespace vxfuzz

// Run once before the first input. A failed assertion writes its report to
// the kernel log; when this process could write the host's (as root), it
// moves into a private mount namespace in which /dev/kmsg cannot be opened
// as a device, so that the report goes to standard error instead.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (::access(corvid::KMSG_PATH, W_OK) != 0)
        return 0;
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(corvid::KMSG_PATH, corvid::KMSG_PATH, nullptr, MS_BIND, nullptr) != 0 ||
        ::mount(nullptr, corvid::KMSG_PATH, nullptr, MS_REMOUNT | MS_BIND | MS_NODEV, nullptr) != 0) {
        std::fprintf(stderr, "vxfuzz: cannot keep assertion reports out of %s: %s\n",
                     corvid::KMSG_PATH, std::strerror(errno));
    }
    return 0;
}
