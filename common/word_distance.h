// How much two words differ, to guess which known word somebody meant.
//
// Thread rule: a pure function; any thread.
#pragma once

#include <algorithm>
#include <numeric>
#include <string_view>
#include <utility>
#include <vector>

namespace zumod {

// How many characters must be changed, added or removed to make one word of the other. 0 if `word` is the
// beginning of `known`: that is nearer than any other word.
inline size_t WordDistance(std::string_view word, std::string_view known) {
    if (known.starts_with(word)) {
        return 0;
    }
    std::vector<size_t> row(known.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < word.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < known.size(); ++j) {
            const size_t changed = diagonal + (word[i] == known[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

}  // namespace zumod
