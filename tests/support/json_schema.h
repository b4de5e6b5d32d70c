// vxtool's --json answers against their JSON Schemas (data/schemas), with
// Debian's python3-jsonschema as the validator.
#pragma once

#include <string>

#include "support/programs.h"

namespace vxtest {

// "" when output is one JSON object on one line that validates against the
// schema of command (itself checked as a schema); else what the validator said.
inline std::string JsonSchemaErrors(const std::string& command, const std::string& output)
{
    static const char* const script =
        "import json, sys, jsonschema\n"
        "text = sys.stdin.read()\n"
        "assert text.endswith('\\n') and text.count('\\n') == 1, 'not one line'\n"
        "try: jsonschema.validate(json.loads(text), json.load(open(sys.argv[1])))\n"
        "except (jsonschema.ValidationError, jsonschema.SchemaError) as e: sys.exit(e.message)\n";
    const RunResult r =
        Run({"/usr/bin/python3", "-c", script, VX_SOURCE_DIR "/data/schemas/vxtool-" + command + ".schema.json"},
            output);
    return r.exit_status == 0 ? "" : r.err;
}

} // namespace vxtest
