#include "healthy_unit.h"

#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include <fmt/format.h>

#include "child_process.h"
#include "factory/partition_layout.h"
#include "factory/records.h"
#include "factory/rsa_signer.h"
#include "hardware/blessings.h"
#include "hardware/board_id.h"
#include "hardware/bootloader_environment.h"
#include "hardware/firmware_versions.h"
#include "hardware/mmio.h"
#include "hardware/vx_device_data.h"
#include "platform/binary_fields.h"
#include "platform/posix_helpers.h"

namespace bench {
namespace {

// Where the first images' start is stored in the boot-loader partition, and
// where their information text lies from that start.
constexpr std::size_t FIRST_IMAGES_WORDS = 0xD068;
constexpr std::size_t FIRST_IMAGES_INFO = 0xFFC00;
constexpr std::size_t FIRST_IMAGES_INFO_SIZE = 1024;

std::string Le16(std::uint16_t v) { return std::string{char(v), char(v >> 8)}; }

std::string Le32(std::uint32_t v)
{
    std::string bytes;
    corvid::AppendLe32(bytes, v);
    return bytes;
}

std::string Le64(std::uint64_t v) { return Le32(std::uint32_t(v)) + Le32(std::uint32_t(v >> 32)); }

std::string PadTo4(std::string bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
    return bytes;
}

std::size_t BlocksFor(std::size_t bytes) { return (bytes + ERASE_SIZE - 1) / ERASE_SIZE; }

// The rescue kernel as an AArch64 ELF executable: the file header, two
// program headers (the text's PT_LOAD, then the PT_NOTE), the version note
// right after them, and the text from the next 4 KiB boundary. Returns the
// image; notes_end is where the note's description ends, the last byte a
// reader of the version needs.
std::string RescueKernelElf(const std::string& version, const std::string& text, std::size_t& notes_end)
{
    constexpr std::size_t HEADER = 64, ENTRY = 56, ENTRIES = 2, TEXT_OFFSET = 0x1000;
    constexpr std::uint64_t BASE = 0xFFFFFFC008000000;
    const std::string name = "veltrix";
    const std::size_t note_offset = HEADER + ENTRY * ENTRIES;
    const std::string note = Le32(std::uint32_t(name.size() + 1)) + Le32(std::uint32_t(version.size() + 1)) +
                             Le32(1) + PadTo4(name + '\0') + PadTo4(version + '\0');
    notes_end = note_offset + 12 + PadTo4(name + '\0').size() + version.size() + 1;

    std::string image = std::string("\x7F" "ELF\x02\x01\x01", 7);
    image.resize(16, '\0');
    image += Le16(2) + Le16(183) + Le32(1) + Le64(BASE + TEXT_OFFSET) + Le64(HEADER) + Le64(0) + Le32(0) +
             Le16(HEADER) + Le16(ENTRY) + Le16(ENTRIES) + Le16(0) + Le16(0) + Le16(0);
    image += Le32(1) + Le32(5) + Le64(TEXT_OFFSET) + Le64(BASE + TEXT_OFFSET) + Le64(BASE + TEXT_OFFSET) +
             Le64(text.size()) + Le64(text.size()) + Le64(0x10000);
    image += Le32(4) + Le32(4) + Le64(note_offset) + Le64(BASE + note_offset) + Le64(BASE + note_offset) +
             Le64(note.size()) + Le64(note.size()) + Le64(4);
    image += note;
    image.resize(TEXT_OFFSET, '\0');
    return image + text;
}

std::string Gzip(const std::string& dir, const std::string& data)
{
    const std::string plain = dir + "/rescue.elf";
    corvid::WriteWholeFile(plain, data, 0644);
    const ChildRun run = RunChild("gzip", {"-9", "-n", "-c", plain}, plain + ".gz", dir + "/gzip.err");
    if (run.status != 0)
        throw std::runtime_error("gzip failed: " + corvid::ReadWholeFile(dir + "/gzip.err"));
    return corvid::ReadWholeFile(plain + ".gz");
}

// The bytes of an environment block's records up to and including the end byte.
std::size_t EnvironmentRecordsLength(const std::string& block)
{
    std::size_t p = 0;
    while (static_cast<unsigned char>(block.at(p)) == ENVIRONMENT_RECORD_VARIABLE)
        p += 2 + static_cast<unsigned char>(block.at(p + 1));
    return p + 1;
}

// "0,1"
std::string BlockList(const std::set<std::size_t>& blocks)
{
    return fmt::format("{}", fmt::join(blocks, ","));
}

void WriteFile(const std::string& root, const std::string& live_path, const std::string& content)
{
    const std::filesystem::path path = root + live_path;
    std::filesystem::create_directories(path.parent_path());
    corvid::WriteWholeFile(path, content, 0644);
}

} // namespace

std::size_t GzipBytesToInflate(const std::string& compressed, std::size_t wanted)
{
    z_stream stream{};
    if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK)
        throw std::runtime_error("inflateInit2 failed");
    std::string out(wanted, '\0');
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    auto* in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    std::size_t fed = 0;
    while (stream.total_out < wanted && fed < compressed.size()) {
        stream.next_in = in + fed;
        stream.avail_in = 1;
        const int result = inflate(&stream, Z_NO_FLUSH);
        fed += 1 - stream.avail_in;
        if (result != Z_OK && result != Z_BUF_ERROR && result != Z_STREAM_END) {
            inflateEnd(&stream);
            throw std::runtime_error("inflate failed");
        }
        if (result == Z_STREAM_END)
            break;
    }
    inflateEnd(&stream);
    if (stream.total_out < wanted)
        throw std::runtime_error("gzip data shorter than wanted");
    return fed;
}

