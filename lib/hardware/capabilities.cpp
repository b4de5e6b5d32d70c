#include "hardware/capabilities.h"

#include <algorithm>
#include <string>

using capabilities_detail::EqualIgnoringCase;
using capabilities_detail::Lower;

const Capability* FindBlessing(std::string_view name)
{
    for (const Capability& capability : CAPABILITIES) {
        if (capability.blessing && EqualIgnoringCase(name, capability.blessing))
            return &capability;
    }
    return nullptr;
}

bool IsDeviceBoundOnly(std::string_view name)
{
    const Capability* capability = FindBlessing(name);
    return capability && capability->device_bound_only;
}

const char* MentionedDeviceBoundOnlyBlessing(std::string_view text)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), Lower);
    for (const Capability& capability : CAPABILITIES) {
        if (capability.device_bound_only && lower.find(capability.blessing) != std::string::npos)
            return capability.blessing;
    }
    return nullptr;
}
