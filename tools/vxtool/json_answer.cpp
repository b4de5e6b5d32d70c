#include "json_answer.h"

#include <cctype>
#include <cstdlib>
#include <set>

#include <fmt/format.h>

namespace vxtool {
namespace {

// The voltages ("0.900V") and temperatures ("-2.000C") of the status block.
const std::set<std::string> MEASURED = {"V0", "T0", "PV0", "MV0", "V1", "T1", "PV1", "MV1"};

} // namespace

std::string HexText(std::uint64_t value)
{
    return fmt::format("0x{:x}", value);
}

nlohmann::json AvsJson(const std::map<std::string, std::string>& status)
{
    nlohmann::json avs = nlohmann::json::object();
    for (const auto& [key, text] : status) {
        std::string name;
        for (const char c : key)
            name += c == ' ' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        // The library's texts: "0.900V", "-2.000C", "17", "0xa11600d1", words.
        if (text.empty() && (MEASURED.contains(key) || key == "Heartbeat" || key == "Magic"))
            avs[name] = nullptr;
        else if (MEASURED.contains(key))
            avs[name] = std::strtod(text.c_str(), nullptr);
        else if (key == "Heartbeat" || key == "Magic")
            avs[name] = std::strtoull(text.c_str(), nullptr, 0);
        else
            avs[name] = text;
    }
    return avs;
}

} // namespace vxtool
