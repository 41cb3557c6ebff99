#include "host/listener.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/process/work_directory.h"

namespace zumod::host {
namespace {

namespace fs = std::filesystem;

class Sockets : public ::testing::Test {
protected:
    std::unique_ptr<Listener> Open() {
        error.clear();
        return Listener::Open(path, error);
    }
    // Dropped at once it is what a host that was killed leaves: a socket file that nobody listens at.
    UniqueFd BindAnother(int type) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        UniqueFd another(socket(AF_UNIX, type, 0));
        EXPECT_EQ(bind(another.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return another;
    }
    UniqueFd Connect() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        UniqueFd peer(socket(AF_UNIX, SOCK_STREAM, 0));
        EXPECT_EQ(connect(peer.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return peer;
    }

    const zumod::testing::WorkDirectory work;
    const std::string path = work / "socket";
    std::string error;
};

TEST_F(Sockets, IsItsOwnersAloneWhateverTheUmaskIs) {
    const mode_t before = umask(0);
    const auto listener = Open();
    umask(before);
    ASSERT_NE(listener, nullptr) << error;
    struct stat status {};
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(Sockets, APeerIsTakenAndItsUserKnown) {
    const auto listener = Open();
    ASSERT_NE(listener, nullptr) << error;
    EXPECT_FALSE(listener->Accept());
    EXPECT_EQ(errno, EAGAIN);
    const UniqueFd peer = Connect();
    const UniqueFd accepted = listener->Accept();
    ASSERT_TRUE(accepted);
    EXPECT_EQ(UserAtTheOtherEnd(accepted.Get()), geteuid());
    EXPECT_EQ(UserAtTheOtherEnd(-1), static_cast<uid_t>(-1));
}

TEST_F(Sockets, TheFileGoesWithTheListener) {
    Open();
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(Sockets, AnotherFileInItsPlaceStays) {
    {
        const auto listener = Open();
        ASSERT_NE(listener, nullptr) << error;
        fs::remove(path);
        std::ofstream(path) << "someone else's";
    }
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(Sockets, ADeadHostsSocketIsReplaced) {
    BindAnother(SOCK_STREAM);
    const auto listener = Open();
    ASSERT_NE(listener, nullptr) << error;
    Connect();
}

TEST_F(Sockets, ALiveHostsSocketIsLeftAlone) {
    const auto first = Open();
    ASSERT_NE(first, nullptr) << error;
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(error, path + ": the address is in use, another program listens there");
    Connect();
}

TEST_F(Sockets, AHostThatIsTooBusyToAcceptIsAlive) {
    const auto first = Open();
    ASSERT_NE(first, nullptr) << error;
    std::vector<UniqueFd> waiting;
    for (int i = 0; i <= 16; ++i) {
        waiting.push_back(Connect());
    }
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(error, path + ": the address is in use, another program listens there");
}

TEST_F(Sockets, WhatIsNoSocketIsLeftAlone) {
    std::ofstream(path) << "precious";
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(error, path + ": is there and is not a socket");
    EXPECT_EQ(fs::file_size(path), 8U);
}

TEST_F(Sockets, ASocketOfAnotherKindIsLeftAlone) {
    const UniqueFd another = BindAnother(SOCK_DGRAM);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(Sockets, APathThatIsTooLongIsRefused) {
    const std::string long_path = work / std::string(100, 'x');
    EXPECT_EQ(Listener::Open(long_path, error), nullptr);
    EXPECT_EQ(error, long_path + ": the path of a socket has at most 107 bytes");
}

}  // namespace
}  // namespace zumod::host
