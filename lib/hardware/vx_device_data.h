// The device-data partition ("flash0.devid"): a header and a log of tagged,
// SHA-1 protected chunks written by the factory and later tools.
//
// Layout (all numbers little-endian, offsets from the first good erase block):
//   header  "VXDD", 32-bit header word (copied, never interpreted on the player)
//   chunk   4-byte tag, 32-bit length L, L - 20 payload bytes, SHA-1 of the payload
//   ...     the list ends at a chunk whose tag reads 0xFFFFFFFF (erased flash)
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "platform/nand_access.h"

// Name of the partition that holds the device data.
inline constexpr const char* DEVICE_DATA_PARTITION = "flash0.devid";

// The format.
inline constexpr std::uint32_t DEVICE_DATA_MAGIC = 0x44445856;        // "VXDD"
inline constexpr std::uint32_t DEVICE_DATA_ERASED_WORD = 0xFFFFFFFF; // ends the chunk list
inline constexpr std::size_t DEVICE_DATA_HEADER_SIZE = 8;             // magic, header word
inline constexpr std::size_t DEVICE_DATA_TAG_SIZE = 4;
inline constexpr std::size_t DEVICE_DATA_CHUNK_HEADER_SIZE = 8;       // tag, length
inline constexpr std::size_t DEVICE_DATA_DIGEST_SIZE = 20;            // SHA-1 of the payload
// The largest chunk length (everything after the chunk header) the parser accepts.
inline constexpr std::uint32_t DEVICE_DATA_MAX_CHUNK_LENGTH = 0x20000;

// A failure of ReadImage's walk over the chunks ("Veltrix device data
// section too large", "Veltrix device data incomplete", a read error), with
// the image read before it: the header and the chunks before the failure.
class DeviceDataReadError : public std::runtime_error {
public:
    DeviceDataReadError(const std::string& what, std::string image)
        : std::runtime_error(what), m_image(std::move(image))
    {
    }
    const std::string& GetImageSoFar() const noexcept { return m_image; }

private:
    std::string m_image;
};

// Reads the device-data partition through a one-page cache. Only NAND with
// 2048-byte pages is supported.
class VeltrixDeviceDataStorageNand {
public:
    static constexpr std::size_t BLOCK_SIZE = 2048;
    using ChunkFilter = std::function<bool(const std::string& tag)>;

    explicit VeltrixDeviceDataStorageNand(const NandAccess::Pointer& nand);

    // Reads the partition image: the 8 header bytes and every chunk whose tag
    // the filter accepts (an empty filter accepts every tag). An erased
    // partition gives an empty image.
    // A failure after the header throws DeviceDataReadError with the failure's
    // text.
    std::string ReadImage(const ChunkFilter& filter = ChunkFilter()) const;

private:
    void FindStart() const;
    void ReadAt(std::uint64_t offset, void* buffer, std::size_t length) const;
    std::uint32_t ReadWordAt(std::uint64_t offset) const;

    NandAccess::Pointer m_nand;
    mutable std::uint64_t m_page_address = ~std::uint64_t(0);
    mutable std::array<std::uint8_t, BLOCK_SIZE> m_page;
    mutable std::uint64_t m_start = 0;
};

// One chunk of a chunk list, as the walk below hands it out: its length is
// known to fit the list and the parser's limit.
struct DeviceDataChunk {
    std::size_t offset;     // of the chunk header, from the start of the list
    std::string_view bytes; // the whole chunk: header, payload and digest

    std::string Tag() const { return std::string(bytes.substr(0, DEVICE_DATA_TAG_SIZE)); }
    // Everything after the chunk header (the length field).
    std::size_t Length() const { return bytes.size() - DEVICE_DATA_CHUNK_HEADER_SIZE; }
    // False for a chunk too short to hold its digest.
    bool HasDigest() const { return Length() >= DEVICE_DATA_DIGEST_SIZE; }
    std::string_view Payload() const
    {
        return bytes.substr(DEVICE_DATA_CHUNK_HEADER_SIZE, Length() - DEVICE_DATA_DIGEST_SIZE);
    }
    std::string_view Digest() const { return bytes.substr(bytes.size() - DEVICE_DATA_DIGEST_SIZE); }
};

// Walks a list of chunks laid back to back (an image without its 8-byte
// header, or a factory chunk file), calling visit for each in order. Each
// chunk's length is checked before visit sees it: a length above
// DEVICE_DATA_MAX_CHUNK_LENGTH (compared unsigned) throws std::runtime_error
// "Veltrix device data section too large", a chunk that runs past the end of
// the list "Veltrix device data incomplete". Fewer than 8 bytes left end the
// walk. Chunks visited before an error stay visited.
void ForEachDeviceDataChunk(std::string_view list,
                            const std::function<void(const DeviceDataChunk&)>& visit);

using DeviceDataChunkHandler =
    std::function<void(const std::string& tag, const std::string& payload)>;
using DeviceDataCorruptHandler = std::function<void(const std::string& tag)>;

// Checks one chunk the way the player does: a chunk too short to hold a
// digest is reported on standard error ("Veltrix device data chunk too
// small"); one whose SHA-1 does not match is reported with dumps and passed
// to on_corrupt when set; an intact one goes to on_chunk.
void CheckDeviceDataChunk(const DeviceDataChunk& chunk, const DeviceDataChunkHandler& on_chunk,
                          const DeviceDataCorruptHandler& on_corrupt = DeviceDataCorruptHandler());

// Walks an image read by ReadImage: checks its header, then every chunk with
// CheckDeviceDataChunk. Structural damage throws std::runtime_error and ends
// the walk; chunks already delivered stay delivered.
void ParseDeviceData(const std::string& image, const DeviceDataChunkHandler& on_chunk,
                     const DeviceDataCorruptHandler& on_corrupt = DeviceDataCorruptHandler());

// The SHA-1 digest that protects a chunk's payload.
std::string DeviceDataDigest(std::string_view payload);
