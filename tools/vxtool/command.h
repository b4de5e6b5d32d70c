// Subcommands of vxtool. Each subcommand lives in its own source file and
// registers itself with a static CommandRegistrar.
#pragma once

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace vxtool {

using Arguments = std::vector<std::string>;

struct Command {
    const char* name;    // "env"
    std::string usage;   // "[--env-mtd NAME | --env-image FILE ...]"
    const char* summary; // one line for the command list
    // Runs with the arguments after the subcommand name; returns the exit status.
    int (*run)(const Arguments& args);
    // More lines for "vxtool COMMAND --help", or nullptr.
    const char* help = nullptr;
    // Whether the command answers --json (every reading command does).
    bool json = false;
};

// With --json, the object that the command fills in as its answer (main
// adds "warnings" and, for a failure, "error", and prints it); nullptr when
// the command answers in text.
nlohmann::json* JsonAnswer();

class CommandRegistrar {
public:
    explicit CommandRegistrar(const Command& command);
};

// Thrown for a command line that cannot be understood; main prints
// "error: <what>" and the command's usage, and exits 2.
class UsageError : public std::exception {
public:
    explicit UsageError(std::string message) : m_message(std::move(message)) {}
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    std::string m_message;
};

// Parses a number the way strtoull with base 0 does, but refuses trailing
// text and empty input with UsageError naming the option.
unsigned long long ParseNumber(const std::string& option, const std::string& text);

// Takes the value of an option out of args ("--opt VALUE" or "--opt=VALUE").
// Returns true when the option was present.
bool TakeOption(Arguments& args, const std::string& option, std::string& value);
// Takes a flag without value out of args.
bool TakeFlag(Arguments& args, const std::string& flag);
// Throws UsageError when args still holds anything.
void ExpectNoMoreArguments(const Arguments& args);

// Writes a factory command's output: to standard output when path is "-",
// else as a file (mode 0644).
void WriteOutput(const std::string& path, const std::string& data);

} // namespace vxtool
