// A returned player's data as saved files and images (its environment,
// device data, boot-loader and rescue partitions, /proc/boardid,
// /proc/meminfo, the version file, /dev/mem with the AVS block, /sys and
// eth0's address), as the options of vxtool report name them.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "factory/partition_layout.h"
#include "support/elf_images.h"
#include "support/oracles.h"

namespace {

constexpr std::size_t E = 16384;
const std::string AVS = "<6>AVS Revision=1.2.3.4 V0=0.950V T0=-2.000C PV0=1.000V MV0=0.007V ";
const std::string BOARD = "ID: 0x42\nBootloader-version: bolt-v3.9.1\n";
const std::string SECURE_ID = "5ec1d0000000c0de";
// What the check says of the blessings of BlessedDeviceData() on a unit with VX_HWFLAGS=0x11.
const std::string ENUMERATED = "Hardware bitfield: before: 0x80100000011 after: 0x88130000011 blessings enumeration";

// The start of a device-data partition with one blessing for SECURE_ID and
// serial PX9 that grants eac3 and vxear, made with openssl.
inline std::string BlessedDeviceData(const std::string& secure_id = SECURE_ID)
{
    return "VXDD" + vxtest::Le32(0) +
           vxtest::Sha1sumChunk("BLES",
                                vxtest::OpensslBlessingPayload("blessing-1", "BLES", "eac3:vxear", "", secure_id, "PX9"));
}

struct SavedPlayer {
    vxtest::TempDir dir;
    std::vector<std::string> args;

    // VX_FORMAT and VX_HWREV, /proc/boardid, and the start of the device data.
    explicit SavedPlayer(const std::string& format = "1", const std::string& revision = "7",
                         const std::string& boardid = BOARD, std::string devdata = {})
    {
        MemoryNand bolt(80 * E, E), rescue(4 * E, E);
        std::string logical(79 * E, '\xFF');
        logical.replace(0xD068, 8, vxtest::Le32(0) + vxtest::Le32(E));
        logical.replace(E + 0xFFC00, 14, std::string("version=7.1.0", 14));
        LayOverGoodBlocks(bolt, 0, logical);
        const auto kernel = vxtest::GccElf(vxtest::NoteAsm("veltrix", "5.0.2", 1), vxtest::ELF_COMPILERS[2]);
        LayOverGoodBlocks(rescue, 0, vxtest::Gzip(kernel, "-9"));
        // /sys: the SSD line (high, an input) and the interface's directory.
        std::filesystem::create_directories(dir.Path() + "/sys/class/net/eth0");
        std::filesystem::create_directories(dir.Path() + "/sys/class/gpio/gpio64");
        dir.WriteFile("sys/class/gpio/gpio64/value", "1\n");
        dir.WriteFile("sys/class/gpio/gpio64/direction", "in\n");
        // /dev/mem: the AVS block at 0x08144000, 18 words: V0 (2), T0 (3, signed),
        // PV0 (4), MV0 (5) in thousandths, the revision (10), the power state
        // (11), heartbeat (12) and magic word (13); the block also as a dump, "avs".
        std::string avs;
        for (const std::uint32_t w : {0u, 0u, 950u, 0xFFFFF830u, 1000u, 7u, 0u, 0u, 0u, 0u, 0x01020304u, 1u, 17u,
                                      0xA11600D1u})
            avs += vxtest::Le32(w);
        avs.resize(72, '\0');
        std::ofstream(dir.WriteFile("mem", ""), std::ios::binary).seekp(0x08144000) << avs;
        dir.WriteFile("avs", avs);
        std::filesystem::resize_file(dir.Path() + "/mem", 0x0A300000);
        args = {"report", "--env-image",
                dir.WriteFile("env", vxtest::EnvironmentBlock({"VX_FORMAT=" + format, "VX_HWREV=" + revision,
                                                               "VX_SERIAL=PX9", "VX_HWFLAGS=0x11", "VX_OEM_MODEL=Wall"},
                                                              E)),
                "--env-erase-size", "16384",
                "--devdata-image", dir.WriteFile("devdata", devdata.append(4 * E - devdata.size(), '\xFF')),
                "--devdata-erase-size", "16384", "--bolt-image", dir.WriteFile("bolt", bolt.Contents()),
                "--bolt-erase-size", "16384", "--rescue-image", dir.WriteFile("rescue", rescue.Contents()),
                "--rescue-erase-size", "16384", "--boardid",
                dir.WriteFile("boardid", boardid), "--meminfo",
                dir.WriteFile("meminfo", "MemTotal: 1000000 kB\n"), "--version-file",
                dir.WriteFile("version", "12.4.0\n"), "--mem", dir.Path() + "/mem", "--sys", dir.Path() + "/sys",
                "--eth0-address", "02:00:00:00:00:01"};
    }
};

// The options of args that name what some commands read: each option whose
// name begins with one of prefixes, with its value.
inline std::vector<std::string> Pick(const std::vector<std::string>& args, std::initializer_list<std::string> prefixes)
{
    std::vector<std::string> picked;
    for (std::size_t i = 1; i + 1 < args.size(); i += 2)
        if (std::ranges::any_of(prefixes, [&](const std::string& prefix) { return args[i].rfind(prefix, 0) == 0; }))
            picked.insert(picked.end(), {args[i], args[i + 1]});
    return picked;
}

} // namespace
