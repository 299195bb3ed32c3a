// SPDX-License-Identifier: Apache-2.0
// The JSON of the tool.
#ifndef KESTREL_TOOLS_JSON_H
#define KESTREL_TOOLS_JSON_H

#include <nlohmann/json.hpp>
#include <string>

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

}  // namespace tool

#endif
