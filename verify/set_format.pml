// Model of a camera whose format changes while a frame is encoded.
//
// One run thread changes the format of a started camera without end, and each change restarts the capture twice under
// the client's lock. The work thread of the first restart may deliver a frame before the second. Assumptions: see
// capture.inc.
//
// Properties
// - No deadlock.
// - The requested size does not change while a frame is encoded, a frame is encoded only while the buffers are mapped,
//   and a start finds no work thread.
// - SetFormat ends, under weak fairness: a thread that can go on without interruption goes on at some time.
//
// Mirrors
// src/bridge/camera_client_linux.cpp CCameraClientLinux::OperationGuard::OperationGuard 7913d60a45b7
// src/bridge/camera_client_linux.cpp CCameraClientLinux::OnCaptureFrame 85c985f1e60f
// src/bridge/camera_client_linux.cpp CCameraClientLinux::LockForFrame 467f8780c656
// src/bridge/camera_client_linux.cpp CCameraClientLinux::HandleFrame f7bf93588a5e
// src/bridge/camera_client_linux.cpp CCameraClientLinux::AdoptRequestedSize 8297eaa51ac8
// src/bridge/camera_client_linux.cpp CCameraClientLinux::SetFormat a81766b4c182
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::setFormat 7cb1b386324c
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::resetCapture 633ee66f93e2
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::startCapture 936bbfc17f5e
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::stopCapture 61307d31f955
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::StartWorkThread bd9a6acc3216
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::Stop c206f4ec814a
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::workLoop 7dda197ce2ab
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::DeliverFrame 4594c5d4937a

#include "capture.inc"

bool changing = false;

ltl set_format_ends { [] (changing -> <> !changing) }

// LinuxV4L2CameraCapture::resetCapture
inline ResetCapture() {
    StopCapture();
    StartCapture()
}

active proctype RunThread() {
    // CCameraClientLinux::Open
    BeginOperation();
    StartCapture();
    EndOperation();
    do
    :: true ->
        // CCameraClientLinux::SetFormat
        changing = true;
        BeginOperation();
        requested_size = !requested_size;
        ResetCapture();
        ResetCapture();
        EndOperation();
        changing = false
    od
}
