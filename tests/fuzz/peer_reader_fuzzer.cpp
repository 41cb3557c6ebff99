// Feeds a peer any bytes as the host's. The reader must stay within its bounds, and find the same messages
// and the same error for any division of the bytes into pieces.
//
// Input: the size of the pieces of the second reading minus one, then the host's bytes.
#include <algorithm>
#include <cstdint>

#include "peer/message_reader.h"
#include "tests/fuzz/check.h"

namespace zumod::peer {
namespace {

struct Reading {
    std::vector<Message> messages;
    std::string error;
    bool in_message = false;
};

Reading ReadInPieces(std::span<const uint8_t> bytes, size_t piece) {
    MessageReader reader;
    Reading reading;
    while (!bytes.empty()) {
        const size_t count = std::min(piece, bytes.size());
        const auto fed = reader.Feed(bytes.first(count), reading.messages);
        // An error is permanent.
        FUZZ_CHECK(reading.error.empty() || (!fed && fed.error().text == reading.error));
        reading.error = fed ? "" : fed.error().text;
        bytes = bytes.subspan(count);
    }
    reading.in_message = reader.InMessage();
    return reading;
}

// The size of a message on the wire.
size_t WireBytes(const Message& message) {
    if (const auto* list = std::get_if<CameraListMessage>(&message)) {
        FUZZ_CHECK(list->cameras.size() <= kMostCameras);
        size_t bytes = 12;
        for (const CameraEntry& camera : list->cameras) {
            FUZZ_CHECK(camera.sizes.size() <= kMostSizes);
            FUZZ_CHECK(camera.name.size() <= 516 && camera.display_name.size() <= 516);
            FUZZ_CHECK(camera.name.find('\0') == std::string::npos);
            bytes += 1304 + 8 * camera.sizes.size();
        }
        return bytes;
    }
    if (const auto* frame = std::get_if<FrameMessage>(&message)) {
        return 16 + frame->bytes.size();
    }
    if (const auto* notice = std::get_if<NoticeMessage>(&message)) {
        FUZZ_CHECK(notice->text.size() <= 256);
        return 8 + notice->text.size();
    }
    if (const auto* information = std::get_if<InformationMessage>(&message)) {
        FUZZ_CHECK(information->text.size() <= 256);
        return 8 + information->text.size();
    }
    if (const auto* state = std::get_if<StateMessage>(&message)) {
        FUZZ_CHECK(state->state == 1 || state->state == 2 || state->state == 4);
        return 16;
    }
    return 12;
}

// Whether a message can have this size on the wire.
bool CanHaveSize(const Message& message, size_t size) {
    if (const auto* controls = std::get_if<ControlsMessage>(&message)) {
        // Controls that the peer does not know are left out.
        const size_t records = (size - 16) / 28;
        return size == 16 + 28 * records && records <= 64 && controls->controls.size() <= records;
    }
    return WireBytes(message) == size;
}

uint32_t NumberAt(std::span<const uint8_t> bytes, size_t offset) {
    FUZZ_CHECK(offset + 4 <= bytes.size());
    return bytes[offset] | uint32_t{bytes[offset + 1]} << 8 | uint32_t{bytes[offset + 2]} << 16 |
           uint32_t{bytes[offset + 3]} << 24;
}

bool IsKnown(uint8_t type) {
    return type == 2 || type == 5 || type == 7 || type == 11 || type == 128 || type == 130 || type == 131;
}

// Checks that each message is the next one of a known type in the bytes, and has the size given there.
void CheckAgainstTheBytes(std::span<const uint8_t> bytes, const std::vector<Message>& messages) {
    size_t offset = 0;
    for (const Message& message : messages) {
        FUZZ_CHECK(offset + 8 <= bytes.size());
        while (!IsKnown(bytes[offset + 4])) {
            offset += 8 + NumberAt(bytes, offset);
            FUZZ_CHECK(offset + 8 <= bytes.size());
        }
        const size_t size = 8 + size_t{NumberAt(bytes, offset)};
        FUZZ_CHECK(CanHaveSize(message, size) && offset + size <= bytes.size());
        if (const auto* frame = std::get_if<FrameMessage>(&message)) {
            FUZZ_CHECK(frame->id == NumberAt(bytes, offset + 8));
            FUZZ_CHECK(frame->bytes.size() == NumberAt(bytes, offset + 12));
        }
        offset += size;
    }
}

void ReadTwice(std::span<const uint8_t> bytes, size_t piece) {
    const Reading whole = ReadInPieces(bytes, std::max<size_t>(bytes.size(), 1));
    const Reading cut = ReadInPieces(bytes, piece);
    FUZZ_CHECK(whole.messages == cut.messages);
    FUZZ_CHECK(whole.error == cut.error);
    FUZZ_CHECK(whole.in_message == cut.in_message);
    CheckAgainstTheBytes(bytes, whole.messages);
    // The error is printed on a terminal.
    for (const char byte : whole.error) {
        FUZZ_CHECK(byte >= ' ' && byte <= '~');
    }
}

}  // namespace
}  // namespace zumod::peer

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= 1) {
        zumod::peer::ReadTwice({data + 1, size - 1}, size_t{data[0]} + 1);
    }
    return 0;
}
