// vxtool: the field engineer's and the factory's tool for the player's flash
// contents and identity records.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>

#include <fmt/format.h>

#include "command.h"
#include "tool_context.h"

namespace vxtool {
namespace {

std::map<std::string, Command>& Registry()
{
    static std::map<std::string, Command> commands;
    return commands;
}

void PrintCommands(std::FILE* out)
{
    fmt::print(out, "usage: vxtool COMMAND [OPTIONS]\n\ncommands:\n");
    for (const auto& [name, command] : Registry())
        fmt::print(out, "  {:<14} {}\n", name, command.summary);
}

} // namespace

CommandRegistrar::CommandRegistrar(const Command& command)
{
    Registry().emplace(command.name, command);
}

unsigned long long ParseNumber(const std::string& option, const std::string& text)
{
    if (text.empty() || text[0] == '-')
        throw UsageError(fmt::format("{}: expected a number, got '{}'", option, text));
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0')
        throw UsageError(fmt::format("{}: expected a number, got '{}'", option, text));
    return value;
}

bool TakeOption(Arguments& args, const std::string& option, std::string& value)
{
    for (auto it = args.begin(); it != args.end(); ++it) {
        if (*it == option) {
            if (it + 1 == args.end())
                throw UsageError(fmt::format("{} needs a value", option));
            value = *(it + 1);
            args.erase(it, it + 2);
            return true;
        }
        if (it->rfind(option + "=", 0) == 0) {
            value = it->substr(option.size() + 1);
            args.erase(it);
            return true;
        }
    }
    return false;
}

bool TakeFlag(Arguments& args, const std::string& flag)
{
    for (auto it = args.begin(); it != args.end(); ++it) {
        if (*it == flag) {
            args.erase(it);
            return true;
        }
    }
    return false;
}

void ExpectNoMoreArguments(const Arguments& args)
{
    if (!args.empty())
        throw UsageError(fmt::format("unexpected argument '{}'", args.front()));
}

} // namespace vxtool

int main(int argc, char** argv)
{
    using namespace vxtool;
    ToolContext context;
    if (argc < 2) {
        PrintCommands(stderr);
        return 2;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        PrintCommands(stdout);
        return 0;
    }
    const auto found = Registry().find(name);
    if (found == Registry().end()) {
        fmt::print(stderr, "vxtool: unknown command '{}'\n", name);
        PrintCommands(stderr);
        return 2;
    }
    const Command& command = found->second;
    Arguments args(argv + 2, argv + argc);
    if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
        fmt::print("usage: vxtool {} {}\n{}\n{}", command.name, command.usage, command.summary,
                   command.help ? command.help : "");
        return 0;
    }
    try {
        return command.run(args);
    } catch (const UsageError& e) {
        fmt::print(stderr, "vxtool {}: {}\nusage: vxtool {} {}\n", command.name, e.what(),
                   command.name, command.usage);
        return 2;
    } catch (const std::exception& e) {
        fmt::print(stderr, "error: {}\n", e.what());
        return 1;
    }
}
