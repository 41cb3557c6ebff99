// zu-camera-peer's snapshots, recordings and changes of format.
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <thread>

#include "tests/e2e/peer_process.h"
#include "tests/e2e/video_file.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::testing {
namespace {

class PeerPictures : public PeerProcess {
protected:
    Bytes NextFrame() { return FrameBytes(0, stream.Next(counter++, 0)); }
    Bytes NextFrames(int count) {
        Bytes frames;
        for (int i = 0; i < count; ++i) {
            frames = frames + NextFrame();
        }
        return frames;
    }
    void SendFrames(int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(host.Send(NextFrame()));
        }
    }

    uint32_t counter = 0;
    EncodedStream stream{640, 480};
};

// Width and height in a PNG file.
std::pair<uint32_t, uint32_t> PngSize(const std::string& png) {
    const auto number = [&](size_t at) {
        uint32_t value = 0;
        for (size_t i = 0; i < 4; ++i) {
            value = value << 8 | static_cast<uint8_t>(png.at(at + i));
        }
        return value;
    };
    return {number(16), number(20)};
}

TEST_F(PeerPictures, TakesTheFirstPictureThatCanBeDecoded) {
    const std::string path = work / "picture.png";
    Start({"snapshot", "0", path});
    AnswerOpen();
    host.Send(FrameBytes(0, {1, 2, 3}) + FrameBytes(0, {}) + FrameBytes(5, stream.Next(0, 0)));
    // From the middle of a stream: nothing can be decoded before the next key frame.
    SendFrames(60);
    AnswerClose();
    ExpectEnd(0, "");
    const std::string png = FileContent(path);
    EXPECT_EQ(png.substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(PngSize(png), std::make_pair(640U, 480U));
    EXPECT_EQ(Files(), std::vector<std::string>{"picture.png"});
}

TEST_F(PeerPictures, LeavesOutPicturesAndWritesAJpegFile) {
    const std::string path = work / "picture.jpg";
    Start({"snapshot", "0", path, "--skip", "2"});
    AnswerOpen();
    SendFrames(3);
    AnswerClose();
    ExpectEnd(0, "");
    EXPECT_EQ(FileContent(path).substr(0, 3), "\xFF\xD8\xFF");
    const auto stamps = StampsIn(work, path, 640, 480);
    ASSERT_EQ(stamps.size(), 1U);
    EXPECT_EQ(stamps[0].counter, 2U);
}

TEST_F(PeerPictures, TakesAPictureSomeTimeAfterTheFirstOne) {
    Start({"snapshot", "0", work / "picture.png", "--after", "1000", "--timeout", "1"});
    AnswerOpen();
    SendFrames(3);
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    peer->Signal(SIGINT);
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: interrupted\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerPictures, WritesAPictureToStandardOutput) {
    Start({"snapshot", "0", "-"});
    AnswerOpen();
    SendFrames(1);
    AnswerClose();
    ExpectEnd(0, "");
    EXPECT_EQ(PngSize(Printed()), std::make_pair(640U, 480U));
}

TEST_F(PeerPictures, KeepsAFrameThatArrivesBeforeTheAnswer) {
    Start({"snapshot", "0", work / "picture.png"});
    AnswerList(kOneCamera);
    host.Expect(OpenBytes(0));
    SendFrames(1);
    host.Send(StateBytes(2, 0));
    AnswerClose();
    ExpectEnd(0, "");
}

TEST_F(PeerPictures, WritesNoFileIfNoPictureCanBeDecoded) {
    Start({"snapshot", "0", work / "picture.png", "--timeout", "1"});
    AnswerOpen(FrameBytes(0, Bytes(5000, 0x65)) + FrameBytes(0, {0, 0, 0, 1, 0x65}));
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: none of the 2 frames of camera 0 (Front) within 1.0 s could be decoded\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerPictures, ReportsThatTheCameraSendsNoFrame) {
    Start({"snapshot", "0", work / "picture.png", "--timeout", "1"});
    AnswerOpen();
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: camera 0 (Front) sent no frame within 1.0 s\n");
}

TEST_F(PeerPictures, RequestsTheGivenFormat) {
    Start({"snapshot", "0", work / "picture.png", "--size", "1280x720", "--fps", "25"});
    AnswerList(kOneCamera);
    Bytes open = SetFormatBytes(0);
    open[4] = 3;
    host.Expect(open);
    host.Send(StateBytes(2, 0));
    SendFrames(1);
    AnswerClose();
    ExpectEnd(0, "");
}

// The number of frames in the file. A tool that is not part of this project counts them, without a warning.
int PlayedFrames(const std::string& path) {
    const std::string command =
        "ffprobe -v error -count_frames -select_streams v -show_entries "
        "stream=nb_read_frames -of csv=p=0 '" +
        path + "' 2>&1";
    const std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), &pclose);
    int frames = -1;
    EXPECT_EQ(std::fscanf(out.get(), "%d", &frames), 1) << path;
    return frames;
}

