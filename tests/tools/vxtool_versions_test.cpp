// vxtool versions on images of a returned player's partitions.
#include <gtest/gtest.h>

#include "support/elf_images.h"

namespace {

TEST(VxtoolVersions, ReadsTheVersionsFromImages)
{
    constexpr std::size_t E = 16384;
    vxtest::TempDir dir;
    FakeNand bolt(80 * E, E), rescue(4 * E, E); // the dumps hold their bad blocks' garbage
    bolt.bad_blocks = {1};
    rescue.bad_blocks = {0};
    std::string logical(79 * E, '\xFF');
    logical.replace(0xD068, 8, vxtest::Le32(0) + vxtest::Le32(2 * E));
    logical.replace(2 * E + 0xFFC00, 26, "\xFF\xFFversion=7.1.0;other=1");
    vxtest::LayOver(bolt, logical);
    const std::string kernel = vxtest::GccElf(vxtest::NoteAsm("veltrix", "5.0.2", 1), vxtest::ELF_COMPILERS[2]);
    vxtest::LayOver(rescue, vxtest::Gzip(kernel, "-1"));
    bolt.Poke(E, std::string(E, 'x'));
    rescue.Poke(0, std::string(E, 'x'));

    const vxtest::RunResult r = vxtest::Vxtool(
        {"versions", "--bolt-image", dir.WriteFile("bolt.img", bolt.data), "--bolt-erase-size", "16384",
         "--bolt-bad-blocks", "1", "--rescue-image", dir.WriteFile("rescue.img", rescue.data),
         "--rescue-erase-size", "16384", "--rescue-bad-blocks", "0", "--env-image",
         dir.WriteFile("env.img", vxtest::EnvironmentBlock({"VX_FORMAT=1", "VX_SERIAL=PX9"}, E)),
         "--env-erase-size", "16384", "--boardid",
         dir.WriteFile("boardid", "ID: 0x42\nBootloader-version: bolt-v3.9.1\n"), "--version-file",
         dir.WriteFile("version", "12.4.0\n")});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "boot: v3.9.1\nfirstimages: 7.1.0\nrescue: 5.0.2\nmission: 12.4.0\nserial: PX9\n");
}

} // namespace
