#include "src/plugin/receive_loop.h"

#include "src/base/buffer.h"
#include "zumod/camera_channel.h"

namespace zumod {
namespace {

// Reads until the buffer is full; false at the first read that fails.
bool Fill(IChannelStream& stream, IBuffer& buffer) {
    while (buffer.GetSize() < buffer.GetCapacity()) {
        const uint64_t size = buffer.GetSize();
        unsigned long done = 0;
        if (stream.Read(static_cast<uint8_t*>(buffer.GetData()) + size, buffer.GetCapacity() - size, &done) !=
            0) {
            return false;
        }
        buffer.SetSize(size + done);
    }
    return true;
}

// Every byte is read straight into the buffer that the handler gets. Empty when a read fails or memory is
// short.
CRefPtr_T<IBuffer> ReadMessage(IChannelStream& stream, IMemAlloctor& alloctor) {
    CRefPtr_T<IBuffer> message = alloctor.Alloc(sizeof(_MESSAGE_HEADER));
    if (message == nullptr || !Fill(stream, *message)) {
        return {};
    }
    // Any length is accepted: a peer that announces 4 GiB gets a buffer of 4 GiB.
    const uint64_t length = static_cast<const _MESSAGE_HEADER*>(message->GetData())->length;
    if (length != 0) {
        if (message->Resize(sizeof(_MESSAGE_HEADER) + length) == nullptr || !Fill(stream, *message)) {
            return {};
        }
    }
    return message;
}

}  // namespace

void ServePeer(IChannelStream& stream, IMemAlloctor& alloctor, CameraMessageSeparation& handlers) {
    while (const CRefPtr_T<IBuffer> message = ReadMessage(stream, alloctor)) {
        handlers.OnMessage(static_cast<const uint8_t*>(message->GetData()), message->GetSize(),
                           message.Get());
    }
}

}  // namespace zumod
