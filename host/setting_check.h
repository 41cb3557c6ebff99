// Checks the properties for the reference codec when the host starts. The codec itself reads them when a
// camera is opened.
//
// Thread rule: a pure function; any thread.
#pragma once

#include <string>

namespace zumod::host {

// What is wrong with a property, in one line; empty if nothing is, or if it is not a property of a codec.
std::string SettingMistake(const std::string& key, const std::string& value);

}  // namespace zumod::host
