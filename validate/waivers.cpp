#include "validate/waivers.h"

#include <array>
#include <ctime>
#include <sstream>

#include "common/safe_text.h"

namespace zumod::validate {
namespace {

bool IsDate(const std::string& text) {
    constexpr std::string_view kForm = "0000-00-00";
    if (text.size() != kForm.size()) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        if (kForm[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != kForm[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace

Expected<std::vector<Waiver>> ReadWaivers(std::istream& in, const std::string& name) {
    std::vector<Waiver> waivers;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        std::istringstream words(line);
        Waiver waiver;
        words >> waiver.check;
        if (waiver.check.empty() || waiver.check.front() == '#') {
            continue;
        }
        words >> waiver.last_day >> std::ws;
        std::getline(words, waiver.reason);
        const std::string place = name + ":" + std::to_string(number) + ": ";
        if (FindCheck(waiver.check) == nullptr) {
            return Fail(place + "there is no check \"" + SafeText(waiver.check) + "\"", kExitUsage);
        }
        if (!IsDate(waiver.last_day)) {
            return Fail(place + "the last day is not YYYY-MM-DD", kExitUsage);
        }
        if (waiver.reason.empty()) {
            return Fail(place + "a reason is missing", kExitUsage);
        }
        waivers.push_back(waiver);
    }
    return waivers;
}

std::string Today() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    std::array<char, 16> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts)};
}

void ApplyWaivers(const std::vector<Waiver>& waivers, const std::string& today, Result& result) {
    for (const Waiver& waiver : waivers) {
        if (result.check == nullptr || waiver.check != result.check->name || !IsFailure(result.outcome)) {
            continue;
        }
        if (today <= waiver.last_day) {
            result.outcome = Outcome::kWaived;
            result.got = "until " + waiver.last_day + ": " + SafeText(waiver.reason);
        } else {
            result.got += " (the waiver expired on " + waiver.last_day + ")";
        }
    }
}

}  // namespace zumod::validate
