// Model of the plugin's end: ExitInstance and the destructor with cameras that deliver frames and a stream that fails.
//
// The host calls Run, SetChannelStream and ExitInstance in any order, one at a time, and at last releases the plugin.
// During Run the peer opens and closes two cameras. Each has a work thread that queues frames; the send thread writes
// them to the stream. The queue is a number of messages here (send_queue.pml has its semaphores).
//
// Assumptions
// - Each step of the host ends: a write or a read returns, and a write may fail at any time. A host whose Write blocks
//   without end makes ExitInstance wait without end. No object of the host throws, and the host makes its calls on its
//   own threads: the module only contains the harm of the contrary.
// - A wait for a message may time out at any time. The limit of IsBusy is 1 message instead of 5.
// - Any start of a camera or of the send thread may fail.
// - The locks of the channel slot and of the queue are held for one step. Sequential consistency.
//
// Properties
// - No deadlock.
// - After ExitInstance no thread of the module is left and nothing uses a stream. No frame is queued once the send
//   thread was stopped.
// - A stream that is being written to has a reference, and each reference is released in the end.
// - ExitInstance and the destructor end, under weak fairness: a thread that can go on without interruption goes on at
//   some time.
//
// Mirrors
// src/plugin/client_camera.cpp ClientCamera::~ClientCamera d9a9b5440ce1
// src/plugin/client_camera.cpp ClientCamera::SetChannelStream d04b38378219
// src/plugin/client_camera.cpp ClientCamera::Run 91f34ebf63f0
// src/plugin/client_camera.cpp ClientCamera::ExitInstance 3e7742d2f0fe
// src/plugin/client_camera.cpp ClientCamera::OnProtoOpenCamera 4b876101d601
// src/plugin/client_camera.cpp ClientCamera::OnProtoCloseCamera 067f7a2cc874
// src/plugin/client_camera.cpp ClientCamera::CloseCamera 5125f12da8e8
// src/plugin/client_camera.cpp ClientCamera::CloseAllCameras 9e6299dada1d
// src/plugin/client_camera.cpp ClientCamera::OnVideoPacket 8dbd5b793699
// src/plugin/client_camera.cpp ClientCamera::SendPass 19b050f3cf78
// src/plugin/client_camera.cpp ClientCamera::Send2StreamRaw f8492af9b0f7
// src/plugin/channel_io.cpp WriteAll aca4daa42890
// src/plugin/channel_slot.h ChannelSlot 79cc4facb791
// src/base/base_thread.cpp CBaseThread::StartEx 83243f4b70fa
// src/base/base_thread.cpp CBaseThread::StopEx 8578b7788e5d
// src/base/base_thread.cpp CBaseThread::Loop b945637143ce
// src/bridge/camera_client_linux.cpp CCameraClientLinux::LockForFrame 467f8780c656
// src/bridge/camera_client_linux.cpp CCameraClientLinux::HandleFrame f7bf93588a5e

#define CAMERAS 2
#define BUSY_ABOVE 1
#define NO_STREAM 2

#define NOBODY 0
#define OPERATION 1
#define FRAME 2

mtype = { created, running, ended };
#define none 0  // of a field whose initial value is 0

typedef Camera {
    bool open;                // in m_devs
    byte lock_owner;          // as in capture.inc
    byte waiting_operations;
    bool stop_request;
    mtype work_thread;
};

Camera cameras[CAMERAS];
byte queued = 0;
mtype send_thread = none;
bool send_stop = false;
bool sending_ended = false;  // the send thread was stopped and no Run has begun since
byte references[2];          // of two streams of the host
byte stream = NO_STREAM;     // ChannelSlot::m_stream, m_borrowed and m_retired
byte borrowed = NO_STREAM;
byte retired = NO_STREAM;
bool exiting = false;

ltl exit_ends { [] (exiting -> <> !exiting) }

inline ReleaseStream(s) {
    if
    :: s != NO_STREAM ->
        assert(references[s] > 0);
        references[s]--
    :: else -> skip
    fi
}

// ChannelSlot::Set
inline SetStream(s) {
    d_step {
        if
        :: s != NO_STREAM -> references[s]++
        :: else -> skip
        fi;
#ifndef PLANTED_NO_RETIRED_STREAM
        if
        :: stream != NO_STREAM && stream == borrowed ->
            ReleaseStream(retired);
            retired = stream
        :: else -> ReleaseStream(stream)
        fi;
#else
        ReleaseStream(stream);
#endif
        stream = s
    }
}

