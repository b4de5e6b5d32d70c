// vxtool mkenv: builds an environment block from KEY=VALUE lines.
#include <sys/stat.h>

#include <iostream>
#include <string>
#include <vector>

#include "command.h"
#include "factory/records.h"
#include "platform/posix_helpers.h"

namespace vxtool {
namespace {

int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    std::string erase_size_text, output;
    if (!TakeOption(args, "--erase-size", erase_size_text))
        throw UsageError("--erase-size is required");
    if (!TakeOption(args, "-o", output) || output.empty())
        throw UsageError("-o FILE is required");
    ExpectNoMoreArguments(args);
    const auto erase_size = static_cast<std::size_t>(ParseNumber("--erase-size", erase_size_text));
    if (erase_size == 0)
        throw UsageError("--erase-size must not be 0");

    // One variable per line; a carriage return before the line end is
    // dropped and empty lines are skipped.
    std::vector<std::string> texts;
    std::string line;
    while (std::getline(std::cin, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            texts.push_back(line);
    }
    if (std::cin.bad())
        throw corvid::ErrnoException(EIO, "standard input");

    const std::string block = EncodeBootloaderEnvironmentBlock(texts, erase_size);
    WriteOutput(output, block);
    return 0;
}

const CommandRegistrar reg({"mkenv", "--erase-size BYTES -o FILE",
                            "write one erase block of environment records from KEY=VALUE lines "
                            "on standard input",
                            &Run});

} // namespace
} // namespace vxtool