class PeerRecords : public PeerPictures, public ::testing::WithParamInterface<const char*> {
protected:
    std::string Path() const { return work / (std::string("film.") + GetParam()); }
};

TEST_P(PeerRecords, UntilASignalAndFinishesTheFile) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        EncodedStream fresh(640, 480);
        Start({"record", "0", Path(), "--overwrite"});
        AnswerOpen();
        for (uint32_t i = 0; i < 20; ++i) {
            ASSERT_TRUE(host.Send(FrameBytes(0, fresh.Next(i, 0))));
        }
        EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
        peer->Signal(signal);
        AnswerClose();
        ExpectEnd(0, "");
        EXPECT_EQ(PlayedFrames(Path()), 20);
    }
    EXPECT_EQ(Files().size(), 1U);
}

TEST_P(PeerRecords, AndKeepsTheFileWhenTheHostDisappears) {
    Start({"record", "0", Path()});
    AnswerOpen();
    SendFrames(15);
    host.Send({100, 0, 0, 0, 7, 0, 0, 0, 0});
    host.Close();
    ExpectEnd(
        1,
        "zu-camera-peer: the host closed the connection in the middle of a message; the 15 frames before "
        "that are in " +
            Path() + "\n");
    EXPECT_EQ(PlayedFrames(Path()), 15);
}

TEST_P(PeerRecords, AndKeepsTheFileWhenFramesStop) {
    const Bytes frames = NextFrames(5);
    Start({"record", "0", Path(), "--timeout", "1"});
    AnswerOpen(frames);
    AnswerClose();
    ExpectEnd(
        1, "zu-camera-peer: camera 0 (Front) sent no frame within 1.0 s; the 5 frames before that are in " +
               Path() + "\n");
    EXPECT_EQ(PlayedFrames(Path()), 5);
}

TEST_P(PeerRecords, AndKeepsTheFileWhenTheHostSendsAMalformedMessage) {
    Start({"record", "0", Path()});
    AnswerOpen();
    SendFrames(5);
    host.Send(StateBytes(9, 0));
    ExpectEnd(1,
              "zu-camera-peer: the host sent the unknown camera state 9; the 5 frames before that are in " +
                  Path() + "\n");
    EXPECT_EQ(PlayedFrames(Path()), 5);
}

TEST_P(PeerRecords, AFileThatPlaysBeforeItIsFinishedAndAfterAKill) {
    Start({"record", "0", Path()});
    AnswerOpen();
    SendFrames(120);
    uintmax_t recorded = 0;
    std::string part;
    EXPECT_TRUE(WaitUntil([&] {
        const auto files = Files();
        part = files.empty() ? "" : work / files[0];
        // What arrives is written within a second, also when nothing follows.
        std::error_code error;
        const auto size = std::filesystem::file_size(part, error);
        return !error && std::exchange(recorded, size) == size && size > 8000 && PlayedFrames(part) == 120;
    }));
    peer->Signal(SIGKILL);
    EXPECT_EQ(peer->Wait(), 128 + SIGKILL);
    EXPECT_EQ(Files().size(), 1U);
    EXPECT_EQ(PlayedFrames(part), 120);
}

TEST_P(PeerRecords, NothingOverAGoodFileOnAFullDisk) {
    std::ofstream(Path()) << "a good recording";
    words_in_front = {"/usr/bin/prlimit", "--fsize=60000"};
    // Encoded before, because the peer waits only a little for the answer to its last request.
    const Bytes frames = NextFrames(240);
    Start({"record", "0", Path(), "--overwrite"});
    AnswerOpen();
    host.Send(frames);
    AnswerClose();
    EXPECT_EQ(peer->Wait(), 1);
    const std::string error = "zu-camera-peer: the recording cannot be written: File too large; the first ";
    EXPECT_EQ(peer->Errors().substr(0, error.size()), error);
    EXPECT_NE(peer->Errors().find(" of " + Path() + " are kept in " + (work / "film.part-")),
              std::string::npos)
        << peer->Errors();
    EXPECT_EQ(FileContent(Path()), "a good recording");
    EXPECT_EQ(Files().size(), 2U);
}

