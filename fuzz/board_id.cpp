// The kernel's board identity, /proc/boardid.
//
// Input: the file's text.
//
// Property: every text field holds one word of at most 64 characters, as
// the scan reads it.
#include <cstdint>
#include <exception>
#include <string>

#include "fuzz_support.h"
#include "hardware/board_id.h"

namespace {

bool IsWord(const std::string& text)
{
    return text.size() <= 64 && text.find_first_of(" \t\n\v\f\r") == std::string::npos;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string path = vxfuzz::FuzzContext::Get().WriteFile(BOARD_ID_PATH, vxfuzz::Text(data, size));
    BoardIdentity identity;
    try {
        identity = ReadBoardId(path);
    } catch (const std::exception&) {
        return 0;
    }
    for (const std::string* field : {&identity.family, &identity.bolt_version, &identity.bootloader_version,
                                     &identity.secure_id, &identity.soc})
        VXFUZZ_CHECK(IsWord(*field));
    return 0;
}
