#include "common/unix_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/process/work_directory.h"

namespace zumod {
namespace {

TEST(UnixSocket, ConnectsToWhatListensAtItsPath) {
    const testing::WorkDirectory work;
    const auto address = UnixAddress::FromPath(work / "socket");
    ASSERT_TRUE(address);
    const UniqueFd listener = NewUnixSocket();
    const UniqueFd client = NewUnixSocket();
    EXPECT_EQ(address->Connect(client), -1);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(address->Bind(listener), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    EXPECT_EQ(address->Connect(client), 0);
}

TEST(UnixSocket, APathHasAtMost107Bytes) {
    EXPECT_TRUE(UnixAddress::FromPath(std::string(107, 'x')));
    EXPECT_FALSE(UnixAddress::FromPath(std::string(108, 'x')));
}

TEST(UnixSocket, TheUserAtTheOtherEndIsKnown) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd one(ends[0]);
    const UniqueFd other(ends[1]);
    EXPECT_EQ(PeerUser(one.Get()), geteuid());
    EXPECT_EQ(PeerUser(-1), static_cast<uid_t>(-1));
}

}  // namespace
}  // namespace zumod
