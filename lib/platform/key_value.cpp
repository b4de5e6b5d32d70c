#include "platform/key_value.h"

#include <cstring>
#include <string_view>

#include <boost/tokenizer.hpp>

namespace corvid {
namespace {

std::string_view Trim(std::string_view text, const char* trim)
{
    const auto first = text.find_first_not_of(trim);
    if (first == std::string_view::npos)
        return {};
    const auto last = text.find_last_not_of(trim);
    return text.substr(first, last - first + 1);
}

bool OnlyTrimCharacters(std::string_view text, const char* trim)
{
    return text.find_first_not_of(trim) == std::string_view::npos;
}

} // namespace

void ParseKeyValuePairs(const std::string& text, const char* pair_separators,
                        const char* kv_separators, const char* trim,
                        const KeyValueCallback& callback)
{
    using Separator = boost::char_separator<char>;
    const boost::tokenizer<Separator> pairs(text, Separator(pair_separators));
    const bool trimming = trim[0] != '\0';
    for (const std::string& pair : pairs) {
        if (trimming && OnlyTrimCharacters(pair, trim))
            continue;
        const std::string_view view(pair);
        const auto split = view.find_first_of(kv_separators);
        if (split == std::string_view::npos || kv_separators[0] == '\0') {
            callback(std::string(Trim(view, trim)), std::string());
            continue;
        }
        callback(std::string(Trim(view.substr(0, split), trim)),
                 std::string(Trim(view.substr(split + 1), trim)));
    }
}

std::map<std::string, std::string> ParseKeyValuePairs(const std::string& text,
                                                      const char* pair_separators,
                                                      const char* kv_separators,
                                                      const char* trim)
{
    std::map<std::string, std::string> result;
    ParseKeyValuePairs(text, pair_separators, kv_separators, trim,
                       [&result](const std::string& key, const std::string& value) {
                           result[key] = value;
                       });
    return result;
}

}  // namespace corvid
