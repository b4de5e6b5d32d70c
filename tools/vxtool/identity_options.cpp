#include "identity_options.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace vxtool {

std::string ReadSecureIdFromBoardId(const char* path)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "re"), &std::fclose);
    if (!file)
        return std::string();
    std::string secure_id;
    char key[21];
    char value[65];
    while (std::fscanf(file.get(), "%20s %64s\n", key, value) == 2) {
        if (std::strcmp(key, "Secure-ID:") == 0)
            secure_id = value;
    }
    return secure_id;
}

std::string TakeSecureId(Arguments& args)
{
    std::string secure_id, boardid;
    const bool have_secure_id = TakeOption(args, "--secure-id", secure_id);
    const bool have_boardid = TakeOption(args, "--boardid", boardid);
    if (have_secure_id && have_boardid)
        throw UsageError("--secure-id and --boardid exclude each other");
    if (have_secure_id)
        return secure_id;
    return ReadSecureIdFromBoardId(have_boardid ? boardid.c_str() : BOARDID_PATH);
}

bool TakeEnvironmentSourceArguments(Arguments& args, Arguments& env_args)
{
    bool any = false;
    for (const char* option : {"--mtd", "--image", "--erase-size", "--write-size", "--bad-blocks"}) {
        std::string value;
        if (TakeOption(args, std::string("--env-") + (option + 2), value)) {
            env_args.push_back(option);
            env_args.push_back(value);
            any = true;
        }
    }
    return any;
}

} // namespace vxtool
