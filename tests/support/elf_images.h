// ELF images for the note walk: executables built by the host's gcc and Debian's AArch64 and
// 32-bit ARM cross compilers, images written out from the ELF layout, gzip.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/oracles.h"
#include "support/programs.h"

namespace vxtest {

// Assembler for one note of the given type.
inline std::string NoteAsm(const std::string& name, const std::string& desc, unsigned type)
{
    return ".balign 4\n.long " + std::to_string(name.size() + 1) + ", " + std::to_string(desc.size() + 1) +
           ", " + std::to_string(type) + "\n.asciz \"" + name + "\"\n.balign 4\n.asciz \"" + desc + "\"\n.balign 4\n";
}

// The compilers that build the images: x86-64, i386, AArch64 and 32-bit ARM.
inline const std::vector<std::vector<std::string>> ELF_COMPILERS = {
    {"/usr/bin/gcc", "-m64"}, {"/usr/bin/gcc", "-m32"}, {"/usr/bin/aarch64-linux-gnu-gcc"},
    {"/usr/bin/arm-linux-gnueabihf-gcc"}};

// An executable whose notes the compiler links into a PT_NOTE segment.
inline std::string GccElf(const std::string& notes, const std::vector<std::string>& compiler)
{
    TempDir dir;
    const std::string out = dir.Path() + "/n";
    std::vector<std::string> args(compiler.begin() + 1, compiler.end());
    args.insert(args.end(), {"-nostdlib", "-static", "-Wl,--build-id=none", "-o", out,
                             dir.WriteFile("n.s", ".section .note.veltrix,\"a\",%note\n" + notes +
                                                      ".text\n.globl _start\n_start: nop\n")});
    const RunResult r = Run(compiler[0], args);
    if (r.exit_status != 0)
        throw std::runtime_error("gcc: " + r.err);
    return ReadFile(out);
}

inline std::string Gzip(const std::string& data, const std::string& level)
{
    return Run("/usr/bin/gzip", {level, "-c", "-n"}, data).out;
}

inline std::string Le64(std::uint64_t v) { return Le32(std::uint32_t(v)) + Le32(std::uint32_t(v >> 32)); }

// A note: the three header words, then name and description padded to 4
// bytes; the sizes in the header are the texts' with their zero byte unless given.
inline std::string Note(std::uint32_t type, std::string name, std::string desc, int name_size = -1,
                        int desc_size = -1)
{
    const std::string header = Le32(name_size < 0 ? name.size() + 1 : name_size) +
                               Le32(desc_size < 0 ? desc.size() + 1 : desc_size) + Le32(type);
    name.resize((name.size() + 4) / 4 * 4, '\0');
    desc.resize((desc.size() + 4) / 4 * 4, '\0');
    return header + name + desc;
}

// A program header of a synthetic image: type, content, declared file size (0: the content's).
struct Segment {
    std::uint32_t type = 4;
    std::string content;
    std::uint64_t file_size = 0;
};

// An ELF image: header (machine, class byte), then the program-header table
// at offset 64 (entry size x count bytes; by default the layout's size, one
// entry per segment), then the segments.
inline std::string SyntheticElf(std::uint16_t machine, bool wide, const std::vector<Segment>& segments,
                                char class_byte = 0, std::uint16_t entry_size = 0, std::uint16_t count = 0)
{
    entry_size = entry_size ? entry_size : wide ? 56 : 32;
    count = count ? count : std::uint16_t(segments.size());
    const std::string sizes = Le32(entry_size | count << 16);
    std::string image = std::string("\x7F" "ELF") + (class_byte ? class_byte : wide ? '\2' : '\1') + '\1';
    image.resize(18, '\0');
    image += Le32(machine).substr(0, 2);
    image.resize(64, '\0');
    image.replace(wide ? 32 : 28, wide ? 8 : 4, wide ? Le64(64) : Le32(64)).replace(wide ? 54 : 42, 4, sizes);
    std::string table(std::size_t(entry_size) * count, '\0'), data;
    std::uint64_t offset = 64 + table.size();
    for (std::size_t i = 0; i < segments.size() && (i + 1) * entry_size <= table.size(); ++i) {
        const Segment& s = segments[i];
        const std::uint64_t size = s.file_size ? s.file_size : s.content.size();
        std::string entry = Le32(s.type) + (wide ? Le32(0) + Le64(offset) + std::string(16, '\0') + Le64(size)
                                                       : Le32(offset) + std::string(8, '\0') + Le32(size));
        entry.resize(entry_size, '\0');
        table.replace(i * entry_size, entry_size, entry);
        data += s.content;
        offset += s.content.size();
    }
    return image + table + data;
}

} // namespace vxtest
