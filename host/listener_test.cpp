#include "host/listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/unix_socket.h"
#include "tests/support/process/work_directory.h"

namespace zumod::host {
namespace {

namespace fs = std::filesystem;

class ListenerTest : public ::testing::Test {
protected:
    // The listener, or null and the text in `error`.
    std::unique_ptr<Listener> Open() { return Open(path); }
    std::unique_ptr<Listener> Open(const std::string& at) {
        auto listener = Listener::Open(at);
        error = listener ? "" : listener.error().text;
        return listener ? std::move(*listener) : nullptr;
    }
    // If the result is dropped at once, a socket file without a listener stays, as after a host that was
    // killed.
    UniqueFd BindAnother(int type) const {
        UniqueFd another(socket(AF_UNIX, type, 0));
        EXPECT_EQ(UnixAddress::FromPath(path)->Bind(another), 0);
        return another;
    }
    UniqueFd Connect() const {
        UniqueFd peer = NewUnixSocket();
        EXPECT_EQ(UnixAddress::FromPath(path)->Connect(peer), 0);
        return peer;
    }

    const zumod::testing::WorkDirectory work;
    const std::string path = work / "socket";
    std::string error;
};

TEST_F(ListenerTest, OnlyItsOwnerMayUseItUnderAnyUmask) {
    const mode_t before = umask(0);
    const auto listener = Open();
    umask(before);
    ASSERT_NE(listener, nullptr) << error;
    struct stat status {};
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(ListenerTest, APeerIsAcceptedAndItsUserIsKnown) {
    const auto listener = Open();
    ASSERT_NE(listener, nullptr) << error;
    EXPECT_FALSE(listener->Accept());
    EXPECT_EQ(errno, EAGAIN);
    const UniqueFd peer = Connect();
    const UniqueFd accepted = listener->Accept();
    ASSERT_TRUE(accepted);
    EXPECT_EQ(PeerUser(accepted.Get()), geteuid());
}

TEST_F(ListenerTest, RemovesItsFileAtTheEnd) {
    Open();
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(ListenerTest, KeepsAFileThatReplacedItsOwn) {
    {
        const auto listener = Open();
        ASSERT_NE(listener, nullptr) << error;
        fs::remove(path);
        std::ofstream(path) << "another file";
    }
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(ListenerTest, ReplacesTheSocketOfADeadHost) {
    BindAnother(SOCK_STREAM);
    const auto listener = Open();
    ASSERT_NE(listener, nullptr) << error;
    Connect();
}

TEST_F(ListenerTest, KeepsTheSocketOfALiveHost) {
    const auto first = Open();
    ASSERT_NE(first, nullptr) << error;
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(error, path + ": the address is in use, another program listens there");
    Connect();
}

TEST_F(ListenerTest, AHostWithAFullBacklogIsAlive) {
    const auto first = Open();
    ASSERT_NE(first, nullptr) << error;
    std::vector<UniqueFd> waiting;
    for (int i = 0; i <= 16; ++i) {
        waiting.push_back(Connect());
    }
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(error, path + ": the address is in use, another program listens there");
}

TEST_F(ListenerTest, KeepsAFileThatIsNotASocket) {
    std::ofstream(path) << "precious";
    EXPECT_EQ(Open(), nullptr);
    EXPECT_EQ(error, path + ": is there and is not a socket");
    EXPECT_EQ(fs::file_size(path), 8U);
}

TEST_F(ListenerTest, KeepsASocketOfAnotherType) {
    const UniqueFd another = BindAnother(SOCK_DGRAM);
    EXPECT_EQ(Open(), nullptr);
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(ListenerTest, RefusesAPathThatIsTooLong) {
    const std::string long_path = work / std::string(100, 'x');
    EXPECT_EQ(Open(long_path), nullptr);
    EXPECT_EQ(error, long_path + ": the path of a socket has at most 107 bytes");
}

TEST_F(ListenerTest, RefusesThePathOfADirectory) {
    for (const std::string& at : {work / "new/", work / ".", work / ".."}) {
        EXPECT_EQ(Open(at), nullptr);
        EXPECT_EQ(error, at + ": is the path of a directory; add a name for the socket");
    }
    EXPECT_FALSE(fs::exists(work / "new"));
}

TEST_F(ListenerTest, ItsLockIsAPrivateFile) {
    const auto listener = Open();
    ASSERT_NE(listener, nullptr) << error;
    struct stat status {};
    ASSERT_EQ(lstat((path + ".lock").c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(ListenerTest, ALockOfTheDirectoryDoesNotStopIt) {
    const UniqueFd directory(open(work.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(flock(directory.Get(), LOCK_EX), 0);
    EXPECT_NE(Open(), nullptr) << error;
}

TEST_F(ListenerTest, RemovesItsFileFromADirectoryThatWasMoved) {
    {
        const auto listener = Open(work / "a/socket");
        ASSERT_NE(listener, nullptr) << error;
        fs::rename(work / "a", work / "b");
        EXPECT_TRUE(fs::exists(work / "b/socket"));
    }
    EXPECT_FALSE(fs::exists(work / "b/socket"));
}

TEST_F(ListenerTest, ARelativePathIsInTheCurrentDirectory) {
    const fs::path before = fs::current_path();
    fs::current_path(work.Path());
    EXPECT_NE(Open("socket"), nullptr) << error;
    fs::current_path(before);
}

TEST(HostNotice, IsAMessageOfType128WithTheTextAsItsBody) {
    EXPECT_EQ(HostNotice("busy"), std::string("\x04\0\0\0\x80\0\0\0busy", 12));
}

TEST(HostNotice, IsCutAt256Bytes) {
    EXPECT_EQ(HostNotice(std::string(300, 'a')),
              std::string("\0\x01\0\0\x80\0\0\0", 8) + std::string(256, 'a'));
    EXPECT_EQ(HostNotice(std::string(256, 'a')).size(), 8U + 256);
}

TEST(HostNotice, IsNotCutInsideACharacter) {
    EXPECT_EQ(HostNotice(std::string(255, 'a') + "\xC3\xA9"),
              std::string("\xFF\0\0\0\x80\0\0\0", 8) + std::string(255, 'a'));
    EXPECT_EQ(HostNotice(std::string(254, 'a') + "\xC3\xA9"),
              std::string("\0\x01\0\0\x80\0\0\0", 8) + std::string(254, 'a') + "\xC3\xA9");
}

}  // namespace
}  // namespace zumod::host
