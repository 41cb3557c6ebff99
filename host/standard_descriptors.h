// Standard input, output and error, as the program needs them.
//
// Thread rule: main thread, before there is any other.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace zumod::host {

// Opens /dev/null in the place of each that is closed: a socket must not become one of them.
void FillStandardDescriptors();

// Takes standard input and output for the channel; what prints from here on, a library perhaps, prints on
// standard error. False, with `error` in one line, for a terminal or a closed one.
bool TakeStandardChannel(UniqueFd& in, UniqueFd& out, std::string& error);

}  // namespace zumod::host
