// What a camera keeps for its device, one part per concern. No part has a separate lock or thread,
// except that FrameThread runs the thread in which frames are painted and delivered.
//
// Thread rule: the camera's lock guards all parts.
#pragma once

#include "vcam/model/buffer_queue.h"
#include "vcam/model/controls.h"
#include "vcam/model/event_queues.h"
#include "vcam/model/fault_set.h"
#include "vcam/model/format_state.h"
#include "vcam/model/frame_thread.h"
#include "vcam/model/live_feed.h"
#include "vcam/model/plug_state.h"

namespace zumod::vcam {

struct CameraParts {
    CameraParts(CameraConfig config, CameraBoard& board)
        : plug(config.number),
          formats(std::move(config), faults),
          buffers(board, formats.Config().grant, faults),
          events(board, controls),
          frames(buffers, formats, faults, formats.Config().source.IsLive() ? &live : nullptr) {}

    FaultSet faults;
    PlugState plug;       // plugged in or not, and the device number
    FormatState formats;  // what is negotiated
    BufferQueue buffers;  // the buffers, their owner and its stream
    Controls controls;    // control values
    EventQueues events;   // what each open file subscribed to
    LiveFeed live;        // a live camera's newest picture
    FrameThread frames;   // the stream's clock, its pictures and their delivery
};

}  // namespace zumod::vcam
