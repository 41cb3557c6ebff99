// Parses any text by any format: the parser stays within both, and every number it stores is in range.
// Input: the format, a line feed and the text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "src/base/str_ptime.h"
#include "src/base/time_text.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/exact_text.h"

using zumod::ParseTimeToSeconds;
using zumod::StrPTime;
using zumod::testing::ExactText;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(data, data + size);
    const std::size_t line_feed = std::min(input.find('\n'), input.size());
    const ExactText format(input.substr(0, line_feed));
    const ExactText text(input.substr(std::min(line_feed + 1, input.size())));

    std::tm fields{};
    const char* const end = StrPTime(text.Get(), format.Get(), fields);
    FUZZ_CHECK(end == nullptr || (end >= text.Get() && end <= text.Get() + text.Size()));
    FUZZ_CHECK(fields.tm_sec >= 0 && fields.tm_sec <= 60);
    FUZZ_CHECK(fields.tm_min >= 0 && fields.tm_min <= 59);
    // Half of day twice, "PM" each time, cannot pass 23.
    FUZZ_CHECK(fields.tm_hour >= 0 && fields.tm_hour <= 23);
    FUZZ_CHECK(fields.tm_mday >= 0 && fields.tm_mday <= 31);
    FUZZ_CHECK(fields.tm_mon >= 0 && fields.tm_mon <= 11);
    FUZZ_CHECK(fields.tm_year >= 0 && fields.tm_year <= 9999 - 1900);
    FUZZ_CHECK(fields.tm_wday >= 0 && fields.tm_wday <= 6);
    FUZZ_CHECK(fields.tm_yday >= 0 && fields.tm_yday <= 365);

    std::time_t seconds = 0;
    ParseTimeToSeconds(format.Get(), text.Get(), seconds);
    return 0;
}
