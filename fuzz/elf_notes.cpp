// The ELF note walk of the rescue kernel, over a partition with bad blocks
// holding the image as it is (plain, or gzip data when it starts with the
// gzip magic), and over one holding the image gzip-compressed here.
//
// Input: one layout byte, then the image. Layout bits 0-7 mark physical
// blocks 0-7 bad; the image is laid over the good blocks, followed by
// erased flash.
//
// Properties: every note handed out has a name shorter than 64 bytes and a
// description shorter than 128; when the walk over the compressed image
// ends well, the walk over the plain one gives the same notes (reading
// compressed data is only more restricted: no backward reads, no reading
// past the data).
#include <zlib.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "fuzz_support.h"
#include "platform/maybe_compressed_nand_reader.h"

namespace {

constexpr std::size_t ERASE_SIZE = 4096;

using Notes = std::vector<std::tuple<unsigned, std::string, std::string>>;

std::string Gzip(std::string_view bytes)
{
    z_stream stream{};
    // Window bits 15 + 16: a gzip wrapper.
    if (deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2");
    std::string out(deflateBound(&stream, bytes.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END)
        throw std::runtime_error("deflate");
    return out;
}

// The notes of an image laid over the good blocks, or nothing when the walk
// fails.
std::optional<Notes> Walk(std::string_view image, unsigned bad_mask)
{
    // Room for the image, the bad blocks and the reader's 4096-byte fills.
    const std::size_t blocks = (image.size() + ERASE_SIZE - 1) / ERASE_SIZE + 2 + 8;
    auto nand = std::make_shared<MemoryNand>(blocks * ERASE_SIZE, ERASE_SIZE);
    nand->reject_out_of_range = true;
    for (unsigned b = 0; b < 8; ++b)
        if (bad_mask & (1u << b))
            nand->bad_blocks.insert(b);
    LayOverGoodBlocks(*nand, 0, image);

    Notes notes;
    try {
        EnumerateElfNotes(nand, [&](unsigned type, const std::string& name, const std::string& description) {
            VXFUZZ_CHECK(name.size() < 64 && description.size() < 128);
            notes.emplace_back(type, name, description);
        });
    } catch (const std::exception&) {
        return std::nullopt;
    }
    return notes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const unsigned bad_mask = data[0];
    const std::string_view image = vxfuzz::Text(data + 1, size - 1);

    const std::optional<Notes> plain = Walk(image, bad_mask);
    const std::optional<Notes> compressed = Walk(Gzip(image), bad_mask);
    if (compressed && !image.starts_with("\x1F\x8B"))
        VXFUZZ_CHECK(plain == compressed);
    return 0;
}
