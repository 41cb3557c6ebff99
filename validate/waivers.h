// Failures that the user accepts for a while. A line of the file is "CHECK DATE REASON"; the date,
// YYYY-MM-DD, is the last day. Empty lines and lines that begin with "#" mean nothing.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <istream>
#include <string>
#include <vector>

#include "common/error.h"
#include "validate/result.h"

namespace zumod::validate {

struct Waiver {
    std::string check;
    std::string last_day;
    std::string reason;
};

// `name` is that of the file, for errors.
Expected<std::vector<Waiver>> ReadWaivers(std::istream& in, const std::string& name);

// Today in UTC, as YYYY-MM-DD.
std::string Today();

// Waives the failure if there is a waiver for it that has not expired. One that has expired is named in
// `got`.
void ApplyWaivers(const std::vector<Waiver>& waivers, const std::string& today, Result& result);

}  // namespace zumod::validate
