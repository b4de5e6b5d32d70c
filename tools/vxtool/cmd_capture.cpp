// vxtool capture: everything the start-up check reads on a live player,
// saved once in one directory (capture.h), for the reading commands'
// --capture and the simulated player's replay. It only reads the flash.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "capture.h"
#include "check/startup_pass.h"
#include "command.h"
#include "hardware/hardware_config.h"
#include "hardware/mmio.h"
#include "hardware/nand_access_linux.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"
#include "report.h"
#include "source.h"
#include "tool_context.h"

namespace vxtool {
namespace {

namespace fs = std::filesystem;

// The directory a capture is written into, under a temporary name beside
// its destination; removed with everything in it unless it was renamed to
// the destination.
class StagingDir {
public:
    explicit StagingDir(const std::string& destination)
    {
        const fs::path target(destination);
        const fs::path parent = target.parent_path().empty() ? fs::path(".") : target.parent_path();
        std::string name = (parent / fmt::format(".{}.XXXXXX", target.filename().string())).string();
        if (!::mkdtemp(name.data()))
            throw corvid::ErrnoException(errno, parent.string());
        m_path = name;
        // mkdtemp's 0700 is for the staging only: a capture is to be shared.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::chmod(m_path.c_str(), 0755 & ~mask);
    }
    ~StagingDir()
    {
        if (m_path.empty())
            return;
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    StagingDir(const StagingDir&) = delete;
    StagingDir& operator=(const StagingDir&) = delete;

    const std::string& Path() const { return m_path; }

    // Gives the directory its destination's name; refuses to replace
    // anything that appeared there meanwhile.
    void Commit(const std::string& destination)
    {
        if (::renameat2(AT_FDCWD, m_path.c_str(), AT_FDCWD, destination.c_str(), RENAME_NOREPLACE) != 0) {
            // File systems without the flag (9p, some FUSE ones) answer
            // EINVAL: a plain rename then, which still refuses to replace
            // anything but an empty directory.
            struct stat st;
            if (errno != EINVAL)
                throw corvid::ErrnoException(errno, destination);
            if (::lstat(destination.c_str(), &st) == 0)
                throw corvid::ErrnoException(EEXIST, destination);
            if (::rename(m_path.c_str(), destination.c_str()) != 0)
                throw corvid::ErrnoException(errno, destination);
        }
        m_path.clear();
    }

private:
    std::string m_path;
};

// A file of the capture, made new; every write is checked (a full disk
// fails the capture, never shortens a file).
class OutputFile {
public:
    explicit OutputFile(const std::string& path)
        : m_path(path), m_fd(corvid::OpenThrow(path, O_WRONLY | O_CREAT | O_EXCL, 0644))
    {
    }
    void Write(const void* data, std::size_t length)
    {
        try {
            corvid::write_all_throw(m_fd.Get(), data, length);
        } catch (const corvid::ErrnoException& e) {
            throw corvid::ErrnoException(e.GetErrno(), m_path);
        }
    }
    void Close()
    {
        if (::fsync(m_fd.Get()) != 0 || ::close(m_fd.Release()) != 0)
            throw corvid::ErrnoException(errno, m_path);
    }

private:
    std::string m_path;
    corvid::UniqueFd m_fd;
};

void WriteFile(const std::string& path, const std::string& data)
{
    fs::create_directories(fs::path(path).parent_path());
    OutputFile file(path);
    file.Write(data.data(), data.size());
    file.Close();
}

double Seconds()
{
    const timespec now = Context::GetInstance()->GetClock().Monotonic();
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The rows of the live /proc/mtd: device, size, erase size and the name
// between the quotes (which may hold blanks).
std::vector<MtdPartition> ReadMtdTable(const std::string& table)
{
    std::vector<MtdPartition> rows;
    std::size_t start = table.find('\n');
    while (start != std::string::npos && start + 1 < table.size()) {
        const std::size_t end = table.find('\n', start + 1);
        const std::string line = table.substr(start + 1, end == std::string::npos ? end : end - start - 1);
        start = end;
        char device[64];
        unsigned int size = 0, erase_size = 0;
        int name_at = 0;
        if (std::sscanf(line.c_str(), "%63[^:]: %x %x %n", device, &size, &erase_size, &name_at) != 3 || !name_at)
            throw std::runtime_error(fmt::format("{}: cannot read the row '{}'", MTD_TABLE_PATH, line));
        std::string name = line.substr(static_cast<std::size_t>(name_at));
        if (name.size() >= 2 && name.front() == '"' && name.back() == '"')
            name = name.substr(1, name.size() - 2);
        rows.push_back({std::string("/dev/") + device, size, erase_size, name});
    }
    return rows;
}

// One partition: its geometry, bad blocks, the pages as reading returns
// them (ECC applied: what the check sees) and, when the kernel gives raw
// access, the pages as the chip holds them with their OOB bytes (what the
// simulated player writes back). Block by block, so that memory stays at
// one erase block whatever the partition's size; progress on standard
// error once a partition has taken more than a second.
CapturedPartition CapturePartition(const MtdPartition& row, std::size_t index, const std::string& dir)
{
    CapturedPartition p;
    p.name = row.name;
    p.device = row.device;
    const auto nand = std::make_shared<LinuxNandAccessImpl>(row);
    p.size = nand->GetTotalSize();
    p.erase_size = nand->GetEraseSize();
    p.write_size = nand->GetWriteSize();
    p.oob_size = nand->GetOobSize();
    p.image = fmt::format("flash/mtd{}.img", index);
    std::shared_ptr<LinuxNandAccessImpl> raw = std::make_shared<LinuxNandAccessImpl>(row);
    try {
        raw->UseRawMode();
        p.raw = fmt::format("flash/mtd{}.raw", index);
    } catch (const corvid::ErrnoException& e) {
        fmt::print(stderr, "capture: {}: no raw access ({}); the pages are captured with ECC applied only\n",
                   p.name, e.what());
        raw.reset();
    }

    OutputFile image(dir + "/" + p.image);
    std::unique_ptr<OutputFile> raw_file = raw ? std::make_unique<OutputFile>(dir + "/" + p.raw) : nullptr;
    const std::size_t blocks = p.erase_size ? p.size / p.erase_size : 0;
    const std::size_t pages = p.write_size ? p.erase_size / p.write_size : 0;
    std::vector<unsigned char> block(p.erase_size);
    std::vector<unsigned char> oob(p.oob_size);
    const bool terminal = ::isatty(STDERR_FILENO) == 1;
    const double started = Seconds();
    double reported = started;
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::uint64_t offset = std::uint64_t(b) * p.erase_size;
        if (nand->IsBadBlock(offset))
            p.bad_blocks.push_back(b);
        if (nand->Read(offset, block.data(), block.size()) != block.size())
            throw std::runtime_error(fmt::format("{}: short read at 0x{:x}", p.device, offset));
        image.Write(block.data(), block.size());
        for (std::size_t page = 0; raw && page < pages; ++page) {
            const std::uint64_t at = offset + page * p.write_size;
            if (raw->Read(at, block.data(), p.write_size) != p.write_size)
                throw std::runtime_error(fmt::format("{}: short raw read at 0x{:x}", p.device, at));
            if (p.oob_size)
                raw->ReadOob(at, oob.data(), oob.size());
            raw_file->Write(block.data(), p.write_size);
            raw_file->Write(oob.data(), oob.size());
        }
        const double now = Seconds();
        if (now - started > 1.0 && now - reported >= 1.0) {
            // On a terminal one line, rewritten; in a log a line a second.
            fmt::print(stderr, "capture: {}: {} of {} blocks{}", p.name, b + 1, blocks, terminal ? "\r" : "\n");
            reported = now;
        }
    }
    if (terminal && reported != started)
        fmt::print(stderr, "capture: {}: {} of {} blocks\n", p.name, blocks, blocks);
    image.Close();
    if (raw_file)
        raw_file->Close();
    return p;
}

// A live file's contents under files/, or null when it cannot be read.
nlohmann::json CaptureFile(const char* live, const std::string& dir, nlohmann::json& absent)
{
    std::string data;
    try {
        data = corvid::ReadWholeFile(Context::GetInstance()->Path(live));
    } catch (const std::exception& e) {
        absent[live] = e.what();
        return nullptr;
    }
    const std::string relative = std::string("files") + live;
    WriteFile(dir + "/" + relative, data);
    return relative;
}

// eth0: whether sysfs has it, and its address (null when unreadable); its
// sysfs directory with the address, for the check's directory test.
nlohmann::json CaptureEth0(const std::string& dir, nlohmann::json& absent)
{
    ToolContext& context = ToolContext::Get();
    std::error_code error;
    if (!fs::is_directory(context.Path(std::string("/sys/class/net/") + ETHERNET_INTERFACE), error))
        return {{"present", false}, {"address", nullptr}};
    fs::create_directories(dir + "/sys/class/net/eth0");
    try {
        const corvid::HardwareAddress mac = context.GetInterfaceAddress(ETHERNET_INTERFACE);
        const std::string text = fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2],
                                             mac[3], mac[4], mac[5]);
        WriteFile(dir + "/sys/class/net/eth0/address", text + "\n");
        return {{"present", true}, {"address", text}};
    } catch (const corvid::ErrnoException& e) {
        absent["eth0 address"] = e.what();
        return {{"present", true}, {"address", nullptr}};
    }
}

// GPIO line 64 (the SSD detection line) as sysfs shows it once exported.
nlohmann::json CaptureGpio(const std::string& dir, nlohmann::json& absent)
{
    const std::string line = fmt::format("/sys/class/gpio/gpio{}", SSD_DETECT_GPIO);
    nlohmann::json gpio = nlohmann::json::object();
    for (const char* entry : {"value", "direction"}) {
        const std::string path = line + "/" + entry;
        try {
            const std::string text = corvid::ReadWholeFile(Context::GetInstance()->Path(path));
            WriteFile(dir + path, text);
            gpio[entry] = text;
        } catch (const std::exception& e) {
            absent[path] = e.what();
            return nullptr;
        }
    }
    return gpio;
}

nlohmann::json CaptureAvs(nlohmann::json& absent)
{
    try {
        const MmioBase mmio;
        nlohmann::json words = nlohmann::json::array();
        for (std::size_t i = 0; i < AVS_STATUS_WORDS; ++i)
            words.push_back(mmio.Read32(AVS_STATUS_OFFSET + 4 * i));
        return words;
    } catch (const std::exception& e) {
        absent[MEM_DEVICE_PATH] = e.what();
        return nullptr;
    }
}

// The check's own report of the moment, as "vxtool report --json" gives
// it; its messages become "warnings".
nlohmann::json CaptureReport()
{
    nlohmann::json answer = nlohmann::json::object();
    std::vector<std::string> warnings;
    {
        const corvid::MessageCapture messages;
        try {
            const HardwareConfig config;
            RunReportPass(answer);
        } catch (const std::exception& e) {
            answer["error"] = e.what();
        }
        for (std::string message : messages.Messages()) {
            if (!message.empty() && message.back() == '\n')
                message.pop_back();
            warnings.push_back(std::move(message));
        }
    }
    answer["warnings"] = warnings;
    return answer;
}

// One capture as a tar file (POSIX ustar): the directory DIRNAME/ and
// everything below it, directories before their contents, files streamed
// in 64 KiB pieces.
class TarWriter {
public:
    explicit TarWriter(OutputFile& out) : m_out(out) {}

