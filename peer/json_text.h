// JSON text on one line, in ASCII. Bytes that are not UTF-8 become U+FFFD.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace zumod::peer {

// Keeps the order of the members.
using Json = nlohmann::ordered_json;

inline std::string JsonLine(const Json& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace zumod::peer
