// vxtool env: prints the boot loader's environment, or some of its variables.
#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "command.h"
#include "hardware/bootloader_environment.h"
#include "hardware/context.h"
#include "source.h"

namespace vxtool {
namespace {

// Exit status when what was asked for is not there: no variables at all, or
// a NAME that is not defined.
constexpr int NOT_FOUND = 3;

// What the block holds besides records, which tells a unit without an
// environment (erased) from a wrong image, erase size or bad-block list
// (typically zeros) when there are no variables.
const char* BlockState(const std::string& bytes)
{
    if (bytes.empty() || static_cast<unsigned char>(bytes[0]) == 0xFF)
        return "erased";
    if (std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == '\0'; }))
        return "zeroed";
    return bytes[0] == '\0' ? "empty" : "records";
}

std::string WhyNoVariables(const std::string& state, std::uint64_t offset)
{
    if (state == "erased")
        return fmt::format("the block at offset {} is erased (it begins with 0xff)", offset);
    if (state == "zeroed")
        return fmt::format("the block at offset {} is all zeros (a wrong image, erase size or bad-block list?)",
                           offset);
    if (state == "empty")
        return fmt::format("the block at offset {} begins with the end of the list (0x00)", offset);
    return fmt::format("no record of the block at offset {} holds a '='", offset);
}

// KEY=VALUE lines in key order, or with NAMEs those variables in the order
// given (-n: the value alone of one NAME). Unlike the start-up check, a load
// failure is an error (exit 1); an environment without variables, or a NAME
// not defined, is said on standard error and ends with exit status 3.
int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const PartitionOptions partitions(args, {ENVIRONMENT}, &ENVIRONMENT);
    const bool value_only = TakeFlag(args, "-n");
    for (const std::string& arg : args) {
        if (arg.size() > 1 && arg[0] == '-')
            throw UsageError(fmt::format("unknown option '{}'", arg));
    }
    const std::vector<std::string> names = args;
    if (value_only && names.size() != 1)
        throw UsageError("-n prints the value of one variable: give one NAME");
    partitions.Use();

    const EnvironmentBlock block = ReadEnvironmentBlock(*Context::GetInstance()->OpenPartition(ENVIRONMENT.name));
    const auto variables = ParseBootloaderEnvironmentBlock(block.bytes);
    const std::string state = BlockState(block.bytes);
    nlohmann::json* json = JsonAnswer();
    if (json) {
        (*json)["block"] = state;
        (*json)["block_offset"] = block.offset;
        (*json)["variables"] = nlohmann::json::object();
    }

    std::vector<std::string> missing;
    const auto show = [&](const std::string& key, const std::string& value) {
        if (json)
            (*json)["variables"][key] = value;
        else if (value_only)
            fmt::print("{}\n", value);
        else
            fmt::print("{}={}\n", key, value);
    };
    if (names.empty()) {
        for (const auto& [key, value] : variables)
            show(key, value);
    }
    for (const std::string& name : names) {
        const auto found = variables.find(name);
        if (found == variables.end())
            missing.push_back(name);
        else
            show(name, found->second);
    }
    if (json && !names.empty())
        (*json)["missing"] = missing;
    if (!json) {
        if (variables.empty() && names.empty())
            fmt::print(stderr, "error: no variables: {}\n", WhyNoVariables(state, block.offset));
        for (const std::string& name : missing)
            fmt::print(stderr, "error: {} is not defined{}\n", name,
                       variables.empty() ? ": " + WhyNoVariables(state, block.offset) : "");
    }
    return (variables.empty() && names.empty()) || !missing.empty() ? NOT_FOUND : 0;
}

const CommandRegistrar reg({"env", PartitionUsage(ENVIRONMENT) + " [-n] [NAME...]",
                            "print the boot loader's environment, or the named variables, as KEY=VALUE lines",
                            &Run, PARTITION_HELP, true});

} // namespace
} // namespace vxtool
