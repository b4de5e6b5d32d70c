#include "hardware/vx_device_data.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "hardware/gcrypt_handles.h"
#include "hardware/signature_verifier.h"
#include "platform/assert.h"
#include "platform/binary_fields.h"
#include "platform/trace.h"

using corvid::LoadLe32;

static const bool s_gcrypt = (InitialiseGcrypt(), true);

namespace {

constexpr std::size_t DUMP_BYTES_PER_LINE = 16;

// Writes bytes to standard error, 16 a line: the decimal offset from the
// first byte, ": ", then "xx " per byte; a short last line is padded with
// three blanks per missing byte so that every line has the same width.
void HexDump(const std::uint8_t* bytes, std::size_t length)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (std::size_t line = 0; line < length; line += DUMP_BYTES_PER_LINE) {
        // Longest line: 20 offset digits, ": ", 16 * 3 columns, "\n".
        char text[20 + 2 + DUMP_BYTES_PER_LINE * 3 + 1];
        char digits[20];
        std::size_t n = 0;
        std::size_t value = line;
        do {
            digits[n++] = DIGITS[value % 10];
            value /= 10;
        } while (value != 0);
        std::size_t pos = 0;
        while (n > 0)
            text[pos++] = digits[--n];
        text[pos++] = ':';
        text[pos++] = ' ';
        for (std::size_t i = line; i < line + DUMP_BYTES_PER_LINE; ++i) {
            if (i < length) {
                text[pos++] = DIGITS[bytes[i] >> 4];
                text[pos++] = DIGITS[bytes[i] & 0xF];
            } else {
                text[pos++] = ' ';
                text[pos++] = ' ';
            }
            text[pos++] = ' ';
        }
        text[pos++] = '\n';
        corvid::PrintGuarded("{}", std::string_view(text, pos));
    }
}

} // namespace

VeltrixDeviceDataStorageNand::VeltrixDeviceDataStorageNand(const NandAccess::Pointer& nand)
    : m_nand(nand)
{
    CORVID_ASSERT_EQ(
        m_nand->GetWriteSize(), BLOCK_SIZE, "lib/hardware/vx_device_data", 76,
        "VeltrixDeviceDataStorageNand::VeltrixDeviceDataStorageNand(const NandAccess::Pointer&)",
        "nand->GetWriteSize()==BLOCK_SIZE");
}

void VeltrixDeviceDataStorageNand::FindStart() const
{
    while (m_nand->IsBadBlock(m_start)) {
        m_start += m_nand->GetEraseSize();
        if (m_start >= m_nand->GetTotalSize())
            throw std::runtime_error("Veltrix device data partition is entirely bad");
    }
}

void VeltrixDeviceDataStorageNand::ReadAt(std::uint64_t offset, void* buffer,
                                          std::size_t length) const
{
    auto* out = static_cast<std::uint8_t*>(buffer);
    while (length > 0) {
        const std::uint64_t page = offset - offset % BLOCK_SIZE;
        if (page != m_page_address) {
            m_page_address = ~std::uint64_t(0);
            // A short page means the data runs off the end of the partition.
            if (m_nand->Read(page, m_page.data(), BLOCK_SIZE) != BLOCK_SIZE)
                throw std::runtime_error("Veltrix device data incomplete");
            m_page_address = page;
        }
        const std::size_t in_page = offset % BLOCK_SIZE;
        const std::size_t n = std::min(BLOCK_SIZE - in_page, length);
        std::memcpy(out, m_page.data() + in_page, n);
        out += n;
        offset += n;
        length -= n;
    }
}

std::uint32_t VeltrixDeviceDataStorageNand::ReadWordAt(std::uint64_t offset) const
{
    std::uint8_t bytes[4];
    ReadAt(offset, bytes, sizeof bytes);
    return LoadLe32(bytes);
}

