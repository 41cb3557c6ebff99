// A camera that another process feeds, and one that a FIFO feeds: server, feeder and program in one process.
#include "vcam/model/feed.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "vcam/cli/feeder.h"
#include "vcam/model/camera_option.h"
#include "vcam/model/camera_server.h"
#include "vcam/model/feed_input.h"
#include "vcam/model/fifo_input.h"
#include "vcam/preload/rpc_client.h"
#include "vcam/testing/requests.h"
#include "vcam/testing/test_rig.h"

namespace zumod::vcam {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;

// A picture whose luma is this everywhere.
PlanarImage Grey(unsigned width, unsigned height, uint8_t luma) {
    PlanarImage image(width, height);
    image.y.assign(image.y.size(), luma);
    return image;
}

Feeder::Picture ViewOf(const PlanarImage& image) {
    return {image.width,
            image.height,
            {image.y.data(), image.u.data(), image.v.data()},
            {image.width, image.chroma_width, image.chroma_width}};
}

// The memory alone, with the test as a feeder that keeps to nothing.
class FeedInputTest : public ::testing::Test {
protected:
    FeedInputTest() {
        const size_t size = FeedMemorySize(m_input->SlotSize());
        void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_input->Memory(), 0);
        EXPECT_NE(memory, MAP_FAILED);
        m_header = static_cast<FeedMemory*>(memory);
    }
    ~FeedInputTest() override { munmap(m_header, FeedMemorySize(m_input->SlotSize())); }

    void Offer(uint32_t slot, uint32_t width, uint32_t height) {
        m_header->pictures[slot % FeedMemory::kSlots].width = width;
        m_header->pictures[slot % FeedMemory::kSlots].height = height;
        m_header->newest = slot | FeedMemory::kNew;
    }
    std::string ErrorOfTake() {
        const auto taken = m_input->Take();
        return taken ? "none" : taken.error().text;
    }

    std::unique_ptr<FeedInput> m_input = FeedInput::Create(Configure("sizes=32x32:64x16,source=feed"));
    FeedMemory* m_header = nullptr;
};

TEST_F(FeedInputTest, HasRoomForTheLargestSizeAndCannotBeShrunk) {
    EXPECT_EQ(m_input->SlotSize(), 14155776U) << "4096x2304, for sizes that are not listed";
    EXPECT_EQ(FeedInput::Create(Configure("sizes=32x32:8192x4096,source=feed"))->SlotSize(), 50331648U);
    EXPECT_NE(ftruncate(m_input->Memory(), 0), 0);
    EXPECT_NE(fcntl(m_input->Memory(), F_ADD_SEALS, F_SEAL_WRITE), 0);
}

TEST_F(FeedInputTest, TakesEachPictureOnce) {
    EXPECT_FALSE(m_input->Take().value());
    Offer(2, 16, 16);
    auto* slot = reinterpret_cast<uint8_t*>(m_header) + kFeedHeaderSize + 2 * 14155776;
    slot[0] = 77;
    slot[256] = 88;
    slot[256 + 64] = 99;
    const auto taken = m_input->Take().value();
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->width, 16U);
    EXPECT_EQ(taken->y[0], 77);
    EXPECT_EQ(taken->u[0], 88);
    EXPECT_EQ(taken->v[0], 99);
    EXPECT_FALSE(m_input->Take().value());
}

TEST_F(FeedInputTest, RefusesASlotThatDoesNotExist) {
    Offer(3, 16, 16);
    EXPECT_EQ(ErrorOfTake(), "it names a slot that does not exist");
}

TEST_F(FeedInputTest, RefusesAPictureThatDoesNotFitIntoItsSlot) {
    const std::pair<uint32_t, uint32_t> sizes[] = {
        {0, 16},       {16, 0}, {14, 16}, {17, 16}, {4098, 2304}, {8192, 8192}, {0xffffffff, 0xffffffff},
        {65536, 65536}};
    for (const auto& [width, height] : sizes) {
        Offer(0, width, height);
        EXPECT_EQ(ErrorOfTake(),
                  "its picture of " + std::to_string(width) + "x" + std::to_string(height) + " does not fit");
    }
    Offer(0, 32, 32);
    EXPECT_EQ(ErrorOfTake(), "none");
}

