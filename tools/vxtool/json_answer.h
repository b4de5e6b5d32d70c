// The pieces of vxtool's --json answers that several commands share.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <nlohmann/json.hpp>

namespace vxtool {

// "0x" and the value in lower-case hexadecimal: a 64-bit value as text, for
// readers that hold JSON numbers in doubles (exact only up to 2^53).
std::string HexText(std::uint64_t value);

// The AVS status map as JSON: each key in snake_case ("Power State" is
// "power_state"), the voltages and temperatures as numbers (volts, degrees
// Celsius), the heartbeat and magic word as integers (null when the text is
// empty), the rest as text.
nlohmann::json AvsJson(const std::map<std::string, std::string>& status);

} // namespace vxtool
