#include "host/listener.h"

#include <gtest/gtest.h>
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

TEST_F(ListenerTest, ARelativePathIsInTheCurrentDirectory) {
    const fs::path before = fs::current_path();
    fs::current_path(work.Path());
    EXPECT_NE(Open("socket"), nullptr) << error;
    fs::current_path(before);
}

class PrivateDirectory : public ::testing::Test {
protected:
    // Whether it succeeds; the text is in `error` if it does not.
    bool Ensure(const std::string& directory) {
        const auto result = EnsurePrivateDirectory(directory);
        error = result ? "" : result.error().text;
        return result.has_value();
    }
    const zumod::testing::WorkDirectory work;
    std::string error;
};

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST_F(PrivateDirectory, IsCreatedForItsOwnerOnly) {
    const mode_t before = umask(0);
    EXPECT_TRUE(Ensure(work / "new")) << error;
    umask(before);
    EXPECT_EQ(ModeOf(work / "new"), 0700U);
}

TEST_F(PrivateDirectory, KeepsItsModeIfItExists) {
    std::filesystem::create_directory(work / "old");
    ASSERT_EQ(chmod((work / "old").c_str(), 0755), 0);
    EXPECT_TRUE(Ensure(work / "old")) << error;
    EXPECT_EQ(ModeOf(work / "old"), 0755U);
}

TEST_F(PrivateDirectory, IsRefusedIfOthersMayWriteToIt) {
    const std::string directory = work / "open";
    std::filesystem::create_directory(directory);
    for (const mode_t mode : {0770U, 0707U, 01777U, 0720U, 0702U}) {
        ASSERT_EQ(chmod(directory.c_str(), mode), 0);
        EXPECT_FALSE(Ensure(directory)) << std::oct << mode;
        EXPECT_EQ(error,
                  directory +
                      ": others may write to the directory; choose one that only you may write to (chmod "
                      "go-w)");
    }
}

TEST_F(PrivateDirectory, IsRefusedIfItBelongsToAnotherUser) {
    const std::string directory = work / "other";
    std::filesystem::create_directory(directory);
    if (chown(directory.c_str(), 65534, 65534) != 0) {
        GTEST_SKIP() << "only root can give a directory away";
    }
    EXPECT_FALSE(Ensure(directory));
    EXPECT_EQ(error, directory + ": the directory belongs to another user");
}

TEST_F(PrivateDirectory, IsRefusedIfItIsAFile) {
    std::ofstream(work / "file") << "x";
    EXPECT_FALSE(Ensure(work / "file"));
    EXPECT_EQ(error, (work / "file") + ": is not a directory");
}

TEST_F(PrivateDirectory, ItsParentIsNotCreated) {
    EXPECT_FALSE(Ensure(work / "a/b"));
    EXPECT_EQ(error, (work / "a/b") + ": the directory cannot be created: No such file or directory");
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
