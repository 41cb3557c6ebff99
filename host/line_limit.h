// A limit of the lines that one source may write to the log.
//
// A peer can make the module log for each of its requests. Without a limit it would fill the disk, and hide
// the lines of others. So each source has its limit: kBurst lines at once, and kPerSecond on average. Further
// lines are left out, and counted. The number is written before the next line of the source that passes, when
// the source ends, at the latest when the program ends.
//
// The source is the name in brackets that a line begins with, such as "[CameraEnumerator]". Two kinds of
// lines have one source per peer: "[host] peer 3", for what goes wrong with the peer, and "[session] peer 3",
// for what it does with cameras. So a peer cannot hide the second by causing the first. A peer that connects
// again is a new source. Therefore all sources of a kind also share a limit, kShare times as high.
//
// Thread rule: one thread at a time. Time is passed in.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zumod::host {

class LineLimit {
public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr int kBurst = 200;
    static constexpr int kPerSecond = 20;
    static constexpr int kShare = 5;
    // The rest has one limit together. Two for each of the most peers that the host serves, and some more.
    static constexpr size_t kMostSources = 600;

    struct LeftOut {
        std::string source;
        uint64_t lines;

        bool operator==(const LeftOut&) const = default;
    };
    struct Decision {
        bool passes;
        std::optional<LeftOut> before;  // lines of this source, before this one
    };
    Decision Decide(std::string_view line, Time now);

    // Nothing more comes from this source. Returns what to write about it. If the limit of its kind is
    // reached, that is left to TakeLeftOut.
    std::optional<LeftOut> End(std::string_view source, Time now);

    // What was not returned yet, of all sources.
    std::vector<LeftOut> TakeLeftOut();

private:
    struct Source {
        Time full_at;  // when a whole burst passes at once again
        uint64_t left_out = 0;
    };
    using Sources = std::map<std::string, Source, std::less<>>;

    Sources::iterator SourceOf(std::string_view name, Time now);
    bool TakeShare(std::string_view source, Time now);

    Sources m_sources;
    std::map<std::string, Time, std::less<>> m_shares;  // as Source::full_at, by kind
    uint64_t m_earlier = 0;                             // lines left out of sources that are forgotten
};

}  // namespace zumod::host
