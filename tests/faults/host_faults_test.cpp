// Sessions of the host in which one call fails: an allocation on one of its other threads, the creation of a
// thread or of a descriptor. The peer is served or hears a notice, the host goes on, and the next peer is
// served.
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/host_process.h"
#include "tests/faults/call_failures.h"
#include "tests/support/process/scoped_environment.h"

namespace zumod::testing {
namespace {

class HostFaults : public HostProcess {
protected:
    // Several hosts, because a session takes a moment to end.
    static constexpr size_t kHosts = 4;
    static constexpr const char* kCamera = "formats=NV12,sizes=160x120,fps=100";

    HostFaults() : HostProcess({kCamera, kCamera, kCamera, kCamera}) {}

    void SetUp() override {
        for (size_t i = 0; i < kHosts; ++i) {
            const std::string name = std::to_string(i);
            const std::string file = work / ("failures" + name);
            failures.at(i) = CallFailures::Map(file.c_str());
            ASSERT_NE(failures.at(i), nullptr);
            const ScopedVariable path(CallFailures::kVariable, file.c_str());
            const char* before = std::getenv("LD_PRELOAD");  // NOLINT(concurrency-mt-unsafe): one thread
            const ScopedVariable preload(
                "LD_PRELOAD", (std::string(ZU_FAILING_CALLS ":") + (before ? before : "")).c_str());
            hosts.at(i) = std::make_unique<ChildProcess>(
                std::vector<std::string>{ZU_HOST_FILE, "--listen", Socket(i), "--log-level", "error"},
                work / (name + ".errors"));
        }
        for (const auto& host : hosts) {
            ASSERT_TRUE(host->Says("listening on")) << host->Errors();
        }
    }

    std::string Socket(size_t host) const { return work / ("private/" + std::to_string(host)); }

    // A session as it comes: the peer reads until it has its last answer or the channel is closed. Returns
    // what ended it: the notice, or the empty text after the last answer.
    static std::string PlaySession(const PeerClient& peer, uint32_t camera, int wanted_frames) {
        bool sent = peer.Send(kVersionRequestBytes + kGetListBytes + OpenBytes(camera, 160, 120, 100));
        std::string notice;
        int frames = 0;
        bool answered = false;
        for (bool closes = false;;) {
            const auto message = peer.Receive();
            if (!message) {
                return notice.empty() ? "closed without a notice" : notice;
            }
            if (message->type == 128) {
                notice = std::string(message->body.begin(), message->body.end());
            }
            frames += message->type == 7 ? 1 : 0;
            answered |= message->type == 5;
            const bool failed = message->type == 5 && message->body[0] == 1;
            if (sent && !closes && answered && (frames >= wanted_frames || failed)) {
                closes = true;
                sent = peer.Send(CloseBytes(camera));
            }
            if (message->type == 5 && message->body[0] == 4) {
                return "";
            }
        }
    }

    // Lets the call fail after 0, 1, 2, ... others of its kind, times `step`, in a session each.
    void FailEach(FailingCall kind, int64_t rounds, int64_t step, int frames, size_t at_least) {
        size_t failed = 0;
        for (int64_t round = 0; round < rounds; ++round) {
            std::array<std::unique_ptr<PeerClient>, kHosts> peers;
            for (size_t i = 0; i < kHosts; ++i) {
                failures.at(i)->Arm(kind,
                                    (round * static_cast<int64_t>(kHosts) + static_cast<int64_t>(i)) * step);
                peers.at(i) = std::make_unique<PeerClient>(PeerClient::ConnectTo(Socket(i)));
            }
            for (size_t i = 0; i < kHosts; ++i) {
                SCOPED_TRACE("round " + std::to_string(round) + ", host " + std::to_string(i));
                const std::string end = PlaySession(*peers.at(i), static_cast<uint32_t>(i), frames);
                EXPECT_TRUE(end.empty() || end.starts_with("refused: ") || end.starts_with("ended: ")) << end;
                failures.at(i)->Disarm();
                failed += failures.at(i)->failed;
                ASSERT_FALSE(hosts.at(i)->HasEnded()) << hosts.at(i)->Errors();
                // A next one is served while the session of this one may still end.
                ExpectServed(PeerClient::ConnectTo(Socket(i)));
            }
        }
        std::printf("%zu calls failed\n", failed);
        EXPECT_GE(failed, at_least);
    }

    void ExpectAllServeAndEnd() {
        for (size_t i = 0; i < kHosts; ++i) {
            EXPECT_EQ(PlaySession(PeerClient::ConnectTo(Socket(i)), static_cast<uint32_t>(i), 2), "");
            hosts.at(i)->Signal(SIGTERM);
            EXPECT_EQ(hosts.at(i)->Wait(), 0) << hosts.at(i)->Errors();
        }
    }

    std::array<CallFailures*, kHosts> failures{};
    std::array<std::unique_ptr<ChildProcess>, kHosts> hosts;
};

TEST_F(HostFaults, AFailedAllocationOffTheMainThreadCostsAtMostTheSession) {
    FailEach(FailingCall::kAllocation, 4, 2, 2, 12);
    ExpectAllServeAndEnd();
}

// The session's thread, the send thread, and two of the camera's. A camera without its thread counts as open
// and delivers no frames, so none is waited for.
TEST_F(HostFaults, AThreadThatCannotBeCreatedCostsAtMostTheSession) {
    FailEach(FailingCall::kThread, 1, 1, 0, 3);
    ExpectAllServeAndEnd();
}

TEST_F(HostFaults, ADescriptorThatCannotBeCreatedCostsAtMostTheSession) {
    FailEach(FailingCall::kEventDescriptor, 1, 1, 0, 2);
    ExpectAllServeAndEnd();
}

}  // namespace
}  // namespace zumod::testing
