#include "capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

#include "hardware/mmio.h"
#include "hardware/nand_access_linux.h"
#include "hardware/nand_image_access.h"
#include "platform/posix_helpers.h"
#include "source.h"
#include "tool_context.h"

namespace vxtool {
namespace {

namespace fs = std::filesystem;

// The private copies of a capture's writable entries, removed at exit.
class ScratchDir {
public:
    ScratchDir()
    {
        std::string name = (fs::temp_directory_path() / "vxtool-capture.XXXXXX").string();
        if (!::mkdtemp(name.data()))
            throw corvid::ErrnoException(errno, name);
        m_path = name;
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

std::unique_ptr<ScratchDir> s_scratch;

std::size_t Size(const nlohmann::json& entry, const char* key)
{
    const auto value = entry.find(key);
    if (value == entry.end() || !value->is_number_unsigned())
        throw std::runtime_error(fmt::format("partition entry without a number \"{}\"", key));
    return value->get<std::size_t>();
}

std::string Text(const nlohmann::json& entry, const char* key)
{
    const auto value = entry.find(key);
    if (value == entry.end() || !(value->is_string() || value->is_null()))
        throw std::runtime_error(fmt::format("partition entry without a text \"{}\"", key));
    return value->is_null() ? std::string() : value->get<std::string>();
}

// A stand-in for /dev/mem: a sparse file as large as the register space's
// end, holding the captured AVS block where the registers are.
void WriteMemory(const std::string& path, const nlohmann::json& words)
{
    const corvid::UniqueFd fd = corvid::OpenThrow(path, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (::ftruncate(fd.Get(), static_cast<off_t>(MMIO_PHYSICAL_ADDRESS + MMIO_LENGTH)) != 0)
        throw corvid::ErrnoException(errno, path);
    unsigned char block[4 * AVS_STATUS_WORDS];
    for (std::size_t i = 0; i < AVS_STATUS_WORDS; ++i) {
        const std::uint32_t word = words.at(i).get<std::uint32_t>();
        for (std::size_t b = 0; b < 4; ++b)
            block[4 * i + b] = static_cast<unsigned char>(word >> (8 * b));
    }
    const off_t at = static_cast<off_t>(MMIO_PHYSICAL_ADDRESS + AVS_STATUS_OFFSET);
    if (::pwrite(fd.Get(), block, sizeof block, at) != static_cast<ssize_t>(sizeof block))
        throw corvid::ErrnoException(errno, path);
}

} // namespace

nlohmann::json ToJson(const CapturedPartition& p)
{
    return {{"name", p.name},
            {"device", p.device},
            {"size", p.size},
            {"erase_size", p.erase_size},
            {"write_size", p.write_size},
            {"oob_size", p.oob_size},
            {"bad_blocks", p.bad_blocks},
            {"image", p.image},
            {"raw", p.raw.empty() ? nlohmann::json(nullptr) : nlohmann::json(p.raw)}};
}

CapturedPartition PartitionFromJson(const nlohmann::json& entry)
{
    if (!entry.is_object())
        throw std::runtime_error("partition entry is not an object");
    CapturedPartition p;
    p.name = Text(entry, "name");
    p.device = Text(entry, "device");
    p.size = Size(entry, "size");
    p.erase_size = Size(entry, "erase_size");
    p.write_size = Size(entry, "write_size");
    p.oob_size = Size(entry, "oob_size");
    p.image = Text(entry, "image");
    p.raw = Text(entry, "raw");
    const auto bad = entry.find("bad_blocks");
    if (bad == entry.end() || !bad->is_array())
        throw std::runtime_error("partition entry without a list \"bad_blocks\"");
    for (const nlohmann::json& block : *bad) {
        if (!block.is_number_unsigned())
            throw std::runtime_error("partition entry with a bad block that is not a number");
        p.bad_blocks.push_back(block.get<std::size_t>());
    }
    if (p.name.empty() || p.image.empty() || p.image.find("..") != std::string::npos ||
        p.raw.find("..") != std::string::npos)
        throw std::runtime_error(fmt::format("partition entry \"{}\" without a name or file of its own", p.name));
    return p;
}

nlohmann::json ReadManifest(const std::string& dir)
{
    const std::string path = dir + "/" + CAPTURE_MANIFEST;
    nlohmann::json manifest;
    try {
        manifest = nlohmann::json::parse(corvid::ReadWholeFile(path));
    } catch (const std::exception& e) {
        throw std::runtime_error(fmt::format("{}: not a capture ({})", dir, e.what()));
    }
    if (!manifest.is_object() || manifest.value("format", "") != CAPTURE_FORMAT)
        throw std::runtime_error(fmt::format("{}: not a capture (no \"format\": \"{}\" in {})", dir, CAPTURE_FORMAT,
                                             CAPTURE_MANIFEST));
    const auto version = manifest.find("version");
    if (version == manifest.end() || !version->is_number_integer() || *version != CAPTURE_VERSION)
        throw std::runtime_error(fmt::format("{}: capture version {} (this vxtool reads version {})", dir,
                                             version == manifest.end() ? "none" : version->dump(), CAPTURE_VERSION));
    return manifest;
}

void UseCapture(const std::string& dir)
{
    const nlohmann::json manifest = ReadManifest(dir);
    ToolContext& context = ToolContext::Get();
    try {
        s_scratch = std::make_unique<ScratchDir>();
        const std::string scratch = s_scratch->Path();

        // The partitions, and a table that lists only them: a partition the
        // capture left out is absent, never the machine's own.
        std::string table = "dev:    size   erasesize  name\n";
        std::vector<std::pair<std::string, NandAccess::Pointer>> opened;
        for (const nlohmann::json& entry : manifest.value("partitions", nlohmann::json::array())) {
            const CapturedPartition p = PartitionFromJson(entry);
            const std::set<std::size_t> bad(p.bad_blocks.begin(), p.bad_blocks.end());
            opened.emplace_back(p.name, NandImageAccess::Create(dir + "/" + p.image, p.erase_size, p.write_size, bad));
            table += fmt::format("{}: {:08x} {:08x} \"{}\"\n", fs::path(p.device).filename().string(), p.size,
                                 p.erase_size, p.name);
        }
        for (auto& [name, nand] : opened)
            context.UsePartition(name, nand);
        const nlohmann::json files = manifest.value("files", nlohmann::json::object());
        if (files.contains(MTD_TABLE_PATH) && !files.at(MTD_TABLE_PATH).is_null())
            corvid::WriteWholeFile(scratch + "/mtd", table, 0644);
        context.UseFile(MTD_TABLE_PATH, scratch + "/mtd");
        // A file the manifest names, or none at all (a path in the empty
        // scratch directory) for one the player did not have.
        for (const char* live : CAPTURED_FILES) {
            const nlohmann::json file = files.value(live, nlohmann::json());
            if (std::string_view(live) == MTD_TABLE_PATH)
                continue;
            if (file.is_string() && file.get<std::string>().find("..") == std::string::npos)
                context.UseFile(live, dir + "/" + file.get<std::string>());
            else
                context.UseFile(live, scratch + "/absent" + live);
        }

        // /sys: a copy (the GPIO line is opened for writing).
        fs::create_directory(scratch + "/sys");
        if (fs::is_directory(dir + "/sys"))
            fs::copy(dir + "/sys", scratch + "/sys", fs::copy_options::recursive);
        context.UseTree("/sys", scratch + "/sys");

        const nlohmann::json avs = manifest.value("avs", nlohmann::json());
        if (avs.is_array() && avs.size() == AVS_STATUS_WORDS)
            WriteMemory(scratch + "/mem", avs);
        context.UseFile(MEM_DEVICE_PATH, scratch + "/mem");

        // eth0 as the manifest records it: absent, or present with the
        // address read then.
        const nlohmann::json eth0 = manifest.value("eth0", nlohmann::json());
        if (!eth0.is_object() || !eth0.value("present", false))
            fs::remove_all(scratch + "/sys/class/net/eth0");
        else if (eth0.value("address", nlohmann::json()).is_string()) {
            const std::string text = eth0.at("address").get<std::string>();
            const auto mac = ParseHardwareAddress(text);
            if (!mac)
                throw std::runtime_error(fmt::format("{}: eth0 address '{}' in {} is not an address", dir, text,
                                                     CAPTURE_MANIFEST));
            context.UseInterfaceAddress("eth0", *mac);
        }
    } catch (const nlohmann::json::exception& e) {
        throw std::runtime_error(fmt::format("{}: broken {} ({})", dir, CAPTURE_MANIFEST, e.what()));
    } catch (const fs::filesystem_error& e) {
        throw std::runtime_error(fmt::format("{}: {}", dir, e.what()));
    }
}

} // namespace vxtool
