#include "common/terminal_text.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>

#include <fcntl.h>

#include "common/unique_fd.h"

namespace zumod {
namespace {

TEST(DisplayWidth, CountsColumns) {
    EXPECT_EQ(DisplayWidth(""), 0U);
    EXPECT_EQ(DisplayWidth("Front"), 5U);
    EXPECT_EQ(DisplayWidth("K\xc3\xa4mera"), 6U);
    EXPECT_EQ(DisplayWidth("\xe5\x89\x8d\xe9\x9d\xa2"), 4U) << "wide characters";
    EXPECT_EQ(DisplayWidth("a\xcc\x88"), 1U) << "a combining character";
    EXPECT_EQ(DisplayWidth("\xff\xc3"), 2U) << "not UTF-8";
}

TEST(Shortened, LeavesTextThatFits) {
    EXPECT_EQ(Shortened("Front", 5), "Front");
    EXPECT_EQ(Shortened("", 0), "");
}

TEST(Shortened, CutsBetweenCharacters) {
    EXPECT_EQ(Shortened("Front Camera", 6), "Front\u2026");
    EXPECT_EQ(Shortened("\xe5\x89\x8d\xe9\x9d\xa2", 3), "\xe5\x89\x8d\u2026");
    EXPECT_EQ(Shortened("\xe5\x89\x8d\xe9\x9d\xa2", 2), "\u2026");
    EXPECT_EQ(Shortened("Front", 1), "\u2026");
    EXPECT_EQ(Shortened("Front", 0), "");
}

TEST(TerminalColumns, AreThoseOfATerminal) {
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal);
    const winsize size{24, 80, 0, 0};
    ASSERT_EQ(ioctl(terminal.Get(), TIOCSWINSZ, &size), 0);
    EXPECT_EQ(TerminalColumns(terminal.Get()), 80U);
    const UniqueFd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(TerminalColumns(file.Get()), std::nullopt);
}

}  // namespace
}  // namespace zumod
