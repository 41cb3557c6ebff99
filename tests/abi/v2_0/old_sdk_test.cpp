// Hosts and codecs that were built from version 2.0 of the SDK, with the modules of today. The host's
// classes, and those of codec.cpp, are compiled from the frozen declarations in sdk.h.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/abi/v2_0/sdk.h"
#include "tests/support/wire/camera_messages.h"
#include "tests/support/wire/peer_client.h"
#include "vcam/testing/preloaded_cameras.h"

namespace {

using namespace sdk_v2_0;
using zumod::testing::Bytes;
using zumod::testing::PeerClient;
using zumod::testing::operator+;
namespace wire = zumod::testing;

class Host final : public IZUModRuntime {
public:
    explicit Host(const char* modules = "") : m_modules(CZUModData::FromText(modules)) {}

    int WriteLog(uint32_t level, const char* text) override {
        const std::lock_guard guard(m_mutex);
        const auto line = std::to_string(level) + " " + text;
        if (std::find(m_lines.begin(), m_lines.end(), line) == m_lines.end()) {
            m_lines.push_back(line);
        }
        return 0;
    }
    int32_t Service2(uint8_t, uint64_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    int32_t Service3(uint8_t, uint64_t, uint64_t, uint64_t) override { return 0; }
    IZUModData* GetEnvProperty(const char* key) override {
        return std::string(key) == "zu.env.modules.dir" ? m_modules.Get() : nullptr;
    }

    // The different lines that begin with this, each once, in order.
    std::vector<std::string> Lines(const std::string& start) {
        const std::lock_guard guard(m_mutex);
        std::vector<std::string> found;
        std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(found),
                     [&](const std::string& line) { return line.rfind(start, 0) == 0; });
        return found;
    }

private:
    const CRefPtr_T<IZUModData> m_modules;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;  // guarded by m_mutex
};

class Stream final : public CCounted_T<IChannelStream> {
public:
    explicit Stream(int fd) : m_fd(fd) {}
    ~Stream() override { close(m_fd); }

    int Read(void* data, unsigned long size, unsigned long* done) override {
        return Done(recv(m_fd, data, size, 0), done);
    }
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        return Done(send(m_fd, data, size, MSG_NOSIGNAL), done);
    }

private:
    static int Done(ssize_t count, unsigned long* done) {
        *done = count > 0 ? static_cast<unsigned long>(count) : 0;
        return count > 0 ? 0 : -1;
    }

    const int m_fd;
};

// The descriptor of the module in this file; never closed.
const ZUModDescriptor* Load(const char* file) {
    void* library = dlopen(file, RTLD_NOW);
    EXPECT_NE(library, nullptr) << dlerror();
    return reinterpret_cast<EntryPointFunction>(dlsym(library, "zumod_get_entrypoint"))();
}

// What the module creates for this policy, with the reference that came with it.
template <class Interface>
CRefPtr_T<Interface> Create(const ZUModDescriptor& module, const CRefPtr_T<CZUModPolicy>& policy) {
    IZUModInterface* created = nullptr;
    EXPECT_EQ(module.create(policy.Get(), &created), 1);
    return CRefPtr_T<Interface>::Adopt(static_cast<Interface*>(static_cast<void*>(created)));
}

// The peer's part of a session: versions, list, open, at least three frames, set property, close. Stores the
// first frame's encoded bytes.
void Converse(const PeerClient& peer, Bytes& first) {
    ASSERT_TRUE(peer.Send(wire::kVersionRequestBytes));
    ASSERT_EQ(peer.ReceiveBytes(12), wire::kVersionReplyBytes);
    ASSERT_TRUE(peer.Send(wire::kGetListBytes));
    ASSERT_EQ(peer.ReceiveBytes(12 + 1304 + 8),
              wire::ListBytes({wire::CameraBytes(0, "Front", {{640, 480}})}));
    ASSERT_TRUE(peer.Send(wire::OpenBytes(0)));
    // The state and the frames come from two threads, in any order.
    int frames = 0;
    int states = 0;
    while (frames < 3 || states < 1) {
        const auto message = peer.Receive();
        ASSERT_TRUE(message) << "the session has ended";
        if (message->type == 7) {
            ASSERT_GE(message->body.size(), 8U);
            ASSERT_EQ((Bytes{message->body.begin(), message->body.begin() + 4}), (Bytes{0, 0, 0, 0}));
            first = frames++ == 0 ? Bytes{message->body.begin() + 8, message->body.end()} : first;
        } else {
            ASSERT_EQ(wire::MessageBytes(message->type, message->body), wire::StateBytes(2, 0));
            ++states;
        }
    }
    ASSERT_TRUE(peer.Send(wire::SetPropertyBytes(0)));
    ASSERT_TRUE(peer.Send(wire::CloseBytes(0)));
    const auto closed = peer.ReceiveType(5);
    ASSERT_TRUE(closed);
    ASSERT_EQ(wire::MessageBytes(5, closed->body), wire::StateBytes(4, 0));
}

