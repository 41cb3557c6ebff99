#include "host/host_notice.h"

#include <sys/socket.h>

#include <cstring>

#include "zumod/camera_channel.h"

namespace zumod::host {

std::string HostNotice(const std::string& text) {
    size_t length = text.size();
    if (length > kHostNoticeLimit) {
        length = kHostNoticeLimit;
        // Back to the first byte of the character that the limit falls into.
        while (length != 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
            --length;
        }
    }
    _MESSAGE_HEADER header{};
    header.length = static_cast<uint32_t>(length);
    header.type = kHostNotice;
    std::string message(sizeof header, '\0');
    std::memcpy(message.data(), &header, sizeof header);
    return message.append(text, 0, length);
}

void SendHostNotice(int socket, const std::string& text) {
    const std::string message = HostNotice(text);
    // A peer that is gone already misses nothing.
    [[maybe_unused]] const ssize_t count =
        send(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace zumod::host
