// What starting the check costs as a process, beside the work of its pass:
//   - the wall time of bench_pass (the check's main over a saved healthy
//     unit, linked as vx-hwcheck is) and of bench_trivial (an empty main
//     linked the same way) against /bin/true, paired round by round (the
//     three run one after the other in each round, the order turned each
//     round), as the median ratio with its quartiles and extremes;
//   - per program the dynamic loader's figures of one run under
//     LD_DEBUG=statistics:files (the libraries it loaded, the symbol
//     relocations it made and how many of them its cache answered, the
//     relative relocations), page faults (median of the timed runs), peak
//     resident memory (VmHWM at exit, median of traced runs), the file's
//     size and its static initialisers (.init_array entries); the installed
//     programs' sizes and initialisers too.
// The two programs run from copies in a scratch directory, written whole as
// a package manager writes them: the page cache of a file the linker wrote
// piecemeal serves the program's start with more page faults (172 where
// its copy takes 160 here), which the player never sees.
// Built for the player (a cross build) it runs under user-mode QEMU
// (scripts/run-aarch64 build-arm64/bench/startup_bench) and starts the
// programs through it: it then prints the counts only, no times.
// Prints the figures; asserts nothing. With --keep it leaves the saved unit
// and prints bench_pass's command line over it (for a profiler). With
// --build DIR it measures the bench programs of another build tree (DIR/bench,
// the same main over the same code), to compare two ways of linking them.
//   startup_bench [--rounds N] [--true PROGRAM] [--build DIR] [--keep]
#include <elf.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "child_process.h"
#include "healthy_unit.h"
#include "platform/posix_helpers.h"
#include "timing.h"

namespace {

#ifdef VX_BENCH_EMULATOR
const std::vector<std::string> EMULATOR = {VX_BENCH_EMULATOR};
#else
const std::vector<std::string> EMULATOR;
#endif

struct Program {
    std::string name;
    std::string path;
    std::vector<std::string> arguments;
};

// What the dynamic loader says of one run (LD_DEBUG=statistics:files).
struct LoaderFigures {
    std::vector<std::string> libraries;
    long relocations = -1; // symbol relocations, lazy ones made while running included
    long from_cache = -1;  // of them, answered by the loader's cache
    long relative = -1;
};

// What the file says: its size and its static initialisers.
struct FileFigures {
    long bytes = -1;
    long initialisers = -1; // entries of .init_array
};

// The number at the end of the last line that holds label, or -1.
long LastNumberAfter(const std::string& text, const std::string& label)
{
    const std::size_t at = text.rfind(label);
    return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + label.size(), nullptr, 10);
}

LoaderFigures ParseLoaderDebug(const std::string& text)
{
    LoaderFigures figures;
    const std::string marker = "file=";
    for (std::size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1)) {
        const std::size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        if (line.find("generating link map") != std::string::npos)
            figures.libraries.push_back(line.substr(marker.size(), line.find(' ') - marker.size()));
    }
    figures.relocations = LastNumberAfter(text, "final number of relocations:");
    figures.from_cache = LastNumberAfter(text, "final number of relocations from cache:");
    figures.relative = LastNumberAfter(text, "number of relative relocations:");
    return figures;
}

// The size of a 64-bit ELF file and the entries of its .init_array.
FileFigures ReadFileFigures(const std::string& path)
{
    FileFigures figures;
    std::string image;
    try {
        image = corvid::ReadWholeFile(path);
    } catch (const std::exception&) {
        return figures;
    }
    figures.bytes = long(image.size());
    Elf64_Ehdr header;
    if (image.size() < sizeof header || image.compare(0, SELFMAG, ELFMAG) != 0 || image[EI_CLASS] != ELFCLASS64)
        return figures;
    std::memcpy(&header, image.data(), sizeof header);
    const auto section = [&](std::size_t index) {
        Elf64_Shdr s{};
        const std::size_t at = header.e_shoff + index * header.e_shentsize;
        if (at + sizeof s <= image.size())
            std::memcpy(&s, image.data() + at, sizeof s);
        return s;
    };
    const Elf64_Shdr names = section(header.e_shstrndx);
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
        const Elf64_Shdr s = section(i);
        const std::size_t name = names.sh_offset + s.sh_name;
        if (name < image.size() && std::strcmp(image.c_str() + name, ".init_array") == 0)
            figures.initialisers = long(s.sh_size / sizeof(Elf64_Addr));
    }
    if (figures.initialisers < 0)
        figures.initialisers = 0;
    return figures;
}

std::vector<std::string> Command(const Program& program)
{
    std::vector<std::string> command = EMULATOR;
    command.push_back(program.path);
    command.insert(command.end(), program.arguments.begin(), program.arguments.end());
    return command;
}

