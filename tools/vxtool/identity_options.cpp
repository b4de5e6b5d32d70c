#include "identity_options.h"

#include "hardware/board_id.h"
#include "hardware/context.h"
#include "platform/posix_helpers.h"
#include "source.h"
#include "tool_context.h"

namespace vxtool {

std::string TakeSecureId(Arguments& args)
{
    std::string secure_id, boardid;
    const bool have_secure_id = TakeOption(args, "--secure-id", secure_id);
    const bool have_boardid = TakeOption(args, "--boardid", boardid);
    if (have_secure_id && have_boardid)
        throw UsageError("--secure-id and --boardid exclude each other");
    if (have_secure_id)
        return secure_id;
    try {
        return ReadBoardId(have_boardid ? boardid : Context::GetInstance()->Path(BOARD_ID_PATH))
            .secure_id;
    } catch (const corvid::ErrnoException&) {
        return std::string();
    }
}

bool TakePrefixedSourceArguments(Arguments& args, const std::string& prefix, Arguments& taken)
{
    bool any = false;
    for (const char* option : {"--mtd", "--image", "--erase-size", "--write-size", "--bad-blocks"}) {
        std::string value;
        if (TakeOption(args, "--" + prefix + "-" + (option + 2), value)) {
            taken.push_back(option);
            taken.push_back(value);
            any = true;
        }
    }
    return any;
}

void TakePrefixedPartition(Arguments& args, const std::string& prefix, const std::string& name)
{
    Arguments taken;
    if (!TakePrefixedSourceArguments(args, prefix, taken))
        return;
    const SourceOptions source = TakeSourceOptions(taken, name);
    ExpectNoMoreArguments(taken);
    ToolContext::Get().UsePartition(name, OpenSource(source));
}

} // namespace vxtool