// A server with one camera, and a program that has it open.
class LiveCameraTest : public ::testing::Test {
protected:
    void Serve(const std::string& options) {
        m_server = CameraServer::Start({ParseCamera(options).value()}, {}, [this](const std::string& line) {
                       const MutexLock held(m_lock);
                       m_log.push_back(line);
                   }).value();
    }
    Camera& Device() { return m_server->At(0); }
    Feeder Connect() { return Feeder::Connect(m_server->Name(), 0).value(); }
    // A receive fails after the deadline.
    UniqueFd ConnectWithLimit() {
        UniqueFd socket(ConnectServer(m_server->Name().c_str()));
        const timeval limit{kDeadline.count(), 0};
        EXPECT_EQ(setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
        return socket;
    }

    static bool Eventually(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + kDeadline;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            usleep(1000);
        }
        return true;
    }
    std::vector<std::string> Log() {
        const MutexLock held(m_lock);
        return m_log;
    }
    // The next notice.
    static FeedNotice Notice(Feeder& feeder) {
        pollfd state{feeder.Descriptor(), POLLIN, 0};
        EXPECT_EQ(poll(&state, 1, 20000), 1);
        return feeder.Receive().value().value_or(FeedNotice{});
    }

    Mutex m_lock;
    std::vector<std::string> m_log ZU_GUARDED_BY(m_lock);
    std::unique_ptr<CameraServer> m_server;
};

// The program's side, as TestRig but of a camera in a server.
class Program {
public:
    explicit Program(Camera& camera) : m_file(camera) {}
    ~Program() { munmap(m_memory, m_length); }

    void SetSize(uint32_t width, uint32_t height) {
        v4l2_format format = Format(width, height, V4L2_PIX_FMT_NV12);
        EXPECT_EQ(m_file.Ioctl(VIDIOC_S_FMT, &format), 0);
    }
    void Start() {
        v4l2_requestbuffers request = BufferRequest(2);
        ASSERT_EQ(m_file.Ioctl(VIDIOC_REQBUFS, &request), 0);
        v4l2_buffer buffer = Buffer(0);
        ASSERT_EQ(m_file.Ioctl(VIDIOC_QUERYBUF, &buffer), 0);
        m_length = buffer.length;
        m_memory = m_file.Map(m_length, PROT_READ | PROT_WRITE, 0);
        ASSERT_NE(m_memory, MAP_FAILED);
        ASSERT_EQ(m_file.Ioctl(VIDIOC_QBUF, &buffer), 0);
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ASSERT_EQ(m_file.Ioctl(VIDIOC_STREAMON, &type), 0);
    }
    void Stop() {
        uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(m_file.Ioctl(VIDIOC_STREAMOFF, &type), 0);
    }
    // The luma of the next frame's first pixel, with its sequence number.
    std::pair<int, uint32_t> Next() {
        pollfd state{m_file.Descriptor(), POLLIN, 0};
        v4l2_buffer buffer = Buffer();
        if (poll(&state, 1, 20000) != 1 || m_file.Ioctl(VIDIOC_DQBUF, &buffer) != 0) {
            return {-1, 0};
        }
        const int luma = *static_cast<uint8_t*>(m_memory);
        v4l2_buffer again = Buffer(0);
        EXPECT_EQ(m_file.Ioctl(VIDIOC_QBUF, &again), 0);
        return {luma, buffer.sequence};
    }
    // The first frame with this luma, of at most a thousand.
    bool Sees(int luma) {
        for (int frames = 0; frames < 1000; ++frames) {
            const int seen = Next().first;
            if (seen == luma || seen < 0) {
                return seen == luma;
            }
        }
        return false;
    }
    void Close() { m_file.Close(); }

private:
    ModelFile m_file;
    void* m_memory = nullptr;
    size_t m_length = 0;
};

