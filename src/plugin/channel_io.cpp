#include "src/plugin/channel_io.h"

#include <algorithm>

#include "src/base/buffer.h"
#include "src/base/own_memory.h"
#include "zumod/camera_channel.h"

namespace zumod {
namespace {

// Reads until the buffer is full. Returns false at the first read that fails.
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

// Reads straight into the buffer that the handler gets. Returns null if a read fails or there is no
// memory for the bytes. Throws OutOfMemory if there is none for the buffer object.
CRefPtr_T<IBuffer> ReadMessage(IChannelStream& stream, IMemAlloctor& alloctor) {
    CRefPtr_T<IBuffer> message = Allocate([&alloctor] { return alloctor.Alloc(sizeof(_MESSAGE_HEADER)); });
    if (message == nullptr || !Fill(stream, *message)) {
        return {};
    }
    // Required by the contract: any length is accepted, so a peer that announces 4 GiB has 4 GiB allocated.
    const uint64_t length = ReadHeader(message->GetData()).length;
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

bool WriteAll(IChannelStream& stream, const void* bytes, uint64_t size) {
    const auto* next = static_cast<const uint8_t*>(bytes);
    while (size != 0) {
        unsigned long done = 0;
        if (stream.Write(next, size, &done) != 0) {
            return false;
        }
        done = std::min(done, size);
        next += done;
        size -= done;
    }
    return true;
}

}  // namespace zumod
