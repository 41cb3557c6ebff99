#include "src/bridge/camera_client_linux.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <chrono>
#include <optional>

#include "src/base/own_memory.h"
#include "src/bridge/input_format.h"
#include "src/bridge/venc_args.h"
#include "src/capture/pixel_formats.h"
#include "src/loader/codec_factory.h"
#include "src/module/log.h"

namespace zumod {
namespace {

// How long a frame waits for the lock before it checks whether its capture is being stopped.
constexpr std::chrono::milliseconds kStopCheckInterval{10};

}  // namespace

CCameraClientLinux::CCameraClientLinux() : m_capture(new LinuxV4L2CameraCapture) {
    try {
        m_capture->SignalCaptureFrame.connect(this, &CCameraClientLinux::OnCaptureFrame);
    } catch (...) {
        // The destructor leaks m_capture on purpose; a failed constructor must not.
        delete m_capture;
        throw;
    }
}

CCameraClientLinux::~CCameraClientLinux() {
    try {
        m_capture->stopCapture();
    } catch (...) {
        // A destructor must not throw. The capture is idle even if the host's log sink threw.
    }
    m_capture->SignalCaptureFrame.disconnect_all();
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(m_capture);  // leaked, as the header says
#endif
}

void CCameraClientLinux::SetListener(IClientCameraListenter* listener) {
    const OperationGuard guard(*this);
    m_listener = listener;
}

void CCameraClientLinux::SetCameraId(uint32_t id) {
    const OperationGuard guard(*this);
    m_camera_id = id;
}

void CCameraClientLinux::SetFormat(int32_t width, int32_t height, int32_t fps) {
    const OperationGuard guard(*this);
    if (width == m_requested_width && height == m_requested_height && fps == m_fps) {
        return;
    }
    m_requested_width = width;
    m_requested_height = height;
    m_fps = fps;
    m_capture->setFormat(width, height, fps);
    if (m_started) {
        // Required by the contract: a second restart; setFormat has just done the first one.
        m_capture->resetCapture();
    }
}

void CCameraClientLinux::SetProperty(int32_t /*property*/, int32_t /*value*/, int32_t /*automatic*/) {}

void CCameraClientLinux::SetCameraFlag(uint8_t flag) {
    const OperationGuard guard(*this);
    m_camera_flag.store(flag, std::memory_order_relaxed);
}

uint8_t CCameraClientLinux::GetCameraFlag() {
    return m_camera_flag.load(std::memory_order_relaxed);
}

bool CCameraClientLinux::Open() {
    const OperationGuard guard(*this);
    if (!m_started) {
        m_capture->setDevId(static_cast<int32_t>(m_camera_id));
        m_capture->setFormat(m_requested_width, m_requested_height, m_fps);
        m_started = m_capture->startCapture();
    }
    return m_started;
}

int32_t CCameraClientLinux::Close(const uint32_t* /*ignored*/) {
    const OperationGuard guard(*this);
    m_capture->stopCapture();
    return 0;
}

void CCameraClientLinux::OnCaptureFrame(const unsigned char* data, unsigned long length, int width,
                                        int height, int fourcc) {
    if (LockForFrame()) {
        try {
            HandleFrame(data, length, width, height, fourcc);
        } catch (const OutOfMemory&) {
            // The frame is dropped. What the codec or a host object throws ends the process.
        }
        m_lock.Unlock();
    }
}

CCameraClientLinux::OperationGuard::OperationGuard(CCameraClientLinux& client) : m_lock(client.m_lock) {
    client.m_waiting_operations.fetch_add(1, std::memory_order_relaxed);
    m_lock.Lock();
    client.m_waiting_operations.fetch_sub(1, std::memory_order_relaxed);
}

bool CCameraClientLinux::LockForFrame() {
    while (m_waiting_operations.load(std::memory_order_relaxed) == 0) {
        if (m_lock.TryLockFor(kStopCheckInterval)) {
            return true;
        }
        if (m_capture->isStopping()) {
            return false;
        }
    }
    return false;
}

void CCameraClientLinux::HandleFrame(const unsigned char* data, unsigned long length, int width, int height,
                                     int fourcc) {
    if (m_listener == nullptr) {
        return;
    }
    AdoptRequestedSize();
    if (m_listener->IsBusy(m_camera_id)) {
        return;
    }
    const std::optional<VideoInputFormat> format =
        InputFormatOf(width, height, static_cast<uint32_t>(fourcc));
    if (!format) {
        ZuModLog(kLogFailure, "[CCameraClientLinux] video format not support, %s",
                 FourCcText(static_cast<uint32_t>(fourcc)).Get());
        return;
    }
    if (m_encoder == nullptr) {
        m_encoder = CreateVideoEncoder(kImageTypeH264, false, false, false, true);
    }
    if (m_encoder != nullptr) {
        Encode(*format, data, length);
    }
}

void CCameraClientLinux::AdoptRequestedSize() {
    if (m_requested_width == m_encode_width && m_requested_height == m_encode_height) {
        return;
    }
    ZuModLog(kLogTrace, "[CCameraClientLinux] detect encode size change, %dx%d -> %dx%d", m_encode_width,
             m_encode_height, m_requested_width, m_requested_height);
    m_encode_width = m_requested_width;
    m_encode_height = m_requested_height;
    m_encoder = nullptr;
}

void CCameraClientLinux::Encode(const VideoInputFormat& format, const unsigned char* data,
                                unsigned long length) {
    m_encoder->SetInputFormat(&format);
    const auto args = Allocate([data, length] { return CRefPtr_T<CVEncArgs>(new CVEncArgs(data, length)); });
    if (m_encoder->Encode(args.Get())) {
        m_listener->OnVideoPacket(m_camera_id, args->GetOutputData(), args->GetOutputSize());
    } else {
        ZuModLog(kLogIgnored, "[CCameraClientLinux] video encode fail");
    }
}

}  // namespace zumod
