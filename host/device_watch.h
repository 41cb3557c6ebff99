// Detection of device files that are gone while their cameras are open.
//
// A driver removes the file when a camera is unplugged, and the module does not look at it again: without
// this, its frames just stop. inotify on /dev says when a file there was removed. Where that does not work
// (no inotify left, cameras that are not in the real /dev), the files are looked at each second while a
// camera is open. A file that was replaced in the meantime counts as gone: it is another device.
//
// Thread rule: main thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "common/unique_fd.h"
#include "common/waiter.h"

namespace zumod::host {

class DeviceWatch {
public:
    static constexpr auto kInterval = std::chrono::seconds(1);

    // `waiter` is borrowed. Its Wait() returns when a file in `directory` was removed.
    explicit DeviceWatch(Waiter& waiter, const std::string& directory = "/dev");
    DeviceWatch(const DeviceWatch&) = delete;
    DeviceWatch& operator=(const DeviceWatch&) = delete;

    // When the files of open cameras must be looked at.
    Clock::time_point NextTime() const { return m_next; }

    // The cameras whose files are gone. `open`: all open cameras and their files. A file is compared with
    // what it was when it was given here for the first time.
    std::vector<uint32_t> FindGone(const std::map<uint32_t, std::string>& open, Clock::time_point now);

private:
    using FileId = std::tuple<dev_t, ino_t, dev_t>;

    UniqueFd m_removals;  // inotify; none if it does not work
    Waiter::Registration m_removed;
    Clock::time_point m_next{};             // the beginning of the clock: at once
    std::map<std::string, FileId> m_files;  // of open cameras
};

}  // namespace zumod::host
