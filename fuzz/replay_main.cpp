// The main of a fuzz target in the builds without libFuzzer: runs the target
// once on every file named on the command line, and on every regular file
// of every directory named there (in name order), then exits 0. A finding
// ends the program as it would end the fuzzer: a crash, an abort, a
// sanitizer report.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void Replay(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path.string());
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    // A copy of exactly the input's size (never a null pointer, as in the
    // fuzzer), so that a read past its end is seen.
    const std::unique_ptr<std::uint8_t[]> input(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), input.get());
    LLVMFuzzerTestOneInput(input.get(), bytes.size());
}

} // namespace

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE|DIRECTORY...\n", argv[0]);
        return 2;
    }
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path argument(argv[i]);
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(argument)) {
            for (const auto& entry : std::filesystem::directory_iterator(argument))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
            std::sort(files.begin(), files.end());
        } else {
            files.push_back(argument);
        }
        for (const auto& file : files) {
            Replay(file);
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return count == 0 ? 1 : 0;
}
