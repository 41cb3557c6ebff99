#include "peer/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "common/safe_text.h"

namespace zumod::peer {
namespace {

// The mode of a file that open() creates.
mode_t UsualMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
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

Expected<OutputFile> OutputFile::Create(const std::string& path, bool replace) {
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
    std::string temporary = file.m_path + ".part-XXXXXX";
    file.m_file.Reset(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.m_file) {
        return Fail(file.m_shown + " cannot be written: " + ErrnoText(errno));
    }
    file.m_temporary = temporary;
    fchmod(file.m_file.Get(), UsualMode());
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

Expected<void> OutputFile::Commit() {
    const int result = Move(m_temporary, m_path, m_replace);
    const int error = errno;
    const std::string temporary = std::exchange(m_temporary, {});
    if (result != 0) {
        return Fail(m_shown + " cannot be put in place: " + ErrnoText(error) + "; it is kept as " +
                    SafeText(temporary));
    }
    return {};
}

}  // namespace zumod::peer
