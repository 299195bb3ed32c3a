// SPDX-License-Identifier: Apache-2.0
// The JSON of the tool.
#ifndef KESTREL_TOOLS_JSON_H
#define KESTREL_TOOLS_JSON_H

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/support.h"

namespace tool {

using Json = nlohmann::ordered_json;

// Returns ASCII only: other characters are escaped, and invalid UTF-8 becomes U+FFFD, so no text of
// a file reaches a terminal unescaped. Lines after the first are indented by `margin`.
inline std::string json_text(const Json& value, size_t margin = 0) {
    std::string text = value.dump(2, ' ', true, Json::error_handler_t::replace);
    for (size_t at = 0; margin > 0 && (at = text.find('\n', at)) != std::string::npos; ++at)
        text.insert(at + 1, margin, ' ');
    return text;
}

// Returns the same in one line.
inline std::string json_line(const Json& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

// Prints an error as an object, for a command that fails before it has printed any JSON.
inline void print_error_as_json(const Error& error) {
    std::printf("%s\n", json_text(Json{{"error", printable(error.what())}}).c_str());
}

// Runs the part of a command that prints nothing before it fails.
template <typename Step>
void or_error_as_json(bool json, Step step) {
    try {
        step();
    } catch (const Error& error) {
        if (json) print_error_as_json(error);
        throw;
    }
}

}  // namespace tool

#endif
