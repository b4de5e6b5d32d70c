// Positioned reads over plain or gzip partitions; the ELF note walk.
#include "platform/maybe_compressed_nand_reader.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/iostreams/filter/gzip.hpp>

#include "platform/assert.h"
#include "platform/binary_fields.h"
#include "platform/nand_block_access.h"

namespace {
constexpr const char* SOURCE_FILE = "lib/platform/maybe_compressed_nand_reader";
} // namespace

std::streamsize MaybeCompressedNandReader::NandSource::write(const char*, std::streamsize)
{
    CORVID_ASSERT(false, SOURCE_FILE, 21,
                  "std::streamsize MaybeCompressedNandReader::NandSource::write(const char*, "
                  "std::streamsize)",
                  "false");
    return 0;
}

std::streampos MaybeCompressedNandReader::NandSource::seek(boost::iostreams::stream_offset offset,
                                                           std::ios_base::seekdir direction)
{
    if (direction == std::ios_base::beg) {
        m_position = static_cast<std::uint64_t>(offset);
    } else if (direction == std::ios_base::cur) {
        m_position += static_cast<std::uint64_t>(offset);
    } else {
        CORVID_ASSERT(false, SOURCE_FILE, 35,
                      "std::streampos MaybeCompressedNandReader::NandSource::seek("
                      "boost::iostreams::stream_offset, std::ios_base::seekdir)",
                      "false");
    }
    return boost::iostreams::offset_to_position(static_cast<boost::iostreams::stream_offset>(m_position));
}

std::streamsize MaybeCompressedNandReader::NandSource::read(char* buffer, std::streamsize n)
{
    NandBlockAccess::Read(m_nand, m_position, buffer, static_cast<std::size_t>(n));
    m_position += static_cast<std::uint64_t>(n);
    return n;
}

namespace {
constexpr std::streamsize CHUNK = 4096;
constexpr int GZIP_WINDOW_BITS = 15;
} // namespace

MaybeCompressedNandReader::MaybeCompressedNandReader(const NandAccess::Pointer& nand)
{
    unsigned char magic[2];
    NandBlockAccess::Read(nand, 0, magic, sizeof magic);
    if ((magic[0] | magic[1] << 8) == 0x8B1F) {
        m_stream.push(boost::iostreams::gzip_decompressor(GZIP_WINDOW_BITS, CHUNK));
        m_seekable = false;
    }
    m_stream.push(NandSource(nand));
    // Errors of the device and the decompressor leave the stream as they are.
    m_stream.exceptions(std::ios_base::badbit);
}

boost::iostreams::stream_offset MaybeCompressedNandReader::Read(boost::iostreams::stream_offset offset,
                                                                char* buffer, std::streamsize length)
{
    if (offset > m_position) {
        if (m_seekable && offset - m_position >= CHUNK) {
            m_stream.seekg(offset, std::ios_base::beg);
            m_position = offset;
        } else {
            char scratch[CHUNK];
            while (m_position < offset) {
                m_stream.read(scratch, std::min(offset - m_position, CHUNK));
                const std::streamsize got = m_stream.gcount();
                m_position += got == 0 ? -1 : got;
                if (got == 0)
                    throw std::runtime_error("Short read from MaybeCompressedNandReader");
            }
        }
    }
    if (offset < m_position) {
        m_stream.seekg(offset, std::ios_base::beg);
        m_position = offset;
    }
    m_stream.read(buffer, length);
    const std::streamsize got = m_stream.gcount();
    m_position += got == 0 ? -1 : got;
    if (got != length)
        throw std::runtime_error("Short read from MaybeCompressedNandReader");
    return m_position;
}

