// Splits any text at any delimiters: the pieces and the delimiters add up to the text. Input: a byte of
// limit, then the delimiters, a line feed and the text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "src/base/text.h"
#include "tests/fuzz/check.h"

using zumod::CompareVersion;
using zumod::Split;

namespace {

// The pieces follow one another in the text, with one delimiter between two.
void CheckPieces(const std::string& text, const std::string& delimiters,
                 const std::vector<std::string>& parts) {
    FUZZ_CHECK(!parts.empty());
    std::size_t position = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            FUZZ_CHECK(position < text.size() && delimiters.find(text[position]) != std::string::npos);
            ++position;
        }
        FUZZ_CHECK(text.compare(position, parts[i].size(), parts[i]) == 0);
        position += parts[i].size();
        FUZZ_CHECK(i + 1 == parts.size() || parts[i].find_first_of(delimiters) == std::string::npos);
    }
    FUZZ_CHECK(position == text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t limit = data[0];
    const std::string input(data + 1, data + size);
    const std::size_t line_feed = std::min(input.find('\n'), input.size());
    const std::string delimiters = input.substr(0, line_feed);
    const std::string text = input.substr(std::min(line_feed + 1, input.size()));

    std::vector<std::string> all;
    Split(text, delimiters, all);
    CheckPieces(text, delimiters, all);
    FUZZ_CHECK(all.back().find_first_of(delimiters) == std::string::npos);

    std::vector<std::string> limited;
    Split(text, delimiters, limited, limit);
    CheckPieces(text, delimiters, limited);
    FUZZ_CHECK(limited.size() <= all.size());
    FUZZ_CHECK(limited.size() == all.size() || limited.size() == limit + 1);

    FUZZ_CHECK(CompareVersion(text, text, delimiters) == 0);
    CompareVersion(text, delimiters, ".");
    return 0;
}
