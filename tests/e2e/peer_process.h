// zu-camera-peer as a process, connected to a host that the test scripts.
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
    // Any command line. Standard output is the file "out".
    void StartWith(std::vector<std::string> words) {
        words.insert(words.begin(), ZU_PEER_FILE);
        words.insert(words.begin(), words_in_front.begin(), words_in_front.end());
        const UniqueFd out(open(Out().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
        peer = std::make_unique<ChildProcess>(std::move(words), work / "errors", -1, out.Get());
    }

    // Connected to `host`.
    void Start(std::vector<std::string> words) {
        words.insert(words.begin(), {"--socket", socket});
        StartWith(std::move(words));
        host.Accept();
    }

    // Expects the list request, with which every command that needs a camera starts, and answers it.
    void AnswerList(const Bytes& list) {
        host.Expect(kGetListBytes);
        EXPECT_TRUE(host.Send(list));
    }

    // The same, then expects and answers the request to open camera 0 at 640x480 and 30 frames per second.
    // The messages are sent with the answer: a peer with a short time limit has them from the start.
    void AnswerOpen(const Bytes& messages = {}) {
        AnswerList(kOneCamera);
        host.Expect(OpenBytes(0));
        EXPECT_TRUE(host.Send(StateBytes(2, 0) + messages));
    }

    // Expects the request to close camera 0, answers it, and waits until the peer has disconnected.
    void AnswerClose() {
        host.ExpectAfterLists(CloseBytes(0));
        EXPECT_TRUE(host.Send(StateBytes(4, 0)));
        host.ExpectClosed();
    }

    // Waits for the end and checks the exit status and standard error.
    void ExpectEnd(int status, const std::string& errors) {
        EXPECT_EQ(peer->Wait(), status);
        EXPECT_EQ(peer->Errors(), errors);
    }

    std::string Out() const { return work / "out"; }
    std::string Printed() const { return FileContent(Out()); }
    // Waits until the peer has printed the text, or has ended.
    bool Prints(const std::string& text) {
        const auto has = [&] { return Printed().find(text) != std::string::npos; };
        WaitUntil([&] { return has() || peer->HasEnded(); });
        return has();
    }

    // The names of the files in the work directory that this class did not create.
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
    std::vector<std::string> words_in_front;  // of the command line: a program that starts the peer
    std::unique_ptr<ChildProcess> peer;
};

}  // namespace zumod::testing
