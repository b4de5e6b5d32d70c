// The README's command tables and vxtool's manual page against vxtool's own
// usage texts: every command, every option, in the same words.
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/programs.h"

namespace {

// A command's usage as "vxtool COMMAND --help" prints it: its alternatives at
// the top level (outside brackets), each a line of the documentation.
std::vector<std::string> UsageLines(const std::string& command)
{
    const std::string help = vxtest::Vxtool({command, "--help"}).out, prefix = "usage: vxtool " + command + " ";
    EXPECT_EQ(help.rfind(prefix, 0), 0u) << help;
    const std::string usage = help.substr(prefix.size(), help.find('\n') - prefix.size());
    std::vector<std::string> lines;
    std::size_t depth = 0, start = 0;
    for (std::size_t i = 0; i < usage.size(); ++i) {
        depth += usage[i] == '[' || usage[i] == '(';
        depth -= usage[i] == ']' || usage[i] == ')';
        if (depth == 0 && usage.compare(i, 3, " | ") == 0) {
            lines.push_back("vxtool " + command + " " + usage.substr(start, i - start));
            start = i + 3;
        }
    }
    lines.push_back("vxtool " + command + " " + usage.substr(start));
    return lines;
}

TEST(VxtoolDocs, TheReadmeAndTheManualPageShowEveryCommandAsItsUsageDoes)
{
    // The commands, from the command list.
    std::istringstream list(vxtest::Vxtool({"help"}).out);
    std::vector<std::string> commands;
    bool listed = false;
    for (std::string line; std::getline(list, line);) {
        if (listed)
            commands.push_back(line.substr(2, line.find(' ', 2) - 2));
        listed = listed || line == "commands:";
    }
    ASSERT_GE(commands.size(), 13u);

    const std::string readme = vxtest::ReadFile(VX_SOURCE_DIR "/README.md");
    // The manual page as it reads: minus signs as "-", font changes dropped.
    const std::string manual = std::regex_replace(
        std::regex_replace(vxtest::ReadFile(VX_SOURCE_DIR "/packaging/man/vxtool.1"), std::regex(R"(\\-)"), "-"),
        std::regex(R"(\\f[BIRP])"), "");
    for (const std::string& command : commands) {
        for (const std::string& line : UsageLines(command)) {
            // In a Markdown table a "|" inside the code is written "\|".
            const std::string row = "| `" + std::regex_replace(line, std::regex(R"(\|)"), R"(\|)") + "` |";
            EXPECT_NE(readme.find(row), std::string::npos) << "README.md lacks " << row;
            EXPECT_NE(manual.find("\n.B " + line + "\n"), std::string::npos) << "vxtool.1 lacks .B " << line;
        }
    }
}

// The README's factory example is the script that the simulated player's
// factory-example scenario runs, word for word.
TEST(VxtoolDocs, TheReadmesFactoryExampleIsTheScenarioThatRunsIt)
{
    const std::string scenario = vxtest::ReadFile(VX_SOURCE_DIR "/sim/scenarios/factory-example.toml");
    const std::size_t start = scenario.find("\"-c\", '''\n") + 10, end = scenario.find("''']", start);
    ASSERT_NE(end, std::string::npos);
    // A Markdown code block: each line that is not empty indented by four.
    const std::string block =
        std::regex_replace(scenario.substr(start, end - start), std::regex("(^|\n)(.)"), "$1    $2");
    EXPECT_NE(vxtest::ReadFile(VX_SOURCE_DIR "/README.md").find("\n\n" + block + "\n"), std::string::npos)
        << block;
}

} // namespace
