// JSON as the tool prints it.
#ifndef KESTREL_TOOLS_JSON_H
#define KESTREL_TOOLS_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace tool {

using Json = nlohmann::ordered_json;

// ASCII alone: everything else is escaped, and what is no UTF-8 becomes U+FFFD, so that no text of
// a file reaches a terminal as it is.
inline std::string json_text(const Json& value) {
    return value.dump(2, ' ', true, Json::error_handler_t::replace);
}

}  // namespace tool

#endif
