// One session, once with the module itself and once through the host, has the same messages. The broker
// between a single peer and the module changes nothing.
//
// What cannot be the same: the number of frames, because cameras and threads keep time on their own; and
// where among the frames an answer stands, because two threads of the module write. After a close the module
// may still send frames that it had queued, and the host drops them. So the answers are compared in order,
// byte by byte, and the frames with each other: the codec is one whose frames are all the same. The requests
// that reach the module are compared by what it logs about each.
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/host_process.h"
#include "tests/e2e/whole_system.h"

namespace zumod::testing {
namespace {

constexpr int kManyFrames = 30;
// Answered by the host, because the peer has the camera open already.
const Bytes kRepeatedOpen = OpenBytes(0, 320, 240, 15);
const std::string kRepeatedOpenLine =
    "[cameraclient] OnProtoOpenCamera id 0 w 320 h 240 fps 15 camera not found";

struct Recording {
    std::vector<Bytes> answers;  // whole messages, all but frames
    std::set<Bytes> frames;      // whole messages
    std::vector<std::string> requests;
};

void ReceiveOne(const PeerClient& peer, Recording& recording, int& frames) {
    const auto message = peer.Receive();
    ASSERT_TRUE(message.has_value()) << "the channel was closed";
    const Bytes bytes = MessageBytes(message->type, message->body);
    if (message->type == 7) {
        ++frames;
        recording.frames.insert(bytes);
    } else {
        recording.answers.push_back(bytes);
    }
}

// Sends a request, and receives so many answers and so many frames.
void Exchange(const PeerClient& peer, const Bytes& request, size_t answers, int frames,
              Recording& recording) {
    ASSERT_TRUE(peer.Send(request));
    const size_t wanted = recording.answers.size() + answers;
    int received = 0;
    while (recording.answers.size() < wanted || received < frames) {
        ASSERT_NO_FATAL_FAILURE(ReceiveOne(peer, recording, received));
    }
}

void PlaySession(const PeerClient& peer, Recording& recording) {
    const struct {
        Bytes request;
        size_t answers;
        int frames;
    } kSteps[] = {
        {kVersionRequestBytes, 1, 0},
        {kGetListBytes, 1, 0},
        {OpenBytes(0), 1, kManyFrames},
        {SetPropertyBytes(0), 0, 2},
        {kRepeatedOpen, 1, 2},
        {SetFormatBytes(0, 320, 240, 30), 0, kManyFrames},
        {MessageBytes(99, {1, 2, 3}), 0, 2},
        {OpenBytes(9), 1, 2},  // no such camera
        {CloseBytes(0), 1, 0},
        {SetFormatBytes(0), 0, 0},
        {CloseBytes(9), 1, 0},
        {OpenBytes(0, 320, 240, 30), 1, 5},
        {kVersionRequestBytes + kGetListBytes, 2, 0},
        {MessageBytes(4, {}), 1, 0},  // as if it had four zeros
        {kVersionRequestBytes, 1, 0},
    };
    for (const auto& step : kSteps) {
        ASSERT_NO_FATAL_FAILURE(Exchange(peer, step.request, step.answers, step.frames, recording));
    }
}

// Keeps a line about a request, without what a host writes in front of it.
void KeepRequest(const std::string& line, std::vector<std::string>& requests) {
    const size_t at = line.find("[cameraclient] ");
    if (at != std::string::npos && (line.find("OnProto", at) != std::string::npos ||
                                    line.find("version req", at) != std::string::npos)) {
        requests.push_back(line.substr(at));
    }
}

class ModuleAlone : public raw::WholeSystem {
public:
    void TestBody() override {}

    Recording Play() {
        Recording recording;
        Start(ZU_TEST_MODULES_DIR "/plain");
        PlaySession(*peer, recording);
        Finish();
        for (const auto& [level, line] : runtime.lines) {
            KeepRequest(line, recording.requests);
        }
        return recording;
    }
};

class BothEndsWire : public HostProcess {
protected:
    BothEndsWire() : HostProcess({"card=Front,formats=NV12,sizes=640x480:320x240,fps=60"}) {}

    Recording PlayThroughHost() {
        Recording recording;
        // Copied, because the host may open nothing outside of its module directory.
        const std::string modules = work / "modules";
        std::filesystem::create_directory(modules);
        std::filesystem::copy(ZU_MODULE_FILE, modules);
        std::filesystem::copy(ZU_TEST_MODULES_DIR "/plain/zu-codec.so", modules);
        const auto host = Start({"--modules", modules, "--log-level", "trace"});
        PlaySession(Connect(), recording);
        host->Signal(SIGTERM);
        EXPECT_EQ(host->Wait(), 0);
        std::istringstream lines(host->Errors());
        for (std::string line; std::getline(lines, line);) {
            KeepRequest(line, recording.requests);
        }
        return recording;
    }
};

TEST_F(BothEndsWire, IsTheSameThroughTheHostAsWithTheModuleItself) {
    Recording direct = ModuleAlone().Play();
    ASSERT_FALSE(HasFailure());
    ASSERT_EQ(direct.answers.size(), 12U);
    // Four bytes each.
    ASSERT_EQ(direct.frames, (std::set<Bytes>{FrameBytes(0, {'c', 'o', 'd', 'e'})}));
    ASSERT_EQ(direct.requests.size(), 15U);
    ASSERT_EQ(std::erase(direct.requests, kRepeatedOpenLine), 1U);
    const Recording through_host = PlayThroughHost();
    EXPECT_EQ(through_host.answers, direct.answers);
    EXPECT_EQ(through_host.frames, direct.frames);
    EXPECT_EQ(through_host.requests, direct.requests);
}

}  // namespace
}  // namespace zumod::testing