// One session of the host and a peer. Returns the first frame's encoded bytes.
Bytes RunSession(Host& host) {
    const zumod::vcam::PreloadedCameras cameras{"card=Front,formats=NV12,sizes=640x480,fps=30"};
    const ZUModDescriptor* module = Load(ZU_MODULE_FILE);
    EXPECT_EQ(module->version, 0x0002000000000000U);
    EXPECT_STREQ(module->name, "zu-client-camera");
    EXPECT_EQ(module->attach_runtime(&host), 1);
    const CRefPtr_T<CZUModPolicy> policy(new CZUModPolicy("IClientCameraPlugin", 0x0002000000000000));
    const auto plugin = Create<IClientCameraPlugin>(*module, policy);

    EXPECT_EQ(plugin->ReservedAutoConfig(), 0);
    EXPECT_EQ(plugin->ReservedPlugin8(), 0);
    EXPECT_EQ(plugin->ReservedPlugin9(), 0);
    EXPECT_EQ(plugin->ReservedPlugin10().Get(), nullptr);
    plugin->ReservedPlugin11();
    // The conversion reads the offset of the virtual base from the module's table.
    IZUModInterface* base = plugin.Get();
    void* out = &host;
    EXPECT_FALSE(base->QueryInterface("IClientCameraPlugin", &out));
    EXPECT_EQ(out, &host);
    EXPECT_FALSE(base->SetProperty("any", nullptr));
    EXPECT_EQ(base->GetProperty("any"), nullptr);
    EXPECT_EQ(base->AddRef(), 2U);
    EXPECT_EQ(base->Release(), 1);

    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const CRefPtr_T<Stream> stream(new Stream(ends[0]));
    EXPECT_EQ(plugin->SetChannelStream(stream.Get()), 0);
    const PeerClient peer{zumod::UniqueFd(ends[1])};
    std::thread run([&] { EXPECT_EQ(plugin->Run(), 1); });
    Bytes first;
    Converse(peer, first);
    peer.Hang();
    run.join();
    EXPECT_EQ(plugin->ExitInstance(), 0);
    return first;
}

TEST(OldSdk, AnOldHostAndAnOldCodecServeAPeerThroughTheModuleOfToday) {
    Host host(ZU_OLD_CODEC_DIR);
    EXPECT_EQ(RunSession(host), (Bytes{'o', 'l', 'd', '!'}));
    EXPECT_EQ(host.Lines("1 [old codec]"),
              (std::vector<std::string>{
                  "1 [old codec] create IVEncoder 281474976710658 9 false false false true",
                  "1 [old codec] property zu.codec.property.hardware type 1 value 1",
                  "1 [old codec] format 640 x 480 stride 640 bits 8 code 0x3231564e",
                  "1 [old codec] encode 460800 bytes option 0 flags 0 output 64, 4, 4",
                  "1 [old codec] destroy",
              }));
    EXPECT_EQ(host.Lines("1 [cameraclient]"),
              (std::vector<std::string>{
                  "1 [cameraclient] create",
                  "1 [cameraclient] Run start",
                  "1 [cameraclient] OnProtoGetCameraList, count 1",
                  "1 [cameraclient] OnProtoOpenCamera id 0 w 640 h 480 fps 30",
                  "1 [cameraclient] OnProtoSetProperty id 0 prop 5 value -2 auto 1",
                  "1 [cameraclient] OnProtoCloseCamera id 0",
                  "1 [cameraclient] Run return",
                  "1 [cameraclient] ExitInstance",
                  "1 [cameraclient] destroy",
              }));
    EXPECT_EQ(host.Lines("4 "), std::vector<std::string>{});
}

TEST(OldSdk, AnOldHostServesAPeerThroughTheModuleAndTheCodecOfToday) {
    Host host(ZU_MODULE_DIR);
    const Bytes first = RunSession(host);
    ASSERT_GE(first.size(), 5U);
    EXPECT_EQ((Bytes{first.begin(), first.begin() + 4}), (Bytes{0, 0, 0, 1}));
    EXPECT_EQ(host.Lines("4 "), std::vector<std::string>{});
}

// ---- An old caller of the codec module.

class Picture final : public CCounted_T<IVEncArgs> {
public:
    explicit Picture(Bytes bytes) : m_input(std::move(bytes)) {}

