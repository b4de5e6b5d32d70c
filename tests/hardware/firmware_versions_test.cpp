// The firmware versions: first-images layouts written out from their
// definition, rescue kernels, the fallbacks and the order of version texts.
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "hardware/firmware_versions.h"
#include "support/elf_images.h"
#include "support/fake_context.h"

using namespace std::string_literals;

namespace {

constexpr std::size_t E = 16384;

// The text f returns and what it printed on standard error.
std::pair<std::string, std::string> WithStderr(const std::function<std::string()>& f)
{
    testing::internal::CaptureStderr();
    std::string result = f();
    return {result, testing::internal::GetCapturedStderr()};
}

// flash0.bolt (2 MiB, block 2 bad): the words at 0xD068 and 0xD06C, and the
// information text at start + 0xFFC00, logical offsets over the good blocks.
void AddBolt(FakeContext& context, std::uint32_t elsewhere, std::uint32_t start, const std::string& text)
{
    auto nand = context.AddPartition("flash0.bolt", 2 * 1024 * 1024, E);
    nand->bad_blocks = {2};
    std::string logical(nand->GetTotalSize() - E, '\xFF');
    logical.replace(0xD068, 8, vxtest::Le32(elsewhere) + vxtest::Le32(start));
    logical.replace(start + 0xFFC00, text.size(), text);
    LayOverGoodBlocks(*nand, 0, logical);
}

TEST(FirstImages, InformationTextAndItsFailures)
{
    FakeContext context;
    AddBolt(context, 0, 4 * E, "\xFF\xFF\xFF" "a=b;version=8.0.1;minimum_firmware_version=8.0.0\0version=9"s);
    const bolt::FirstImagesInfo info = bolt::GetFirstImagesInfo();
    EXPECT_EQ(info.version + " " + info.minimum_firmware_version, "8.0.1 8.0.0");
    EXPECT_EQ(WithStderr(GetFirstImagesVersion), std::make_pair("8.0.1"s, ""s));
    AddBolt(context, 0, E, std::string(1024, '\xFF'));
    EXPECT_EQ(bolt::GetFirstImagesInfo().version + bolt::GetFirstImagesInfo().minimum_firmware_version, "");

    // Images in another partition: the simulated player's flash-read-error-bolt.
    const std::string failed = "Failed to get BOLT firstimages version: ";
    AddBolt(context, 0, E + 512, "version=1");
    EXPECT_EQ(WithStderr(GetFirstImagesVersion),
              std::make_pair("unavailable"s, "First images do not start on an erase block boundary" + failed +
                                                 "First images do not start on an erase block boundary\n"));
}

// A 64-bit image whose note segment lies before its program-header table.
std::string NoteBeforeTheTable(const std::string& version)
{
    const std::string note = vxtest::Note(1, "veltrix", version), image = vxtest::SyntheticElf(183, true, {{4, note}});
    // The header, the note, then the table with the note's offset, 64.
    return image.substr(0, 64).replace(32, 8, vxtest::Le64(64 + note.size())) + note +
           image.substr(64, 56).replace(8, 8, vxtest::Le64(64));
}

TEST(RescueKernel, VersionNoteAndTheFallback)
{
    using vxtest::Note;
    const std::string failed = "Unable to read rescue kernel version: ";
    std::string corrupt = vxtest::Gzip(vxtest::SyntheticElf(62, true, {{4, Note(1, "veltrix", "1")}}), "-9");
    corrupt[10] = '\xFF'; // the first deflate block's type: reserved
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // Type 1 and the exact name only; the last match wins.
        {vxtest::SyntheticElf(183, true, {{4, Note(1, "veltrix", "3.1.4")}, {4, Note(2, "veltrix", "2")},
                                          {4, Note(1, "Veltrix", "c")}, {4, Note(1, "veltrix", "3.1.5")}}),
         "3.1.5", ""},
        {vxtest::SyntheticElf(62, true, {{4, Note(1, "VELTRIX", "1")}}), "", ""},
        {std::string(64, '\0'), "0.0.0", failed + "No ELF header\n"},
        // Reading back is possible on plain data only.
        {NoteBeforeTheTable("6.0.1"), "6.0.1", ""},
        {vxtest::Gzip(NoteBeforeTheTable("6.0.1"), "-1"), "0.0.0", failed + "no random access: iostream error\n"},
        {corrupt, "0.0.0", failed + "gzip error: iostream error\n"}};
    for (const auto& [image, version, message] : cases) {
        FakeContext context;
        auto nand = context.AddPartition("flash0.rescue", 16 * 4096, 4096);
        nand->bad_blocks = {1};
        LayOverGoodBlocks(*nand, 0, image);
        EXPECT_EQ(WithStderr(GetRescueKernelVersion), std::make_pair(version, message)) << image.size();
    }
}

TEST(Versions, BootLoaderOperatingSystemAndSerialTexts)
{
    for (const auto& [text, expected, message] :
         {std::tuple{"v-3.1.2"s, "3.1.2"s, ""s}, {"4.10.20"s, "4.10.20"s, ""s},
          {"abc"s, "abc"s, "Boot version in incorrect format: 'abc'\n"s}}) // an empty one: blessing-unknown
        EXPECT_EQ(WithStderr([t = text] { return NormaliseBootloaderVersion(t); }), std::make_pair(expected, message));

    for (const char* format : {"VX_FORMAT=01", "VX_OTHER=1"}) {
        FakeContext context;
        context.AddPartition("flash0.nvram", 4 * E, E)->Put(0, vxtest::EnvironmentBlock({format, "VX_SERIAL=1"}, E));
        EXPECT_EQ(GetSerialNumber(), "") << format;
    }
    // The boot loader's version and the serial of a configured unit, and a
    // missing version file, are the simulated player's healthy and version-missing.
    FakeContext context;
    context.WriteFile("/etc/veltrix-version", "\0 \t\r\n\v\f12.0.1 \n\0"s);
    EXPECT_EQ(GetOperatingSystemVersion(), "\f12.0.1");
}

TEST(CompareVersions, NaturalOrderAndOverflow)
{
    for (const auto& [a, b, order] :
         {std::tuple{"1.2.10", "1.2.9", 1}, {"1.2", "1.2.0", -1}, {"1.2.0", "1.2", 1}, {"10", "010", 0},
          {"1.01", "1.1", 0}, {"", "", 0}, {"", "1", -1}, {"1a", "1.a", 1}, {"a", "1", -1}, {"1", "a", 1},
          {"4294967295", "4294967294", 1}})
        EXPECT_EQ(CompareVersions(a, b), order) << a << " " << b;
    EXPECT_THROW(CompareVersions("1", "99999999999"), std::range_error);
    EXPECT_EQ(vxtest::WhatOf([] { CompareVersions("4294967296", "1"); }), "Version string has out of range number");
}

} // namespace
