// Measures the start-up check's whole pass on a healthy unit with two
// blessings, saved as images and files in a scratch directory:
//   - the bytes the pass reads from each flash partition (counted in
//     process, through the check's own code over the images), against the
//     least the formats require;
//   - the RSA verifications (counted) and the time of one, the pass's time
//     in process, whole and step by step, and what a page fault costs here;
//   - the wall time, processor time, page faults and peak resident memory
//     of bench_pass (the check's main over the saved unit) against
//     bench_trivial (an empty main linked the same way), both started the
//     same way, and of "vxtool report" running the same pass.
// Prints the figures and whether each target is met; asserts nothing.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "timing.h"

#include "check/driver.h"
#include "check/startup_pass.h"
#include "child_process.h"
#include "counting_context.h"
#include "healthy_unit.h"
#include "hardware/hardware_config.h"
#include "hardware/mmio.h"
#include "hardware/nand_image_access.h"
#include "hardware/signature_verifier.h"
#include "hardware/stored_keys.h"
#include "platform/posix_helpers.h"

namespace {

// Every RSA verification the process makes, counted and timed by the
// wrapper below.
unsigned g_verifications = 0;
double g_verification_us = 0;

} // namespace

// The program is linked with --wrap=gcry_pk_verify: every call of the
// library's verification, in the check's code too, comes here first.
extern "C" gcry_error_t __real_gcry_pk_verify(gcry_sexp_t signature, gcry_sexp_t data, gcry_sexp_t key);
extern "C" gcry_error_t __wrap_gcry_pk_verify(gcry_sexp_t signature, gcry_sexp_t data, gcry_sexp_t key)
{
    const auto start = std::chrono::steady_clock::now();
    const gcry_error_t result = __real_gcry_pk_verify(signature, data, key);
    const auto end = std::chrono::steady_clock::now();
    g_verification_us += std::chrono::duration<double, std::micro>(end - start).count();
    ++g_verifications;
    return result;
}

