// A whole session over a socket pair, with the test in the roles of host and peer.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "src/plugin/client_camera.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/scripted_stream.h"
#include "tests/support/doubles/socket_stream.h"
#include "tests/support/watch/process_state.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::CameraScript;
using testing::CloseBytes;
using testing::CountDescriptors;
using testing::CountThreads;
using testing::kGetListBytes;
using testing::kVersionRequestBytes;
using testing::LogLine;
using testing::OpenBytes;
using testing::SocketStream;
using testing::ThreadsComeTo;
using testing::operator+;

// The peer's end of a socket pair whose other end is the plugin's stream. Run has a separate thread.
class Connection {
public:
    explicit Connection(IClientCameraPlugin& plugin) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        m_fd = ends[0];
        const CRefPtr_T<IChannelStream> stream(new SocketStream(ends[1]));
        EXPECT_EQ(plugin.SetChannelStream(stream.Get()), 0);
        m_run = std::thread([&plugin] { EXPECT_EQ(plugin.Run(), 1); });
    }
    ~Connection() {
        Disconnect();
        close(m_fd);
    }

    void Send(const Bytes& bytes) { EXPECT_EQ(send(m_fd, bytes.data(), bytes.size(), 0), std::ssize(bytes)); }

    Bytes Receive(size_t size) {
        Bytes bytes(size);
        EXPECT_EQ(recv(m_fd, bytes.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
        return bytes;
    }

    // Ends the stream and waits until Run has returned.
    void Disconnect() {
        shutdown(m_fd, SHUT_RDWR);
        if (m_run.joinable()) {
            m_run.join();
        }
    }

private:
    int m_fd = -1;
    std::thread m_run;
};

TEST(Session, EveryByteAndEveryLogLineFromCreationToTheLastRelease) {
    CameraScript() = {};
    testing::RecordingHost host;
    AttachRuntime(&host);
    const auto threads = CountThreads();
    const auto descriptors = CountDescriptors();

    CRefPtr_T<IClientCameraPlugin> plugin(new ClientCamera);
    {
        Connection peer(*plugin);
        peer.Send(kGetListBytes);
        EXPECT_EQ(peer.Receive(12), (Bytes{4, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
        peer.Send(kVersionRequestBytes);
        EXPECT_EQ(peer.Receive(12), (Bytes{4, 0, 0, 0, 0x0B, 0, 0, 0, 5, 0, 0, 0}));
        peer.Send(OpenBytes(7));
        EXPECT_EQ(peer.Receive(16), (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 2, 0, 0, 0, 7, 0, 0, 0}));
        CameraScript().listeners.at(0)->OnVideoPacket(7, "\xAB\xCD", 2);
        EXPECT_EQ(peer.Receive(18), (Bytes{10, 0, 0, 0, 7, 0, 0, 0, 7, 0, 0, 0, 2, 0, 0, 0, 0xAB, 0xCD}));
        peer.Send({3, 0, 0, 0, 0x77, 9, 9, 9, 1, 2, 3});
        peer.Send(CloseBytes(7));
        EXPECT_EQ(peer.Receive(16), (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 4, 0, 0, 0, 7, 0, 0, 0}));
        peer.Send({16, 0, 0, 0, 3, 0});
    }
    {
        Connection peer(*plugin);
        CameraScript().built_in = false;
        peer.Send(OpenBytes(1, 1280, 720, 25));
        EXPECT_EQ(peer.Receive(16), (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}));
    }
    EXPECT_EQ(plugin->ExitInstance(), 0);
    plugin = nullptr;

    EXPECT_EQ(host.Lines(), (std::vector<LogLine>{
                                {1, "[cameraclient] create"},
                                {1, "[cameraclient] Run start"},
                                {1, "[cameraclient] OnProtoGetCameraList, count 0"},
                                {8, "[cameraclient] version req"},
                                {1, "[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30"},
                                {1, "[cameraclient] OnProtoCloseCamera id 7"},
                                {1, "[cameraclient] Run return"},
                                {1, "[cameraclient] Run start"},
                                {1, "[cameraclient] OnProtoOpenCamera id 1 w 1280 h 720 fps 25"},
                                {2, "[cameraclient] OnProtoOpenCamera cureent platform not impl"},
                                {1, "[cameraclient] Run return"},
                                {1, "[cameraclient] ExitInstance"},
                                {8, "[cameraclient] start to clear devs"},
                                {8, "[cameraclient] finish to clear devs"},
                                {8, "[cameraclient] start to stop send thread"},
                                {8, "[cameraclient] ExitInstance finish"},
                                {1, "[cameraclient] destroy"},
                                {8, "[cameraclient] finish to clear devs"},
                            }));
    EXPECT_TRUE(ThreadsComeTo(threads));
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(CameraScript().alive, 0);
    DetachRuntime();
}

}  // namespace
}  // namespace zumod
