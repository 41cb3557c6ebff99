// The newest decoded picture, handed from the thread that decodes to the thread that shows it. Neither waits
// for the other, and a picture that was not taken before the next one came is lost: a slow reader sees fewer
// pictures, but never old ones.
//
// There are three pictures. The writer has one and fills it, the reader has one and looks at it, and the
// third lies in between. Post() exchanges the writer's picture for the one in between, Take() the reader's.
// So each picture belongs to exactly one side at any time, and no side ever finds the other one at work.
//
// m_between holds the index of the picture in between and whether it is newer than the reader's. Both sides
// change it, each by one atomic exchange. The exchange releases what the side wrote to the picture it puts
// down (the reader's looking included) and acquires what the other side did to the one it picks up. m_writing
// belongs to the writer, m_reading to the reader; nobody else touches them.
//
// Memory: three times the largest picture that was written. A picture's bytes are not freed when a smaller
// one follows.
//
// Thread rule: one writer and one reader, on any two threads. A thread may take over a side once the former
// thread of that side is ordered before it, by a join for example.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "common/waiter.h"
#include "peer/camera_list.h"
#include "zumod/codec_decode.h"

namespace zumod::peer {

struct Picture {
    PictureSize size;
    VideoTargetFormat format = kVideoTargetI420;
    uint64_t sequence = 0;      // counts the pictures of a stream
    Clock::time_point arrived;  // the frame that it was decoded from
    // The planes one after the other, and their rows, without gaps. A chroma row of I420 is half as long as a
    // luma row, rounded up; one of NV12 is as long, rounded up to an even number.
    std::vector<uint8_t> bytes;
};

// One plane of a Picture. `offset` is that of its first byte.
struct PicturePlane {
    size_t offset;
    size_t row_bytes;
    size_t rows;
};

// I420 has three planes and NV12 two. Empty for any other format.
std::vector<PicturePlane> PlanesOf(PictureSize size, VideoTargetFormat format);

// Copies the planes of a decoded picture of this format, and its size. Returns false, and leaves the picture
// without bytes, if they are not those of the format.
bool CopyPicture(const VideoDecodedPicture& decoded, VideoTargetFormat format, Picture& picture);

// Makes a dark picture with a crossed circle, of this size and format: there is no camera.
void DrawNoCamera(PictureSize size, VideoTargetFormat format, Picture& picture);

class PictureMailbox {
public:
    // Writer: the picture to fill. It has what an earlier picture left in it.
    Picture& Writing() { return m_pictures[m_writing]; }
    // Writer: hands the picture over. Writing() is then another one.
    void Post() { m_writing = m_between.exchange(m_writing | kNew, std::memory_order_acq_rel) & kIndex; }

    // Reader: the newest picture if there is one that was not taken before, otherwise null. Valid until the
    // next call.
    const Picture* Take() {
        if ((m_between.load(std::memory_order_relaxed) & kNew) == 0) {
            return nullptr;
        }
        m_reading = m_between.exchange(m_reading, std::memory_order_acq_rel) & kIndex;
        return &m_pictures[m_reading];
    }

private:
    static constexpr unsigned kIndex = 3;
    static constexpr unsigned kNew = 4;

    std::array<Picture, 3> m_pictures;
    unsigned m_writing = 0;
    std::atomic<unsigned> m_between = 1;
    unsigned m_reading = 2;
};

}  // namespace zumod::peer
