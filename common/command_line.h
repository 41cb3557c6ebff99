// What the command lines of all programs have in common: help, version, and how a mistake is reported.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <functional>
#include <string>

#include "common/error.h"

namespace zumod {

// Adds -h, --help, -V and --version ("NAME VERSION", where NAME is the app's).
void AddHelpAndVersion(CLI::App& app);

// Adds --modules DIR. `files` names what is in the directory, for the help text.
void AddModulesOption(CLI::App& app, std::string& directory, const std::string& files);

// Adds an option that takes a time in the forms of ParseDuration, which is passed to `set`.
enum class ZeroTime { kRefused, kTaken };
void AddTimeOption(CLI::App& app, const std::string& name, const std::string& help,
                   const std::function<void(std::chrono::steady_clock::duration)>& set,
                   ZeroTime zero = ZeroTime::kRefused);

// Refuses an empty value with the text "takes a WHAT".
CLI::Validator NotEmpty(const std::string& what);

// As app.parse(): stores the values in the variables that the options are bound to. If help or the version
// was asked for, that text is the error, with status 0; no line of it is longer than kUsualColumns, unless a
// single word is. A mistake is one line with kExitUsage.
Expected<void> ParseCommandLine(CLI::App& app, int count, const char* const* words);

}  // namespace zumod