std::vector<std::string> HealthyUnit::ReportArguments() const
{
    std::vector<std::string> args{"report"};
    for (const SavedPartition& p : partitions) {
        args.insert(args.end(), {"--" + p.option + "-image", p.image, "--" + p.option + "-erase-size",
                                 std::to_string(ERASE_SIZE)});
        if (!p.bad_blocks.empty())
            args.insert(args.end(), {"--" + p.option + "-bad-blocks", BlockList(p.bad_blocks)});
    }
    args.insert(args.end(), {"--boardid", root + BOARD_ID_PATH, "--meminfo", root + "/proc/meminfo",
                             "--version-file", root + VERSION_FILE_PATH, "--mem", root + MEM_DEVICE_PATH,
                             "--sys", root + "/sys", "--eth0-address", ETH0_ADDRESS});
    return args;
}

std::vector<std::string> HealthyUnit::PassArguments() const
{
    std::vector<std::string> args{root, ETH0_ADDRESS};
    for (const SavedPartition& p : partitions)
        args.insert(args.end(), {p.name, p.image, p.bad_blocks.empty() ? "-" : BlockList(p.bad_blocks)});
    return args;
}

HealthyUnit SaveHealthyUnit(const std::string& dir, const std::string& keys_dir,
                            const std::string& scratch_program)
{
    HealthyUnit unit;
    unit.root = dir + "/root";

    // The environment: a signed manufacturing record, behind the two
    // factory bad blocks the player's flash often has.
    std::map<std::string, std::string> variables = {
        {"VX_FORMAT", "1"},   {"VX_SERIAL", SERIAL},           {"VX_HWREV", "3"},
        {"VX_OEM_ID", "0"},   {"VX_OEM_MODEL", "Signage-4K"},  {"VX_HWFLAGS", "0x30000113"},
        {"ETH0_HWADDR", ETH0_ADDRESS}};
    const GcrySexp srb_key = LoadPrivateKeyFile(keys_dir + "/srb-1.test-only.pem");
    for (const auto& [name, value] : SrbSignatureVariables(SignSrb(variables, SECURE_ID, srb_key)))
        variables[name] = value;
    std::vector<std::string> texts;
    for (const auto& [name, value] : variables)
        texts.push_back(name + "=" + value);
    const std::string block = EncodeBootloaderEnvironmentBlock(texts, ERASE_SIZE);
    unit.environment_records = EnvironmentRecordsLength(block);
    unit.partitions.push_back(
        {BOOTLOADER_ENVIRONMENT_PARTITION, "env", dir + "/nvram.img", {0, 1}, ERASE_SIZE,
         fmt::format("the environment block (one erase block; records and end byte {})",
                     unit.environment_records)});

    // The device data: the two blessings bound to this unit.
    const GcrySexp blessing_key = LoadPrivateKeyFile(keys_dir + "/blessing-1.test-only.pem");
    std::vector<std::string> chunks;
    for (const char* name : BLESSING_NAMES) {
        const std::string payload = MakeBlessingPayload("BLES", name, "", SECURE_ID, SERIAL, blessing_key);
        chunks.push_back(EncodeDeviceDataChunk("BLES", payload));
        if (unit.blessing_signature.empty()) {
            const char* cursor = payload.data();
            const char* const end = cursor + payload.size();
            corvid::ReadLengthPrefixedString(cursor, end);
            unit.blessing_signature = corvid::ReadLengthPrefixedString(cursor, end);
            unit.blessing_digest =
                ComputeDigest(GCRY_MD_SHA256, blessings::SignedMessage("BLES", SECURE_ID, SERIAL, name, ""));
        }
    }
    const std::string device_data = EncodeDeviceDataImage(chunks);
    // The reader must also see the erased tag that ends the list.
    unit.partitions.push_back(
        {DEVICE_DATA_PARTITION, "devdata", dir + "/devid.img", {},
         device_data.size() + DEVICE_DATA_TAG_SIZE,
         fmt::format("header {} + {} chunks {} + end tag {}", DEVICE_DATA_HEADER_SIZE, chunks.size(),
                     device_data.size() - DEVICE_DATA_HEADER_SIZE, DEVICE_DATA_TAG_SIZE)});

    // The boot loader: the first images in this partition from its second
    // block, their information text 1 KiB long.
    std::string boot(ERASE_SIZE + FIRST_IMAGES_INFO + FIRST_IMAGES_INFO_SIZE, '\xFF');
    boot.replace(FIRST_IMAGES_WORDS, 8, Le32(0) + Le32(ERASE_SIZE));
    std::string info = "version=8.0.1;minimum_firmware_version=7.0.0";
    info.resize(FIRST_IMAGES_INFO_SIZE, '\0');
    boot.replace(ERASE_SIZE + FIRST_IMAGES_INFO, info.size(), info);
    unit.partitions.push_back({BOOTLOADER_PARTITION, "bolt", dir + "/bolt.img", {}, 8 + FIRST_IMAGES_INFO_SIZE,
                               fmt::format("two words 8 + information text {}", FIRST_IMAGES_INFO_SIZE)});

    // The rescue kernel, compressed by the gzip program. Its text is the
    // first MiB of a real executable, so that it compresses like machine
    // code does.
    std::string text = corvid::ReadWholeFile(scratch_program);
    text.resize(std::min<std::size_t>(text.size(), 1024 * 1024));
    std::size_t notes_end = 0;
    const std::string kernel = RescueKernelElf("6.1.0-rsc2", text, notes_end);
    const std::string compressed = Gzip(dir, kernel);
    // The floor: a decompressor must consume this much of the gzip stream
    // before it has inflated the ELF header, the program headers and the
    // note, the last bytes the version needs. Measured by inflating one input
    // byte at a time: the count includes the gzip header and every Huffman
    // table and code up to the note's last byte, rounded up to whole bytes.
    // Here the note lies right after the headers; a kernel whose notes come
    // after its text would need nearly the whole stream instead.
    const std::size_t rescue_floor = GzipBytesToInflate(compressed, notes_end);
    unit.partitions.push_back(
        {RESCUE_KERNEL_PARTITION, "rescue", dir + "/rescue.img", {}, rescue_floor,
         fmt::format("gzip bytes inflating the ELF header, program headers and note (the first {} of {} "
                     "bytes; {} compressed)",
                     notes_end, kernel.size(), compressed.size())});

    const std::string contents[] = {block, device_data, boot, compressed};
    for (std::size_t i = 0; i < unit.partitions.size(); ++i) {
        const SavedPartition& p = unit.partitions[i];
        // Every partition keeps a spare erased block or more after its data.
        const std::size_t blocks =
            std::max<std::size_t>(8, BlocksFor(contents[i].size()) + 2) + p.bad_blocks.size();
        corvid::WriteWholeFile(p.image, MakePartitionImage(contents[i], blocks * ERASE_SIZE, ERASE_SIZE, p.bad_blocks),
                               0644);
    }

    // The live files.
    WriteFile(unit.root, BOARD_ID_PATH,
              fmt::format("ID: 0x42\nFamily: 7278\nBootloader-version: bolt-v4.2.7\nSecure-keys: 0\n"
                          "Secure-boot: 0\nSecure-ID: {}\nSoC: B0\n",
                          SECURE_ID));
    WriteFile(unit.root, "/proc/meminfo", "MemTotal:        1000000 kB\nMemFree:          800000 kB\n");
    WriteFile(unit.root, VERSION_FILE_PATH, "12.4.0\n");
    WriteFile(unit.root, "/sys/class/gpio/gpio64/value", "1\n");
    WriteFile(unit.root, "/sys/class/gpio/gpio64/direction", "in\n");
    std::filesystem::create_directories(unit.root + "/sys/class/net/eth0");
    // /dev/mem: a sparse file holding the AVS status block of a running
    // firmware where the register mapping puts it.
    std::string avs;
    for (const std::uint32_t word : {AVS_RUNNING_MAGIC, 0u, 900u, 45250u, 1100u, 0u, 0u, 0u, 0u, 0u, 0x01000002u})
        avs += Le32(word);
    avs.resize(AVS_STATUS_WORDS * 4, '\0');
    WriteFile(unit.root, MEM_DEVICE_PATH, "");
    std::fstream mem(unit.root + MEM_DEVICE_PATH, std::ios::in | std::ios::out | std::ios::binary);
    mem.seekp(MMIO_PHYSICAL_ADDRESS + AVS_STATUS_OFFSET);
    mem.write(avs.data(), std::streamsize(avs.size()));
    mem.close();
    std::filesystem::resize_file(unit.root + MEM_DEVICE_PATH,
                                 MMIO_PHYSICAL_ADDRESS + (MMIO_LENGTH + 0xFFF) / 0x1000 * 0x1000);
    return unit;
}

} // namespace bench