std::string VeltrixDeviceDataStorageNand::ReadImage(const ChunkFilter& filter) const
{
    FindStart();
    const std::uint32_t magic = ReadWordAt(m_start);
    if (magic == DEVICE_DATA_ERASED_WORD)
        return std::string();
    if (magic != DEVICE_DATA_MAGIC)
        throw std::runtime_error("Veltrix device data is corrupt");

    std::string image(DEVICE_DATA_HEADER_SIZE, '\0');
    ReadAt(m_start, image.data(), DEVICE_DATA_HEADER_SIZE);

    const std::size_t erase_size = m_nand->GetEraseSize();
    std::uint64_t position = m_start + DEVICE_DATA_HEADER_SIZE;
    try {
        for (;;) {
            // The tag first: an erased one ends the list even in the last
            // bytes of the partition, where no whole header fits.
            char header[DEVICE_DATA_CHUNK_HEADER_SIZE];
            ReadAt(position, header, DEVICE_DATA_TAG_SIZE);
            if (LoadLe32(header) == DEVICE_DATA_ERASED_WORD)
                return image;
            ReadAt(position + DEVICE_DATA_TAG_SIZE, header + DEVICE_DATA_TAG_SIZE,
                   DEVICE_DATA_CHUNK_HEADER_SIZE - DEVICE_DATA_TAG_SIZE);
            const std::uint32_t length = LoadLe32(header + 4);
            if (length > erase_size)
                throw std::runtime_error("Veltrix device data section too large");
            if (!filter || filter(std::string(header, DEVICE_DATA_TAG_SIZE))) {
                std::string chunk(header, sizeof header);
                chunk.resize(sizeof header + length);
                ReadAt(position + sizeof header, chunk.data() + sizeof header, length);
                image += chunk;
            }
            position += DEVICE_DATA_CHUNK_HEADER_SIZE + length;
        }
    } catch (const std::runtime_error& e) {
        throw DeviceDataReadError(e.what(), std::move(image));
    }
}

std::string DeviceDataDigest(std::string_view payload)
{
    return ComputeDigest(GCRY_MD_SHA1, payload);
}

void ForEachDeviceDataChunk(std::string_view list,
                            const std::function<void(const DeviceDataChunk&)>& visit)
{
    std::size_t q = 0;
    while (q + DEVICE_DATA_CHUNK_HEADER_SIZE <= list.size()) {
        // Compared unsigned: a length with the top bit set is too large as well.
        const std::uint32_t length = LoadLe32(list.data() + q + DEVICE_DATA_TAG_SIZE);
        if (length > DEVICE_DATA_MAX_CHUNK_LENGTH)
            throw std::runtime_error("Veltrix device data section too large");
        if (length > list.size() - q - DEVICE_DATA_CHUNK_HEADER_SIZE)
            throw std::runtime_error("Veltrix device data incomplete");
        const std::size_t size = DEVICE_DATA_CHUNK_HEADER_SIZE + length;
        visit(DeviceDataChunk{q, list.substr(q, size)});
        q += size;
    }
}

void CheckDeviceDataChunk(const DeviceDataChunk& chunk, const DeviceDataChunkHandler& on_chunk,
                          const DeviceDataCorruptHandler& on_corrupt)
{
    if (!chunk.HasDigest()) {
        corvid::PrintGuarded("Veltrix device data chunk too small\n");
        return;
    }
    const std::string computed = DeviceDataDigest(chunk.Payload());
    if (computed != chunk.Digest()) {
        const auto bytes = [](std::string_view text) {
            return reinterpret_cast<const std::uint8_t*>(text.data());
        };
        corvid::PrintGuarded("Veltrix device data chunk failed integrity check\n");
        HexDump(bytes(chunk.bytes), chunk.bytes.size());
        corvid::PrintGuarded("Calculated hash\n");
        HexDump(bytes(computed), computed.size());
        corvid::PrintGuarded("Expected hash\n");
        HexDump(bytes(chunk.Digest()), DEVICE_DATA_DIGEST_SIZE);
        if (on_corrupt)
            on_corrupt(chunk.Tag());
        return;
    }
    on_chunk(chunk.Tag(), std::string(chunk.Payload()));
}

void ParseDeviceData(const std::string& image, const DeviceDataChunkHandler& on_chunk,
                     const DeviceDataCorruptHandler& on_corrupt)
{
    if (image.empty())
        return;
    if (image.size() < DEVICE_DATA_HEADER_SIZE || LoadLe32(image.data()) != DEVICE_DATA_MAGIC)
        throw std::runtime_error("Veltrix device data is corrupt");
    ForEachDeviceDataChunk(std::string_view(image).substr(DEVICE_DATA_HEADER_SIZE),
                           [&](const DeviceDataChunk& chunk) {
                               CheckDeviceDataChunk(chunk, on_chunk, on_corrupt);
                           });
}
