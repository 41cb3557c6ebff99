// What the host's sandbox takes away from a codec module, and what it leaves.
#include <list>
#include <map>

#include "common/call_filter.h"
#include "common/landlock.h"
#include "tests/e2e/host_process.h"
#include "tests/support/process/scoped_environment.h"

namespace zumod::testing {
namespace {

class HostSandbox : public HostProcess {
protected:
    HostSandbox() {
        std::filesystem::create_directory(work / "modules");
        std::filesystem::create_symlink(ZU_MODULE_DIR "/zu-client-camera.so",
                                        work / "modules/zu-client-camera.so");
        std::filesystem::create_symlink(ZU_TEST_MODULES_DIR "/intruding/zu-codec.so",
                                        work / "modules/zu-codec.so");
        std::ofstream(work / "secret") << "of the user";
    }

    // A host with the intruding codec, which a peer makes attach. `variables` say what the codec tries.
    std::unique_ptr<ChildProcess> Attack(const std::map<std::string, std::string>& variables,
                                         std::vector<std::string> more = {}) {
        std::list<ScopedVariable> set;
        for (const auto& [name, value] : variables) {
            set.emplace_back(name.c_str(), value.c_str());
        }
        more.insert(more.begin(), {"--modules", work / "modules"});
        auto host = Start(std::move(more));
        peer.emplace(Connect());
        EXPECT_TRUE(peer->Send(OpenBytes(0)));
        return host;
    }

    std::optional<PeerClient> peer;
};

TEST_F(HostSandbox, TheLogSaysWhatIsInForce) {
    EXPECT_TRUE(Start()->Says("info    [host] sandbox: no new privileges, no capabilities"));
    const auto host = Start({"--no-sandbox"});
    EXPECT_TRUE(host->Says("info    [host] sandbox: none, because of --no-sandbox\n"));
}

TEST_F(HostSandbox, ACodecReadsAndWritesNoFilesOfTheUser) {
    if (const auto version = LandlockVersion(); !version) {
        GTEST_SKIP() << "the kernel has no Landlock: " << version.error().text;
    }
    const auto host = Attack({{"ZU_TEST_READ", work / "secret"}, {"ZU_TEST_WRITE", work / "secret.new"}});
    EXPECT_TRUE(host->Says("[codec] read a file: stopped\n")) << host->Errors();
    EXPECT_TRUE(host->Says("[codec] read the users: stopped\n")) << host->Errors();
    EXPECT_TRUE(host->Says("[codec] write a file: stopped\n")) << host->Errors();
    EXPECT_FALSE(std::filesystem::exists(work / "secret.new"));
    // The host goes on.
    peer.reset();
    ExpectServed(Connect());
}

TEST_F(HostSandbox, ACodecConnectsToNothing) {
    if (const auto found = FindCallFilter(); !found) {
        GTEST_SKIP() << "the kernel has no filter of system calls: " << found.error().text;
    }
    const auto host = Attack({{"ZU_TEST_CONNECT", socket}});
    EXPECT_TRUE(host->Says("[codec] connect: stopped\n")) << host->Errors();
    peer.reset();
    ExpectServed(Connect());
}

TEST_F(HostSandbox, ACodecThatExecutesAProgramEndsTheHost) {
    if (const auto found = FindCallFilter(); !found) {
        GTEST_SKIP() << "the kernel has no filter of system calls: " << found.error().text;
    }
    const auto host = Attack({{"ZU_TEST_EXECUTE", "/bin/true"}});
    EXPECT_EQ(host->Wait(), 128 + SIGSYS) << host->Errors();
    EXPECT_FALSE(peer->ReceiveType(7)) << "no frame, and then the end of the channel";
    // The kernel closes its camera; the next host finds everything in order.
    const auto next = Start();
    ExpectPictures(Connect());
}

TEST_F(HostSandbox, WithoutItACodecMayDoWhatTheUserMay) {
    const auto host = Attack({{"ZU_TEST_READ", work / "secret"},
                              {"ZU_TEST_WRITE", work / "secret.new"},
                              {"ZU_TEST_CONNECT", socket}},
                             {"--no-sandbox"});
    EXPECT_TRUE(host->Says("[codec] read a file: done\n")) << host->Errors();
    EXPECT_TRUE(host->Says("[codec] read the users: done\n")) << host->Errors();
    EXPECT_TRUE(host->Says("[codec] write a file: done\n")) << host->Errors();
    EXPECT_TRUE(host->Says("[codec] connect: done\n")) << host->Errors();
}

TEST_F(HostSandbox, WithoutItACodecMayReplaceTheHostByAnotherProgram) {
    const auto host = Attack({{"ZU_TEST_EXECUTE", "/bin/true"}}, {"--no-sandbox"});
    EXPECT_EQ(host->Wait(), 0) << host->Errors();
}

}  // namespace
}  // namespace zumod::testing
