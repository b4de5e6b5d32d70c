// The debugger flag: "vx.debug" on the kernel command line.
#pragma once

#include <string>

namespace DebugHelpers {

// Whether "vx.debug" enables the debugger in a kernel command line: the last
// "vx.debug" pair decides; any value but exactly "0" (the empty one too)
// enables it. Without the key: false.
bool ParseDebugFlag(const std::string& cmdline);

// The flag of this process, computed once (under pthread_once) from
// "/proc/cmdline" of the process's context, without the line feed that ends
// the file; fixed afterwards. A failing
// once-guard throws std::system_error.
bool IsDebuggerEnabled();

} // namespace DebugHelpers
