#include "platform/debug_helpers.h"

#include <pthread.h>

#include <system_error>

#include "platform/key_value.h"
#include "platform/posix_helpers.h"
#include "platform/system_context.h"

namespace DebugHelpers {
namespace {

pthread_once_t g_once = PTHREAD_ONCE_INIT;
bool g_enabled = false;

void Compute()
{
    std::string cmdline =
        corvid::ReadWholeFile(corvid::SystemContext::GetInstance()->Path("/proc/cmdline"));
    // The kernel ends the file with a line feed; it is not part of the last
    // parameter ("vx.debug=0" there must read as 0).
    if (!cmdline.empty() && cmdline.back() == '\n')
        cmdline.pop_back();
    g_enabled = ParseDebugFlag(cmdline);
}

} // namespace

bool ParseDebugFlag(const std::string& cmdline)
{
    bool enabled = false;
    corvid::ParseKeyValuePairs(cmdline, " \t", "=", "",
                               [&](const std::string& key, const std::string& value) {
                                   if (key == "vx.debug")
                                       enabled = value != "0";
                               });
    return enabled;
}

bool IsDebuggerEnabled()
{
    if (const int error = pthread_once(&g_once, &Compute))
        throw std::system_error(error, std::generic_category());
    return g_enabled;
}

} // namespace DebugHelpers