TEST_F(LiveCameraTest, TellsTheFeederWhenAProgramStreamsAndShowsItsPictures) {
    Serve("formats=NV12,sizes=64x64:32x32,fps=100:25,source=feed");
    Feeder feeder = Connect();
    EXPECT_EQ(Notice(feeder), (FeedNotice{0, 64, 64, 100, 1}));
    Program program(Device());
    program.Start();
    EXPECT_EQ(Notice(feeder), (FeedNotice{1, 64, 64, 100, 1}));
    EXPECT_EQ(program.Next().first, 16) << "black until the first picture";
    ASSERT_TRUE(feeder.Put(ViewOf(Grey(64, 64, 91))));
    EXPECT_TRUE(program.Sees(91));
    ASSERT_TRUE(feeder.Put(ViewOf(Grey(32, 32, 92)))) << "another size is scaled";
    EXPECT_TRUE(program.Sees(92));
    program.Stop();
    EXPECT_EQ(Notice(feeder), (FeedNotice{0, 64, 64, 100, 1}));
}

TEST_F(LiveCameraTest, ShowsPicturesInASizeThatIsNotListed) {
    Serve("formats=NV12,sizes=64x64,fps=100,adjust=exact,source=feed");
    Feeder feeder = Connect();
    EXPECT_EQ(Notice(feeder).is_streaming, 0U);
    Program program(Device());
    program.SetSize(192, 108);
    ASSERT_NO_FATAL_FAILURE(program.Start());
    EXPECT_EQ(Notice(feeder).width, 192U);
    EXPECT_EQ(Notice(feeder), (FeedNotice{1, 192, 108, 100, 1}));
    ASSERT_TRUE(feeder.Put(ViewOf(Grey(192, 108, 91))));
    EXPECT_TRUE(program.Sees(91));
}

TEST_F(LiveCameraTest, TellsTheFeederWhenAProgramClosesWithoutStopping) {
    Serve("formats=NV12,sizes=64x64,fps=100,source=feed");
    Feeder feeder = Connect();
    EXPECT_EQ(Notice(feeder).is_streaming, 0U);
    {
        Program program(Device());
        program.Start();
        EXPECT_EQ(Notice(feeder).is_streaming, 1U);
    }
    EXPECT_EQ(Notice(feeder).is_streaming, 0U);
}

TEST_F(LiveCameraTest, DoesNotShowAProgramWhatAnotherOneSaw) {
    Serve("formats=NV12,sizes=64x64,fps=100,source=feed");
    Feeder feeder = Connect();
    {
        Program first(Device());
        first.Start();
        ASSERT_TRUE(feeder.Put(ViewOf(Grey(64, 64, 91))));
        EXPECT_TRUE(first.Sees(91));
    }
    ASSERT_TRUE(Eventually([this] { return Device().Status().open_files == 0; }));
    Program second(Device());
    ASSERT_NO_FATAL_FAILURE(second.Start());
    EXPECT_EQ(second.Next().first, 16);
}

TEST_F(LiveCameraTest, AnswersNoProgramOfAnotherVersion) {
    Serve("source=feed,sizes=64x64");
    for (const uint32_t version : {2U, 3U, 4U}) {
        const UniqueFd socket = ConnectWithLimit();
        Request request = MakeRequest(Operation::kFeed);
        EXPECT_EQ(request.version, 3U);
        request.version = version;
        EXPECT_EQ(send(socket.Get(), &request, sizeof request, MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof request));
        Reply reply{};
        EXPECT_EQ(recv(socket.Get(), &reply, sizeof reply, 0), version == 3 ? sizeof reply : 0U) << version;
    }
}

