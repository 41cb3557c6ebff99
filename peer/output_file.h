// A file that appears under its name only when it is whole; until then it has a temporary name beside it.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "common/unique_fd.h"

namespace zumod::peer {

class OutputFile {
public:
    // Throws PeerError when the directory cannot be written to, or there is such a file and it may not be
    // replaced. What is no regular file is never replaced.
    OutputFile(const std::string& path, bool replace);
    // Without Commit nothing is left behind, and a file that was there is as it was.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& TemporaryPath() const { return m_temporary; }
    void Write(std::span<const uint8_t> bytes);
    void Commit();

private:
    const std::string m_shown;  // the name for messages
    std::string m_path;
    const bool m_replace;
    std::string m_temporary;  // empty once it is gone
    UniqueFd m_file;
};

}  // namespace zumod::peer
