// A session with the built module in this process, the real codec and the driver's cameras; the peer's side
// of its stream in messages, each waited for with a deadline.
//
// Thread rule: the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/whole_system.h"
#include "tests/support/doubles/codec_calls.h"
#include "tests/vm/picture.h"
#include "zumod/camera_channel.h"

namespace zumod::testing {

struct ListedCamera {
    uint32_t id;
    std::string name;
    std::string display_name;
    std::vector<std::string> sizes;  // "640x480"
};

class DriverSession : public raw::WholeSystem {
protected:
    // What a capture has without being told: its open starts the camera exactly once.
    static constexpr FormatRequest kAsItIs = {0, 640, 480, 15};

    void SetUp() override;
    void TearDown() override;

    std::vector<ListedCamera> List();
    // The notice's state. Pictures that come before it are kept.
    uint32_t Open(const FormatRequest& request);
    // Forgets the pictures that were not asked for.
    uint32_t Close(uint32_t id);
    // The next encoded picture of that camera.
    std::vector<uint8_t> NextFrame(uint32_t id);
    // Whether one comes within that time.
    bool FrameComes(uint32_t id, std::chrono::milliseconds limit);
    // Whether `count` come.
    bool FramesCome(uint32_t id, int count);
    // How many log lines begin with this.
    size_t CountLines(const std::string& start);
    // The log lines of failures that name this camera. (The open of another than the first one starts the
    // first one for a moment, which may not have that size.)
    std::vector<std::string> Complaints(uint32_t id);

private:
    void Send(uint8_t type, const void* body, size_t size);
    // Keeps a picture; none when nothing came in time.
    std::optional<PeerMessage> Receive(std::chrono::milliseconds limit);
    uint32_t AwaitState(uint32_t id);

    std::map<uint32_t, std::deque<std::vector<uint8_t>>> m_frames;
};

// Pictures of one camera from encoded frames: a decoder of the codec module's.
class PictureReader {
public:
    PictureReader();
    // None when the decoder waits for more.
    std::optional<Picture> Decode(const std::vector<uint8_t>& frame);

private:
    ReferenceLedger m_ledger;
    CodecModule m_codec;
    CRefPtr_T<CountedPolicy> m_policy;
    CRefPtr_T<IVDecoder> m_decoder;
};

}  // namespace zumod::testing
