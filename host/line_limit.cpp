#include "host/line_limit.h"

#include <algorithm>
#include <utility>

namespace zumod::host {
namespace {

constexpr auto kInterval = std::chrono::nanoseconds(std::chrono::seconds(1)) / LineLimit::kPerSecond;
constexpr size_t kLongestSource = 40;
constexpr std::string_view kKinds[] = {"[host] peer ", "[session] peer "};  // with a source per peer

// Empty: the source does not belong to a peer.
std::string_view KindOf(std::string_view line) {
    for (const std::string_view kind : kKinds) {
        if (line.starts_with(kind)) {
            return kind;
        }
    }
    return {};
}

std::string_view SourceName(std::string_view line) {
    if (const std::string_view kind = KindOf(line); !kind.empty()) {
        return line.substr(0, line.find_first_not_of("0123456789", kind.size()));
    }
    const size_t end = line.find(']');
    return line.starts_with('[') && end < kLongestSource ? line.substr(0, end + 1) : "[other]";
}

// Adds a line that counts for `interval`, if the burst permits it.
bool Take(LineLimit::Time& full_at, std::chrono::nanoseconds interval, LineLimit::Time now, int burst) {
    const LineLimit::Time after = std::max(full_at, now) + interval;
    if (after > now + burst * interval) {
        return false;
    }
    full_at = after;
    return true;
}

}  // namespace

std::string LineLimit::Missing::Text() const {
    const std::string start = source + ": ";
    if (why == Why::kLeftOut) {
        return start + std::to_string(lines) + " lines were left out";
    }
    return start + "the last line was repeated " + (lines == 1 ? "once" : std::to_string(lines) + " times");
}

LineLimit::Decision LineLimit::Decide(std::string_view line, Time now) {
    auto& [name, source] = *SourceOf(SourceName(line), now);
    if (!source.last.empty() && source.last == line && now - source.last_at < kRepeatTime) {
        ++source.repeated;
        return {false, {}};
    }
    if (!TakeLimit(line, source, now)) {
        ++source.left_out;
        return {false, {}};
    }
    Decision decision{true, {}};
    MoveMissing(name, source, decision.before);
    if (m_earlier != 0 && now >= m_earlier_at) {
        MoveEarlier(decision.before);
        m_earlier_at = now + kEarlierTime;
    }
    source.last = line.size() <= kLongestRepeated ? line : "";
    source.last_at = now;
    return decision;
}

bool LineLimit::TakeLimit(std::string_view line, Source& source, Time now) {
    const Time before = source.full_at;
    if (!Take(source.full_at, kInterval, now, kBurst)) {
        return false;
    }
    if (Take(source.earned_at, kInterval, now, kBurst) || TakeShare(line, now)) {
        return true;
    }
    source.full_at = before;
    return false;
}

bool LineLimit::TakeShare(std::string_view source, Time now) {
    const std::string_view kind = KindOf(source);
    return kind.empty() || Take(m_shares[std::string(kind)], kInterval / kShare, now, kBurst * kShare);
}

std::vector<LineLimit::Missing> LineLimit::End(std::string_view source, Time now) {
    std::vector<Missing> missing;
    const auto found = m_sources.find(source);
    if (found == m_sources.end()) {
        return missing;
    }
    auto& [name, ended] = *found;
    const uint64_t lines = ended.left_out + ended.repeated;
    if (lines != 0 && TakeShare(source, now)) {
        MoveMissing(name, ended, missing);
    } else {
        m_earlier += lines;
    }
    m_sources.erase(found);
    return missing;
}

LineLimit::Sources::iterator LineLimit::SourceOf(std::string_view name, Time now) {
    const auto found = m_sources.find(name);
    if (found != m_sources.end()) {
        return found;
    }
    if (m_sources.size() >= kMostSources) {
        std::erase_if(m_sources, [&](const auto& entry) {
            const bool is_quiet = entry.second.full_at <= now;
            m_earlier += is_quiet ? entry.second.left_out + entry.second.repeated : 0;
            return is_quiet;
        });
    }
    const Source created{.full_at = {}, .earned_at = now + kBurst * kInterval};
    return m_sources.try_emplace(std::string(m_sources.size() < kMostSources ? name : "[other]"), created)
        .first;
}

void LineLimit::MoveMissing(const std::string& name, Source& source, std::vector<Missing>& to) {
    // The repeated line was written before the others were left out.
    if (source.repeated != 0) {
        to.push_back({Missing::Why::kRepeated, name, std::exchange(source.repeated, 0)});
    }
    if (source.left_out != 0) {
        to.push_back({Missing::Why::kLeftOut, name, std::exchange(source.left_out, 0)});
    }
}

void LineLimit::MoveEarlier(std::vector<Missing>& to) {
    if (m_earlier != 0) {
        to.push_back({Missing::Why::kLeftOut, "[other]", std::exchange(m_earlier, 0)});
    }
}

std::vector<LineLimit::Missing> LineLimit::TakeMissing() {
    std::vector<Missing> all;
    for (auto& [name, source] : m_sources) {
        MoveMissing(name, source, all);
    }
    MoveEarlier(all);
    return all;
}

}  // namespace zumod::host
