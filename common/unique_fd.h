// Owner of a file descriptor, which it closes.
//
// Thread rule: one thread at a time.
#pragma once

#include <unistd.h>

#include <utility>

namespace zumod {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset(std::exchange(other.m_fd, -1));
        }
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int Release() { return std::exchange(m_fd, -1); }
    void Reset(int fd = -1) {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

}  // namespace zumod
