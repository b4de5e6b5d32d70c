// The firmware versions of the boot report.
#include "hardware/firmware_versions.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "hardware/hardware_config.h"
#include "platform/binary_fields.h"
#include "platform/key_value.h"
#include "platform/maybe_compressed_nand_reader.h"
#include "platform/nand_block_access.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"

namespace {

constexpr std::uint64_t FIRST_IMAGES_ELSEWHERE_OFFSET = 0xD068;
constexpr std::uint64_t FIRST_IMAGES_START_OFFSET = 0xD06C;
constexpr std::uint64_t FIRST_IMAGES_INFO_OFFSET = 0xFFC00;
constexpr std::size_t FIRST_IMAGES_INFO_SIZE = 1024;

std::uint32_t ReadWord(NandAccess& nand, std::uint64_t offset)
{
    unsigned char bytes[4];
    NandBlockAccess::Read(nand, offset, bytes, sizeof bytes);
    return corvid::LoadLe32(bytes);
}

[[noreturn]] void Fail(const char* message, const char* line_end)
{
    corvid::PrintGuarded("{}{}", message, line_end);
    throw std::runtime_error(message);
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads the run of digits at text[at], leaving at after it.
std::uint32_t ReadNumber(const std::string& text, std::size_t& at)
{
    std::uint32_t value = 0;
    for (; at < text.size() && IsDigit(text[at]); ++at) {
        const std::uint32_t next = value * 10 + std::uint32_t(text[at] - '0');
        if (next < value)
            throw std::range_error("Version string has out of range number");
        value = next;
    }
    return value;
}

} // namespace

namespace bolt {

FirstImagesInfo GetFirstImagesInfo()
{
    const NandAccess::Pointer nand = Context::GetInstance()->OpenWholeDevice(BOOTLOADER_PARTITION);
    if (ReadWord(*nand, FIRST_IMAGES_ELSEWHERE_OFFSET) != 0)
        Fail("First images are not in first partition", "\n");
    const std::uint32_t start = ReadWord(*nand, FIRST_IMAGES_START_OFFSET);
    const std::size_t erase_size = nand->GetEraseSize();
    if (erase_size == 0 || start % erase_size != 0)
        Fail("First images do not start on an erase block boundary", "");

    char buffer[FIRST_IMAGES_INFO_SIZE + 1] = {};
    NandBlockAccess::Read(*nand, start + FIRST_IMAGES_INFO_OFFSET, buffer, FIRST_IMAGES_INFO_SIZE);
    const char* text = buffer;
    while (*text == '\xFF')
        ++text;

    FirstImagesInfo info;
    corvid::ParseKeyValuePairs(text, ";", "=", "", [&info](const std::string& key, const std::string& value) {
        if (key == "version")
            info.version = value;
        else if (key == "minimum_firmware_version")
            info.minimum_firmware_version = value;
    });
    return info;
}

} // namespace bolt

std::string GetFirstImagesVersion()
{
    try {
        return bolt::GetFirstImagesInfo().version;
    } catch (const std::exception& e) {
        corvid::PrintGuarded("Failed to get BOLT firstimages version: {}\n", e.what());
        return "unavailable";
    }
}

std::string NormaliseBootloaderVersion(const std::string& text)
{
    if (text.empty()) {
        corvid::PrintGuarded("Empty boot version from boot loader. Bad.\n");
        return "0.0.0";
    }
    if (IsDigit(text[0]))
        return text;
    const std::size_t dash = text.find('-');
    if (dash != std::string::npos)
        return text.substr(dash + 1);
    corvid::PrintGuarded("Boot version in incorrect format: '{}'\n", text);
    return text;
}

std::string GetBootloaderVersion()
{
    return NormaliseBootloaderVersion(HardwareConfig::GetInstance()->GetBootloaderVersion());
}

std::string GetRescueKernelVersion()
{
    try {
        std::string version;
        EnumerateElfNotes(Context::GetInstance()->OpenWholeDevice(RESCUE_KERNEL_PARTITION),
                          [&version](unsigned type, const std::string& name, const std::string& description) {
                              if (type == 1 && name == "veltrix")
                                  version = description;
                          });
        return version;
    } catch (const std::exception& e) {
        corvid::PrintGuarded("Unable to read rescue kernel version: {}\n", e.what());
    } catch (...) {
        corvid::PrintGuarded("Unable to read rescue kernel version: Unknown exception\n");
    }
    return "0.0.0";
}

std::string GetOperatingSystemVersion()
{
    static constexpr char WHITESPACE[] = {'\0', '\t', '\n', '\v', '\r', ' '};
    const std::string_view set(WHITESPACE, sizeof WHITESPACE);
    const std::string text = corvid::ReadWholeFile(Context::GetInstance()->Path(VERSION_FILE_PATH));
    const std::size_t first = text.find_first_not_of(set);
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(set) - first + 1);
}

std::string GetSerialNumber()
{
    const BootloaderEnvironment environment = GetBootloaderEnvironment();
    return environment.HasSrb() ? environment.Serial() : std::string();
}

int CompareVersions(const std::string& a, const std::string& b)
{
    if (a.empty())
        return b.empty() ? 0 : -1;
    std::size_t i = 0, j = 0;
    while (i < a.size()) {
        if (j >= b.size())
            return 1;
        const bool da = IsDigit(a[i]), db = IsDigit(b[j]);
        if (da && db) {
            const std::uint32_t x = ReadNumber(a, i), y = ReadNumber(b, j);
            if (x != y)
                return x < y ? -1 : 1;
        } else if (da != db) {
            return da ? 1 : -1;
        } else {
            const auto ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
            if (ca != cb)
                return ca < cb ? -1 : 1;
            ++i;
            ++j;
        }
    }
    return j < b.size() ? -1 : 0;
}
