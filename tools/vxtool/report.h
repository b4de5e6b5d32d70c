// The check's pass as vxtool report --json answers it, for the commands
// that record it (report, capture).
#pragma once

#include <nlohmann/json.hpp>

namespace vxtool {

// Runs the start-up check's pass on vxtool's context as it stands, with a
// HardwareConfig already constructed, and fills answer with "summary",
// "avs", "banner" (null when the pass ended before them) and "verdict"
// ("blink_code", "error", "exit_status"). Returns the pass's exit status.
int RunReportPass(nlohmann::json& answer);

} // namespace vxtool