// The value at fraction q (0 to 1) of the sorted values, interpolated.
double Quantile(std::vector<double> values, double q)
{
    std::sort(values.begin(), values.end());
    const double at = q * double(values.size() - 1);
    const std::size_t below = std::size_t(at);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    return values[below] + (at - double(below)) * (values[above] - values[below]);
}

std::string Spread(const std::vector<double>& values, const char* format)
{
    const auto f = [format](double v) { return fmt::format(fmt::runtime(format), v); };
    return fmt::format("{} [{} .. {}] ({} .. {})", f(Quantile(values, 0.5)), f(Quantile(values, 0.25)),
                       f(Quantile(values, 0.75)), f(Quantile(values, 0)), f(Quantile(values, 1)));
}

std::string LoadAverage()
{
    const std::string load = corvid::ReadWholeFile("/proc/loadavg");
    return load.substr(0, load.find(' ', load.find(' ', load.find(' ') + 1) + 1));
}

std::string FirstLineStartingWith(const std::string& text, const std::string& prefix)
{
    const std::size_t at = text.find(prefix);
    return at == std::string::npos ? "(none)" : text.substr(at, text.find('\n', at) - at);
}

std::string Count(long value) { return value < 0 ? "-" : std::to_string(value); }

} // namespace

int main(int argc, char** argv)
{
    int rounds = 200;
    std::string yardstick = VX_BENCH_TRUE;
    std::string trivial_program = VX_TRIVIAL_PROGRAM;
    std::string pass_program = VX_PASS_PROGRAM;
    std::vector<std::string> installed_programs = {VX_HWCHECK_PROGRAM, VX_TOOL_PROGRAM, VX_REGISTRYD_PROGRAM};
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--keep") {
            keep = true;
        } else if (i + 1 < argc && option == "--rounds") {
            rounds = std::max(4, std::atoi(argv[++i]));
        } else if (i + 1 < argc && option == "--true") {
            yardstick = argv[++i];
        } else if (i + 1 < argc && option == "--build") {
            const std::string build = argv[++i];
            trivial_program = build + "/bench/bench_trivial";
            pass_program = build + "/bench/bench_pass";
            installed_programs = {build + "/check/vx-hwcheck", build + "/tools/vxtool/vxtool",
                                  build + "/tools/vx-registryd/vx-registryd"};
        } else {
            std::fprintf(stderr, "usage: startup_bench [--rounds N] [--true PROGRAM] [--build DIR] [--keep]\n");
            return 2;
        }
    }
    const bool emulated = !EMULATOR.empty();
    const std::string dir = std::filesystem::temp_directory_path() / fmt::format("startup_bench.{}", ::getpid());
    std::filesystem::create_directories(dir);
    const bench::HealthyUnit unit = bench::SaveHealthyUnit(dir, VX_TEST_KEYS_DIR, "/proc/self/exe");
    const auto installed = [&dir](const std::string& program) {
        const std::string copy = dir + "/" + std::filesystem::path(program).filename().string();
        std::filesystem::copy_file(program, copy);
        return copy;
    };
    const std::vector<Program> programs = {{"/bin/true", yardstick, {}},
                                           {"bench_trivial", installed(trivial_program), {}},
                                           {"bench_pass", installed(pass_program), unit.PassArguments()}};
    const std::size_t count = programs.size();
    const auto out = [&dir](std::size_t i) { return fmt::format("{}/program{}.out", dir, i); };
    const auto err = [&dir](std::size_t i) { return fmt::format("{}/program{}.err", dir, i); };

    fmt::print("Start-up of the check's process: bench_pass (the check's main over a saved healthy unit, linked "
               "as vx-hwcheck is) and bench_trivial (an empty main linked the same way) against {}\n",
               yardstick);
    fmt::print("{} processors; load average before: {}\n", ::sysconf(_SC_NPROCESSORS_ONLN), LoadAverage());

    // Paired rounds: one run of each program per round, the order turned
    // each round; the first round warms the caches and is not counted.
    std::vector<std::vector<double>> seconds(count), cpu_seconds(count), faults(count);
    std::vector<int> statuses(count, 0);
    for (int round = 0; round <= rounds; ++round) {
        for (std::size_t k = 0; k < count; ++k) {
            const std::size_t i = (k + std::size_t(round)) % count;
            // The first round keeps what the programs print; the others
            // write to /dev/null, which costs every program the same.
            const bool first = round == 0;
            const bench::TimedRun run =
                bench::TimeChild(Command(programs[i]), first ? out(i) : "/dev/null", first ? err(i) : "/dev/null");
            statuses[i] = std::max(statuses[i], run.status);
            if (round > 0) {
                seconds[i].push_back(run.seconds);
                cpu_seconds[i].push_back(run.cpu_seconds);
                faults[i].push_back(double(run.page_faults));
            }
        }
    }
    const std::string pass_output = corvid::ReadWholeFile(err(2));
    const std::string pass_banner = corvid::ReadWholeFile(out(2));
    fmt::print("load average after {} rounds: {}\n", rounds, LoadAverage());
    fmt::print("bench_pass: status {}, {}\n", statuses[2], FirstLineStartingWith(pass_output, "<6>VELTRIX"));
    fmt::print("            banner {:?}\n\n", pass_banner);
    if (statuses[0] != 0 || statuses[1] != 0) {
        fmt::print("{} exited with status {}, bench_trivial with {}: no figures\n", yardstick, statuses[0],
                   statuses[1]);
        std::filesystem::remove_all(dir);
        return 1;
    }

    if (emulated) {
        fmt::print("Under user-mode emulation: no times. Page faults and peak memory are the emulator's "
                   "process's, its own included.\n\n");
    } else {
        // Wall time, and processor time, which a loaded machine disturbs less.
        for (const auto& [what, measured] : {std::pair{"Wall", &seconds}, std::pair{"Processor", &cpu_seconds}}) {
            const auto* times = measured;
            fmt::print("{} time, paired round by round ({} rounds): median [quartiles] (extremes)\n", what, rounds);
            for (std::size_t i = 0; i < count; ++i) {
                std::vector<double> ms;
                for (double s : (*times)[i])
                    ms.push_back(s * 1e3);
                fmt::print("  {:<28} {} ms\n", programs[i].name, Spread(ms, "{:.3f}"));
            }
            const auto ratio = [&](std::size_t a, std::size_t b) {
                std::vector<double> ratios;
                for (std::size_t r = 0; r < (*times)[a].size(); ++r)
                    ratios.push_back((*times)[a][r] / (*times)[b][r]);
                return Spread(ratios, "{:.2f}");
            };
            fmt::print("  {:<28} {}\n", "bench_pass / " + programs[0].name, ratio(2, 0));
            fmt::print("  {:<28} {}\n", "bench_trivial / " + programs[0].name, ratio(1, 0));
            fmt::print("  {:<28} {}\n\n", "bench_pass / bench_trivial", ratio(2, 1));
        }
    }

    // The loader's figures of one run each, and the peak memory of traced
    // runs (a tenth of the rounds, at least five).
    const std::string debug = "LD_DEBUG=statistics:files";
    const std::vector<std::string> environment = {emulated ? "QEMU_SET_ENV=" + debug : debug};
    const int traced = std::max(5, rounds / 10);
    fmt::print("{:<14}{:>10}{:>13}{:>12}{:>10}{:>9}{:>14}{:>11}{:>14}\n", "", "libraries", "relocations",
               "from cache", "relative", "faults", "peak RSS KiB", "file KiB", "initialisers");
    std::vector<std::string> pass_libraries;
    for (std::size_t i = 0; i < count; ++i) {
        const std::vector<std::string> command = Command(programs[i]);
        const std::vector<std::string> arguments(command.begin() + 1, command.end());
        bench::RunChild(command.front(), arguments, out(i), err(i), environment);
        const LoaderFigures loader = ParseLoaderDebug(corvid::ReadWholeFile(err(i)));
        std::vector<double> peaks;
        for (int r = 0; r < traced; ++r)
            peaks.push_back(double(bench::RunChild(command.front(), arguments, out(i), err(i)).peak_rss_kib));
        const FileFigures file = ReadFileFigures(programs[i].path);
        fmt::print("{:<14}{:>10}{:>13}{:>12}{:>10}{:>9.0f}{:>14.0f}{:>11}{:>14}\n", programs[i].name,
                   loader.libraries.size(), Count(loader.relocations), Count(loader.from_cache),
                   Count(loader.relative), Quantile(faults[i], 0.5), Quantile(peaks, 0.5),
                   Count(file.bytes < 0 ? -1 : (file.bytes + 1023) / 1024), Count(file.initialisers));
        if (i == 2)
            pass_libraries = loader.libraries;
    }
    fmt::print("bench_pass loads: {}\n", fmt::join(pass_libraries, " "));
    fmt::print("\nThe installed programs (file KiB, static initialisers):");
    for (const std::string& path : installed_programs) {
        const FileFigures file = ReadFileFigures(path);
        fmt::print(" {} {} {};", std::filesystem::path(path).filename().string(),
                   Count(file.bytes < 0 ? -1 : (file.bytes + 1023) / 1024), Count(file.initialisers));
    }
    fmt::print("\n");
    if (keep)
        fmt::print("the unit is kept: {}\n", fmt::join(Command(programs[2]), " "));
    else
        std::filesystem::remove_all(dir);
    return 0;
}
