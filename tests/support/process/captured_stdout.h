// The standard output of this program, captured while the object lives.
//
// Thread rule: one object at a time; no other thread may print while it is constructed, read or destroyed.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace zumod::testing {

class CapturedStdout {
public:
    CapturedStdout() : m_file(std::tmpfile()), m_saved(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        EXPECT_NE(m_file, nullptr);
        EXPECT_EQ(dup2(fileno(m_file), STDOUT_FILENO), STDOUT_FILENO);
    }
    ~CapturedStdout() {
        std::fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        std::fclose(m_file);
    }
    CapturedStdout(const CapturedStdout&) = delete;
    CapturedStdout& operator=(const CapturedStdout&) = delete;

    std::string Text() const {
        std::fflush(stdout);
        std::string text;
        char chunk[4096];
        ssize_t length = 0;
        while ((length = pread(fileno(m_file), chunk, sizeof chunk, static_cast<off_t>(text.size()))) > 0) {
            text.append(chunk, static_cast<size_t>(length));
        }
        return text;
    }

private:
    FILE* m_file;
    int m_saved;
};

}  // namespace zumod::testing