TEST_F(LiveCameraTest, SaysWhyAFeederIsDisconnectedButNotEachTime) {
    Serve("source=feed,sizes=64x64");
    for (int i = 0; i < 9; ++i) {
        // A feeder that keeps to nothing. The server serves one at a time.
        const UniqueFd socket = ConnectWithLimit();
        const Request request = MakeRequest(Operation::kFeed);
        EXPECT_EQ(send(socket.Get(), &request, sizeof request, MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof request));
        Reply reply{};
        iovec part{&reply, sizeof reply};
        int memory = -1;
        alignas(cmsghdr) char control[CMSG_LEN(sizeof memory)] = {};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        EXPECT_EQ(recvmsg(socket.Get(), &message, MSG_CMSG_CLOEXEC), static_cast<ssize_t>(sizeof reply));
        ASSERT_EQ(reply.error, 0);
        ASSERT_NE(CMSG_FIRSTHDR(&message), nullptr);
        std::memcpy(&memory, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof memory);
        const UniqueFd owned(memory);
        const uint32_t no_slot = FeedMemory::kNew | 3;
        EXPECT_EQ(pwrite(memory, &no_slot, sizeof no_slot, offsetof(FeedMemory, newest)),
                  static_cast<ssize_t>(sizeof no_slot));
        const FeedCommand command{FeedCommand::kPicture};
        EXPECT_EQ(send(socket.Get(), &command, sizeof command, MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof command));
        // Notices, then the end.
        char bytes[64];
        ssize_t received = 0;
        do {
            received = recv(socket.Get(), bytes, sizeof bytes, 0);
        } while (received > 0);
        EXPECT_EQ(received, 0) << "the server does not disconnect it";
    }
    const std::string text =
        "the program that feeds camera 0 is disconnected: it names a slot that does not exist";
    EXPECT_EQ(Log(), (std::vector<std::string>{text, text + ", after 1 before", text + ", after 3 before",
                                               text + ", after 7 before"}));
}

TEST_F(LiveCameraTest, IsUnpluggedWhileItHasNoFeeder) {
    Serve("source=feed,sizes=64x64,formats=NV12,fps=100");
    EXPECT_EQ(Device().Number(), 0) << "until the first feeder came";
    {
        Feeder feeder = Connect();
        const auto second = Feeder::Connect(m_server->Name(), 0);
        ASSERT_FALSE(second);
        EXPECT_EQ(second.error().text, "camera 0 cannot be fed: Device or resource busy");
        EXPECT_EQ(Device().Number(), 0);
        ASSERT_TRUE(feeder.SetPlugged(false));
        EXPECT_TRUE(Eventually([this] { return Device().Number() == -1; }));
        ASSERT_TRUE(feeder.SetPlugged(true));
        EXPECT_TRUE(Eventually([this] { return Device().Number() == 0; }));
    }
    EXPECT_TRUE(Eventually([this] { return Device().Number() == -1; }));
    Feeder again = Connect();
    EXPECT_TRUE(Eventually([this] { return Device().Number() == 0; }));
}

TEST_F(LiveCameraTest, ReturnsOnlyWithAFeederAlsoIfAFaultPlugsItIn) {
    Serve("source=feed,sizes=64x64,fault=replug");
    {
        Feeder feeder = Connect();
        ASSERT_TRUE(feeder.SetPlugged(false));
        EXPECT_TRUE(Eventually([this] { return Device().Number() == -1; }));
        Device().Inject(ParseFault("replug-as/5").value());
        EXPECT_EQ(Device().Number(), -1) << "the feeder unplugged it";
        ASSERT_TRUE(feeder.SetPlugged(true));
        EXPECT_TRUE(Eventually([this] { return Device().Number() == 5; }));
    }
    EXPECT_TRUE(Eventually([this] { return Device().Number() == -1; }));
    Feeder again = Connect();
    EXPECT_TRUE(Eventually([this] { return Device().Number() == 5; }));
    Device().Inject(ParseFault("unplug").value());
    EXPECT_EQ(Device().Number(), 5) << "the fault replug was kept for this";
}

TEST_F(LiveCameraTest, LetsNoFeederReplaceAReplugThatIsPlanned) {
    Serve("source=feed,sizes=64x64,fault=replug-as/5/3600000");
    Device().Inject(ParseFault("unplug").value());
    Feeder feeder = Connect();
    EXPECT_EQ(Notice(feeder).is_streaming, 0U) << "the server has it";
    EXPECT_EQ(Device().Number(), -1);
    Device().SetPlugged(true);
    EXPECT_EQ(Device().Number(), -1);
    Device().Inject(ParseFault("replug-as/6").value());
    EXPECT_EQ(Device().Number(), 6);
}

