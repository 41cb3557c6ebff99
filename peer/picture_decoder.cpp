#include "peer/picture_decoder.h"

#include <exception>

#include "common/safe_text.h"
#include "peer/peer_error.h"
#include "src/loader/codec_factory.h"

namespace zumod::peer {
namespace {

constexpr uint32_t kH264 = 9;

int PlanesOf(VideoTargetFormat target) {
    return target == kVideoTargetI420 ? 3 : target == kVideoTargetNv12 ? 2 : 1;
}

// One decode call; on the stack, so it is not counted.
class DecodeCall final : public IVDecArgs {
public:
    DecodeCall(std::span<const uint8_t> frame, int planes, const PictureDecoder::Taker& taker)
        : m_frame(frame), m_planes(planes), m_taker(taker) {}

    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    const void* GetInputData() override { return m_frame.data(); }
    uint64_t GetInputSize() override { return m_frame.size(); }
    void OnPicture(const VideoDecodedPicture* picture) override {
        const bool usable = picture->width > 0 && picture->height > 0 && picture->plane_count == m_planes;
        if (!usable || failure) {
            return;
        }
        // Nothing is thrown through the module.
        try {
            m_taker(*picture);
            any = true;
        } catch (...) {
            failure = std::current_exception();
        }
    }

    bool any = false;
    std::exception_ptr failure;

private:
    const std::span<const uint8_t> m_frame;
    const int m_planes;
    const PictureDecoder::Taker& m_taker;
};

}  // namespace

PictureDecoder::PictureDecoder(const std::string& module_directory, VideoTargetFormat target)
    : m_directory(module_directory), m_target(target), m_services(ModuleServices::For(module_directory)) {
    Create();
}

bool PictureDecoder::Decode(std::span<const uint8_t> frame, const Taker& taker) {
    DecodeCall call(frame, PlanesOf(m_target), taker);
    m_decoder->Decode(&call);
    if (call.failure) {
        std::rethrow_exception(call.failure);
    }
    return call.any;
}

void PictureDecoder::Restart() {
    m_decoder = nullptr;
    Create();
}

void PictureDecoder::Create() {
    m_services.TakeFailure();
    m_decoder = CreateVideoDecoder(kH264, static_cast<int32_t>(m_target), 0);
    if (m_decoder == nullptr) {
        throw PeerError("no decoder from zu-codec.so in " + SafeText(m_directory) +
                        " (see --modules): " + SafeText(m_services.TakeFailure()));
    }
}

}  // namespace zumod::peer