namespace {

constexpr std::uint32_t PT_NOTE_TYPE = 4;
constexpr std::uint64_t MAX_NOTE_SEGMENT = 256;
constexpr std::uint32_t MAX_NOTE_NAME = 64;
constexpr std::uint32_t MAX_NOTE_DESCRIPTION = 128;
// The program-header table is read in pieces of at most this size.
constexpr std::size_t TABLE_PIECE = 65536;

// A PT_NOTE entry of the program-header table.
struct NoteSegment {
    std::uint64_t file_size;
    std::uint64_t offset;
};

// Reads the whole program-header table (size bytes at offset) piece by
// piece and keeps the PT_NOTE entries in table order: entries start every
// entry_size bytes, and one whose layout would run past the table is not
// looked at. Only one piece and the note entries are held, whatever size
// the header declares (up to 4 GiB).
std::vector<NoteSegment> ReadNoteSegments(const ElfReadFunction& read, std::uint64_t offset,
                                          std::uint64_t size, std::size_t entry_size,
                                          std::size_t layout_size, bool wide)
{
    std::vector<NoteSegment> segments;
    std::string window;          // the table's bytes from window_at on
    std::uint64_t window_at = 0;
    std::uint64_t next = 0;      // the next entry
    for (std::uint64_t done = 0; done < size;) {
        const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(TABLE_PIECE, size - done));
        const std::size_t kept = window.size();
        window.resize(kept + piece);
        read(offset + done, window.data() + kept, piece);
        done += piece;
        const auto* bytes = reinterpret_cast<const unsigned char*>(window.data());
        for (; next + layout_size <= done; next += entry_size) {
            const unsigned char* entry = bytes + (next - window_at);
            if (corvid::LoadLe32(entry) != PT_NOTE_TYPE)
                continue;
            segments.push_back({wide ? corvid::LoadLe64(entry + 32) : corvid::LoadLe32(entry + 16),
                                wide ? corvid::LoadLe64(entry + 8) : corvid::LoadLe32(entry + 4)});
        }
        // Less than one entry's layout is left to keep (or nothing, when the
        // next entry starts beyond this piece).
        const std::uint64_t drop = std::min<std::uint64_t>(next - window_at, window.size());
        window.erase(0, static_cast<std::size_t>(drop));
        window_at += drop;
    }
    return segments;
}

// Reads size bytes (at most capacity) into buffer and makes the last of them
// zero; a size of 0 is the empty text.
std::string ReadNoteText(const ElfReadFunction& read, std::uint64_t offset, std::uint32_t size,
                         char* buffer)
{
    if (size == 0)
        return {};
    read(offset, buffer, size);
    buffer[size - 1] = '\0';
    return std::string(buffer, ::strnlen(buffer, size));
}

} // namespace

void EnumerateElfNotes(const ElfReadFunction& read, const ElfNoteCallback& callback)
{
    unsigned char header[64];
    read(0, reinterpret_cast<char*>(header), 20);
    if (std::memcmp(header, "\x7F" "ELF", 4) != 0)
        throw std::runtime_error("No ELF header");

    bool wide = false;
    std::uint64_t table_offset = 0;
    std::size_t entry_size = 0, count = 0, layout_size = 0;
    switch (corvid::LoadLe16(header + 18)) {
    case 3: case 8: case 10: case 40:
        read(20, reinterpret_cast<char*>(header + 20), 32);
        table_offset = corvid::LoadLe32(header + 28);
        entry_size = corvid::LoadLe16(header + 42);
        count = corvid::LoadLe16(header + 44);
        layout_size = 32;
        break;
    case 62: case 183:
        read(20, reinterpret_cast<char*>(header + 20), 44);
        table_offset = corvid::LoadLe64(header + 32);
        entry_size = corvid::LoadLe16(header + 54);
        count = corvid::LoadLe16(header + 56);
        layout_size = 56;
        wide = true;
        break;
    default:
        throw std::runtime_error("Unsupported ELF machine");
    }
    if (entry_size * count < layout_size)
        throw std::runtime_error("ELF programme headers too small");

    for (const NoteSegment& segment :
         ReadNoteSegments(read, table_offset, entry_size * count, entry_size, layout_size, wide)) {
        if (segment.file_size > MAX_NOTE_SEGMENT)
            throw std::runtime_error("Note too big");
        const std::uint64_t offset = segment.offset;

        unsigned char note[12];
        read(offset, reinterpret_cast<char*>(note), sizeof note);
        const auto name_size = corvid::LoadLe32(note);
        const auto description_size = corvid::LoadLe32(note + 4);
        const auto type = corvid::LoadLe32(note + 8);
        if (name_size > MAX_NOTE_NAME)
            throw std::runtime_error("Note name too large");
        char name[MAX_NOTE_NAME];
        const std::string name_text = ReadNoteText(read, offset + 12, name_size, name);

        const std::uint64_t description_offset = (offset + 12 + name_size + 3) & ~std::uint64_t{3};
        if (description_size > MAX_NOTE_DESCRIPTION)
            throw std::runtime_error("Description too large");
        char description[MAX_NOTE_DESCRIPTION];
        const std::string description_text =
            ReadNoteText(read, description_offset, description_size, description);
        callback(type, name_text, description_text);
    }
}

void EnumerateElfNotes(const std::shared_ptr<NandAccess>& nand, const ElfNoteCallback& callback)
{
    MaybeCompressedNandReader reader(nand);
    EnumerateElfNotes(
        [&reader](std::uint64_t offset, char* buffer, std::size_t length) {
            reader.Read(static_cast<boost::iostreams::stream_offset>(offset), buffer,
                        static_cast<std::streamsize>(length));
        },
        callback);
}
