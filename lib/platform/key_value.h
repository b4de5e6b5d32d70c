// Splitting flat key/value texts such as /proc/meminfo and /proc/cmdline.
#pragma once

#include <functional>
#include <map>
#include <string>

namespace corvid {

using KeyValueCallback = std::function<void(const std::string& key, const std::string& value)>;

// Cuts text into pairs at any character of pair_separators (empty pieces
// give no pair), splits each pair at the first character of
// kv_separators, trims characters of trim from both ends of key and value,
// and calls callback once per pair in text order. A pair of trim
// characters only is skipped; a pair without separator is a key with an
// empty value.
void ParseKeyValuePairs(const std::string& text, const char* pair_separators,
                        const char* kv_separators, const char* trim,
                        const KeyValueCallback& callback);

// The same, collected into a map; a repeated key keeps its last value.
std::map<std::string, std::string> ParseKeyValuePairs(const std::string& text,
                                                      const char* pair_separators,
                                                      const char* kv_separators,
                                                      const char* trim);

} // namespace corvid