    void Add(const fs::path& path, const std::string& name)
    {
        const bool directory = fs::is_directory(path);
        const std::uint64_t size = directory ? 0 : fs::file_size(path);
        Header(directory ? name + "/" : name, directory ? '5' : '0', directory ? 0755 : 0644, size);
        if (directory) {
            std::vector<fs::path> entries{fs::directory_iterator(path), fs::directory_iterator()};
            std::sort(entries.begin(), entries.end());
            for (const fs::path& entry : entries)
                Add(entry, name + "/" + entry.filename().string());
            return;
        }
        const corvid::UniqueFd in = corvid::OpenThrow(path.string(), O_RDONLY);
        std::vector<char> buffer(64 * 1024);
        for (std::uint64_t done = 0; done < size;) {
            const std::size_t n = corvid::read_all_throw(in.Get(), buffer.data(), buffer.size());
            if (n == 0)
                throw std::runtime_error(fmt::format("{}: shorter than it was", path.string()));
            m_out.Write(buffer.data(), n);
            done += n;
        }
        Pad(size);
    }

    void Finish()
    {
        const std::vector<char> end(1024, 0);
        m_out.Write(end.data(), end.size());
    }

private:
    void Header(const std::string& name, char type, unsigned int mode, std::uint64_t size)
    {
        char h[512] = {};
        std::string prefix, base = name;
        if (base.size() > 100) {
            const std::size_t slash = name.rfind('/', name.size() - 2);
            prefix = slash == std::string::npos ? name : name.substr(0, slash);
            base = slash == std::string::npos ? "" : name.substr(slash + 1);
            if (prefix.size() > 155 || base.empty() || base.size() > 100)
                throw std::runtime_error(fmt::format("{}: name too long for a tar file", name));
        }
        std::memcpy(h, base.data(), base.size());
        std::snprintf(h + 100, 8, "%07o", mode);
        std::snprintf(h + 108, 8, "%07o", 0);
        std::snprintf(h + 116, 8, "%07o", 0);
        std::snprintf(h + 124, 12, "%011llo", static_cast<unsigned long long>(size));
        std::snprintf(h + 136, 12, "%011llo", static_cast<unsigned long long>(::time(nullptr)));
        std::memset(h + 148, ' ', 8);
        h[156] = type;
        std::memcpy(h + 257, "ustar", 6);
        std::memcpy(h + 263, "00", 2);
        std::memcpy(h + 345, prefix.data(), prefix.size());
        unsigned int sum = 0;
        for (const char c : h)
            sum += static_cast<unsigned char>(c);
        std::snprintf(h + 148, 8, "%06o", sum);
        m_out.Write(h, sizeof h);
    }

