// The boot loader's environment block, parsed as it is and loaded through a
// partition with bad blocks.
//
// Input: one layout byte, then the block (as `vxtool mkenv` writes it; the
// erased end of the block may be left out). Layout bits 0-6 mark the
// blocks of the 7-block partition bad; bit 7 makes a bad-block query past
// the end fail as the kernel's does.
//
// Properties: the loader gives what the parser gives for the first good
// block (every other block holds another environment), and an environment
// that loads is written again by the factory encoder and parses back to the
// same variables.
#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "factory/records.h"
#include "fuzz_support.h"
#include "hardware/bootloader_environment.h"

namespace {

constexpr std::size_t ERASE_SIZE = 4096;
constexpr std::size_t BLOCKS = 7;
// What the blocks other than the first good one hold.
constexpr std::string_view DECOY("\x01\x08\x00" "DECOY=1" "\x00", 11);

using Variables = std::map<std::string, std::string>;

// The variables, or the error text.
struct Outcome {
    std::optional<Variables> variables;
    std::string error;
    bool operator==(const Outcome&) const = default;
};

template <typename Load>
Outcome Run(const Load& load)
{
    try {
        return {load(), {}};
    } catch (const std::exception& e) {
        return {std::nullopt, e.what()};
    }
}

void CheckRoundTrip(const Variables& variables)
{
    std::vector<std::string> texts;
    for (const auto& [key, value] : variables)
        texts.push_back(key + "=" + value);
    // The records of one block always fit another block with room to spare.
    const std::string block = EncodeBootloaderEnvironmentBlock(texts, 2 * ERASE_SIZE);
    VXFUZZ_CHECK(ParseBootloaderEnvironmentBlock(block) == variables);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const unsigned layout = data[0];
    const std::string_view input = vxfuzz::Text(data + 1, size - 1).substr(0, ERASE_SIZE);

    // Unpadded: records may fill the text to its last byte.
    Run([&] { return ParseBootloaderEnvironmentBlock(input); });

    std::string block(input);
    block.resize(ERASE_SIZE, '\xFF');
    MemoryNand nand(BLOCKS * ERASE_SIZE, ERASE_SIZE);
    nand.reject_out_of_range = (layout & 0x80) != 0;
    std::optional<std::size_t> first_good;
    for (std::size_t b = 0; b < BLOCKS; ++b) {
        if (layout & (1u << b))
            nand.bad_blocks.insert(b);
        else if (!first_good)
            first_good = b;
        nand.Put(b * ERASE_SIZE, b == first_good ? std::string_view(block) : DECOY);
    }

    const Outcome loaded = Run([&] { return LoadBootloaderEnvironment(nand).variables; });
    if (!first_good) {
        VXFUZZ_CHECK(!loaded.variables);
        return 0;
    }
    VXFUZZ_CHECK(loaded == Run([&] { return ParseBootloaderEnvironmentBlock(block); }));
    if (loaded.variables)
        CheckRoundTrip(*loaded.variables);
    return 0;
}
