#include "peer/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <tuple>

#include "common/safe_text.h"

namespace zumod::peer {
namespace {

mode_t PrivateMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0600 & ~mask;
}

// Writes the directory of this file to the disk. 0, or -1 with errno.
int SyncDirectory(const std::string& path) {
    const std::string directory = std::filesystem::path(path).parent_path().string();
    const UniqueFd opened(
        open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot do that for a directory.
    return opened && (fsync(opened.Get()) == 0 || errno == EINVAL) ? 0 : -1;
}

// Puts the file at `from` to `to`, where nothing is replaced unless `replace` is set. 0, or -1 with errno.
int Move(const std::string& from, const std::string& to, bool replace) {
    const int result =
        renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), replace ? 0 : RENAME_NOREPLACE);
    if (result == 0 || errno != EINVAL) {
        return result;
    }
    // The file system does not know that flag. The next best: look, then rename.
    return replace || access(to.c_str(), F_OK) != 0 ? rename(from.c_str(), to.c_str()) : -1;
}

}  // namespace

Expected<OutputFile> OutputFile::Create(const std::string& path, bool replace, std::optional<mode_t> mode) {
    namespace fs = std::filesystem;
    OutputFile file(SafeText(path), path, replace);
    std::error_code error;
    const auto status = fs::status(path, error);
    if (fs::exists(status)) {
        if (!fs::is_regular_file(status)) {
            return Fail(file.m_shown + " is not a regular file");
        }
        if (!replace) {
            return Fail(file.m_shown + " exists (--overwrite replaces it)");
        }
        // A link stays, and the file that it points at is replaced.
        file.m_path = fs::canonical(path, error).string();
    }
    // The extension stays at the end: a program that goes by it opens the file, too.
    const std::string extension = fs::path(file.m_path).extension().string();
    std::string temporary =
        file.m_path.substr(0, file.m_path.size() - extension.size()) + ".part-XXXXXX" + extension;
    file.m_file.Reset(mkostemps(temporary.data(), static_cast<int>(extension.size()), O_CLOEXEC));
    if (!file.m_file) {
        return Fail(file.m_shown + " cannot be written: " + ErrnoText(errno));
    }
    file.m_temporary = temporary;
    fchmod(file.m_file.Get(), mode ? *mode : PrivateMode());
    return file;
}

OutputFile::~OutputFile() {
    if (!m_temporary.empty()) {
        unlink(m_temporary.c_str());
    }
}

Expected<void> OutputFile::Write(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(m_file.Get(), bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return Fail(m_shown + " cannot be written: " + ErrnoText(errno));
        }
        bytes = bytes.subspan(count < 0 ? 0 : static_cast<size_t>(count));
    }
    return {};
}

int OutputFile::WriteAt(int64_t position, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = pwrite(m_file.Get(), bytes.data(), bytes.size(), position);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        const size_t written = count < 0 ? 0 : static_cast<size_t>(count);
        position += static_cast<int64_t>(written);
        bytes = bytes.subspan(written);
    }
    return 0;
}

Expected<void> OutputFile::UseHelper() {
    auto helper = CommitHelper::Start([this] { return Commit(); }, [this] { unlink(m_temporary.c_str()); });
    if (!helper) {
        return Fail(helper.error());
    }
    m_helper.emplace(std::move(*helper));
    m_temporary.clear();
    return {};
}

Expected<void> OutputFile::Commit() {
    if (m_helper) {
        return m_helper->Commit();
    }
    const bool in_place = fsync(m_file.Get()) == 0 && Move(m_temporary, m_path, m_replace) == 0;
    const int error = errno;
    const std::string temporary = std::exchange(m_temporary, {});
    if (!in_place) {
        return Fail(m_shown + " cannot be put in place: " + ErrnoText(error) + "; it is kept as " +
                    SafeText(temporary));
    }
    if (SyncDirectory(m_path) != 0) {
        return Fail(m_shown + " is complete, but its directory cannot be written: " + ErrnoText(errno));
    }
    return {};
}

std::string OutputFile::Keep(int64_t size) {
    // If this fails, the file has some bytes more, which players skip.
    std::ignore = ftruncate(m_file.Get(), size);
    return SafeText(std::exchange(m_temporary, {}));
}

}  // namespace zumod::peer