TEST_F(LiveCameraTest, RefusesAFeederForAnotherCamera) {
    Serve("sizes=64x64");
    EXPECT_EQ(Feeder::Connect(m_server->Name(), 0).error().text,
              "camera 0 cannot be fed: Operation not supported");
    EXPECT_EQ(Feeder::Connect(m_server->Name(), 7).error().text, "camera 7 cannot be fed: No such device");
    EXPECT_EQ(Feeder::Connect("nobody.at.all", 0).error().text, "no virtual cameras: No such device");
}

// Whatever else they shared, such as the flags of a descriptor, could make the server wait for the feeder.
TEST_F(LiveCameraTest, SharesNothingWithTheFeederButSealedMemory) {
    Serve("sizes=64x64,source=feed");
    const UniqueFd socket(ConnectServer(m_server->Name().c_str()));
    Request request = MakeRequest(Operation::kFeed);
    ASSERT_EQ(send(socket.Get(), &request, sizeof request, 0), static_cast<ssize_t>(sizeof request));
    char bytes[256];
    iovec part{bytes, sizeof bytes};
    alignas(cmsghdr) char control[256] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ASSERT_EQ(recvmsg(socket.Get(), &message, MSG_CMSG_CLOEXEC),
              static_cast<ssize_t>(sizeof(Reply) + sizeof(FeedOffer)));
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    ASSERT_NE(header, nullptr);
    ASSERT_EQ(header->cmsg_len, CMSG_LEN(sizeof(int)));
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    const UniqueFd memory(descriptor);
    EXPECT_EQ(fcntl(memory.Get(), F_GET_SEALS), F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
}

TEST_F(LiveCameraTest, ServesProgramsWhileAFeederSendsMoreThanItHas) {
    Serve("formats=NV12,sizes=64x64,fps=100,source=feed");
    const UniqueFd socket(ConnectServer(m_server->Name().c_str()));
    Request request = MakeRequest(Operation::kFeed);
    ASSERT_EQ(send(socket.Get(), &request, sizeof request, 0), static_cast<ssize_t>(sizeof request));
    for (int command = 0; command < 1000; ++command) {
        const FeedCommand picture{FeedCommand::kPicture};
        ASSERT_EQ(send(socket.Get(), &picture, sizeof picture, MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof picture));
    }
    Program program(Device());
    ASSERT_NO_FATAL_FAILURE(program.Start());
    EXPECT_EQ(program.Next().first, 16) << "black";
}

TEST_F(LiveCameraTest, TakesNoPictureThatIsTooLarge) {
    Serve("sizes=64x64,source=feed");
    Feeder feeder = Connect();
    EXPECT_FALSE(feeder.Put(ViewOf(Grey(4098, 2304, 1))));
    EXPECT_FALSE(feeder.Put({0xfffffffe, 0xfffffffe, {}, {}}));
}

// A FIFO in a directory that is removed afterwards.
class FifoCameraTest : public LiveCameraTest {
protected:
    FifoCameraTest() {
        EXPECT_NE(mkdtemp(m_directory.data()), nullptr);
        EXPECT_EQ(mkfifo(Fifo().c_str(), 0600), 0);
    }
    ~FifoCameraTest() override {
        m_server.reset();
        std::filesystem::remove_all(m_directory);
    }

    std::string Fifo() const { return m_directory + "/fifo"; }
    // Opens the FIFO, writes and closes it.
    void Write(const std::string& bytes) const {
        const UniqueFd fd(open(Fifo().c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(write(fd.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    static std::string Y4m(char luma) {
        return "YUV4MPEG2 W16 H16 F30:1\nFRAME\n" + std::string(256, luma) + std::string(128, 'c');
    }

    std::string m_directory = "/tmp/zu-fifo-XXXXXX";
};

TEST_F(FifoCameraTest, ShowsWhatWritersWriteOneAfterTheOther) {
    Serve("formats=NV12,sizes=16x16,fps=100,source=y4m:" + Fifo());
    Program program(Device());
    ASSERT_NO_FATAL_FAILURE(program.Start());
    EXPECT_EQ(program.Next().first, 16);
    for (const char luma : {'A', 'B', 'C'}) {
        Write(Y4m(luma));
        EXPECT_TRUE(program.Sees(luma)) << luma;
        EXPECT_EQ(program.Next().first, luma) << "the last picture stays";
    }
}

TEST_F(FifoCameraTest, RefusesAMalformedStreamAndShowsTheNext) {
    Serve("formats=NV12,sizes=16x16,fps=100,source=y4m:" + Fifo());
    Program program(Device());
    ASSERT_NO_FATAL_FAILURE(program.Start());
    Write("RIFFmpeg\nFRAME\n" + std::string(384, 'x'));
    ASSERT_TRUE(Eventually([this] { return !Log().empty(); }));
    EXPECT_EQ(Log()[0],
              Fifo() + ": refused: not a Y4M file. The last picture stays until another program writes");
    EXPECT_EQ(program.Next().first, 16);
    // A writer may come before the last one's end is seen: then its bytes are refused, too.
    EXPECT_TRUE(Eventually([&] {
        Write(Y4m('D'));
        return program.Next().first == 'D';
    }));
}

TEST_F(FifoCameraTest, ShowsRawPictures) {
    Serve("formats=NV12,fps=100,source=raw:YUYV:16x16:" + Fifo());
    EXPECT_EQ(Device().Status().size, (Size{16, 16}));
    Program program(Device());
    ASSERT_NO_FATAL_FAILURE(program.Start());
    std::string picture;
    for (int pair = 0; pair < 16 * 8; ++pair) {
        picture += "LuLv";
    }
    Write(picture);
    EXPECT_TRUE(program.Sees('L'));
}

// A writer may come, write and leave while the camera opens the FIFO again. Then poll() reports its bytes and
// never a hang-up. A reader that keeps the bytes produces the same state here.
TEST_F(FifoCameraTest, ForgetsThePartThatAWriterLeftBeforeTheFifoWasOpened) {
    const UniqueFd keeps_bytes(open(Fifo().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    Write("part");
    auto input = FifoInput::Open({LiveSource::kRaw, Fifo(), V4L2_PIX_FMT_NV12, {16, 16}}).value();
    std::vector<int> lumas;
    const auto on_picture = [&lumas](const PlanarImage& image, uint64_t /*count*/) {
        lumas.push_back(image.y[0]);
    };
    input.OnReadable(on_picture, {});
    Write(std::string(384, 'W'));
    input.OnReadable(on_picture, {});
    EXPECT_EQ(lumas, std::vector<int>{'W'});
}

TEST_F(FifoCameraTest, TakesOnlyAPieceOfAFullPipeAtOnceSoThatRequestsDoNotWait) {
    auto input = FifoInput::Open({LiveSource::kRaw, Fifo(), V4L2_PIX_FMT_NV12, {16, 16}}).value();
    const UniqueFd writer(open(Fifo().c_str(), O_WRONLY | O_CLOEXEC));
    const std::string bytes(200000, 'W');
    ASSERT_EQ(write(writer.Get(), bytes.data(), bytes.size()), 200000);
    const auto unread = [&input] {
        int count = -1;
        ioctl(input.Descriptor(), FIONREAD, &count);
        return count;
    };
    for (const int left : {134464, 68928, 3392, 0}) {
        input.OnReadable([](const PlanarImage& /*image*/, uint64_t /*count*/) {}, {});
        EXPECT_EQ(unread(), left);
    }
}

TEST_F(FifoCameraTest, LosesPicturesOfAFastWriterButNotTheNewest) {
    Serve("formats=NV12,sizes=16x16,fps=100,source=y4m:" + Fifo());
    Program program(Device());
    ASSERT_NO_FATAL_FAILURE(program.Start());
    std::string film = "YUV4MPEG2 W16 H16\n";
    for (int frame = 0; frame < 200; ++frame) {
        film += "FRAME\n" + std::string(384, frame == 199 ? 'Z' : 'A');
    }
    Write(film);
    EXPECT_TRUE(program.Sees('Z'));
    EXPECT_GT(program.Next().second, 150U) << "the sequence number counts the lost pictures";
}

}  // namespace
}  // namespace zumod::vcam
