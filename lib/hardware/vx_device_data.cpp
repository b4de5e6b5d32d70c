#include "hardware/vx_device_data.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "hardware/gcrypt_handles.h"
#include "hardware/signature_verifier.h"
#include "platform/assert.h"
#include "platform/trace.h"

static const bool s_gcrypt = (InitialiseGcrypt(), true);

std::uint32_t LoadLe32(const void* bytes)
{
    const auto* b = static_cast<const std::uint8_t*>(bytes);
    return std::uint32_t(b[0]) | std::uint32_t(b[1]) << 8 | std::uint32_t(b[2]) << 16 |
           std::uint32_t(b[3]) << 24;
}

namespace {

constexpr std::uint32_t MAGIC = 0x44445856; // "VXDD"
constexpr std::uint32_t ERASED_WORD = 0xFFFFFFFF;
constexpr std::size_t IMAGE_HEADER_SIZE = 8;
constexpr std::size_t CHUNK_HEADER_SIZE = 8;
constexpr std::size_t DUMP_BYTES_PER_LINE = 16;

void AppendLe32(std::string& out, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
}

std::string Sha1(std::string_view data)
{
    return ComputeDigest(GCRY_MD_SHA1, data);
}

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
        corvid::PrintError("{}", std::string_view(text, pos));
    }
}

} // namespace

VeltrixDeviceDataStorageNand::VeltrixDeviceDataStorageNand(const NandAccess::Pointer& nand)
    : m_nand(nand)
{
    const std::size_t write_size = m_nand->GetWriteSize();
    if (write_size != BLOCK_SIZE) {
        corvid::DumpNamedValue("LHS", write_size);
        corvid::DumpNamedValue("RHS", BLOCK_SIZE);
        // The report path aborts without flushing standard output.
        std::fflush(stdout);
        corvid::AssertionFailed(
            "lib/hardware/vx_device_data", 76,
            "VeltrixDeviceDataStorageNand::VeltrixDeviceDataStorageNand(const NandAccess::Pointer&)",
            "nand->GetWriteSize()==BLOCK_SIZE");
    }
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
    if (magic == ERASED_WORD)
        return std::string();
    if (magic != MAGIC)
        throw std::runtime_error("Veltrix device data is corrupt");

    std::string image(IMAGE_HEADER_SIZE, '\0');
    ReadAt(m_start, image.data(), IMAGE_HEADER_SIZE);

    const std::size_t erase_size = m_nand->GetEraseSize();
    std::uint64_t position = m_start + IMAGE_HEADER_SIZE;
    for (;;) {
        char header[CHUNK_HEADER_SIZE];
        ReadAt(position, header, sizeof header);
        if (LoadLe32(header) == ERASED_WORD)
            return image;
        const std::uint32_t length = LoadLe32(header + 4);
        if (length > erase_size)
            throw std::runtime_error("Veltrix device data section too large");
        if (!filter || filter(std::string(header, 4))) {
            const std::size_t at = image.size();
            image.append(header, sizeof header);
            image.resize(at + sizeof header + length);
            ReadAt(position + sizeof header, image.data() + at + sizeof header, length);
        }
        position += CHUNK_HEADER_SIZE + length;
    }
}

void ParseDeviceData(const std::string& image, const DeviceDataChunkHandler& on_chunk,
                     const DeviceDataCorruptHandler& on_corrupt)
{
    if (image.empty())
        return;
    if (image.size() < IMAGE_HEADER_SIZE || LoadLe32(image.data()) != MAGIC)
        throw std::runtime_error("Veltrix device data is corrupt");
    if (image.size() < IMAGE_HEADER_SIZE + CHUNK_HEADER_SIZE)
        return;

    std::size_t q = IMAGE_HEADER_SIZE;
    while (q + CHUNK_HEADER_SIZE <= image.size()) {
        const char* chunk = image.data() + q;
        // Compared unsigned: a length with the top bit set is too large as well.
        const std::uint32_t length = LoadLe32(chunk + 4);
        if (length > DEVICE_DATA_MAX_CHUNK_LENGTH)
            throw std::runtime_error("Veltrix device data section too large");
        if (length > image.size() - q - CHUNK_HEADER_SIZE)
            throw std::runtime_error("Veltrix device data incomplete");
        const std::size_t chunk_size = CHUNK_HEADER_SIZE + length;
        if (length < DEVICE_DATA_DIGEST_SIZE) {
            corvid::PrintError("Veltrix device data chunk too small\n");
            q += chunk_size;
            continue;
        }
        const std::string tag(chunk, 4);
        const char* payload = chunk + CHUNK_HEADER_SIZE;
        const std::size_t payload_size = length - DEVICE_DATA_DIGEST_SIZE;
        const std::string computed = Sha1(std::string_view(payload, payload_size));
        const auto* stored = reinterpret_cast<const std::uint8_t*>(payload + payload_size);
        if (std::memcmp(computed.data(), stored, computed.size()) != 0) {
            corvid::PrintError("Veltrix device data chunk failed integrity check\n");
            HexDump(reinterpret_cast<const std::uint8_t*>(chunk), chunk_size);
            corvid::PrintError("Calculated hash\n");
            HexDump(reinterpret_cast<const std::uint8_t*>(computed.data()), computed.size());
            corvid::PrintError("Expected hash\n");
            HexDump(stored, DEVICE_DATA_DIGEST_SIZE);
            if (on_corrupt)
                on_corrupt(tag);
        } else {
            on_chunk(tag, std::string(payload, payload_size));
        }
        q += chunk_size;
    }
}

std::string EncodeDeviceDataChunk(const std::string& tag, const std::string& payload)
{
    if (tag.size() != 4)
        throw std::invalid_argument("Device data tag must be 4 bytes: '" + tag + "'");
    if (LoadLe32(tag.data()) == ERASED_WORD)
        throw std::invalid_argument("Device data tag must not read as erased flash");
    if (payload.size() > DEVICE_DATA_MAX_CHUNK_LENGTH - DEVICE_DATA_DIGEST_SIZE)
        throw std::length_error("Device data payload too large: " + std::to_string(payload.size()) +
                                " bytes");
    const std::string digest = Sha1(payload);
    std::string chunk = tag;
    AppendLe32(chunk, static_cast<std::uint32_t>(payload.size() + DEVICE_DATA_DIGEST_SIZE));
    chunk += payload;
    chunk += digest;
    return chunk;
}

std::string EncodeDeviceDataImage(const std::vector<std::string>& encoded_chunks,
                                  std::uint32_t header_word)
{
    std::string image;
    AppendLe32(image, MAGIC);
    AppendLe32(image, header_word);
    for (const std::string& chunk : encoded_chunks)
        image += chunk;
    return image;
}
