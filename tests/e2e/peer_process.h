// zu-camera-peer as a process, and a host of the test's own that it speaks with.
//
// Thread rule: one test thread.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/doubles/scripted_host.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/file_content.h"
#include "tests/support/process/work_directory.h"

namespace zumod::testing {

class PeerProcess : public ::testing::Test {
protected:
    // Any command line; what it prints is in the file "out".
    void StartWith(std::vector<std::string> words) {
        words.insert(words.begin(), ZU_PEER_FILE);
        const UniqueFd out(open(Out().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
        peer = std::make_unique<ChildProcess>(std::move(words), work / "errors", -1, out.Get());
    }

    // Connected to `host`.
    void Start(std::vector<std::string> words) {
        words.insert(words.begin(), {"--socket", socket});
        StartWith(std::move(words));
        host.Accept();
    }

    // The list request of every command that needs a camera, and its answer.
    void GiveList(const Bytes& list) {
        host.Expect(kGetListBytes);
        EXPECT_TRUE(host.Send(list));
    }

    // The same, and the opening of camera 0 at 640x480 and 30 frames a second.
    void GiveOpenCamera() {
        GiveList(kOneCamera);
        host.Expect(OpenBytes(0));
        EXPECT_TRUE(host.Send(StateBytes(2, 0)));
    }

    // Closes as a host does that is asked to.
    void GiveClosed() {
        host.Expect(CloseBytes(0));
        EXPECT_TRUE(host.Send(StateBytes(4, 0)));
        host.ExpectClosed();
    }

    // That it ends with this status and these lines on standard error.
    void ExpectEnd(int status, const std::string& errors) {
        EXPECT_EQ(peer->Wait(), status);
        EXPECT_EQ(peer->Errors(), errors);
    }

    std::string Out() const { return work / "out"; }
    std::string Printed() const { return FileContent(Out()); }
    // Waits until it has printed this, or has ended.
    bool Prints(const std::string& text) {
        const auto has = [&] { return Printed().find(text) != std::string::npos; };
        WaitUntil([&] { return has() || peer->HasEnded(); });
        return has();
    }

    // The names of the files of the test, those of this class apart.
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(work.Path())) {
            const std::string name = entry.path().filename();
            if (name != "out" && name != "errors" && name != "socket") {
                names.push_back(name);
            }
        }
        return names;
    }

    const Bytes kOneCamera = ListBytes({CameraBytes(0, "Front", {{320, 240}, {640, 480}, {1920, 1080}})});
    const WorkDirectory work;
    const std::string socket = work / "socket";
    ScriptedHost host{socket};
    std::unique_ptr<ChildProcess> peer;
};

}  // namespace zumod::testing