TEST_P(PeerRecords, ForTheGivenTime) {
    const Bytes frames = NextFrames(3);
    Start({"record", "0", Path(), "--seconds", "0.3"});
    AnswerOpen(frames);
    AnswerClose();
    ExpectEnd(0, "");
    EXPECT_EQ(PlayedFrames(Path()), 3);
}

TEST_P(PeerRecords, NothingWithoutAKeyFrame) {
    NextFrame();
    const Bytes frames = NextFrames(3);
    Start({"record", "0", Path(), "--timeout", "1"});
    AnswerOpen(frames);
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: camera 0 (Front) sent no key frame within 1.0 s\n");
    EXPECT_EQ(Files().size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Formats, PeerRecords, ::testing::Values("mp4", "mkv", "h264"),
                         [](const auto& test) { return std::string(test.param); });

class PeerRecordsTwo : public PeerPictures {
protected:
    // Records cameras 0 and 3, each into a separate file.
    void StartBoth(const std::vector<std::string>& more = {}) {
        std::vector<std::string> words = {"record", "0", work / "a.mp4", "3", work / "b.mkv"};
        words.insert(words.end(), more.begin(), more.end());
        Start(words);
        AnswerList(kBoth);
        host.Expect(OpenBytes(0));
        EXPECT_TRUE(host.Send(StateBytes(2, 0)));
        // Frames of the first camera that arrive before the second is open are not lost.
        SendTo(0, stream, 2);
        host.Expect(OpenBytes(3));
        EXPECT_TRUE(host.Send(StateBytes(2, 3)));
    }
    void SendTo(uint8_t id, EncodedStream& from, int count) {
        for (int i = 0; i < count; ++i) {
            const std::lock_guard lock(camera_may_send);
            ASSERT_TRUE(host.Send(FrameBytes(id, from.Next(counter++, 0))));
        }
    }
    void AnswerBothCloses() {
        for (const uint8_t id : {uint8_t{0}, uint8_t{3}}) {
            host.ExpectAfterLists(CloseBytes(id));
            EXPECT_TRUE(host.Send(StateBytes(4, id)));
        }
        host.ExpectClosed();
    }
    // Both cameras have frames on the way; then the peer has taken all of them.
    void SendToBoth() {
        SendTo(0, stream, 1);
        SendTo(3, other, 4);
        EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    }
    // Sends frames of camera 3 until the peer has printed the text on standard error.
    void SendUntilSaid(const std::string& text) {
        EXPECT_TRUE(WaitUntil([&] {
            SendTo(3, other, 1);
            poll(nullptr, 0, 20);
            return peer->Errors().find(text) != std::string::npos;
        })) << peer->Errors();
    }

    const Bytes kBoth =
        ListBytes({CameraBytes(0, "Front", {{640, 480}}), CameraBytes(3, "Desk", {{640, 480}})});
    const Bytes kDeskOnly = ListBytes({CameraBytes(3, "Desk", {{640, 480}})});
    EncodedStream other{640, 480};
    std::mutex camera_may_send;  // one message at a time: the test and a thread that plays camera 3 send
};

TEST_F(PeerRecordsTwo, CamerasAtTheSameTime) {
    StartBoth();
    for (int i = 0; i < 5; ++i) {
        SendTo(3, other, 2);
        SendTo(0, stream, 1);
    }
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    peer->Signal(SIGINT);
    AnswerBothCloses();
    ExpectEnd(0, "");
    EXPECT_EQ(PlayedFrames(work / "a.mp4"), 7);
    EXPECT_EQ(PlayedFrames(work / "b.mkv"), 10);
    EXPECT_NE(Printed().find(work / "a.mp4" + ": "), std::string::npos);
    EXPECT_NE(Printed().find(", 10 frames, "), std::string::npos);
}

TEST_F(PeerRecordsTwo, AndKeepsBothFilesWhenFramesOfOneStop) {
    StartBoth({"--timeout", "2"});
    SendTo(3, other, 4);
    AnswerBothCloses();
    EXPECT_EQ(peer->Wait(), 1);
    const std::string front =
        "camera 0 (Front) sent no frame within 2.0 s; the 2 frames before that are in " + (work / "a.mp4");
    EXPECT_EQ(peer->Errors(),
              "zu-camera-peer: " + front + "\nzu-camera-peer: " + front +
                  "; camera 3 (Desk) sent no frame within 2.0 s; the 4 frames before that are in " +
                  (work / "b.mkv") + "\n")
        << peer->Errors();
    EXPECT_EQ(PlayedFrames(work / "a.mp4"), 2);
    EXPECT_EQ(PlayedFrames(work / "b.mkv"), 4);
}

TEST_F(PeerRecordsTwo, AndContinuesWithOneWhenTheOtherIsGone) {
    StartBoth();
    SendToBoth();
    // Camera 3 keeps sending, and camera 0 is looked up after half a second without a frame.
    std::thread camera([&] { SendUntilSaid(" are in "); });
    host.Expect(kGetListBytes);
    {
        const std::lock_guard lock(camera_may_send);
        EXPECT_TRUE(host.Send(kDeskOnly));
    }
    const std::string loss = "zu-camera-peer: camera 0 (Front) is gone; the 3 frames before that are in " +
                             (work / "a.mp4") + "\n";
    host.ExpectAfterLists(CloseBytes(0));
    camera.join();
    EXPECT_EQ(peer->Errors(), loss);
    // It is complete while the other one is recorded.
    EXPECT_EQ(PlayedFrames(work / "a.mp4"), 3);
    EXPECT_FALSE(std::filesystem::exists(work / "b.mkv"));
    const uint32_t before = counter;
    SendTo(3, other, 5);
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    peer->Signal(SIGINT);
    host.ExpectAfterLists(CloseBytes(3));
    host.Send(StateBytes(4, 3));
    ExpectEnd(1, loss + loss);
    // All but the three frames of camera 0.
    EXPECT_EQ(PlayedFrames(work / "b.mkv"), static_cast<int>(before + 5 - 3));
}

TEST_F(PeerRecordsTwo, AndEndsWhenBothAreClosedByTheHost) {
    StartBoth();
    SendToBoth();
    EXPECT_TRUE(host.Send(StateBytes(4, 3)));
    host.ExpectAfterLists(CloseBytes(3));
    EXPECT_TRUE(host.Send(StateBytes(4, 0)));
    AnswerClose();
    EXPECT_EQ(peer->Wait(), 1);
    EXPECT_NE(peer->Errors().find("\nzu-camera-peer: camera 0 (Front) was closed by the host; the 3 frames "),
              std::string::npos)
        << peer->Errors();
    EXPECT_EQ(PlayedFrames(work / "a.mp4"), 3);
    EXPECT_EQ(PlayedFrames(work / "b.mkv"), 4);
}

TEST_F(PeerRecordsTwo, AndReopensTheCameraThatWasAwayUnderAFreeId) {
    StartBoth({"--reconnect"});
    SendToBoth();
    // Camera 3 sends all the time, so only camera 0 is looked up.
    std::thread camera([&] { SendUntilSaid(" is back after "); });
    const auto send = [&](const Bytes& message) {
        const std::lock_guard lock(camera_may_send);
        EXPECT_TRUE(host.Send(message));
    };
    send(StateBytes(4, 0));
    host.ExpectAfterLists(CloseBytes(0));
    EXPECT_TRUE(peer->Says("zu-camera-peer: camera 0 (Front) was closed by the host\n"));
    // The id with which camera 3 is open: its frames could not be told apart.
    host.Expect(kGetListBytes);
    send(ListBytes({CameraBytes(2, "Desk", {{640, 480}}), CameraBytes(3, "Front", {{640, 480}})}));
    host.Expect(kGetListBytes);
    send(ListBytes({CameraBytes(0, "Desk", {{640, 480}}), CameraBytes(1, "Front", {{640, 480}})}));
    host.Expect(OpenBytes(1));
    send(StateBytes(2, 1));
    EncodedStream again(640, 480);
    for (uint32_t i = 0; i < 3; ++i) {
        send(FrameBytes(1, again.Next(i, 0)));
    }
    camera.join();
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    peer->Signal(SIGINT);
    host.ExpectAfterLists(CloseBytes(1));
    host.Send(StateBytes(4, 1) + StateBytes(4, 3));
    EXPECT_EQ(peer->Wait(), 1);
    EXPECT_NE(peer->Errors().find("zu-camera-peer: camera 1 (Front) is back after "), std::string::npos);
    EXPECT_NE(peer->Errors().find("zu-camera-peer: camera 1 (Front) was away once\n"), std::string::npos);
    EXPECT_EQ(PlayedFrames(work / "a.mp4"), 3);
    EXPECT_EQ(PlayedFrames(work / "a-002.mp4"), 3);
    EXPECT_NE(Printed().find(work / "a.mp4" + " to " + (work / "a-002.mp4") + ": "), std::string::npos);
}

TEST_F(PeerPictures, RecordsOnAfterTheHostWasAway) {
    Start({"record", "0", work / "film.mkv", "--reconnect"});
    AnswerOpen();
    SendFrames(5);
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    host.Close();
    // Turned away once, then served.
    host.Accept();
    host.Send(NoticeBytes("busy: another peer is being served"));
    host.Close();
    host.Accept();
    AnswerOpen();
    EncodedStream again(640, 480);
    for (uint32_t i = 0; i < 4; ++i) {
        host.Send(FrameBytes(0, again.Next(i, 0)));
    }
    EXPECT_TRUE(peer->Says("is back after "));
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    peer->Signal(SIGINT);
    AnswerClose();
    EXPECT_EQ(peer->Wait(), 1);
    const std::string errors = peer->Errors();
    const std::string first =
        "zu-camera-peer: the host closed the connection; trying to connect again\n"
        "zu-camera-peer: the host says: busy: another peer is being served; trying to connect again\n"
        "zu-camera-peer: camera 0 (Front) is back after ";
    EXPECT_EQ(errors.substr(0, first.size()), first);
    EXPECT_NE(errors.find(" s\nzu-camera-peer: camera 0 (Front) was away once\n"), std::string::npos)
        << errors;
    EXPECT_EQ(PlayedFrames(work / "film.mkv"), 5);
    EXPECT_EQ(PlayedFrames(work / "film-002.mkv"), 4);
}

TEST_F(PeerPictures, PrintsTheReasonOfTheEndOnceWhileACameraIsOpen) {
    Start({"snapshot", "0", work / "picture.png"});
    AnswerOpen();
    host.Send(NoticeBytes("the host ends"));
    host.Close();
    ExpectEnd(1, "zu-camera-peer: the host says: the host ends\n");
}

TEST_F(PeerPictures, ShowsANoticeAndGoesOnRecording) {
    Start({"record", "0", work / "film.mkv", "--reconnect"});
    AnswerOpen();
    SendFrames(5);
    host.Send(NoticeBytes("the lid\x1b is closed") + NoticeBytes("the lid\x1b is closed"));
    EncodedStream again(640, 480);
    for (uint32_t i = 0; i < 4; ++i) {
        host.Send(FrameBytes(0, again.Next(i, 0)));
    }
    EXPECT_TRUE(peer->Says("the host says: "));
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    peer->Signal(SIGINT);
    AnswerClose();
    ExpectEnd(0, "zu-camera-peer: the host says: the lid\\x1b is closed\n");
    EXPECT_EQ(PlayedFrames(work / "film.mkv"), 9);
}

TEST_F(PeerPictures, EndsARecordingInTimeWhileTheHostIsAway) {
    const Bytes frames = NextFrames(5);
    Start({"record", "0", work / "film.mkv", "--reconnect", "--seconds", "1"});
    AnswerOpen(frames);
    host.Close();
    std::filesystem::remove(socket);
    EXPECT_EQ(peer->Wait(), 1);
    EXPECT_NE(peer->Errors().find("\nzu-camera-peer: camera 0 (Front) was away once\n"), std::string::npos)
        << peer->Errors();
    EXPECT_EQ(PlayedFrames(work / "film.mkv"), 5);
}

TEST_F(PeerPictures, WritesFramesToStandardOutputWhenTheyArrive) {
    Start({"record", "0", "-", "--container", "h264"});
    AnswerOpen();
    std::string sent;
    for (int i = 0; i < 3; ++i) {
        const Bytes frame = stream.Next(counter++, 0);
        host.Send(FrameBytes(0, frame));
        sent.append(frame.begin(), frame.end());
        WaitUntil([&] { return Printed().size() >= sent.size(); });
        EXPECT_EQ(Printed(), sent);
    }
    peer->Signal(SIGINT);
    AnswerClose();
    ExpectEnd(0, "");
}

class PeerWritesToAPipe : public PeerPictures {
protected:
    PeerWritesToAPipe() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        m_reader.Reset(ends[0]);
        const UniqueFd writer(ends[1]);
        peer = std::make_unique<ChildProcess>(
            std::vector<std::string>{ZU_PEER_FILE, "--socket", socket, "record", "0", "-", "--container",
                                     "h264"},
            work / "errors", -1, writer.Get());
        host.Accept();
        AnswerOpen();
    }

    int Reader() const { return m_reader.Get(); }
    void CloseReader() { m_reader.Reset(); }

    bool WaitUntilFull() const {
        return WaitUntil([this] {
            int waiting = 0;
            return ioctl(Reader(), FIONREAD, &waiting) == 0 && waiting >= kPipeSize;
        });
    }

    // A key frame of this many bytes.
    Bytes LargeFrame(size_t size) {
        Bytes frame = stream.Next(0, 0);
        frame.resize(size);
        return frame;
    }

    static constexpr int kPipeSize = 65536;

private:
    UniqueFd m_reader;
};

