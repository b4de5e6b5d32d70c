// vxtool registry: reads and changes the device's registry through the
// registry service, with the platform library's client.
#include <cstdio>
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

int RunAction(Registry& registry, const std::string& action, Arguments& args)
{
    if (action == "get") {
        const std::string section = TakeArgument(args, "SECTION"), key = TakeArgument(args, "KEY");
        ExpectNoMoreArguments(args);
        fmt::print("{}\n", registry.Read(section, key));
    } else if (action == "set") {
        const std::string section = TakeArgument(args, "SECTION"), key = TakeArgument(args, "KEY");
        const std::string value = TakeArgument(args, "VALUE");
        ExpectNoMoreArguments(args);
        registry.Write(section, key, value);
    } else if (action == "delete") {
        if (TakeFlag(args, "--all")) {
            ExpectNoMoreArguments(args);
            registry.DeleteAll();
            return 0;
        }
        const std::string section = TakeArgument(args, "SECTION");
        if (args.empty()) {
            registry.DeleteSection(section);
            return 0;
        }
        const std::string key = TakeArgument(args, "KEY");
        ExpectNoMoreArguments(args);
        registry.DeleteKey(section, key);
    } else if (action == "list") {
        if (args.empty()) {
            for (const std::string& section : registry.SectionList())
                fmt::print("{}\n", section);
            return 0;
        }
        const std::string section = TakeArgument(args, "SECTION");
        ExpectNoMoreArguments(args);
        for (const auto& [key, value] : registry.KeyList(section))
            fmt::print("{}={}\n", key, value);
    } else if (action == "export") {
        ExpectNoMoreArguments(args);
        fmt::print("{}", registry.ReadAllJson());
    } else if (action == "import") {
        const std::string file = TakeArgument(args, "FILE");
        ExpectNoMoreArguments(args);
        registry.WriteJson(corvid::ReadWholeFile(file == "-" ? "/dev/stdin" : file));
    } else {
        throw UsageError(fmt::format("unknown action '{}'", action));
    }
    return 0;
}

int Run(const Arguments& arguments)
{
    Arguments args = arguments;
    const std::string action = TakeArgument(args, "action");
    try {
        return RunAction(*RegistryClientImpl::GetInstance(), action, args);
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
