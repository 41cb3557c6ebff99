// The command line.
//
// Thread rule: values and a pure function; any thread.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "common/waiter.h"
#include "peer/camera_list.h"

namespace zumod::peer {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitWrongOptions = 2;

enum class Command { kList, kSnapshot, kRecord, kStats, kFormat, kClose, kVersion };

// A camera and the file that it goes to.
struct Recording {
    uint32_t id = 0;
    std::string path;
};

struct PeerOptions {
    Command command{};
    std::string socket;
    std::string exec;
    std::string modules;
    Clock::duration limit = std::chrono::seconds(10);
    uint32_t id = 0;
    std::string path;
    std::vector<Recording> more;  // recorded along with the first
    std::optional<PictureSize> size;
    int fps = 30;
    std::optional<Clock::duration> seconds;
    bool json = false;
    bool overwrite = false;
};

// Nothing to go on, otherwise the exit status, after what there is to say was written.
std::optional<int> ParseOptions(int count, const char* const* words, PeerOptions& options, std::ostream& out,
                                std::ostream& err);

}  // namespace zumod::peer
