// vxtool registry: reads and changes the device's registry through the
// registry service, with the platform library's client.
#include <cstdio>
#include <functional>
#include <stdexcept>

#include <dbus-c++/error.h>
#include <fmt/format.h>

#include "command.h"
#include "platform/posix_helpers.h"
#include "platform/registry_client.h"

namespace vxtool {
namespace {

std::string TakeArgument(Arguments& args, const char* what)
{
    if (args.empty())
        throw UsageError(fmt::format("missing {}", what));
    std::string value = args.front();
    args.erase(args.begin());
    return value;
}

// What an action does on the registry, once its command line is understood.
using Action = std::function<void(Registry&)>;

// Reads the action and its arguments; throws UsageError for a command line
// that cannot be understood, before the registry is reached at all.
Action ParseAction(Arguments& args)
{
    const std::string action = TakeArgument(args, "action");
    if (action == "get") {
        std::string section = TakeArgument(args, "SECTION"), key = TakeArgument(args, "KEY");
        ExpectNoMoreArguments(args);
        return [=](Registry& registry) { fmt::print("{}\n", registry.Read(section, key)); };
    }
    if (action == "set") {
        std::string section = TakeArgument(args, "SECTION"), key = TakeArgument(args, "KEY");
        std::string value = TakeArgument(args, "VALUE");
        ExpectNoMoreArguments(args);
        return [=](Registry& registry) { registry.Write(section, key, value); };
    }
    if (action == "delete") {
        if (TakeFlag(args, "--all")) {
            ExpectNoMoreArguments(args);
            return [](Registry& registry) { registry.DeleteAll(); };
        }
        std::string section = TakeArgument(args, "SECTION");
        if (args.empty())
            return [=](Registry& registry) { registry.DeleteSection(section); };
        std::string key = TakeArgument(args, "KEY");
        ExpectNoMoreArguments(args);
        return [=](Registry& registry) { registry.DeleteKey(section, key); };
    }
    if (action == "list") {
        if (args.empty()) {
            return [](Registry& registry) {
                for (const std::string& section : registry.SectionList())
                    fmt::print("{}\n", section);
            };
        }
        std::string section = TakeArgument(args, "SECTION");
        ExpectNoMoreArguments(args);
        return [=](Registry& registry) {
            for (const auto& [key, value] : registry.KeyList(section))
                fmt::print("{}={}\n", key, value);
        };
    }
    if (action == "export") {
        ExpectNoMoreArguments(args);
        return [](Registry& registry) { fmt::print("{}", registry.ReadAllJson()); };
    }
    if (action == "import") {
        std::string file = TakeArgument(args, "FILE");
        ExpectNoMoreArguments(args);
        return [=](Registry& registry) {
            registry.WriteJson(corvid::ReadWholeFile(file == "-" ? "/dev/stdin" : file));
        };
    }
    throw UsageError(fmt::format("unknown action '{}'", action));
}

int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const Action action = ParseAction(args);
    try {
        action(*RegistryClientImpl::GetInstance());
        return 0;
    } catch (const DBus::Error& e) {
        // The service's and the bus's errors by name, which says more than the text alone.
        throw std::runtime_error(fmt::format("{}: {}", e.name(), e.message()));
    }
}

const CommandRegistrar reg({"registry",
                            "get SECTION KEY | set SECTION KEY VALUE | delete SECTION [KEY] | delete --all"
                            " | list [SECTION] | export | import FILE|-",
                            "read and change the registry through the registry service", &Run});

} // namespace
} // namespace vxtool
