// vxtool's --json answers against their JSON Schemas (data/schemas), with
// Debian's python3-jsonschema as the validator.
#pragma once

#include <string>

#include "support/programs.h"

namespace vxtest {

// "" when output is one JSON object on one line that validates against the
// schema of command (which must itself be a valid schema); else the
// validator's last line.
inline std::string JsonSchemaErrors(const std::string& command, const std::string& output)
{
    static const char* const script =
        "import json, sys, jsonschema\n"
        "schema = json.load(open(sys.argv[1]))\n"
        "validator = jsonschema.validators.validator_for(schema)\n"
        "validator.check_schema(schema)\n"
        "text = sys.stdin.read()\n"
        "assert text.endswith('\\n') and text.count('\\n') == 1, 'not one line'\n"
        "validator(schema).validate(json.loads(text))\n";
    const RunResult r =
        Run({"/usr/bin/python3", "-c", script, VX_SOURCE_DIR "/data/schemas/vxtool-" + command + ".schema.json"},
            output);
    if (r.exit_status == 0)
        return "";
    const std::size_t last = r.err.find_last_of('\n', r.err.size() - 2);
    return r.err.substr(last == std::string::npos ? 0 : last + 1);
}

} // namespace vxtest
