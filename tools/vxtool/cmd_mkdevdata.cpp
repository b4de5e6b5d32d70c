// vxtool mkdevdata: builds a device-data partition image from chunks.
#include <algorithm>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "command.h"
#include "factory/partition_layout.h"
#include "factory/records.h"
#include "hardware/vx_device_data.h"
#include "platform/binary_fields.h"
#include "platform/posix_helpers.h"
#include "source.h"

namespace vxtool {
namespace {

constexpr const char* USAGE =
    "--erase-size BYTES -o FILE [--header-word N] [--size BYTES] [--bad-blocks N,N,...] "
    "[--chunk TAG:PAYLOADFILE | CHUNKFILE]...";

struct ChunkRefused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Splits a file of encoded chunks (one or more, back to back) and checks each
// the way the player will: a proper tag, a length that holds the digest and
// fits an erase block, and a matching SHA-1.
std::vector<std::string> ReadChunkFile(const std::string& path, std::size_t erase_size)
{
    const std::string bytes = corvid::ReadWholeFile(path);
    if (bytes.empty())
        throw std::runtime_error(fmt::format("{}: holds no chunk", path));
    std::vector<std::string> chunks;
    std::size_t end = 0; // of the last chunk taken
    try {
        ForEachDeviceDataChunk(bytes, [&](const DeviceDataChunk& chunk) {
            const char* refusal = nullptr;
            if (corvid::LoadLe32(chunk.bytes.data()) == DEVICE_DATA_ERASED_WORD)
                refusal = "reads as erased flash";
            else if (!chunk.HasDigest())
                refusal = "too small";
            else if (chunk.Length() > erase_size)
                refusal = "longer than an erase block";
            else if (DeviceDataDigest(chunk.Payload()) != chunk.Digest())
                refusal = "failed integrity check";
            if (refusal)
                throw ChunkRefused(fmt::format("{}: chunk at offset {} {}", path, chunk.offset, refusal));
            chunks.emplace_back(chunk.bytes);
            end = chunk.offset + chunk.bytes.size();
        });
    } catch (const ChunkRefused&) {
        throw;
    } catch (const std::runtime_error& e) { // the walk's own: too large, incomplete
        throw std::runtime_error(fmt::format("{}: chunk at offset {}: {}", path, end, e.what()));
    }
    if (end != bytes.size())
        throw std::runtime_error(fmt::format("{}: truncated chunk header at offset {}", path, end));
    return chunks;
}

// --chunk TAG:PAYLOADFILE: a chunk made here from a 4-character tag and a file.
std::string MakeChunk(const std::string& argument, std::size_t erase_size)
{
    const std::size_t colon = argument.find(':');
    if (colon != 4)
        throw UsageError(
            fmt::format("--chunk: expected TAG:PAYLOADFILE with a 4-byte tag, got '{}'", argument));
    const std::string tag = argument.substr(0, 4);
    const std::string path = argument.substr(5);
    const std::string payload = corvid::ReadWholeFile(path);
    if (payload.size() + DEVICE_DATA_DIGEST_SIZE > erase_size)
        throw std::runtime_error(fmt::format("{}: payload too large for an erase block", path));
    return EncodeDeviceDataChunk(tag, payload);
}

int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    std::string erase_size_text, output, header_word_text, size_text, bad_blocks_text;
    if (!TakeOption(args, "--erase-size", erase_size_text))
        throw UsageError("--erase-size is required");
    if (!TakeOption(args, "-o", output) || output.empty())
        throw UsageError("-o FILE is required");
    const auto erase_size = static_cast<std::size_t>(ParseNumber("--erase-size", erase_size_text));
    if (erase_size == 0 || erase_size % VeltrixDeviceDataStorageNand::BLOCK_SIZE != 0)
        throw UsageError("--erase-size must be a non-zero multiple of 2048");
    std::uint32_t header_word = 0;
    if (TakeOption(args, "--header-word", header_word_text)) {
        const auto value = ParseNumber("--header-word", header_word_text);
        if (value > 0xFFFFFFFF)
            throw UsageError("--header-word must fit 32 bits");
        header_word = static_cast<std::uint32_t>(value);
    }
    std::size_t size = 0;
    const bool have_size = TakeOption(args, "--size", size_text);
    if (have_size) {
        size = static_cast<std::size_t>(ParseNumber("--size", size_text));
        if (size == 0 || size % erase_size != 0)
            throw UsageError("--size must be a non-zero multiple of --erase-size");
    }
    std::set<std::size_t> bad_blocks;
    if (TakeOption(args, "--bad-blocks", bad_blocks_text))
        bad_blocks = ParseBlockList("--bad-blocks", bad_blocks_text);

    // The chunks, in command-line order.
    std::vector<std::string> chunks;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--chunk") {
            if (i + 1 == args.size())
                throw UsageError("--chunk needs a value");
            chunks.push_back(MakeChunk(args[++i], erase_size));
        } else if (arg.rfind("--chunk=", 0) == 0) {
            chunks.push_back(MakeChunk(arg.substr(8), erase_size));
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw UsageError(fmt::format("unknown option '{}'", arg));
        } else {
            for (std::string& chunk : ReadChunkFile(arg, erase_size))
                chunks.push_back(std::move(chunk));
        }
    }
    const std::string image = EncodeDeviceDataImage(chunks, header_word);

    // The data starts at the first good block and runs straight on, with
    // room for an erased chunk header after the last chunk to end the list.
    std::size_t first = 0;
    while (bad_blocks.count(first))
        ++first;
    const std::size_t data_blocks = (image.size() + 8 + erase_size - 1) / erase_size;
    for (std::size_t block = first; block < first + data_blocks; ++block) {
        if (bad_blocks.count(block))
            throw std::runtime_error(
                fmt::format("bad block {} lies inside the data (blocks {} to {})", block, first,
                            first + data_blocks - 1));
    }
    std::size_t needed = (first + data_blocks) * erase_size;
    if (!bad_blocks.empty())
        needed = std::max(needed, (*bad_blocks.rbegin() + 1) * erase_size);
    if (have_size && size < needed)
        throw std::runtime_error(
            fmt::format("--size {} is too small: the image needs {} bytes", size, needed));

    // Erased flash is 0xFF; bad blocks are filled with zeros, which the player
    // would take for corrupt data if it ever read them.
    const std::string partition = MakePartitionImage(image, have_size ? size : needed, erase_size, bad_blocks);
    WriteOutput(output, partition);
    return 0;
}

const CommandRegistrar reg({"mkdevdata", USAGE,
                            "build a device-data partition image from encoded chunk files and "
                            "raw TAG:PAYLOADFILE chunks",
                            &Run});

} // namespace
} // namespace vxtool
