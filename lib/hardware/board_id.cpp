#include "hardware/board_id.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/handles.h"
#include "platform/posix_helpers.h"

BoardIdentity ReadBoardId(std::FILE* file)
{
    BoardIdentity identity;
    const auto flag = [](const char* value) { return std::strtoul(value, nullptr, 0) != 0; };
    char key[21];
    char value[65];
    while (std::fscanf(file, "%20s %64s\n", key, value) == 2) {
        if (std::strcmp(key, "ID:") == 0)
            identity.id = static_cast<std::int64_t>(std::strtoul(value, nullptr, 0));
        else if (std::strcmp(key, "Family:") == 0)
            identity.family = value;
        else if (std::strcmp(key, "BOLT-version:") == 0)
            identity.bolt_version = value;
        else if (std::strcmp(key, "Bootloader-version:") == 0)
            identity.bootloader_version = value;
        else if (std::strcmp(key, "Secure-keys:") == 0)
            identity.secure_keys = flag(value);
        else if (std::strcmp(key, "Secure-boot:") == 0)
            identity.secure_boot = flag(value);
        else if (std::strcmp(key, "Secure-ID:") == 0)
            identity.secure_id = value;
        else if (std::strcmp(key, "SoC:") == 0)
            identity.soc = value;
    }
    return identity;
}

BoardIdentity ReadBoardId(const std::string& path)
{
    const corvid::UniqueFile file(std::fopen(path.c_str(), "re"));
    if (!file)
        throw corvid::ErrnoException(errno, path);
    return ReadBoardId(file.Get());
}
