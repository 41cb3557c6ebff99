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

LineLimit::Decision LineLimit::Decide(std::string_view line, Time now) {
    auto& [name, source] = *SourceOf(SourceName(line), now);
    const Time before = source.full_at;
    if (!Take(source.full_at, kInterval, now, kBurst)) {
        ++source.left_out;
        return {false, std::nullopt};
    }
    if (!TakeShare(line, now)) {
        source.full_at = before;
        ++source.left_out;
        return {false, std::nullopt};
    }
    const uint64_t left_out = std::exchange(source.left_out, 0);
    return {true, left_out != 0 ? std::optional(LeftOut{name, left_out}) : std::nullopt};
}

bool LineLimit::TakeShare(std::string_view source, Time now) {
    const std::string_view kind = KindOf(source);
    return kind.empty() || Take(m_shares[std::string(kind)], kInterval / kShare, now, kBurst * kShare);
}

std::optional<LineLimit::LeftOut> LineLimit::End(std::string_view source, Time now) {
    const auto found = m_sources.find(source);
    if (found == m_sources.end()) {
        return std::nullopt;
    }
    const LeftOut left_out{found->first, found->second.left_out};
    m_sources.erase(found);
    if (left_out.lines == 0) {
        return std::nullopt;
    }
    if (!TakeShare(source, now)) {
        m_earlier += left_out.lines;
        return std::nullopt;
    }
    return left_out;
}

LineLimit::Sources::iterator LineLimit::SourceOf(std::string_view name, Time now) {
    const auto found = m_sources.find(name);
    if (found != m_sources.end()) {
        return found;
    }
    if (m_sources.size() >= kMostSources) {
        std::erase_if(m_sources, [&](const auto& entry) {
            const bool is_quiet = entry.second.full_at <= now;
            m_earlier += is_quiet ? entry.second.left_out : 0;
            return is_quiet;
        });
    }
    return m_sources.try_emplace(std::string(m_sources.size() < kMostSources ? name : "[other]")).first;
}

std::vector<LineLimit::LeftOut> LineLimit::TakeLeftOut() {
    std::vector<LeftOut> all;
    for (auto& [name, source] : m_sources) {
        if (source.left_out != 0) {
            all.push_back({name, std::exchange(source.left_out, 0)});
        }
    }
    if (m_earlier != 0) {
        all.push_back({"[other]", std::exchange(m_earlier, 0)});
    }
    return all;
}

}  // namespace zumod::host
