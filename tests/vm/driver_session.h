// A session with the built module in this process, the real codec and the driver's cameras. The peer's
// side reads messages, each with a deadline.
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
    // A capture's default format: opening with it starts the camera exactly once.
    static constexpr FormatRequest kDefaultRequest = {0, 640, 480, 15};

    void SetUp() override;
    void TearDown() override;

    std::vector<ListedCamera> List();
    // Returns the state in the notice. Keeps pictures that arrive before it.
    uint32_t Open(const FormatRequest& request);
    // Drops the pictures that were not read.
    uint32_t Close(uint32_t id);
    // The next encoded picture of this camera.
    std::vector<uint8_t> NextFrame(uint32_t id);
    // Whether one arrives within this time.
    bool FrameComes(uint32_t id, std::chrono::milliseconds limit);
    // Whether `count` arrive.
    bool FramesCome(uint32_t id, int count);
    // How many log lines begin with this.
    size_t CountLines(const std::string& start);
    // The failures in the log that name this camera. (Opening another camera than the first starts the
    // first for a short time, which may not have that size.)
    std::vector<std::string> Complaints(uint32_t id);

private:
    void Send(uint8_t type, const void* body, size_t size);
    // Keeps pictures. Returns nothing if no message arrives in time.
    std::optional<PeerMessage> Receive(std::chrono::milliseconds limit);
    uint32_t AwaitState(uint32_t id);

    std::map<uint32_t, std::deque<std::vector<uint8_t>>> m_frames;
};

// Decodes the frames of one camera with the codec module.
class PictureReader {
public:
    PictureReader();
    // Nothing if the decoder needs more data.
    std::optional<Picture> Decode(const std::vector<uint8_t>& frame);

private:
    ReferenceLedger m_ledger;
    CodecModule m_codec;
    CRefPtr_T<CountedPolicy> m_policy;
    CRefPtr_T<IVDecoder> m_decoder;
};

}  // namespace zumod::testing
