// A decoder for a camera's frames, from the codec module. The frames come from a host that may be hostile:
// memory and time have limits.
//
// Memory: a picture may have at most as many pixels as LimitPixels() allows, also where the stream hides a
// part of it. A larger one is refused before the codec allocates anything for it.
//
// Time: a frame of a few megabytes can keep a decoder busy for hours, however small its picture is, and a
// decoder cannot be stopped. Each frame is therefore decoded on a separate thread while the main thread
// waits for it, for signals and for the time limit. If the wait ends early, the thread is left running: it
// owns all that it uses, calls nobody back, and ends with the process. The command fails then, and main must
// end the process by _exit(), so that no destructor runs under the thread. A thread for each frame costs
// some 50 us, and saves a queue.
//
// Thread rule: the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "zumod/codec.h"
#include "zumod/codec_decode.h"
#include "zumod/ref_ptr.h"

namespace zumod::peer {

class PictureDecoder {
public:
    using OnPicture = std::function<void(const VideoDecodedPicture&)>;

    // Loads zu-codec.so from the directory; if that is empty, from the one that belongs to the program.
    // `limit`: how long one frame may take. `waiter` is borrowed.
    static Expected<PictureDecoder> Create(std::string module_directory, VideoTargetFormat target,
                                           Waiter& waiter, Clock::duration limit);

    // Counted in whole macroblocks of 16x16. 1920x1088 before the first call.
    Expected<void> LimitPixels(uint64_t pixels);

    // Pictures are converted to this format and scaled to this size. Without the call they have the stream's
    // size and the format of Create().
    Expected<void> SetOutput(PictureSize size, VideoTargetFormat target);

    // Calls `on_picture` for each picture in the frame, which is not empty. It runs on another thread, while
    // this one waits. The planes are valid during the call; what it throws is thrown from here. Returns false
    // if there is no picture: the frame is damaged, or depends on one that was not seen. Fails if a picture
    // is too large, if decoding takes too long, and if a signal ends it; no other call may follow then.
    Expected<bool> Decode(std::span<const uint8_t> frame, const OnPicture& on_picture);

    // Whether a thread may still be decoding.
    static bool LeftAThread();

    // Forgets the stream: the next frame belongs to another one.
    Expected<void> Restart();

private:
    static constexpr uint64_t kMostPixels = uint64_t{16384} * 16384;  // of the codec

    PictureDecoder(std::string directory, VideoTargetFormat target, Waiter& waiter, Clock::duration limit)
        : m_directory(std::move(directory)), m_target(target), m_waiter(&waiter), m_limit(limit) {}

    Expected<void> ApplyLimit();
    Expected<void> ApplyOutput();

    std::string m_directory;
    VideoTargetFormat m_target;
    Waiter* m_waiter;
    Clock::duration m_limit;
    int64_t m_max_pixels = int64_t{1920} * 1088;
    std::optional<PictureSize> m_output;
    CRefPtr_T<IVDecoder> m_decoder;
};

}  // namespace zumod::peer
