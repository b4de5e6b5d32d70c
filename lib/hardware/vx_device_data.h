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
#include <string>
#include <vector>

#include "hardware/nand_access.h"

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

using DeviceDataChunkHandler =
    std::function<void(const std::string& tag, const std::string& payload)>;
using DeviceDataCorruptHandler = std::function<void(const std::string& tag)>;

// Walks an image read by ReadImage: every chunk whose SHA-1 matches goes to
// on_chunk; a chunk whose digest does not match is reported on standard error
// and, when on_corrupt is set, passed to it; a chunk too short to hold a
// digest is reported and skipped. Structural damage throws std::runtime_error
// and ends the walk; chunks already delivered stay delivered.
void ParseDeviceData(const std::string& image, const DeviceDataChunkHandler& on_chunk,
                     const DeviceDataCorruptHandler& on_corrupt = DeviceDataCorruptHandler());

// Factory side. One chunk: the 4-byte tag, the length, the payload and its
// SHA-1. Throws std::invalid_argument for a tag that is not 4 bytes or reads
// as erased flash, std::length_error for a payload the player would refuse.
std::string EncodeDeviceDataChunk(const std::string& tag, const std::string& payload);

// A whole image: "VXDD", the header word, then the encoded chunks back to
// back. No padding and no end marker: the erased flash after it ends the list.
std::string EncodeDeviceDataImage(const std::vector<std::string>& encoded_chunks,
                                  std::uint32_t header_word = 0);

// The largest chunk length (everything after the 8-byte chunk header) that
// the parser accepts.
inline constexpr std::uint32_t DEVICE_DATA_MAX_CHUNK_LENGTH = 0x20000;
// Size of the SHA-1 digest at the end of every chunk.
inline constexpr std::size_t DEVICE_DATA_DIGEST_SIZE = 20;

// The little-endian 32-bit number at bytes (the format's tags, lengths and
// header words).
std::uint32_t LoadLe32(const void* bytes);
