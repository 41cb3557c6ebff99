// A limit of the lines that one source may write to the log.
//
// A peer can make the module log for each of its requests. Without a limit it would fill the disk, and hide
// the lines of others. So each source has its limit: kBurst lines at once, and kPerSecond on average. Further
// lines are left out, and counted. The number is written before the next line of the source that passes, when
// the source ends, at the latest when the program ends.
//
// A line that its source has written less than kRepeatTime ago, without another one since, is not written
// again but counted. It counts for no limit. The number is written as above.
//
// The source is the name in brackets that a line begins with, such as "[CameraEnumerator]". Two kinds of
// lines have one source per peer: "[host] peer 3", for what goes wrong with the peer, and "[session] peer 3",
// for what it does with cameras. So a peer cannot hide the second by causing the first. A peer that connects
// again is a new source. Therefore all sources of a kind also share a limit, kShare times as high. A source
// needs the shared limit only for lines that it has not earned: it earns kPerSecond from its first line on.
// So peers that come and go leave nothing of the shared limit, and still do not hide what a peer does that
// stays. What such sources have left out when they end is written with the next line, at most every
// kEarlierTime.
//
// Thread rule: one thread at a time. Time is passed in.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
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

    static constexpr auto kRepeatTime = std::chrono::seconds(10);
    static constexpr size_t kLongestRepeated = 512;  // longer lines are not compared
    static constexpr auto kEarlierTime = std::chrono::seconds(10);

    // Lines of a source that were not written.
    struct Missing {
        enum class Why { kLeftOut, kRepeated } why;
        std::string source;
        uint64_t lines;

        bool operator==(const Missing&) const = default;
        std::string Text() const;
    };
    struct Decision {
        bool passes;
        std::vector<Missing> before;  // to be written before this line
    };
    Decision Decide(std::string_view line, Time now);

    // Nothing more comes from this source. Returns what to write about it. If the limit of its kind is
    // reached, a later Decide or TakeMissing returns the sum.
    std::vector<Missing> End(std::string_view source, Time now);

    // What was not returned yet, of all sources.
    std::vector<Missing> TakeMissing();

private:
    struct Source {
        Time full_at;    // when a whole burst passes at once again
        Time earned_at;  // likewise, of lines that do not need the shared limit
        uint64_t left_out = 0;
        std::string last = {};  // that was written; empty if it is too long
        Time last_at = {};
        uint64_t repeated = 0;
    };
    using Sources = std::map<std::string, Source, std::less<>>;

    Sources::iterator SourceOf(std::string_view name, Time now);
    bool TakeLimit(std::string_view line, Source& source, Time now);
    bool TakeShare(std::string_view source, Time now);
    static void MoveMissing(const std::string& name, Source& source, std::vector<Missing>& to);
    void MoveEarlier(std::vector<Missing>& to);

    Sources m_sources;
    std::map<std::string, Time, std::less<>> m_shares;  // as Source::full_at, by kind
    uint64_t m_earlier = 0;                             // lines left out of sources that are forgotten
    Time m_earlier_at{};                                // when that may be written
};

}  // namespace zumod::host
