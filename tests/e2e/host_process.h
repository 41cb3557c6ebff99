// A test fixture: the reference host as a process, with virtual cameras and a temporary directory.
//
// Thread rule: one test thread.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/process/child_process.h"
#include "tests/support/process/work_directory.h"
#include "tests/support/wire/camera_messages.h"
#include "tests/support/wire/peer_client.h"
#include "vcam/testing/preloaded_cameras.h"

namespace zumod::testing {

class HostProcess : public ::testing::Test {
protected:
    HostProcess() : HostProcess({"card=Front,formats=NV12,sizes=640x480,fps=30"}) {}
    explicit HostProcess(std::initializer_list<const char*> with) : cameras(with) {}

    // Any command line.
    std::unique_ptr<ChildProcess> StartWith(std::vector<std::string> words, int in = -1, int out = -1) const {
        words.insert(words.begin(), ZU_HOST_FILE);
        return std::make_unique<ChildProcess>(std::move(words), work / "errors", in, out);
    }

    // A host that already listens at `socket` when this returns.
    std::unique_ptr<ChildProcess> Start(std::vector<std::string> more = {}) const {
        more.insert(more.begin(), {"--listen", socket});
        auto host = StartWith(std::move(more));
        EXPECT_TRUE(host->Says("zu-camera-host: listening on " + socket)) << host->Errors();
        return host;
    }

    PeerClient Connect() const { return PeerClient::ConnectTo(socket); }

    // Asks for the version and receives it.
    static void ExpectServed(const PeerClient& peer) {
        EXPECT_TRUE(peer.Send(kVersionRequestBytes));
        const auto reply = peer.ReceiveType(0x0B);
        ASSERT_TRUE(reply.has_value()) << "the channel was closed";
        EXPECT_EQ(reply->body, (Bytes{5, 0, 0, 0}));
    }

    // Opens the camera and receives pictures from it.
    static void ExpectPictures(const PeerClient& peer, int count = 3) {
        EXPECT_TRUE(peer.Send(OpenBytes(0)));
        bool opened = false;
        int frames = 0;
        while (!opened || frames < count) {
            const auto message = peer.Receive();
            ASSERT_TRUE(message.has_value()) << "the channel was closed";
            if (message->type == 5) {
                EXPECT_EQ(message->body, (Bytes{2, 0, 0, 0, 0, 0, 0, 0}));
                opened = true;
            } else {
                EXPECT_EQ(message->type, 7);
                ++frames;
            }
        }
    }

    const WorkDirectory work;
    const std::string socket = work / "private/socket";
    vcam::PreloadedCameras cameras;
};

}  // namespace zumod::testing
