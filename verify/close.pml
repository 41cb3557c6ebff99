// Model of a camera that is closed while its work thread delivers frames.
//
// One run thread opens and closes cameras without end. A capture's work thread asks for the client's lock for every
// frame; Close holds that lock while it waits for the work thread to end. Assumptions: see capture.inc.
//
// Properties
// - No deadlock.
// - A frame is encoded only while the buffers are mapped, and a start finds no work thread.
// - Close ends, under weak fairness: a thread that can go on without interruption goes on at some time.
//
// Mirrors
// src/bridge/camera_client_linux.cpp CCameraClientLinux::OperationGuard::OperationGuard 7913d60a45b7
// src/bridge/camera_client_linux.cpp CCameraClientLinux::OnCaptureFrame 85c985f1e60f
// src/bridge/camera_client_linux.cpp CCameraClientLinux::LockForFrame 467f8780c656
// src/bridge/camera_client_linux.cpp CCameraClientLinux::Open 56ef6409415d
// src/bridge/camera_client_linux.cpp CCameraClientLinux::Close d0361059a802
// src/bridge/camera_client_linux.cpp CCameraClientLinux::~CCameraClientLinux 57d2d7ebbd21
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::startCapture 936bbfc17f5e
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::stopCapture 61307d31f955
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::StartWorkThread bd9a6acc3216
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::Stop c206f4ec814a
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::workLoop 7dda197ce2ab
// src/capture/linux_v4l2_camera_capture.cpp LinuxV4L2CameraCapture::DeliverFrame 4594c5d4937a
// src/base/base_thread.cpp CBaseThread::StopEx 8578b7788e5d
// src/base/base_thread.cpp CBaseThread::Join 61e4b1ced427
// src/base/lock.cpp CMutexLock::TryLockFor e679d26ca9b7

#include "capture.inc"

bool closing = false;

ltl close_ends { [] (closing -> <> !closing) }

active proctype RunThread() {
    do
    :: true ->
        // CCameraClientLinux::Open
        BeginOperation();
        StartCapture();
        EndOperation();
        closing = true;
        if
        :: true ->
            // CCameraClientLinux::Close
            BeginOperation();
            StopCapture();
            EndOperation()
        :: true -> skip
        fi;
        // CCameraClientLinux::~CCameraClientLinux, which does not take the lock
        StopCapture();
        closing = false
    od
}
