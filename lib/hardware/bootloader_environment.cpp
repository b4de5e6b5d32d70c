#include "hardware/bootloader_environment.h"

#include <exception>
#include <mutex>
#include <stdexcept>

#include <fmt/format.h>

#include "hardware/nand_access_linux.h"
#include "hardware/nand_block_access.h"
#include "platform/trace.h"

namespace {

constexpr unsigned char RECORD_END = 0x00;
constexpr unsigned char RECORD_VARIABLE = 0x01;
constexpr unsigned char ERASED = 0xFF;
// Type, length and flags bytes.
constexpr std::size_t RECORD_HEADER_SIZE = 3;
// The length byte counts the flags byte and the text.
constexpr std::size_t MAX_RECORD_TEXT = 255 - 1;

} // namespace

std::map<std::string, std::string> ParseBootloaderEnvironmentBlock(std::string_view block)
{
    std::map<std::string, std::string> variables;
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(block[at]); };
    const std::size_t size = block.size();

    if (size == 0 || byte(0) == RECORD_END || byte(0) == ERASED)
        return variables;

    std::size_t p = 0;
    for (;;) {
        if (byte(p) != RECORD_VARIABLE)
            throw std::runtime_error("Unknown record type");
        if (p + 2 > size)
            throw std::runtime_error("Record header truncated");
        const std::size_t length = byte(p + 1);
        const std::size_t next = p + 2 + length;
        if (next > size)
            throw std::runtime_error("Record content truncated");

        // A record of length 0 has no text at all and counts as one without '='.
        const std::string_view text =
            length == 0 ? std::string_view() : block.substr(p + RECORD_HEADER_SIZE, length - 1);
        const std::size_t equals = text.find('=');
        if (equals == std::string_view::npos) {
            corvid::PrintError("No equals sign in environment string\n");
        } else {
            variables[std::string(text.substr(0, equals))] = std::string(text.substr(equals + 1));
        }

        // Records that fill the block to its last byte end the list there.
        if (next >= size || byte(next) == RECORD_END)
            break;
        p = next;
    }
    return variables;
}

BootloaderEnvironment LoadBootloaderEnvironment(NandAccess& nand)
{
    const std::size_t erase_size = nand.GetEraseSize();
    const std::uint64_t offset = NandBlockAccess::FindFirstGoodBlock(nand);
    if (offset >= nand.GetTotalSize())
        throw std::runtime_error("All BOLT environment NAND blocks are bad");

    std::string block(erase_size, '\0');
    block.resize(nand.Read(offset, block.data(), erase_size));

    BootloaderEnvironment environment;
    environment.variables = ParseBootloaderEnvironmentBlock(block);
    return environment;
}

BootloaderEnvironment LoadBootloaderEnvironmentOrEmpty(
    const std::function<NandAccess::Pointer()>& open)
{
    try {
        const NandAccess::Pointer nand = open();
        return LoadBootloaderEnvironment(*nand);
    } catch (const std::exception&) {
        corvid::PrintError("BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n");
        return BootloaderEnvironment();
    }
}

BootloaderEnvironment GetBootloaderEnvironment()
{
    static std::mutex mutex;
    static bool loaded = false;
    static BootloaderEnvironment cached;

    const std::lock_guard<std::mutex> lock(mutex);
    if (!loaded) {
        cached = LoadBootloaderEnvironmentOrEmpty([] {
            return LinuxNandAccess::Create(FindMtdPartition(BOOTLOADER_ENVIRONMENT_PARTITION));
        });
        loaded = true;
    }
    return cached;
}

std::string EncodeBootloaderEnvironmentBlock(const std::vector<std::string>& texts,
                                             std::size_t erase_size)
{
    std::string block;
    for (const std::string& text : texts) {
        if (text.find('=') == std::string::npos)
            throw std::runtime_error(fmt::format("No '=' in environment variable '{}'", text));
        if (text.size() > MAX_RECORD_TEXT)
            throw std::runtime_error(fmt::format(
                "Environment variable too long for one record ({} bytes, at most {}): '{}'",
                text.size(), MAX_RECORD_TEXT, text.substr(0, text.find('='))));
        block += static_cast<char>(RECORD_VARIABLE);
        block += static_cast<char>(text.size() + 1);
        block += '\0'; // flags
        block += text;
    }
    block += static_cast<char>(RECORD_END);
    if (block.size() > erase_size)
        throw std::runtime_error(fmt::format(
            "Environment does not fit in one erase block ({} bytes needed, {} available)",
            block.size(), erase_size));
    block.resize(erase_size, static_cast<char>(ERASED));
    return block;
}
