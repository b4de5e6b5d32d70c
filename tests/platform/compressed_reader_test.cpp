// The compressed reader and the ELF note walk, against executables built by
// gcc from notes in assembly, gzip's compression, and images at every limit.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "factory/partition_layout.h"
#include "platform/maybe_compressed_nand_reader.h"
#include "support/elf_images.h"

namespace {

using vxtest::Note;
using vxtest::SyntheticElf;
using Notes = std::vector<std::tuple<unsigned, std::string, std::string>>;

// Blocks of the erase size, 8 KiB more than the data (and 16 or more),
// block 1 bad, holding data from the start.
std::shared_ptr<MemoryNand> Partition(const std::string& data, std::size_t erase = 4096)
{
    const std::size_t blocks = std::max<std::size_t>(16, (data.size() + 8192) / erase + 2);
    auto nand = std::make_shared<MemoryNand>(blocks * erase, erase);
    nand->bad_blocks = {1};
    LayOverGoodBlocks(*nand, 0, data);
    return nand;
}

// The notes delivered, then how the walk ended; the image is laid over
// 128-byte blocks, so that even a small compressed one crosses the bad block.
std::pair<Notes, std::string> Walk(const std::string& image)
{
    Notes notes;
    const std::string end = vxtest::WhatOf([&] {
        EnumerateElfNotes(Partition(image, 128), [&](unsigned t, const std::string& n, const std::string& d) {
            notes.emplace_back(t, n, d);
        });
    });
    return {notes, end};
}
const std::string OK = "no exception";

TEST(ElfNotes, GccImagesPlainAndGzipGiveTheirFirstNote)
{
    for (const auto& compiler : vxtest::ELF_COMPILERS) {
        // Two notes in one section, one PT_NOTE segment: only the first counts.
        const std::string image = vxtest::GccElf(
            vxtest::NoteAsm("veltrix", "4.2.0-rescue", 1) + vxtest::NoteAsm("other", "x", 7), compiler);
        for (const std::string& data : {image, vxtest::Gzip(image, "-1"), vxtest::Gzip(image, "-9")})
            EXPECT_EQ(Walk(data), std::make_pair(Notes{{1, "veltrix", "4.2.0-rescue"}}, OK)) << compiler[0];
    }
}

TEST(ElfNotes, LimitsAtTheirBoundaries)
{
    const vxtest::Segment note{4, Note(1, "n", "d")};
    const std::pair<Notes, std::string> one = {{{1, "n", "d"}}, OK};
    const std::string name(63, 'n'), desc(127, 'd');
    const auto fails = [](const char* what) { return std::make_pair(Notes{}, std::string(what)); };
    const std::pair<std::string, std::pair<Notes, std::string>> cases[] = {
        {SyntheticElf(40, false, {note}, 0, 31, 1), fails("ELF programme headers too small")},
        {SyntheticElf(40, false, {note}, 0, 32, 1), one},
        {SyntheticElf(183, true, {note}, 0, 55, 1), fails("ELF programme headers too small")},
        {SyntheticElf(183, true, {note}, 0, 56, 1), one},
        {SyntheticElf(62, true, {note}, '\1'), one}, // the class byte is not looked at
        {SyntheticElf(21, true, {note}), fails("Unsupported ELF machine")},
        {std::string(64, 'E'), fails("No ELF header")},
        {SyntheticElf(3, false, {{4, note.content, 256}}), one},
        {SyntheticElf(3, false, {{4, note.content, 257}}), fails("Note too big")},
        {SyntheticElf(62, true, {{4, Note(9, name, desc)}}), {{{9, name, desc}}, OK}},
        {SyntheticElf(62, true, {{4, Note(9, name + "n", "d")}}), fails("Note name too large")},
        {SyntheticElf(62, true, {{4, Note(9, "n", desc + "d")}}), fails("Description too large")},
        // The last byte is forced to zero; a size of 0 is the empty text.
        {SyntheticElf(8, false, {{4, Note(5, "abcd", "wxyz", 4, 0)}}), {{{5, "abc", ""}}, OK}},
        // Program-header order; the callback keeps what came before a failure.
        {SyntheticElf(10, false, {{4, Note(1, "a", "1")}, {1, "LOAD"}, {4, Note(2, "b", "2")},
                                  {4, Note(3, "c", "3"), 257}}),
         {{{1, "a", "1"}, {2, "b", "2"}}, "Note too big"}},
    };
    for (const auto& [image, expected] : cases)
        EXPECT_EQ(Walk(image), expected) << &image - &cases[0].first;
}

// The table is read whole but held a piece at a time: the header's entry
// size and count (up to 4 GiB together) never size a buffer.
TEST(ElfNotes, ProgrammeHeaderTableReadInPieces)
{
    // 200 entries of 1008 bytes; notes in the first entry and in the two
    // that straddle the ends of the first two 64 KiB pieces.
    std::vector<vxtest::Segment> segments(131, {1, ""});
    segments[0] = {4, Note(1, "a", "1")};
    segments[65] = {4, Note(2, "b", "2")};
    segments[130] = {4, Note(3, "c", "3")};
    const std::string image = SyntheticElf(62, true, segments, 0, 1008, 200);
    std::size_t longest = 0;
    Notes notes;
    EnumerateElfNotes(
        [&](std::uint64_t offset, char* buffer, std::size_t length) {
            longest = std::max(longest, length);
            if (offset > image.size() || length > image.size() - offset)
                throw std::runtime_error("past the image");
            image.copy(buffer, length, offset);
        },
        [&](unsigned t, const std::string& n, const std::string& d) { notes.emplace_back(t, n, d); });
    EXPECT_EQ(notes, (Notes{{1, "a", "1"}, {2, "b", "2"}, {3, "c", "3"}}));
    EXPECT_LE(longest, 65536u);

    // 65535 entries of 65535 bytes declared (the fuzzer's find): the read
    // past the partition's end fails the walk before any note.
    std::string huge = SyntheticElf(62, true, {{4, Note(1, "a", "1")}});
    huge.replace(54, 4, "\xFF\xFF\xFF\xFF");
    EXPECT_EQ(Walk(huge), std::make_pair(Notes{}, std::string("Seek beyond end of good NAND blocks")));
}

// Reading back, gzip's forward reads and over a bad block are the note
// walks' and the rescue kernel's tests.
TEST(MaybeCompressedNandReader, APlainSeekReadsOnlyTheBlockItNeedsAndAnAllBadPartitionFails)
{
    std::string data(20000, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = char(i * 7 + i / 251);
    const auto plain = Partition(data);
    MaybeCompressedNandReader reader(plain);
    plain->reads.clear();
    char buffer[100];
    EXPECT_EQ(reader.Read(12000, buffer, 100), 12100); // past the bad block
    EXPECT_EQ(std::string(buffer, 100), data.substr(12000, 100));
    EXPECT_EQ(plain->reads.front(), std::make_pair(std::uint64_t(12000 + 4096), std::size_t(16384 - 16096)));

    auto bad = std::make_shared<MemoryNand>(2 * 4096, 4096);
    bad->bad_blocks = {0, 1};
    EXPECT_EQ(vxtest::WhatOf([&] { MaybeCompressedNandReader r(bad); }), "Seek beyond end of good NAND blocks");
}

} // namespace
