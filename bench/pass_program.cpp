// The start-up check's main over a saved unit: the hardware configuration
// and the pass as vx-hwcheck runs them, linked as vx-hwcheck is, in a
// context that reads the unit's images and files, with the banner printed
// instead of written. pass_bench starts it to time the pass in a process of
// its own against bench_trivial.
//   bench_pass ROOT ETH0-ADDRESS [PARTITION IMAGE BAD-BLOCKS]...
// Images have the unit's erase and page sizes; BAD-BLOCKS lists erase-block
// indexes ("0,1"), or is "-" for none.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include <fmt/format.h>

#include "check/driver.h"
#include "check/startup_pass.h"
#include "counting_context.h"
#include "hardware/hardware_config.h"
#include "hardware/nand_image_access.h"
#include "healthy_unit.h"

int main(int argc, char** argv)
{
    if (argc < 3 || (argc - 3) % 3 != 0) {
        std::fprintf(stderr, "usage: bench_pass ROOT ETH0-ADDRESS [PARTITION IMAGE BAD-BLOCKS]...\n");
        return 2;
    }
    std::map<std::string, std::shared_ptr<bench::CountingNand>> partitions;
    for (int i = 3; i < argc; i += 3) {
        std::set<std::size_t> bad;
        std::istringstream list(argv[i + 2]);
        for (std::string block; std::getline(list, block, ',');) {
            if (block != "-")
                bad.insert(std::strtoul(block.c_str(), nullptr, 10));
        }
        partitions[argv[i]] = std::make_shared<bench::CountingNand>(
            NandImageAccess::Create(argv[i + 1], bench::ERASE_SIZE, bench::PAGE_SIZE, bad));
    }
    bench::CountingContext context(argv[1], partitions, bench::ParseAddress(argv[2]));
    const HardwareConfig config;
    return RunChecks([] { RunStartupPass([](const std::string& banner) { fmt::print("{}", banner); }); },
                     [](ErrorLedPattern pattern) { fmt::print("blink code {}\n", int(pattern)); });
}
