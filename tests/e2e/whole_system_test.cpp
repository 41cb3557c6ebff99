// The built module in this process, with a codec that records its calls and a virtual camera behind the C
// library's calls. The test compares wire, log and codec.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/e2e/whole_system.h"
#include "tests/support/watch/process_state.h"
#include "vcam/testing/preloaded_cameras.h"

namespace {

using namespace zumod::testing;
using raw::Lines;

// The lines that begin with one of these, in order: the milestones of a session.
std::vector<std::string> Milestones(const Lines& lines) {
    std::vector<std::string> found;
    for (const auto& [level, text] : lines) {
        for (const char* start :
             {"[cameraclient]", "[CCameraClientLinux]", "[codec] create", "[codec] SetProperty",
              "[codec] destroy", "[LinuxV4L2CameraCapture] startCapture success",
              "[LinuxV4L2CameraCapture] stopCapture, devid 0 finish", "[CameraEnumerator]"}) {
            if (text.rfind(start, 0) == 0) {
                found.push_back(text);
            }
        }
    }
    return found;
}

class WholeSystemTest : public raw::WholeSystem {
protected:
    // The next message; empty at the end of the channel.
    Bytes Receive() const {
        const auto message = peer->Receive();
        return message ? MessageBytes(message->type, message->body) : Bytes{};
    }
};

TEST_F(WholeSystemTest, APeerListsOpensReceivesChangesAndClosesACamera) {
    Start(ZU_TEST_MODULES_DIR "/recording");
    const zumod::vcam::PreloadedCameras cameras{"card=Front,formats=NV12,sizes=640x480:1280x720,fps=30"};
    close(open("/dev/video0", O_RDONLY));  // the first call connects this process with its cameras
    const auto threads = CountThreads();
    const auto descriptors = CountDescriptors();
    EXPECT_TRUE(peer->Send(kGetListBytes));
    const Bytes list = peer->ReceiveBytes(12 + 1304 + 16);
    EXPECT_EQ((Bytes{list.begin(), list.begin() + 12}), (Bytes{0x2C, 5, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ((std::string{list.begin() + 18, list.begin() + 24}), std::string("Front\0", 6));
    EXPECT_EQ((Bytes{list.begin() + 1312, list.end()}),
              (Bytes{2, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 0, 5, 0, 0, 0xD0, 2, 0, 0}));

    EXPECT_TRUE(peer->Send(OpenBytes(0)));
    // The notice and the frames come from two threads, in any order.
    const Bytes frame = FrameBytes(0, {'c', 'o', 'd', 'e'});
    int states = 0;
    int frames = 0;
    while (states == 0 || frames < 10) {
        const Bytes message = Receive();
        ASSERT_TRUE(message == StateBytes(2, 0) || message == frame);
        ++(message == frame ? frames : states);
    }
    EXPECT_EQ(states, 1);
    EXPECT_TRUE(runtime.Has("[codec] SetInputFormat 640x480 stride 640 bits 8"));
    EXPECT_TRUE(runtime.Has("[codec] Encode 460800 bytes"));

    EXPECT_TRUE(peer->Send(SetFormatBytes(0, 1280, 720, 30)));
    while (!runtime.Has("[codec] Encode 1382400 bytes")) {
        ASSERT_EQ(Receive(), frame);
    }
    EXPECT_TRUE(peer->Send(CloseBytes(0)));
    Bytes message = Receive();
    while (message == frame) {
        message = Receive();
    }
    EXPECT_EQ(message, StateBytes(4, 0));
    Finish();
    const std::string scan =
        "[CameraEnumerator]  id: 0 name: Front bus:  usb-zu-vcam-0 file: /dev/video0 res:  640x480 "
        "1280x720";
    const std::string stopped = "[LinuxV4L2CameraCapture] stopCapture, devid 0 finish stop work thread";
    const auto started = [](const char* size) {
        return "[LinuxV4L2CameraCapture] startCapture success, devid 0, " + std::string(size) +
               " format NV12 fps 30 setfps 1";
    };
    EXPECT_EQ(Milestones(runtime.lines),
              (std::vector<std::string>{
                  "[cameraclient] create",
                  "[cameraclient] Run start",
                  scan,
                  "[cameraclient] OnProtoGetCameraList, count 1",
                  "[cameraclient] OnProtoOpenCamera id 0 w 640 h 480 fps 30",
                  scan,
                  started("width 640 height 480"),
                  "[CCameraClientLinux] detect encode size change, 0x0 -> 640x480",
                  "[codec] create IVEncoder",
                  "[codec] SetProperty zu.codec.property.hardware 1 true",
                  "[cameraclient] OnProtoSetFormat id 0 w 1280 h 720 fps 30",
                  stopped,
                  scan,
                  started("width 1280 height 720"),
                  stopped,
                  scan,
                  started("width 1280 height 720"),
                  "[CCameraClientLinux] detect encode size change, 640x480 -> 1280x720",
                  "[codec] destroy",
                  "[codec] create IVEncoder",
                  "[codec] SetProperty zu.codec.property.hardware 1 true",
                  "[cameraclient] OnProtoCloseCamera id 0",
                  stopped,
                  "[codec] destroy",
                  "[cameraclient] Run return",
                  "[cameraclient] ExitInstance",
                  "[cameraclient] start to clear devs",
                  "[cameraclient] finish to clear devs",
                  "[cameraclient] start to stop send thread",
                  "[cameraclient] ExitInstance finish",
                  "[cameraclient] destroy",
                  "[cameraclient] finish to clear devs",
              }));
    EXPECT_TRUE(ThreadsComeTo(threads - 1)) << "Run's own thread was among them";
    // The socket pair is gone; the camera, which lives in this process too, keeps the memory of its buffers.
    EXPECT_LE(CountDescriptors(), descriptors - 2 + 1);
}

}  // namespace
