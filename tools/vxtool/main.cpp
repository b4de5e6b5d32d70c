// vxtool: the field engineer's and the factory's tool for the player's flash
// contents and identity records.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>

#include <fmt/format.h>

#include "command.h"
#include "platform/posix_helpers.h"
#include "platform/trace.h"
#include "tool_context.h"

namespace vxtool {
namespace {

std::map<std::string, Command>& Registry()
{
    static std::map<std::string, Command> commands;
    return commands;
}

nlohmann::json* s_answer = nullptr;

void PrintCommands(std::FILE* out)
{
    fmt::print(out, "usage: vxtool COMMAND [OPTIONS]\n       vxtool help [COMMAND]\n       vxtool --version\n\n"
                    "commands:\n");
    for (const auto& [name, command] : Registry())
        fmt::print(out, "  {:<14} {}\n", name, command.summary);
}

void PrintHelp(const Command& command)
{
    fmt::print("usage: vxtool {} {}\n{}\n{}", command.name, command.usage, command.summary,
               command.help ? command.help : "");
    if (command.json)
        fmt::print("--json answers with one JSON object on standard output (see vxtool(1)).\n");
}

// Runs the command; errors and usage errors are reported here, with one
// prefix, "error: ", the usage following a usage error.
int RunText(const Command& command, const Arguments& args)
{
    try {
        return command.run(args);
    } catch (const UsageError& e) {
        fmt::print(stderr, "error: {}\nusage: vxtool {} {}\n", e.what(), command.name, command.usage);
        return 2;
    } catch (const std::exception& e) {
        fmt::print(stderr, "error: {}\n", e.what());
        return 1;
    }
}

// Runs the command for --json: its answer, with "error" for a failure
// (added to what it had answered before the failure) and the library's
// messages as "warnings", one per message without its line end, as one
// object on standard output.
int RunJson(const Command& command, const Arguments& args)
{
    nlohmann::json answer = nlohmann::json::object();
    int status = 0;
    std::vector<std::string> warnings;
    {
        const corvid::MessageCapture capture;
        s_answer = &answer;
        try {
            status = command.run(args);
        } catch (const UsageError& e) {
            answer["error"] = e.what();
            status = 2;
        } catch (const std::exception& e) {
            answer["error"] = e.what();
            status = 1;
        }
        s_answer = nullptr;
        for (std::string message : capture.Messages()) {
            if (!message.empty() && message.back() == '\n')
                message.pop_back();
            warnings.push_back(std::move(message));
        }
    }
    answer["warnings"] = warnings;
    // Text that is not UTF-8 (a flash record may hold any byte) has each
    // invalid byte replaced by U+FFFD rather than failing the answer.
    fmt::print("{}\n", answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    return status;
}

} // namespace

nlohmann::json* JsonAnswer()
{
    return s_answer;
}

CommandRegistrar::CommandRegistrar(const Command& command)
{
    Command& registered = Registry().emplace(command.name, command).first->second;
    if (registered.json)
        registered.usage += " [--json]";
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

void WriteOutput(const std::string& path, const std::string& data)
{
    if (path != "-")
        return corvid::WriteWholeFile(path, data, 0644);
    std::fflush(stdout);
    corvid::write_all_throw(STDOUT_FILENO, data.data(), data.size());
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
    if (name == "--version") {
        fmt::print("vxtool {}\n", VX_VERSION);
        return 0;
    }
    const bool help = name == "--help" || name == "-h" || name == "help";
    if (help && argc == 2) {
        PrintCommands(stdout);
        return 0;
    }
    const std::string command_name = help ? argv[2] : name;
    const auto found = Registry().find(command_name);
    if (found == Registry().end() || (help && argc > 3)) {
        if (found == Registry().end())
            fmt::print(stderr, "error: unknown command '{}'\n", command_name);
        else
            fmt::print(stderr, "error: unexpected argument '{}'\n", argv[3]);
        PrintCommands(stderr);
        return 2;
    }
    const Command& command = found->second;
    Arguments args(argv + 2, argv + argc);
    if (help || (args.size() == 1 && (args[0] == "--help" || args[0] == "-h"))) {
        PrintHelp(command);
        return 0;
    }
    if (command.json && TakeFlag(args, "--json"))
        return RunJson(command, args);
    return RunText(command, args);
}
