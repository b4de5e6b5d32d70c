#include "fuzz_support.h"

#include <sys/mount.h>
#include <unistd.h>

#include <sched.h>

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