TEST_F(PeerWritesToAPipe, EndsWhenTheReaderIsGone) {
    SendFrames(1);
    char byte = 0;
    EXPECT_EQ(read(Reader(), &byte, 1), 1);
    CloseReader();
    SendFrames(1);
    AnswerClose();
    ExpectEnd(0, "");
}

TEST_F(PeerWritesToAPipe, EndsOnASignalWhileTheReaderIsBlocked) {
    // More than a pipe holds.
    EXPECT_TRUE(host.Send(FrameBytes(0, LargeFrame(200000))));
    EXPECT_TRUE(WaitUntilFull());
    peer->Signal(SIGTERM);
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: interrupted\n");
}

TEST_F(PeerWritesToAPipe, HoldsTheHostBackWhileTheReaderIsBlockedAndLosesNothing) {
    constexpr size_t kFrames = 60;
    const Bytes frame = LargeFrame(200000);
    const Bytes message = FrameBytes(0, frame);
    // The most bytes between the host and the reader: the pipe, in the peer one frame and what one read
    // returns, the socket (whose limit also counts its overhead), and the message that is being sent.
    const size_t most_in_transit = kPipeSize + message.size() + 65536 + 212992 + message.size();
    std::atomic<size_t> sent = 0;
    std::thread camera([&] {
        for (size_t i = 0; i < kFrames; ++i) {
            EXPECT_TRUE(host.Send(message));
            sent += message.size();
        }
        // Not lost either, although it is sent while nothing can be written.
        EXPECT_TRUE(host.Send(StateBytes(4, 0)));
    });
    EXPECT_TRUE(WaitUntilFull());
    Bytes written;
    Bytes piece(kPipeSize);
    for (ssize_t count = 0; (count = read(Reader(), piece.data(), piece.size())) > 0;) {
        written.insert(written.end(), piece.begin(), piece.begin() + count);
        EXPECT_LE(sent, written.size() + most_in_transit);
        if (written.size() == kFrames * frame.size()) {
            break;
        }
    }
    camera.join();
    ASSERT_EQ(written.size(), kFrames * frame.size());
    for (size_t i = 0; i < kFrames; ++i) {
        const auto at = written.begin() + static_cast<std::ptrdiff_t>(i * frame.size());
        ASSERT_TRUE(std::equal(frame.begin(), frame.end(), at)) << "frame " << i;
    }
    AnswerClose();
    ExpectEnd(1,
              "zu-camera-peer: camera 0 (Front) was closed by the host; the 60 frames before that are in "
              "standard output\n");
}

TEST_F(PeerPictures, ReportsTheSizeThatArrivesAfterAChange) {
    EncodedStream after(320, 240);
    Start({"format", "0", "--size", "320x240"});
    AnswerOpen();
    SendFrames(2);
    host.Expect(SetFormatBytes(0, 320, 240, 30) + kVersionRequestBytes);
    // Sent before the change.
    SendFrames(2);
    host.Send(kVersionReplyBytes);
    SendFrames(1);
    host.Send(FrameBytes(0, after.Next(0, 0)));
    AnswerClose();
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(), "camera 0 (Front): 640x480, then 320x240\n");
}

TEST_F(PeerPictures, ReportsThatTheSizeDidNotChange) {
    Start({"format", "0", "--size", "320x240"});
    AnswerOpen();
    SendFrames(1);
    host.Expect(SetFormatBytes(0, 320, 240, 30) + kVersionRequestBytes);
    host.Send(kVersionReplyBytes);
    SendFrames(20);
    AnswerClose();
    ExpectEnd(1, "zu-camera-peer: camera 0 (Front) sends 640x480, not the requested 320x240\n");
    EXPECT_EQ(Printed(), "camera 0 (Front): 640x480, then 640x480\n");
}

}  // namespace
}  // namespace zumod::testing
