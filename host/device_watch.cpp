#include "host/device_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace zumod::host {

DeviceWatch::DeviceWatch(Waiter& waiter, const std::string& directory)
    : m_removals(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!m_removals ||
        inotify_add_watch(m_removals.Get(), directory.c_str(), IN_DELETE | IN_MOVED_FROM) < 0) {
        m_removals.Reset();
        return;
    }
    m_removed = waiter.Watch(m_removals.Get(), POLLIN, [this] {
        std::array<char, 4096> events;  // NOLINT(cppcoreguidelines-pro-type-member-init): read into below
        while (read(m_removals.Get(), events.data(), events.size()) > 0) {
        }
        m_next = {};
    });
}

std::vector<uint32_t> DeviceWatch::FindGone(const std::map<uint32_t, std::string>& open,
                                            Clock::time_point now) {
    m_next = now + kInterval;
    std::vector<uint32_t> gone;
    std::map<std::string, FileId> files;
    for (const auto& [camera, file] : open) {
        struct stat status {};
        if (file.empty()) {
            continue;
        }
        const bool is_there = stat(file.c_str(), &status) == 0;
        const FileId now_there{status.st_dev, status.st_ino, status.st_rdev};
        const auto known = m_files.find(file);
        const bool is_other = known != m_files.end() && known->second != now_there;
        if (!is_there || is_other) {
            gone.push_back(camera);
        }
        if (is_there) {
            // A replaced file stays gone until its camera is closed.
            files.emplace(file, is_other ? known->second : now_there);
        }
    }
    m_files = std::move(files);
    return gone;
}

}  // namespace zumod::host
