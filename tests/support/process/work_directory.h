// A temporary directory, removed by the destructor.
//
// Thread rule: the test's thread.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace zumod::testing {

class WorkDirectory {
public:
    WorkDirectory() : m_path((std::filesystem::temp_directory_path() / "zu-test-XXXXXX").string()) {
        if (mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("no directory can be made at " + m_path);
        }
    }
    ~WorkDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

// The path of a file in it.
inline std::string operator/(const WorkDirectory& directory, const std::string& name) {
    return directory.Path() + "/" + name;
}

}  // namespace zumod::testing