namespace {

using bench::ERASE_SIZE;
using bench::PAGE_SIZE;
using Clock = std::chrono::steady_clock;

constexpr int RUNS = 15;
constexpr double RATIO_TARGET = 1.25;
constexpr long RSS_TARGET_KIB = 4 * 1024;

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double Microseconds(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

using vxbench::MicrosecondsPerCall;

// Standard error goes to a file while this lives.
class StderrToFile {
public:
    explicit StderrToFile(const std::string& path) : m_saved(::dup(STDERR_FILENO))
    {
        std::fflush(stderr);
        const corvid::UniqueFd file = corvid::OpenThrow(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(file.Get(), STDERR_FILENO);
    }
    ~StderrToFile()
    {
        std::fflush(stderr);
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }
    StderrToFile(const StderrToFile&) = delete;
    StderrToFile& operator=(const StderrToFile&) = delete;

private:
    int m_saved;
};

struct PartitionReads {
    std::size_t configuration = 0; // bytes read while the hardware configuration was derived
    std::size_t pass = 0;          // bytes read by the pass's steps
    std::size_t calls = 0;         // device reads, both together
};

struct InProcessPass {
    int status = -1;
    double configuration_us = 0;
    double pass_us = 0;
    unsigned configuration_verifications = 0;
    unsigned pass_verifications = 0;
    double verification_us = 0; // both together
    std::map<std::string, PartitionReads> reads;
};

using Partitions = std::map<std::string, std::shared_ptr<bench::CountingNand>>;

Partitions OpenPartitions(const bench::HealthyUnit& unit)
{
    Partitions partitions;
    for (const bench::SavedPartition& p : unit.partitions)
        partitions[p.name] = std::make_shared<bench::CountingNand>(
            NandImageAccess::Create(p.image, ERASE_SIZE, PAGE_SIZE, p.bad_blocks));
    return partitions;
}

// Step 1 and the pass, as the check's main runs them, in a fresh context
// over the images; the pass's messages are appended to stderr_path.
InProcessPass RunPassInProcess(const bench::HealthyUnit& unit, const std::string& stderr_path)
{
    const Partitions partitions = OpenPartitions(unit);
    bench::CountingContext context(unit.root, partitions, bench::ParseAddress(bench::ETH0_ADDRESS));

    InProcessPass run;
    const StderrToFile redirect(stderr_path);
    g_verifications = 0;
    g_verification_us = 0;
    const auto start = Clock::now();
    const HardwareConfig config;
    const auto configured = Clock::now();
    run.configuration_verifications = g_verifications;
    for (const auto& [name, nand] : partitions)
        run.reads[name].configuration = nand->bytes_read;
    std::string banner;
    run.status = RunChecks([&banner] { RunStartupPass([&banner](const std::string& text) { banner = text; }); },
                           [](ErrorLedPattern) {});
    const auto end = Clock::now();
    run.configuration_us = Microseconds(configured - start);
    run.pass_us = Microseconds(end - configured);
    run.pass_verifications = g_verifications - run.configuration_verifications;
    run.verification_us = g_verification_us;
    for (const auto& [name, nand] : partitions) {
        run.reads[name].pass = nand->bytes_read - run.reads[name].configuration;
        run.reads[name].calls = nand->reads;
    }
    return run;
}

struct Step {
    const char* name;
    double us;
    unsigned verifications;
};

// Step 1, then the pass's steps one at a time in the order the pass runs
// them (the summary line left out), in a fresh context; the messages are
// appended to stderr_path.
std::vector<Step> TimeSteps(const bench::HealthyUnit& unit, const std::string& stderr_path)
{
    bench::CountingContext context(unit.root, OpenPartitions(unit), bench::ParseAddress(bench::ETH0_ADDRESS));
    const StderrToFile redirect(stderr_path);
    std::vector<Step> steps;
    const auto time = [&steps](const char* name, const std::function<void()>& step) {
        const unsigned before = g_verifications;
        const auto start = Clock::now();
        step();
        steps.push_back({name, Microseconds(Clock::now() - start), g_verifications - before});
    };
    std::optional<HardwareConfig> config;
    BootloaderEnvironment environment;
    time("hardware configuration", [&config] { config.emplace(); });
    time("memory", [] { CheckMemory(); });
    time("SSD", [&config] { WarnAboutSsd(*config); });
    time("environment (cached)", [&environment] { environment = GetBootloaderEnvironment(); });
    time("revision label", [&environment] { LabelRevision(environment); });
    time("Ethernet", [&config] { CheckEthernet(config->GetHardwareBitfield()); });
    time("blessings", [&] { CollectBlessings(environment, config->GetSecureId()); });
    time("versions", [&config] { GatherVersions(*config); });
    time("AVS", [] { PrintAvsReport(ReadAvsStatus()); });
    time("banner", [&config] { FormatBanner(*config); });
    return steps;
}

// A program and its arguments.
using Program = std::pair<std::string, std::vector<std::string>>;

// The medians of one program's runs.
struct ProgramFigures {
    double wall_ms = 0;
    double cpu_ms = 0;
    double page_faults = 0;
    double peak_rss_kib = 0;
};

// Runs each program RUNS times, turn about, after one run each that warms
// the caches; every run is started the same way. Returns the medians in the
// programs' order; statuses get the highest exit status of each program.
std::vector<ProgramFigures> RunPrograms(const std::vector<Program>& programs, const std::string& dir,
                                        std::vector<int>& statuses, bool& peaks_at_exit)
{
    std::vector<std::vector<bench::ChildRun>> runs(programs.size());
    statuses.assign(programs.size(), 0);
    for (int round = 0; round <= RUNS; ++round) {
        for (std::size_t i = 0; i < programs.size(); ++i) {
            const std::string output = fmt::format("{}/program{}", dir, i);
            const bench::ChildRun run =
                bench::RunChild(programs[i].first, programs[i].second, output + ".out", output + ".err");
            statuses[i] = std::max(statuses[i], run.status);
            peaks_at_exit = peaks_at_exit && run.peak_at_exit;
            if (round > 0)
                runs[i].push_back(run);
        }
    }
    std::vector<ProgramFigures> figures;
    for (const std::vector<bench::ChildRun>& program : runs) {
        const auto median = [&program](const std::function<double(const bench::ChildRun&)>& field) {
            std::vector<double> values;
            for (const bench::ChildRun& run : program)
                values.push_back(field(run));
            return Median(values);
        };
        figures.push_back({median([](const bench::ChildRun& r) { return r.seconds * 1e3; }),
                           median([](const bench::ChildRun& r) { return r.cpu_seconds * 1e3; }),
                           median([](const bench::ChildRun& r) { return double(r.page_faults); }),
                           median([](const bench::ChildRun& r) { return double(r.peak_rss_kib); })});
    }
    return figures;
}

// The time of one first touch of an anonymous page: what a page fault costs
// on this machine, to weigh the page faults of the programs.
double MicrosecondsPerPageFault()
{
    constexpr std::size_t PAGES = 1024;
    const std::size_t page = std::size_t(::sysconf(_SC_PAGESIZE));
    const auto touch = [page] {
        void* memory = ::mmap(nullptr, PAGES * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw corvid::ErrnoException(errno, "mmap");
        for (std::size_t i = 0; i < PAGES; ++i)
            static_cast<volatile char*>(memory)[i * page] = 1;
        ::munmap(memory, PAGES * page);
    };
    return MicrosecondsPerCall(touch) / PAGES;
}

std::string FirstLineStartingWith(const std::string& text, const std::string& prefix)
{
    const std::size_t at = text.find(prefix);
    return at == std::string::npos ? "(none)" : text.substr(at, text.find('\n', at) - at);
}

const char* Verdict(bool met) { return met ? "met" : "MISSED"; }

} // namespace

int main()
{
    const std::string dir = std::filesystem::temp_directory_path() / fmt::format("pass_bench.{}", ::getpid());
    std::filesystem::create_directories(dir);
    const std::string load = corvid::ReadWholeFile("/proc/loadavg");
    const bench::HealthyUnit unit = bench::SaveHealthyUnit(dir, VX_TEST_KEYS_DIR, "/proc/self/exe");

    // The programs, each started the same way: the yardstick, the check's
    // main over the unit, and vxtool, printing a usage text (its own
    // start-up) and running the same pass over the unit.
    std::vector<int> statuses;
    bool peaks_at_exit = true;
    const std::vector<ProgramFigures> programs =
        RunPrograms({{VX_TRIVIAL_PROGRAM, {}},
                     {VX_PASS_PROGRAM, unit.PassArguments()},
                     {VX_REPORT_TOOL, {"report", "--help"}},
                     {VX_REPORT_TOOL, unit.ReportArguments()}},
                    dir, statuses, peaks_at_exit);
    const ProgramFigures &trivial = programs[0], &pass = programs[1], &usage = programs[2], &report = programs[3];
    const std::string pass_program_output = corvid::ReadWholeFile(dir + "/program1.err");
    const std::string report_output = corvid::ReadWholeFile(dir + "/program3.err");

    std::vector<InProcessPass> passes;
    std::vector<std::vector<Step>> step_runs;
    for (int i = 0; i < RUNS; ++i) {
        passes.push_back(RunPassInProcess(unit, dir + "/pass.err"));
        step_runs.push_back(TimeSteps(unit, dir + "/steps.err"));
    }
    const std::string pass_output = corvid::ReadWholeFile(dir + "/pass.err");

    const GcrySexp key = LoadPublicKey(BlessingPublicKey1());
    bool verified = false;
    const double verify_us = MicrosecondsPerCall([&] {
        verified = VerifySignature(key, GCRY_MD_SHA256, unit.blessing_digest, unit.blessing_signature);
    });
    const double load_key_us = MicrosecondsPerCall([] { LoadPublicKey(BlessingPublicKey1()); });
    const double fault_us = MicrosecondsPerPageFault();
    std::filesystem::remove_all(dir);

    const InProcessPass& first = passes.front();
    fmt::print("Whole start-up pass of a healthy unit with two blessings ({}, {})\n", bench::BLESSING_NAMES[0],
               bench::BLESSING_NAMES[1]);
    fmt::print("{}-byte erase blocks, {}-byte pages; medians of {} runs; load average {}\n", ERASE_SIZE, PAGE_SIZE,
               RUNS, load.substr(0, load.find(' ', load.find(' ', load.find(' ') + 1) + 1)));
    const std::string summary = "<6>VELTRIX";
    fmt::print("in process:    status {}, {}\n", first.status, FirstLineStartingWith(pass_output, summary));
    fmt::print("bench_pass:    status {}, {}\n", statuses[1], FirstLineStartingWith(pass_program_output, summary));
    fmt::print("vxtool report: status {}, {}\n\n", statuses[3], FirstLineStartingWith(report_output, summary));

    // Flash.
    fmt::print("Flash bytes read by one pass (while the hardware configuration is derived, then by the steps)\n");
    fmt::print("{:<15}{:>9}{:>9}{:>9}{:>9}{:>8}{:>7}\n", "partition", "config", "steps", "read", "floor", "ratio",
               "reads");
    std::size_t total_read = 0, total_floor = 0;
    for (const bench::SavedPartition& p : unit.partitions) {
        const PartitionReads& r = first.reads.at(p.name);
        const std::size_t read = r.configuration + r.pass;
        total_read += read;
        total_floor += p.floor;
        fmt::print("{:<15}{:>9}{:>9}{:>9}{:>9}{:>8.2f}{:>7}\n", p.name, r.configuration, r.pass, read, p.floor,
                   double(read) / double(p.floor), r.calls);
    }
    const double ratio = double(total_read) / double(total_floor);
    fmt::print("{:<15}{:>9}{:>9}{:>9}{:>9}{:>8.3f}\n", "all", "", "", total_read, total_floor, ratio);
    fmt::print("floors:\n");
    for (const bench::SavedPartition& p : unit.partitions)
        fmt::print("  {:<15}{}\n", p.name, p.floor_parts);
    const std::size_t records_floor = total_floor - unit.partitions.front().floor + unit.environment_records;
    fmt::print("  with the environment's records alone as its floor, all: {} bytes, ratio {:.2f}\n", records_floor,
               double(total_read) / double(records_floor));
    fmt::print("target: at most {} x the floor: {:.3f}, {}\n\n", RATIO_TARGET, ratio,
               Verdict(ratio <= RATIO_TARGET));

    // Time.
    const unsigned verifications = first.configuration_verifications + first.pass_verifications;
    std::vector<double> whole_us, rsa_us, rsa_shares;
    for (const InProcessPass& p : passes) {
        whole_us.push_back(p.configuration_us + p.pass_us);
        rsa_us.push_back(p.verification_us);
        rsa_shares.push_back(p.verification_us / (p.configuration_us + p.pass_us));
    }
    const double rsa_ms = Median(rsa_us) / 1e3;
    fmt::print("Time\n");
    fmt::print("RSA verifications in one run: {} (hardware configuration {}, steps {})\n", verifications,
               first.configuration_verifications, first.pass_verifications);
    fmt::print("one verification (2048-bit key, PKCS#1 v1.5, SHA-256): {:.1f} us{}; "
               "loading a stored key: {:.1f} us\n",
               verify_us, verified ? "" : " (the signature did NOT verify)", load_key_us);
    fmt::print("one page fault (first touch of an anonymous page): {:.2f} us\n", fault_us);
    fmt::print("in process, configuration and pass: {:.1f} us, of it RSA verifications {:.1f} us ({:.0f}%)\n",
               Median(whole_us), rsa_ms * 1e3, 100 * Median(rsa_shares));
    fmt::print("  step by step:");
    for (std::size_t i = 0; i < step_runs.front().size(); ++i) {
        std::vector<double> us;
        for (const std::vector<Step>& run : step_runs)
            us.push_back(run[i].us);
        const Step& step = step_runs.front()[i];
        fmt::print("{}{} {:.1f} us{}", i % 4 ? ", " : "\n    ", step.name, Median(us),
                   step.verifications ? fmt::format(" ({} RSA)", step.verifications) : "");
    }
    fmt::print("\nprocesses (fork and exec, output to files, standard input /dev/null):\n");
    fmt::print("  {:<22}{:>10}{:>10}{:>8}{:>14}\n", "", "wall ms", "cpu ms", "faults", "peak RSS KiB");
    const auto row = [](const char* name, const ProgramFigures& f) {
        fmt::print("  {:<22}{:>10.3f}{:>10.3f}{:>8.0f}{:>14.0f}\n", name, f.wall_ms, f.cpu_ms, f.page_faults,
                   f.peak_rss_kib);
    };
    row("bench_trivial", trivial);
    row("bench_pass", pass);
    row("vxtool report --help", usage);
    row("vxtool report", report);
    const auto difference = [&row](const char* name, const ProgramFigures& a, const ProgramFigures& b) {
        row(name, {a.wall_ms - b.wall_ms, a.cpu_ms - b.cpu_ms, a.page_faults - b.page_faults,
                   a.peak_rss_kib - b.peak_rss_kib});
    };
    difference("the pass's own", pass, trivial);
    difference("vxtool's start-up", usage, trivial);
    difference("the pass in vxtool", report, usage);
    const double own_ms = pass.wall_ms - trivial.wall_ms;
    const double faults = pass.page_faults - trivial.page_faults;
    const double faults_ms = faults * fault_us / 1e3;
    fmt::print("of the pass's own wall time: RSA verifications (as in process) {:.3f} ms ({:.0f}%); "
               "its {:.0f} more page faults "
               "about {:.3f} ms ({:.0f}%)\n",
               rsa_ms, 100 * rsa_ms / own_ms, faults, faults_ms, 100 * faults_ms / own_ms);
    fmt::print("target: wall time dominated by the RSA verifications: {}\n\n", Verdict(rsa_ms / own_ms > 0.5));

    // Memory.
    const double above = pass.peak_rss_kib - trivial.peak_rss_kib;
    fmt::print("Memory\n");
    fmt::print("peak RSS above bench_trivial's: bench_pass {:.0f} KiB ({:.2f} MiB), vxtool report {:.0f} KiB{}\n",
               above, above / 1024, report.peak_rss_kib - trivial.peak_rss_kib,
               peaks_at_exit ? "" : " (ru_maxrss: tracing was refused, so the figures include this process's)");
    fmt::print("target: at most 4 MiB above: {}\n", Verdict(above <= RSS_TARGET_KIB));
    return 0;
}
