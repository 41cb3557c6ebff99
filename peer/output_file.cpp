#include "peer/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "common/safe_text.h"
#include "peer/peer_error.h"

namespace zumod::peer {
namespace {

std::string ErrorText(int error) {
    return std::strerror(error);  // NOLINT(concurrency-mt-unsafe): the program has one thread
}

// What a file gets that is simply created.
mode_t UsualMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(const std::string& path, bool replace)
    : m_shown(SafeText(path)), m_path(path), m_replace(replace) {
    namespace fs = std::filesystem;
    std::error_code error;
    const auto status = fs::status(path, error);
    if (fs::exists(status)) {
        if (!fs::is_regular_file(status)) {
            throw PeerError(m_shown + " is not a regular file");
        }
        if (!replace) {
            throw PeerError(m_shown + " exists (--overwrite replaces it)");
        }
        // What a link points at is replaced, not the link.
        m_path = fs::canonical(path, error).string();
    }
    std::string temporary = m_path + ".part-XXXXXX";
    m_file.Reset(mkostemp(temporary.data(), O_CLOEXEC));
    if (!m_file) {
        throw PeerError(m_shown + " cannot be written: " + ErrorText(errno));
    }
    m_temporary = temporary;
    fchmod(m_file.Get(), UsualMode());
}

OutputFile::~OutputFile() {
    if (!m_temporary.empty()) {
        unlink(m_temporary.c_str());
    }
}

void OutputFile::Write(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(m_file.Get(), bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            throw PeerError(m_shown + " cannot be written: " + ErrorText(errno));
        }
        bytes = bytes.subspan(count < 0 ? 0 : static_cast<size_t>(count));
    }
}

void OutputFile::Commit() {
    const unsigned flags = m_replace ? 0 : RENAME_NOREPLACE;
    int result = renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_path.c_str(), flags);
    if (result != 0 && errno == EINVAL) {
        // A file system without that flag: as well as it can be done there.
        result =
            m_replace || access(m_path.c_str(), F_OK) != 0 ? rename(m_temporary.c_str(), m_path.c_str()) : -1;
    }
    if (result != 0) {
        const std::string reason = ErrorText(errno);
        const std::string kept = std::exchange(m_temporary, {});
        throw PeerError(m_shown + " cannot be put in place: " + reason + "; it is kept as " + SafeText(kept));
    }
    m_temporary.clear();
}

}  // namespace zumod::peer
