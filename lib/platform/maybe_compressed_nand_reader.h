// Reading a NAND partition whose content may be gzip-compressed, and walking
// the ELF notes of an image stored that way (the rescue kernel).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ios>
#include <memory>
#include <string>

#include <boost/iostreams/concepts.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <boost/iostreams/positioning.hpp>

#include "platform/nand_access.h"

// A positioned reader over the good blocks of a partition (see
// NandBlockAccess) that inflates the data when the partition starts with the
// gzip magic 0x1F 0x8B. Over gzip data every position is reached by
// inflating everything before it, and reading backwards is refused by the
// decompressor ("no random access"); over plain data any offset may be read.
class MaybeCompressedNandReader {
public:
    // The partition as a stream device: reads the good blocks from its own
    // logical position. It never returns a short count: at the end of the
    // good blocks NandBlockAccess throws instead.
    class NandSource : public boost::iostreams::device<boost::iostreams::seekable> {
    public:
        explicit NandSource(NandAccess::Pointer nand) : m_nand(std::move(nand)) {}

        std::streamsize read(char* buffer, std::streamsize n);
        // A fatal assertion: the device is only ever read.
        std::streamsize write(const char* buffer, std::streamsize n);
        // From the beginning or from the current position; from the end is a
        // fatal assertion.
        std::streampos seek(boost::iostreams::stream_offset offset, std::ios_base::seekdir direction);

    private:
        NandAccess::Pointer m_nand;
        std::uint64_t m_position = 0;
    };

    // Probes the first two bytes (NandBlockAccess errors pass through) and
    // builds the chain; the probe consumes nothing.
    explicit MaybeCompressedNandReader(const NandAccess::Pointer& nand);

    // Fills buffer with exactly length bytes of the uncompressed data from
    // offset and returns the new position. Forward gaps are skipped by
    // reading (or, over plain data, seeking when 4096 bytes or more); a
    // backward offset seeks, which the decompressor refuses. Throws
    // std::runtime_error "Short read from MaybeCompressedNandReader" when the
    // data ends first; errors of the block layer and the decompressor pass
    // through.
    boost::iostreams::stream_offset Read(boost::iostreams::stream_offset offset, char* buffer,
                                         std::streamsize length);

    bool IsSeekable() const { return m_seekable; }

private:
    bool m_seekable = true;
    boost::iostreams::filtering_istream m_stream;
    boost::iostreams::stream_offset m_position = 0;
};

using ElfNoteCallback =
    std::function<void(unsigned type, const std::string& name, const std::string& description)>;

// Calls callback with (type, name, description) of the first note of every
// PT_NOTE program header of the ELF image in the partition (plain or gzip),
// in program-header order. Machines 3, 8, 10 and 40 are read with the 32-bit
// layout, 62 and 183 with the 64-bit one, whatever the class byte says.
// Throws std::runtime_error "No ELF header", "Unsupported ELF machine",
// "ELF programme headers too small", "Note too big" (segment above 256
// bytes), "Note name too large" (above 64), "Description too large" (above
// 128); the callback keeps what it received before. Errors of the reader
// pass through.
void EnumerateElfNotes(const std::shared_ptr<NandAccess>& nand, const ElfNoteCallback& callback);

// The walk itself over any reading function (offset, buffer, length) that
// fills all length bytes or throws.
using ElfReadFunction = std::function<void(std::uint64_t offset, char* buffer, std::size_t length)>;
void EnumerateElfNotes(const ElfReadFunction& read, const ElfNoteCallback& callback);
