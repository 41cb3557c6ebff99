// A file that appears under its name only when it is complete. Until then it has a temporary name in the same
// directory.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "common/error.h"
#include "common/unique_fd.h"

namespace zumod::peer {

class OutputFile {
public:
    // Fails if the directory cannot be written to, or if the file exists and may not be replaced. Only a
    // regular file is ever replaced.
    static Expected<OutputFile> Create(const std::string& path, bool replace);

    OutputFile(OutputFile&& other) noexcept
        : m_shown(std::move(other.m_shown)),
          m_path(std::move(other.m_path)),
          m_replace(other.m_replace),
          m_temporary(std::exchange(other.m_temporary, {})),
          m_file(std::move(other.m_file)) {}
    OutputFile& operator=(OutputFile&&) = delete;
    // Without Commit() nothing is left behind, and an existing file is unchanged.
    ~OutputFile();

    const std::string& TemporaryPath() const { return m_temporary; }
    Expected<void> Write(std::span<const uint8_t> bytes);
    Expected<void> Commit();

private:
    OutputFile(std::string shown, std::string path, bool replace)
        : m_shown(std::move(shown)), m_path(std::move(path)), m_replace(replace) {}

    std::string m_shown;  // the path for messages
    std::string m_path;
    bool m_replace;
    std::string m_temporary;  // empty once it is gone
    UniqueFd m_file;
};

}  // namespace zumod::peer
