// vxtool avs: the AVS firmware's status, from the registers or a dump.
#include <cstdint>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "command.h"
#include "hardware/mmio.h"
#include "json_answer.h"
#include "platform/binary_fields.h"
#include "platform/posix_helpers.h"

namespace vxtool {
namespace {

// The thirteen values, "KEY=VALUE" a line in key order: read from the live
// register block, or from --dump FILE, the block's 72 bytes as the
// registers hold them (18 little-endian words).
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    std::string dump;
    const bool from_dump = TakeOption(args, "--dump", dump);
    ExpectNoMoreArguments(args);

    std::map<std::string, std::string> status;
    if (from_dump) {
        const std::string bytes = corvid::ReadWholeFile(dump);
        if (bytes.size() != 4 * AVS_STATUS_WORDS)
            throw std::runtime_error(fmt::format("{}: {} bytes, not the {} of an AVS status block", dump,
                                                 bytes.size(), 4 * AVS_STATUS_WORDS));
        AvsStatusWords words;
        for (std::size_t i = 0; i < words.size(); ++i)
            words[i] = corvid::LoadLe32(bytes.data() + 4 * i);
        status = ConvertAvsStatus(words);
    } else {
        status = ReadAvsStatus();
    }
    if (nlohmann::json* json = JsonAnswer()) {
        *json = AvsJson(status);
        return 0;
    }
    for (const auto& [key, value] : status)
        fmt::print("{}={}\n", key, value);
    return 0;
}

const CommandRegistrar reg({"avs", "[--dump FILE]",
                            "print the AVS firmware's status from the registers or a dump of its block",
                            &Run, nullptr, true});

} // namespace
} // namespace vxtool
