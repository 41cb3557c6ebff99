// The command line of zu-camera-host.
//
// Thread rule: values and a pure function; any thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "common/error.h"
#include "host/camera_gate.h"
#include "host/helper.h"
#include "host/serve.h"

namespace zumod::host {

struct HostOptions {
    std::string listen;  // the socket's path; empty with --stdio
    bool stdio = false;
    ServeLimits limits;
    LendingRules lending;
    HelperCommands commands;
    std::string modules;                            // empty: the directory that belongs to the program
    std::map<std::string, std::string> properties;  // by key
    bool sandbox = true;
    uint32_t log_levels = 0;  // LogLevel bits that are shown
};

// The error is a mistake, or the text that --help or --version asks for.
Expected<HostOptions> ParseOptions(int count, const char* const* words);

}  // namespace zumod::host
