// vxtool registry against the registry service on a private bus.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/registry_bus.h"

namespace {

using Args = std::vector<std::string>;

// The exit status, ":", then standard output and standard error of vxtool
// registry, as root or as another user (nobody).
std::string Registry(const Args& args, const std::string& input = {}, bool as_nobody = false)
{
    Args command = vxtest::Built(VX_VXTOOL_PATH, {"registry"});
    command.insert(command.end(), args.begin(), args.end());
    if (as_nobody)
        command.insert(command.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    const vxtest::RunResult r = vxtest::Run(command, input);
    return std::to_string(r.exit_status) + ":" + r.out + r.err;
}

TEST(VxtoolRegistry, ReadsAndChangesTheRegistryAsRootAndReadsItAsAnyUser)
{
    const vxtest::TempDir dir;
    vxtest::RegistryBus::Get().StartService(dir.Path() + "/registry.json");
    EXPECT_EQ(Registry({"set", "network", "hostname", "player-12"}), "0:");
    EXPECT_EQ(Registry({"import", "-"}, R"({"network": {"hostname": "p", "mtu": "1500"}, "display": {"r": "90"}})"),
              "0:");
    EXPECT_EQ(Registry({"get", "network", "mtu"}), "0:1500\n");
    EXPECT_EQ(Registry({"list"}, {}, true), "0:display\nnetwork\n");
    EXPECT_EQ(Registry({"list", "network"}, {}, true), "0:hostname=p\nmtu=1500\n");
    EXPECT_THAT(Registry({"delete", "network", "mtu"}, {}, true),
                testing::StartsWith("1:error: org.freedesktop.DBus.Error.AccessDenied: "));
    EXPECT_EQ(Registry({"delete", "network", "mtu"}), "0:");
    EXPECT_EQ(Registry({"delete", "display"}), "0:");
    EXPECT_EQ(Registry({"export"}), "0:{\n  \"network\": {\n    \"hostname\": \"p\"\n  }\n}\n");
    EXPECT_EQ(Registry({"delete", "--all"}), "0:");
    EXPECT_EQ(Registry({"list"}), "0:");

    EXPECT_EQ(Registry({"set", "net work", "k", "v"}), "1:error: Invalid name: InvalidName\n");
    EXPECT_EQ(Registry({"get", "network", "mtu"}),
              "1:error: com.tessalabs.Registry.Errors.NotFound: No key 'mtu' in section 'network'\n");
    EXPECT_THAT(Registry({"get", "network"}), testing::StartsWith("2:error: missing KEY\nusage: vxtool registry "));
    EXPECT_THAT(Registry({"drop"}), testing::StartsWith("2:error: unknown action 'drop'\nusage: vxtool registry "));
}

} // namespace
