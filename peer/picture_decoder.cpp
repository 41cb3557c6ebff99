#include "peer/picture_decoder.h"

#include <exception>
#include <map>

#include "common/module_directory.h"
#include "common/module_runtime.h"
#include "common/mutex.h"
#include "common/safe_text.h"
#include "src/loader/codec_factory.h"
#include "src/module/attach_runtime.h"

namespace zumod::peer {
namespace {

// The first failure that a module logged since the last call of Take(). Other log lines are dropped.
//
// Thread rule: any thread.
class FailureLog {
public:
    void Write(uint32_t level, const char* text) {
        const MutexLock lock(m_mutex);
        if (level == kLogFailure && m_failure.empty()) {
            m_failure = text;
        }
    }
    std::string Take() {
        const MutexLock lock(m_mutex);
        return std::exchange(m_failure, {});
    }

private:
    Mutex m_mutex;
    std::string m_failure ZU_GUARDED_BY(m_mutex);
};

// Never destroyed, as the runtimes below: modules log until the process exits.
FailureLog& Failures() {
    static auto& log = *new FailureLog;
    return log;
}

// From now on, modules are loaded from this directory; one that is loaded stays.
void UseModulesIn(const std::string& directory) {
    static auto& runtimes = *new std::map<std::string, ModuleRuntime>;
    const auto log = [](uint32_t level, const char* text) { Failures().Write(level, text); };
    const std::map<std::string, std::string> properties = {{kEnvModulesDir, directory}};
    AttachRuntime(&runtimes.try_emplace(directory, log, properties).first->second);
}

int PlanesOf(VideoTargetFormat target) {
    return target == kVideoTargetI420 ? 3 : target == kVideoTargetNv12 ? 2 : 1;
}

// The arguments of one decode call. On the stack, so it is not reference counted.
class DecodeCall final : public IVDecArgs {
public:
    DecodeCall(std::span<const uint8_t> frame, int planes, const PictureDecoder::OnPicture& on_picture)
        : m_frame(frame), m_planes(planes), m_on_picture(on_picture) {}

    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    const void* GetInputData() override { return m_frame.data(); }
    uint64_t GetInputSize() override { return m_frame.size(); }
    void OnPicture(const VideoDecodedPicture* picture) override {
        const bool usable = picture->width > 0 && picture->height > 0 && picture->plane_count == m_planes;
        if (!usable || exception) {
            return;
        }
        // No exception may pass through the module.
        try {
            m_on_picture(*picture);
            any = true;
        } catch (...) {
            exception = std::current_exception();
        }
    }

    bool any = false;
    std::exception_ptr exception;

private:
    const std::span<const uint8_t> m_frame;
    const int m_planes;
    const PictureDecoder::OnPicture& m_on_picture;
};

}  // namespace

Expected<PictureDecoder> PictureDecoder::Create(std::string module_directory, VideoTargetFormat target) {
    if (module_directory.empty()) {
        module_directory = FindModuleDirectory();
    }
    if (module_directory.empty()) {
        return Fail("no module directory belongs to the program; give one with --modules");
    }
    UseModulesIn(module_directory);
    PictureDecoder decoder(std::move(module_directory), target);
    return decoder.Restart().map([&] { return std::move(decoder); });
}

bool PictureDecoder::Decode(std::span<const uint8_t> frame, const OnPicture& on_picture) {
    DecodeCall call(frame, PlanesOf(m_target), on_picture);
    m_decoder->Decode(&call);
    if (call.exception) {
        std::rethrow_exception(call.exception);
    }
    return call.any;
}

Expected<void> PictureDecoder::Restart() {
    Failures().Take();
    m_decoder = nullptr;
    m_decoder = CreateVideoDecoder(kImageTypeH264, static_cast<int32_t>(m_target), 0);
    if (m_decoder == nullptr) {
        return Fail("no decoder from zu-codec.so in " + SafeText(m_directory) +
                    " (see --modules): " + SafeText(Failures().Take()));
    }
    return {};
}

}  // namespace zumod::peer