    void Pad(std::uint64_t size)
    {
        const std::vector<char> zeros(512, 0);
        if (size % 512)
            m_out.Write(zeros.data(), 512 - size % 512);
    }

    OutputFile& m_out;
};

// Packs the capture in dir as the tar file path, made under a temporary
// name beside it and renamed when complete; an existing file is refused.
void PackTar(const std::string& dir, const std::string& path)
{
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0)
        throw std::runtime_error(fmt::format("{}: already exists", path));
    const std::string temporary = fmt::format("{}.{}.partial", path, ::getpid());
    try {
        OutputFile out(temporary);
        TarWriter tar(out);
        tar.Add(dir, fs::path(dir).filename().string());
        tar.Finish();
        out.Close();
        if (::link(temporary.c_str(), path.c_str()) != 0)
            throw corvid::ErrnoException(errno, path);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
    ::unlink(temporary.c_str());
}

void Capture(const std::string& dir, const std::set<std::string>& only)
{
    nlohmann::json absent = nlohmann::json::object();
    nlohmann::json manifest = {{"format", CAPTURE_FORMAT}, {"version", CAPTURE_VERSION},
                               {"vxtool", VX_VERSION}};
    // First, so that it sees the player as the check did (the GPIO line
    // exported by the pass is then there to be read).
    manifest["report"] = CaptureReport();

    nlohmann::json files = nlohmann::json::object();
    for (const char* live : CAPTURED_FILES)
        files[live] = CaptureFile(live, dir, absent);
    manifest["files"] = files;

    nlohmann::json partitions = nlohmann::json::array();
    if (!files[MTD_TABLE_PATH].is_null()) {
        fs::create_directory(dir + "/flash");
        const std::vector<MtdPartition> rows = ReadMtdTable(corvid::ReadWholeFile(dir + "/files/proc/mtd"));
        for (const std::string& name : only) {
            if (std::none_of(rows.begin(), rows.end(), [&](const MtdPartition& row) { return row.name == name; }))
                throw std::runtime_error(fmt::format("no partition named '{}' in {}", name, MTD_TABLE_PATH));
        }
        for (std::size_t i = 0; i < rows.size(); ++i) {
            if (only.empty() || only.count(rows[i].name))
                partitions.push_back(ToJson(CapturePartition(rows[i], i, dir)));
        }
    }
    manifest["partitions"] = partitions;
    manifest["eth0"] = CaptureEth0(dir, absent);
    manifest["gpio64"] = CaptureGpio(dir, absent);
    manifest["avs"] = CaptureAvs(absent);
    manifest["absent"] = absent;
    WriteFile(dir + "/" + CAPTURE_MANIFEST,
              manifest.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    std::string dir, names, tar;
    if (!TakeOption(args, "-o", dir))
        throw UsageError("-o DIR is needed");
    const bool some = TakeOption(args, "--partitions", names);
    const bool packed = TakeOption(args, "--tar", tar);
    ExpectNoMoreArguments(args);
    if (dir.empty())
        throw UsageError("-o needs a directory name");
    if (packed && tar.empty())
        throw UsageError("--tar needs a file name");
    std::set<std::string> only;
    for (std::size_t start = 0; some;) {
        const std::size_t comma = names.find(',', start);
        const std::string name = names.substr(start, comma == std::string::npos ? comma : comma - start);
        if (name.empty())
            throw UsageError(fmt::format("--partitions: empty partition name in '{}'", names));
        only.insert(name);
        if (comma == std::string::npos)
            break;
        start = comma + 1;
    }

    struct stat st;
    if (::lstat(dir.c_str(), &st) == 0)
        throw std::runtime_error(fmt::format("{}: already exists; a capture goes into a new directory", dir));
    StagingDir staging(dir);
    Capture(staging.Path(), only);
    staging.Commit(dir);
    if (packed)
        PackTar(fs::path(dir).lexically_normal().string(), tar);
    return 0;
}

const CommandRegistrar reg({"capture", "-o DIR [--tar FILE] [--partitions NAME,NAME,...]",
                            "save everything the check reads on this player into a new directory", &Run,
                            "Needs root on the player. Reads each MTD partition of /proc/mtd (or only those\n"
                            "--partitions names) with and without ECC, with its OOB bytes, geometry and bad\n"
                            "blocks; /proc/mtd, /proc/boardid, /proc/meminfo, /proc/cmdline,\n"
                            "/etc/veltrix-version, the AVS block, eth0, GPIO line 64 and the check's report.\n"
                            "Never writes the flash. DIR must not exist; it appears only when complete.\n"
                            "--tar FILE packs it into one tar file as well (DIR/ at its top).\n"
                            "Read it back with --capture DIR, replay it with sim/run-player --capture DIR.\n"});

} // namespace
} // namespace vxtool
