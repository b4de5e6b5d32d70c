// The SRB: the signature text, whole or split over numbered variables,
// decoded and verified against the stored SRB keys for one unit.
//
// Input: KEY=VALUE lines, as `vxtool sign-srb` writes them (a line without
// '=' is a variable with an empty value, a repeated key keeps its last
// value, as in the environment).
//
// Property: a record that verifies for its unit does not verify for
// another unit.
#include <cstdint>
#include <exception>
#include <map>
#include <string>

#include "fuzz_support.h"
#include "hardware/srb.h"
#include "platform/key_value.h"

namespace {

// The unit the seed records were signed for (fuzz/make-corpus).
constexpr const char* SECURE_ID = "5ec1d0000000c0de";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::map<std::string, std::string> environment =
        corvid::ParseKeyValuePairs(std::string(vxfuzz::Text(data, size)), "\n", "=", "");

    try {
        VerifySrb(environment, SECURE_ID);
    } catch (const std::exception&) {
        return 0;
    }
    bool other_unit_verifies = true;
    try {
        VerifySrb(environment, std::string(SECURE_ID) + "0");
    } catch (const std::exception&) {
        other_unit_verifies = false;
    }
    VXFUZZ_CHECK(!other_unit_verifies);
    return 0;
}
