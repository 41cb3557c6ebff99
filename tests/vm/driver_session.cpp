#include "tests/vm/driver_session.h"

#include <poll.h>

#include <cstring>
#include <stdexcept>

#include "tests/vm/device_requests.h"

namespace zumod::testing {
namespace {

// Long enough for an emulated machine under load.
constexpr std::chrono::milliseconds kLimit = std::chrono::seconds(30);

template <class Record>
Record RecordAt(const Bytes& bytes, size_t at) {
    if (at + sizeof(Record) > bytes.size()) {
        throw std::runtime_error("the message is too short");
    }
    Record record;
    std::memcpy(&record, bytes.data() + at, sizeof record);
    return record;
}

std::string TextOf(const char (&field)[kCameraNameSize]) {
    return {field, strnlen(field, sizeof field)};
}

}  // namespace

void DriverSession::SetUp() {
    ForgetCaptureThreads();
    Start(ZU_MODULE_DIR);
}

void DriverSession::TearDown() {
    Finish();
    if (HasFailure()) {
        for (const auto& [level, text] : runtime.lines) {
            if (text.find(" support ") == std::string::npos) {
                std::printf("%u %s\n", level, text.c_str());
            }
        }
    }
}

void DriverSession::Send(uint8_t type, const void* body, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(body);
    EXPECT_TRUE(peer->Send(MessageBytes(type, Bytes(bytes, bytes + size))));
}

std::optional<PeerMessage> DriverSession::Receive(std::chrono::milliseconds limit) {
    pollfd readable{peer->Descriptor(), POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(limit.count())) != 1) {
        return std::nullopt;
    }
    auto message = peer->Receive();
    if (!message) {
        throw std::runtime_error("the channel was closed");
    }
    if (message->type == kVideoFrame) {
        const auto head = RecordAt<VideoFrameHeader>(message->body, 0);
        m_frames[head.id].emplace_back(message->body.begin() + sizeof head, message->body.end());
    }
    return message;
}

std::vector<ListedCamera> DriverSession::List() {
    Send(kGetCameraList, nullptr, 0);
    for (;;) {
        const auto message = Receive(kLimit);
        if (!message) {
            throw std::runtime_error("no camera list came");
        }
        if (message->type != kCameraList) {
            continue;
        }
        std::vector<ListedCamera> cameras(RecordAt<uint32_t>(message->body, 0));
        size_t at = sizeof(uint32_t);
        for (ListedCamera& camera : cameras) {
            const auto record = RecordAt<CameraRecord>(message->body, at);
            at += sizeof record;
            camera = {record.id, TextOf(record.name), TextOf(record.display_name), {}};
            for (int i = 0; i < record.resolution_count; ++i, at += sizeof(ResolutionPair)) {
                const auto size = RecordAt<ResolutionPair>(message->body, at);
                camera.sizes.push_back(std::to_string(size.width) + "x" + std::to_string(size.height));
            }
        }
        EXPECT_EQ(at, message->body.size());
        return cameras;
    }
}

uint32_t DriverSession::AwaitState(uint32_t id) {
    for (;;) {
        const auto message = Receive(kLimit);
        if (!message) {
            throw std::runtime_error("no state notice came");
        }
        if (message->type == kCameraState) {
            const auto notice = RecordAt<StateNotice>(message->body, 0);
            EXPECT_EQ(notice.id, id);
            return notice.state;
        }
    }
}

uint32_t DriverSession::Open(const FormatRequest& request) {
    Send(kOpenCamera, &request, sizeof request);
    return AwaitState(request.id);
}

uint32_t DriverSession::Close(uint32_t id) {
    Send(kCloseCamera, &id, sizeof id);
    const uint32_t state = AwaitState(id);
    m_frames[id].clear();
    return state;
}

bool DriverSession::FrameComes(uint32_t id, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (m_frames[id].empty()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !Receive(left)) {
            return false;
        }
    }
    return true;
}

std::vector<uint8_t> DriverSession::NextFrame(uint32_t id) {
    if (!FrameComes(id, kLimit)) {
        throw std::runtime_error("no picture came");
    }
    std::vector<uint8_t> frame = std::move(m_frames[id].front());
    m_frames[id].pop_front();
    return frame;
}

bool DriverSession::FramesCome(uint32_t id, int count) {
    for (int i = 0; i < count; ++i) {
        if (!FrameComes(id, kLimit)) {
            return false;
        }
        m_frames[id].pop_front();
    }
    return true;
}

size_t DriverSession::CountLines(const std::string& start) {
    const std::lock_guard guard(runtime.mutex);
    size_t count = 0;
    for (const auto& [level, text] : runtime.lines) {
        count += text.rfind(start, 0) == 0 ? size_t{1} : size_t{0};
    }
    return count;
}

std::vector<std::string> DriverSession::Complaints(uint32_t id) {
    const std::lock_guard guard(runtime.mutex);
    const std::string camera = "devid " + std::to_string(id);
    std::vector<std::string> complaints;
    for (const auto& [level, text] : runtime.lines) {
        if (level == 4 && text.find(camera) != std::string::npos) {
            complaints.push_back(text);
        }
    }
    return complaints;
}

PictureReader::PictureReader()
    : m_codec(ZU_MODULE_DIR "/zu-codec.so"),
      m_policy(DecoderPolicyFor(m_ledger, kVideoTargetI420)),
      m_decoder(m_codec.Create<IVDecoder>(*m_policy)) {}

std::optional<Picture> PictureReader::Decode(const std::vector<uint8_t>& frame) {
    std::optional<Picture> last;
    DecodeCall call(frame, [&](const VideoDecodedPicture& picture) { last = CopyOf(picture); });
    m_decoder->Decode(&call);
    return last;
}

}  // namespace zumod::testing
