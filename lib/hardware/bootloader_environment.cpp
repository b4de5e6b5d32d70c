#include "hardware/bootloader_environment.h"

#include <cstdlib>
#include <exception>
#include <mutex>
#include <stdexcept>

#include "hardware/context.h"
#include "platform/nand_block_access.h"
#include "platform/trace.h"

namespace {

// Erased flash: accepted as the end of the list in the first record only.
constexpr unsigned char ERASED_FLASH = 0xFF;

// The process's environment, loaded once.
struct EnvironmentCache {
    std::mutex mutex;
    bool loaded = false;
    BootloaderEnvironment environment;
};

EnvironmentCache& Cache()
{
    static EnvironmentCache cache;
    return cache;
}

} // namespace

bool BootloaderEnvironment::HasSrb() const
{
    return Get("VX_FORMAT") == "1";
}

std::uint64_t BootloaderEnvironment::HardwareFlags() const
{
    const auto flags = variables.find("VX_HWFLAGS");
    return flags == variables.end() ? ~std::uint64_t(0) : std::strtoull(flags->second.c_str(), nullptr, 0);
}

std::map<std::string, std::string> ParseBootloaderEnvironmentBlock(std::string_view block)
{
    std::map<std::string, std::string> variables;
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(block[at]); };
    const std::size_t size = block.size();

    if (size == 0 || byte(0) == ENVIRONMENT_RECORD_END || byte(0) == ERASED_FLASH)
        return variables;

    std::size_t p = 0;
    for (;;) {
        if (byte(p) != ENVIRONMENT_RECORD_VARIABLE)
            throw std::runtime_error("Unknown record type");
        if (p + 2 > size)
            throw std::runtime_error("Record header truncated");
        const std::size_t length = byte(p + 1);
        const std::size_t next = p + 2 + length;
        if (next > size)
            throw std::runtime_error("Record content truncated");

        // A record of length 0 has no text at all and counts as one without '='.
        const std::string_view text =
            length == 0 ? std::string_view() : block.substr(p + ENVIRONMENT_RECORD_HEADER_SIZE, length - 1);
        const std::size_t equals = text.find('=');
        if (equals == std::string_view::npos) {
            corvid::PrintGuarded("No equals sign in environment string\n");
        } else {
            variables[std::string(text.substr(0, equals))] = std::string(text.substr(equals + 1));
        }

        // Records that fill the block to its last byte end the list there.
        if (next >= size || byte(next) == ENVIRONMENT_RECORD_END)
            break;
        p = next;
    }
    return variables;
}

EnvironmentBlock ReadEnvironmentBlock(NandAccess& nand)
{
    const std::size_t erase_size = nand.GetEraseSize();
    EnvironmentBlock block;
    block.offset = NandBlockAccess::FindFirstGoodBlock(nand);
    if (block.offset >= nand.GetTotalSize())
        throw std::runtime_error("All BOLT environment NAND blocks are bad");
    block.bytes.resize(erase_size);
    block.bytes.resize(nand.Read(block.offset, block.bytes.data(), erase_size));
    return block;
}

BootloaderEnvironment LoadBootloaderEnvironment(NandAccess& nand)
{
    BootloaderEnvironment environment;
    environment.variables = ParseBootloaderEnvironmentBlock(ReadEnvironmentBlock(nand).bytes);
    return environment;
}

BootloaderEnvironment LoadBootloaderEnvironmentOrEmpty(Context& context)
{
    try {
        const NandAccess::Pointer nand = context.OpenPartition(BOOTLOADER_ENVIRONMENT_PARTITION);
        return LoadBootloaderEnvironment(*nand);
    } catch (const std::exception&) {
        corvid::PrintGuarded("BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n");
        return BootloaderEnvironment();
    }
}

BootloaderEnvironment GetBootloaderEnvironment()
{
    EnvironmentCache& cache = Cache();
    const std::lock_guard<std::mutex> lock(cache.mutex);
    if (!cache.loaded) {
        cache.environment = LoadBootloaderEnvironmentOrEmpty(*Context::GetInstance());
        cache.loaded = true;
    }
    return cache.environment;
}

void ForgetBootloaderEnvironment()
{
    EnvironmentCache& cache = Cache();
    const std::lock_guard<std::mutex> lock(cache.mutex);
    cache.loaded = false;
    cache.environment = BootloaderEnvironment();
}
