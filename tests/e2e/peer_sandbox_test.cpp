// What the peer's sandbox takes away from a decoder. (What it leaves: every other test of commands that
// decode runs in it.)
#include <csignal>
#include <fstream>

#include "common/call_filter.h"
#include "common/landlock.h"
#include "tests/e2e/peer_process.h"
#include "tests/support/process/scoped_environment.h"

namespace zumod::testing {
namespace {

class PeerSandbox : public PeerProcess {
protected:
    // The peer with the intruding codec. The variable says what the codec tries.
    void Attack(const char* variable, const std::string& value, std::vector<std::string> words) {
        const ScopedVariable set(variable, value.c_str());
        words.insert(words.begin(), {"--socket", socket, "--modules", modules});
        StartWith(std::move(words));
    }
    std::vector<std::string> Snapshot() const { return {"snapshot", "0", work / "picture.png"}; }
    std::vector<std::string> SnapshotWithout() const {
        return {"--no-sandbox", "snapshot", "0", work / "picture.png"};
    }
    // The codec has no decoder, so the command ends with the first line that it logged.
    void ExpectCodecSaid(const std::string& text) {
        ExpectEnd(1, "zu-camera-peer: no decoder from zu-codec.so in " + modules +
                         " (see --modules): [codec] " + text + "\n");
    }

    const std::string modules = ZU_TEST_MODULES_DIR "/intruding";
};

class PeerSandboxOfFiles : public PeerSandbox {
protected:
    void SetUp() override {
        if (const auto version = LandlockVersion(); !version) {
            GTEST_SKIP() << "the kernel has no Landlock: " << version.error().text;
        }
    }
};

class PeerSandboxOfCalls : public PeerSandbox {
protected:
    void SetUp() override {
        if (const auto found = FindCallFilter(); !found) {
            GTEST_SKIP() << "the kernel has no filter of system calls: " << found.error().text;
        }
    }
};

TEST_F(PeerSandboxOfFiles, ADecoderReadsNoFilesOfTheUser) {
    std::ofstream(work / "secret") << "of the user";
    for (const auto& words : {Snapshot(), {"stats", "0"}, {"format", "0", "--size", "320x240"}}) {
        Attack("ZU_TEST_READ", work / "secret", words);
        ExpectCodecSaid("read a file: stopped");
    }
    EXPECT_EQ(Files(), std::vector<std::string>{"secret"});
}

TEST_F(PeerSandboxOfFiles, ADecoderCreatesNoFileBesideThePicture) {
    Attack("ZU_TEST_WRITE", work / "new", Snapshot());
    ExpectCodecSaid("write a file: stopped");
    EXPECT_EQ(Files(), std::vector<std::string>());
}

TEST_F(PeerSandboxOfCalls, ADecoderConnectsToNothing) {
    Attack("ZU_TEST_CONNECT", socket, Snapshot());
    ExpectCodecSaid("connect: stopped");
}

TEST_F(PeerSandboxOfCalls, ADecoderThatExecutesAProgramEndsThePeerWhichLeavesNoFile) {
    Attack("ZU_TEST_EXECUTE", "/bin/true", Snapshot());
    EXPECT_EQ(peer->Wait(), 128 + SIGSYS) << peer->Errors();
    EXPECT_TRUE(WaitUntil([this] { return Files().empty(); }));
}

TEST_F(PeerSandbox, WithoutItADecoderMayDoWhatTheUserMay) {
    std::ofstream(work / "secret") << "of the user";
    Attack("ZU_TEST_READ", work / "secret", SnapshotWithout());
    ExpectCodecSaid("read a file: done");
    Attack("ZU_TEST_WRITE", work / "new", SnapshotWithout());
    ExpectCodecSaid("write a file: done");
    Attack("ZU_TEST_CONNECT", socket, SnapshotWithout());
    ExpectCodecSaid("connect: done");
    Attack("ZU_TEST_EXECUTE", "/bin/true", SnapshotWithout());
    EXPECT_EQ(peer->Wait(), 0) << peer->Errors();
}

}  // namespace
}  // namespace zumod::testing