// ClientCamera::Send2StreamRaw
inline SendMessage() {
    borrowed = stream;
    do
    :: borrowed == NO_STREAM -> break
    :: borrowed != NO_STREAM ->
        assert(references[borrowed] > 0);
        if
        :: true -> break  // written
        :: true ->        // failed: the message is dropped
#ifndef PLANTED_RETRY_WRITE
            break
#endif
        fi
    od;
    assert(borrowed == NO_STREAM || references[borrowed] > 0);
    d_step {
        borrowed = NO_STREAM;
        ReleaseStream(retired);
        retired = NO_STREAM
    }
}

// CBaseThread::Loop with ClientCamera::SendPass
active proctype SendThread() {
end:
    do
    :: atomic { send_thread == created -> send_thread = running }
        do
        :: send_stop -> break
        :: !send_stop ->
            if
            :: atomic { queued > 0 -> queued-- }
                SendMessage()
#ifndef PLANTED_NO_DEADLINE
            :: true -> skip
#endif
            fi
        od;
        send_thread = ended
    od
}

// LinuxV4L2CameraCapture::workLoop with CCameraClientLinux::OnCaptureFrame and ClientCamera::OnVideoPacket
active [CAMERAS] proctype WorkThread() {
    byte c = _pid - 1;
end:
    do
    :: atomic { cameras[c].work_thread == created -> cameras[c].work_thread = running }
        do
        :: cameras[c].stop_request -> break
        :: !cameras[c].stop_request ->
            if
            :: true -> skip
            :: true -> break
            :: cameras[c].waiting_operations == 0 ->
                if
                :: atomic { cameras[c].lock_owner == NOBODY -> cameras[c].lock_owner = FRAME }
                    if
                    :: queued > BUSY_ABOVE -> skip
                    :: else ->
                        assert(!sending_ended);
                        queued++
                    fi;
                    cameras[c].lock_owner = NOBODY
                :: cameras[c].lock_owner != NOBODY -> skip
                fi
            fi
        od;
        cameras[c].stop_request = true;
        cameras[c].work_thread = ended
    od
}

inline OpenCamera(c) {
    cameras[c].open = true;
    cameras[c].stop_request = false;
    cameras[c].work_thread = created
}

// CCameraClientLinux::Close
inline CloseCamera(c) {
    cameras[c].waiting_operations++;
    atomic { cameras[c].lock_owner == NOBODY -> cameras[c].lock_owner = OPERATION }
    cameras[c].waiting_operations--;
    cameras[c].stop_request = true;
    if
    :: cameras[c].work_thread == none -> skip
    :: else ->
        cameras[c].work_thread == ended;
        cameras[c].work_thread = none
    fi;
    cameras[c].lock_owner = NOBODY
}

// ClientCamera::CloseAllCameras
inline CloseAllCameras() {
    for (camera : 0 .. CAMERAS - 1) {
        if
        :: cameras[camera].open -> CloseCamera(camera)
        :: else -> skip
        fi
    }
    for (camera : 0 .. CAMERAS - 1) {
        cameras[camera].open = false
    }
}

// CBaseThread::StopEx
inline StopSendThread() {
    send_stop = true;
    if
    :: send_thread == none -> skip
    :: else ->
        send_thread == ended;
        send_thread = none
    fi;
    sending_ended = true
}

inline Exit() {
#ifdef PLANTED_SEND_THREAD_FIRST
    StopSendThread();
    CloseAllCameras();
#else
    CloseAllCameras();
    StopSendThread();
#endif
    assert(send_thread == none && borrowed == NO_STREAM && retired == NO_STREAM);
    assert(cameras[0].work_thread == none && cameras[1].work_thread == none)
}

// ClientCamera::Run
inline Run() {
    queued = 0;
    sending_ended = false;
    if
    :: send_thread == none ->
        if
        :: true ->
            send_stop = false;
            send_thread = created
        :: true -> skip
        fi
    :: else -> skip
    fi;
    do
    :: true -> break  // a read failed
    :: true ->        // a request
        select (camera : 0 .. CAMERAS - 1);
        if
        :: !cameras[camera].open -> OpenCamera(camera)
        :: cameras[camera].open ->
            CloseCamera(camera);
            cameras[camera].open = false
        fi
    od
}

active proctype Host() {
    byte camera;
    do
    :: true -> Run()
    :: true -> SetStream(0)
    :: true -> SetStream(1)
    :: true -> SetStream(NO_STREAM)
    :: true ->
        // ClientCamera::ExitInstance
        exiting = true;
        Exit();
        exiting = false
    :: true -> break
    od;
    // ClientCamera::~ClientCamera
    exiting = true;
    Exit();
    SetStream(NO_STREAM);
    assert(references[0] == 0 && references[1] == 0);
    exiting = false
}
