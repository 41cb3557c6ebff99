// Feeds a plugin any bytes as its peer's, over a stream that divides them into pieces and whose writes
// fail at some point.
//
// Input: the most bytes per read (0: no limit), the number of bytes after which writes fail (0xFF: never),
// whether cameras can be opened, then the peer's bytes.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "src/base/mem_buffer.h"
#include "src/module/attach_runtime.h"
#include "src/plugin/channel_io.h"
#include "src/plugin/client_camera.h"
#include "tests/fuzz/camera_channel_model.h"
#include "tests/fuzz/check.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/quiet_host.h"
#include "tests/support/doubles/scripted_stream.h"

namespace zumod {
namespace {

constexpr size_t kOptions = 3;

// Refuses sizes with which a fuzzer would only exhaust the machine.
class BoundedAlloctor final : public CCounted_T<IMemAlloctor> {
public:
    static constexpr uint64_t kLimit = 1 << 20;

    CRefPtr_T<IBuffer> Alloc(uint64_t size) override { return AllocBuffer(size); }
    CRefPtr_T<IBuffer> AllocBuffer(uint64_t size) override {
        return CRefPtr_T<IBuffer>(new CMemBuffer(this, std::malloc(size), size));
    }
    bool Free(IBuffer* buffer) override {
        std::free(buffer->GetAllocData());
        return true;
    }
    uint64_t GetMaxSize() override { return kLimit; }
    void* ReAlloc(IBuffer* buffer, uint64_t size) override {
        if (size > kLimit) {
            return nullptr;
        }
        void* block = std::realloc(buffer->GetAllocData(), size);
        buffer->Attach(block, size);
        return block;
    }
};

class CheckingHost final : public testing::QuietHost {
public:
    int WriteLog(uint32_t level, const char* text) override {
        FUZZ_CHECK(level == 1 || level == 2 || level == 4 || level == 8);
        FUZZ_CHECK(text[0] == '[');
        return 0;
    }
};

CameraDeviceInfo Camera() {
    return {
        .name = "Cam", .displayName = "Cam", .file = "/dev/video2", .resolutions = {{640, 480}, {1280, 720}}};
}

void ServeOnce(const uint8_t* data, size_t size) {
    static CheckingHost host;
    static const CRefPtr_T<IMemAlloctor> alloctor(new BoundedAlloctor);
    AttachRuntime(&host);
    testing::CameraScript() = {};
    testing::CameraScript().cameras = {Camera()};
    const bool built_in = (data[2] & 1) != 0;
    const bool opens = (data[2] & 2) != 0;
    testing::CameraScript().built_in = built_in;
    testing::CameraScript().open_result = opens;

    const testing::Bytes input(data + kOptions, data + size);
    testing::Bytes expected =
        testing::CameraChannelModel(built_in, opens, BoundedAlloctor::kLimit).AnswersTo(input);
    const CRefPtr_T<testing::ScriptedStream> stream(new testing::ScriptedStream(input));
    if (data[0] != 0) {
        stream->read_chunk = data[0];
    }
    if (data[1] != 0xFF) {
        stream->fail_write_after = data[1];
        expected.resize(std::min<size_t>(expected.size(), data[1]));
    }
    // One plugin for all inputs, because its destruction takes a tenth of a second.
    static const CRefPtr_T<ClientCamera> plugin(new ClientCamera);
    plugin->SetChannelStream(stream.Get());
    ServePeer(*stream, *alloctor, *plugin);
    plugin->ExitInstance();
    plugin->SetChannelStream(nullptr);
    FUZZ_CHECK(stream->AddRef() == 2 && stream->Release() == 1);
    FUZZ_CHECK(stream->Written() == expected);
    FUZZ_CHECK(testing::CameraScript().alive == 0);
}

}  // namespace
}  // namespace zumod

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= zumod::kOptions) {
        zumod::ServeOnce(data, size);
    }
    return 0;
}