    uint64_t GetArgOption() override { return 0; }
    const void* GetInputData() override { return m_input.data(); }
    uint64_t GetInputSize() override { return m_input.size(); }
    uint64_t GetArgFlags() override { return 0; }
    void ResetArgs() override {}
    uint64_t PrepareOutput(uint32_t size) override {
        output.resize(size);
        return output.size();
    }
    void* GetOutputData() override { return output.data(); }
    uint64_t GetOutputSize() override { return output.size(); }

    Bytes output;

private:
    const Bytes m_input;
};

class Encoded final : public CCounted_T<IVDecArgs> {
public:
    const void* GetInputData() override { return input.data(); }
    uint64_t GetInputSize() override { return input.size(); }
    void OnPicture(const VideoDecodedPicture* picture) override {
        ++pictures;
        EXPECT_EQ(picture->width, 160);
        EXPECT_EQ(picture->height, 120);
        EXPECT_EQ(picture->format, 0x3231564EU);
        EXPECT_EQ(picture->plane_count, 2);
        EXPECT_EQ(picture->key_frame, 1);
        EXPECT_GE(picture->strides[0], 160);
        EXPECT_NEAR(picture->planes[0][119 * picture->strides[0] + 159], 200, 4);
        EXPECT_NEAR(picture->planes[1][59 * picture->strides[1] + 159], 90, 4);
    }

    Bytes input;
    int pictures = 0;
};

constexpr VideoInputFormat kInput = {160, 120, 160, 8, 0x3231564E};
constexpr VideoOutputFormat kOutput = {160, 120, 0, 0x3231564E};

CRefPtr_T<CZUModPolicy> CodecPolicy(const char* interface_name) {
    CRefPtr_T<CZUModPolicy> policy(new CZUModPolicy(interface_name, 0x0001000000000002));
    policy->Set("zu.codec.policy.imagetype", CZUModData::FromInt64(9));
    return policy;
}

TEST(OldSdk, AnOldCallerEncodesAndDecodesWithTheCodecOfToday) {
    Host host;
    const ZUModDescriptor* module = Load(ZU_MODULE_DIR "/zu-codec.so");
    EXPECT_STREQ(module->name, "zu-codec");
    EXPECT_EQ(module->version >> 48, 1U);
    EXPECT_EQ(module->attach_runtime(&host), 1);
    {
        const auto policy = CodecPolicy("IVEncoder");
        policy->Set("zu.codec.policy.enc.no.stream.header", CZUModData::FromBool(true));
        const auto encoder = Create<IVEncoder>(*module, policy);
        void* out = nullptr;
        EXPECT_TRUE(encoder->QueryInterface("IVEncoder", &out));
        EXPECT_EQ(out, encoder.Get());
        EXPECT_EQ(encoder->Release(), 1);
        EXPECT_TRUE(encoder->SetProperty("zu.codec.property.hardware", CZUModData::FromBool(false).Get()));
        EXPECT_EQ(encoder->ReservedEncoder7() + encoder->ReservedEncoder9() + encoder->ReservedEncoder11() +
                      encoder->ReservedEncoder19(),
                  0);
        const CRefPtr_T<Picture> picture(new Picture(Bytes(160 * 120, 200) + Bytes(160 * 60, 90)));
        EXPECT_EQ(encoder->SetInputFormat(&kInput), 1);
        ASSERT_TRUE(encoder->Encode(picture.Get()));
        const CRefPtr_T<IZUModData> header(encoder->GetProperty("zu.codec.property.stream.header"));
        ASSERT_NE(header.Get(), nullptr);
        ASSERT_NE(header->GetBlock(), nullptr);
        const auto* bytes = static_cast<const uint8_t*>(header->GetBlock());

        const auto policy_of_decoder = CodecPolicy("IVDecoder");
        policy_of_decoder->Set("zu.codec.policy.dec.target.avformat", CZUModData::FromInt64(1));
        const auto decoder = Create<IVDecoder>(*module, policy_of_decoder);
        EXPECT_EQ(decoder->ReservedDecoder7() + decoder->ReservedDecoder19(), 0);
        EXPECT_EQ(decoder->SetOutputFormat(&kOutput), 1);
        const CRefPtr_T<Encoded> encoded(new Encoded);
        encoded->input = Bytes(bytes, bytes + header->GetSize()) + picture->output;
        decoder->Decode(encoded.Get());
        encoded->input.clear();
        decoder->Decode(encoded.Get());
        EXPECT_EQ(encoded->pictures, 1);
    }
    EXPECT_EQ(host.Lines("4 "), std::vector<std::string>{});
    module->detach_runtime();
}

}  // namespace
