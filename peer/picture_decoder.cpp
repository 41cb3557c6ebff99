#include "peer/picture_decoder.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "common/module_directory.h"
#include "common/module_runtime.h"
#include "common/mutex.h"
#include "common/safe_text.h"
#include "common/unique_fd.h"
#include "src/loader/codec_factory.h"
#include "src/module/attach_runtime.h"
#include "zumod/values.h"

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

int PlaneCount(VideoTargetFormat target) {
    return target == kVideoTargetI420 ? 3 : target == kVideoTargetNv12 ? 2 : 1;
}

uint32_t OutputCode(VideoTargetFormat target) {
    return target == kVideoTargetI420   ? VideoFormatCode("I420")
           : target == kVideoTargetNv12 ? VideoFormatCode("NV12")
                                        : 0;
}

// One decode call, with all that its thread needs, because the thread may outlive the caller. On the heap and
// shared by both, so it is not reference counted as the codec's objects are.
//
// The caller writes the members before the thread starts, and reads `any` and `exception` after joining it.
class DecodeCall final : public IVDecArgs {
public:
    DecodeCall(CRefPtr_T<IVDecoder> decoder, std::span<const uint8_t> frame, int planes,
               const PictureDecoder::OnPicture& on_picture)
        : m_decoder(std::move(decoder)),
          m_frame(frame.begin(), frame.end()),
          m_planes(planes),
          m_on_picture(on_picture) {}

    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    const void* GetInputData() override { return m_frame.data(); }
    uint64_t GetInputSize() override { return m_frame.size(); }
    void OnPicture(const VideoDecodedPicture* picture) override {
        const MutexLock lock(m_mutex);
        const bool usable = picture->width > 0 && picture->height > 0 && picture->plane_count == m_planes;
        if (m_left || !usable || exception) {
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

    // The body of the thread.
    void Run() {
        m_decoder->Decode(this);
        (void)eventfd_write(m_done.Get(), 1);
    }
    // Readable once the call is over; negative if there was no descriptor for it.
    int Done() const { return m_done.Get(); }
    // From now on `on_picture`, which refers to the caller's variables, is not called.
    void Leave() {
        const MutexLock lock(m_mutex);
        m_left = true;
    }

    bool any = false;
    std::exception_ptr exception;

private:
    const CRefPtr_T<IVDecoder> m_decoder;
    const std::vector<uint8_t> m_frame;
    const int m_planes;
    const PictureDecoder::OnPicture m_on_picture;
    const UniqueFd m_done{eventfd(0, EFD_CLOEXEC)};
    Mutex m_mutex;
    bool m_left ZU_GUARDED_BY(m_mutex) = false;
};

bool g_left_a_thread = false;

}  // namespace

bool PictureDecoder::LeftAThread() {
    return g_left_a_thread;
}

Expected<PictureDecoder> PictureDecoder::Create(std::string module_directory, VideoTargetFormat target,
                                                Waiter& waiter, Clock::duration limit) {
    if (module_directory.empty()) {
        module_directory = FindModuleDirectory();
    }
    if (module_directory.empty()) {
        return Fail("no module directory belongs to the program; give one with --modules");
    }
    UseModulesIn(module_directory);
    PictureDecoder decoder(std::move(module_directory), target, waiter, limit);
    return decoder.Restart().map([&] { return std::move(decoder); });
}

Expected<bool> PictureDecoder::Decode(std::span<const uint8_t> frame, const OnPicture& on_picture) {
    Failures().Take();
    const auto call = std::make_shared<DecodeCall>(m_decoder, frame, PlaneCount(m_target), on_picture);
    if (call->Done() < 0) {
        return Fail("no descriptor for the decoder: " + ErrnoText(errno));
    }
    std::thread thread([call] { call->Run(); });
    const auto done = m_waiter->WaitFor(call->Done(), POLLIN, Clock::now() + m_limit);
    if (!done || !*done) {
        call->Leave();
        thread.detach();
        g_left_a_thread = true;
        return done ? Fail("a frame of " + std::to_string(frame.size()) + " bytes was not decoded within " +
                           SecondsText(m_limit))
                    : Fail(done.error());
    }
    thread.join();
    if (call->exception) {
        std::rethrow_exception(call->exception);
    }
    if (const std::string failure = Failures().Take(); !failure.empty()) {
        return Fail("the host sent a frame that cannot be decoded: " + SafeText(failure));
    }
    return call->any;
}

Expected<void> PictureDecoder::LimitPixels(uint64_t pixels) {
    m_max_pixels = static_cast<int64_t>(std::min(pixels, kMostPixels));
    return ApplyLimit();
}

Expected<void> PictureDecoder::SetOutput(PictureSize size, VideoTargetFormat target) {
    m_output = size;
    m_target = target;
    return ApplyOutput();
}

Expected<void> PictureDecoder::Restart() {
    Failures().Take();
    m_decoder = nullptr;
    m_decoder = CreateVideoDecoder(kImageTypeH264, static_cast<int32_t>(m_target), 0);
    if (m_decoder == nullptr) {
        return Fail("no decoder from zu-codec.so in " + SafeText(m_directory) +
                    " (see --modules): " + SafeText(Failures().Take()));
    }
    return ApplyLimit().and_then([this] { return ApplyOutput(); });
}

Expected<void> PictureDecoder::ApplyOutput() {
    if (!m_output) {
        return {};
    }
    const VideoOutputFormat output{static_cast<int32_t>(m_output->width),
                                   static_cast<int32_t>(m_output->height), 0, OutputCode(m_target)};
    if (m_decoder->SetOutputFormat(&output) != 1) {
        return Fail("the decoder of zu-codec.so in " + SafeText(m_directory) + " does not make pictures of " +
                    SizeText(*m_output));
    }
    return {};
}

// Without the limit a host could make this program use gigabytes of memory.
Expected<void> PictureDecoder::ApplyLimit() {
    const auto value = CZUModData::FromInt64(m_max_pixels);
    if (!m_decoder->SetProperty(kPropertyMaxPixels, value.Get())) {
        return Fail("the decoder of zu-codec.so in " + SafeText(m_directory) +
                    " does not limit the size of pictures");
    }
    return {};
}

}  // namespace zumod::peer
