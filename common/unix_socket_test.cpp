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

TEST(UnixSocket, AHostOfThisUserIsTrusted) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd one(ends[0]);
    const UniqueFd other(ends[1]);
    EXPECT_TRUE(CheckHostUser(one.Get(), std::nullopt));
}

// The effective user of the process while this exists.
class ScopedUser {
public:
    explicit ScopedUser(uid_t user) { EXPECT_EQ(seteuid(user), 0); }
    ~ScopedUser() { EXPECT_EQ(seteuid(0), 0); }
    ScopedUser(const ScopedUser&) = delete;
    ScopedUser& operator=(const ScopedUser&) = delete;
};

TEST(UnixSocket, AHostOfAnotherUserIsTrustedOnlyIfItIsNamed) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    const testing::WorkDirectory work;
    const auto address = UnixAddress::FromPath(work / "socket");
    const UniqueFd listener = NewUnixSocket();
    ASSERT_EQ(address->Bind(listener), 0);
    {
        const ScopedUser other(65534);
        ASSERT_EQ(listen(listener.Get(), 1), 0);
    }
    const UniqueFd client = NewUnixSocket();
    ASSERT_EQ(address->Connect(client), 0);
    const auto checked = CheckHostUser(client.Get(), std::nullopt);
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text, "the host belongs to user 65534; --host-uid 65534 allows that");
    EXPECT_FALSE(CheckHostUser(client.Get(), 65533));
    EXPECT_TRUE(CheckHostUser(client.Get(), 65534));
}

TEST(UnixSocket, AHostOfRootIsTrusted) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd one(ends[0]);
    const UniqueFd other(ends[1]);
    const ScopedUser user(65534);
    EXPECT_TRUE(CheckHostUser(one.Get(), std::nullopt));
}

}  // namespace
}  // namespace zumod
