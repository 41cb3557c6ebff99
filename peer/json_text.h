// How JSON is written here: on one line, in ASCII, whatever the bytes of a name are.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace zumod::peer {

// Keeps the order in which members were given.
using Json = nlohmann::ordered_json;

inline std::string JsonLine(const Json& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace zumod::peer
