// A file that appears under its name only when it is complete and on the disk. Until then it has a temporary
// name in the same directory: film.mp4 is film.part-XXXXXX.mp4.
//
// Thread rule: one thread at a time.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "common/error.h"
#include "common/unique_fd.h"
#include "peer/commit_helper.h"

namespace zumod::peer {

class OutputFile {
public:
    // Fails if the directory cannot be written to, or if the file exists and may not be replaced. Only a
    // regular file is ever replaced. Without a mode only the user may read and write the file, or less if the
    // umask says so.
    static Expected<OutputFile> Create(const std::string& path, bool replace,
                                       std::optional<mode_t> mode = std::nullopt);

    OutputFile(OutputFile&& other) noexcept
        : m_shown(std::move(other.m_shown)),
          m_path(std::move(other.m_path)),
          m_replace(other.m_replace),
          m_temporary(std::exchange(other.m_temporary, {})),
          m_file(std::move(other.m_file)),
          m_helper(std::move(other.m_helper)) {}
    OutputFile& operator=(OutputFile&&) = delete;
    // Without Commit() or Keep() nothing is left behind, and an existing file is unchanged.
    ~OutputFile();

    // The path, safe for a terminal.
    const std::string& Name() const { return m_shown; }
    Expected<void> Write(std::span<const uint8_t> bytes);
    // From now on a helper process does what Commit() and the destructor do, and Keep() must not be called:
    // for a program that enters a sandbox. Before any other thread starts.
    Expected<void> UseHelper();
    // Returns 0 or an errno value.
    int WriteAt(int64_t position, std::span<const uint8_t> bytes);
    // Writes the file to the disk, then gives it its name. After a failure it keeps its temporary name.
    Expected<void> Commit();
    // Leaves the first `size` bytes under the temporary name, which is returned, safe for a terminal.
    std::string Keep(int64_t size);

private:
    OutputFile(std::string shown, std::string path, bool replace)
        : m_shown(std::move(shown)), m_path(std::move(path)), m_replace(replace) {}

    std::string m_shown;  // the path for messages
    std::string m_path;
    bool m_replace;
    std::string m_temporary;  // empty once it is gone
    UniqueFd m_file;
    std::optional<CommitHelper> m_helper;
};

}  // namespace zumod::peer
