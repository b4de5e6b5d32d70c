// The key/value splitter of flat texts (/proc/meminfo, /proc/cmdline, the
// first-images text), with its callers' character sets and with any.
//
// Input: one selector byte, then (selector 3 and above) the three
// character sets, each ended by a zero byte, then the text. Selectors 0-2
// take the memory check's, the first-images reader's and the kernel
// command line's sets.
//
// Properties: no key or value begins or ends with a trim character; no key
// holds a key/value separator, and neither holds a pair separator; the map
// form keeps the last value of each key the callback form gives.
#include <cstdint>
#include <exception>
#include <map>
#include <string>

#include "fuzz_support.h"
#include "platform/key_value.h"

namespace {

struct Sets {
    std::string pairs;
    std::string kv;
    std::string trim;
};

bool Trimmed(const std::string& text, const std::string& trim)
{
    return text.empty() || (trim.find(text.front()) == std::string::npos &&
                            trim.find(text.back()) == std::string::npos);
}

// The next set of the input, up to its zero byte.
std::string TakeSet(std::string_view& input)
{
    const std::size_t end = std::min(input.find('\0'), input.size());
    const std::string set(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
    return set;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    std::string_view input = vxfuzz::Text(data + 1, size - 1);
    Sets sets;
    switch (data[0]) {
    case 0: sets = {"\n", ": ", " \t"}; break;
    case 1: sets = {";", "=", ""}; break;
    case 2: sets = {" \t", "=", ""}; break;
    default:
        sets.pairs = TakeSet(input);
        sets.kv = TakeSet(input);
        sets.trim = TakeSet(input);
        break;
    }
    const std::string text(input);

    std::map<std::string, std::string> last;
    corvid::ParseKeyValuePairs(text, sets.pairs.c_str(), sets.kv.c_str(), sets.trim.c_str(),
                               [&](const std::string& key, const std::string& value) {
                                   VXFUZZ_CHECK(Trimmed(key, sets.trim) && Trimmed(value, sets.trim));
                                   VXFUZZ_CHECK(key.find_first_of(sets.kv) == std::string::npos);
                                   if (!sets.pairs.empty())
                                       VXFUZZ_CHECK(key.find_first_of(sets.pairs) == std::string::npos &&
                                                    value.find_first_of(sets.pairs) == std::string::npos);
                                   last[key] = value;
                               });
    VXFUZZ_CHECK(corvid::ParseKeyValuePairs(text, sets.pairs.c_str(), sets.kv.c_str(),
                                            sets.trim.c_str()) == last);
    return 0;
}
