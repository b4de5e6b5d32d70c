// Splits a text with the platform library and parses an environment block
// with the hardware library: prints "MemTotal=2048 A=1".
#include <cstdio>
#include <string>

#include "hardware/bootloader_environment.h"
#include "platform/key_value.h"

int main()
{
    const auto meminfo = corvid::ParseKeyValuePairs("MemTotal: 2048\n", "\n", ": ", " ");
    const auto environment = ParseBootloaderEnvironmentBlock(std::string("\x01\x04\x00" "A=1\x00", 7));
    std::printf("MemTotal=%s A=%s\n", meminfo.at("MemTotal").c_str(), environment.at("A").c_str());
}
