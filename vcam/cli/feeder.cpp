#include "vcam/cli/feeder.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "vcam/preload/rpc_client.h"

namespace zumod::vcam {
namespace {

struct Answer {
    Reply reply{};
    FeedOffer offer{};
    UniqueFd memory;
};

Expected<Answer> Ask(int socket, unsigned camera) {
    Request request = MakeRequest(Operation::kFeed);
    request.slot = camera;
    ssize_t sent = 0;
    do {
        sent = send(socket, &request, sizeof request, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent != sizeof request) {
        return Fail("the server of the virtual cameras does not answer");
    }
    Answer answer;
    iovec parts[2] = {{&answer.reply, sizeof answer.reply}, {&answer.offer, sizeof answer.offer}};
    int memory = -1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof memory)] = {};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    message.msg_control = control;
    message.msg_controllen = CMSG_LEN(sizeof memory);  // a second descriptor would fit into CMSG_SPACE
    ssize_t received = 0;
    do {
        received = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (received >= 0 && header != nullptr && header->cmsg_level == SOL_SOCKET &&
        header->cmsg_type == SCM_RIGHTS && header->cmsg_len == CMSG_LEN(sizeof memory)) {
        std::memcpy(&memory, CMSG_DATA(header), sizeof memory);
        answer.memory.Reset(memory);
    }
    if (received < static_cast<ssize_t>(sizeof answer.reply)) {
        return Fail("the server of the virtual cameras does not answer");
    }
    if (answer.reply.error != 0) {
        return Fail("camera " + std::to_string(camera) + " cannot be fed: " + ErrnoText(answer.reply.error));
    }
    if (received != sizeof answer.reply + sizeof answer.offer || !answer.memory) {
        return Fail("the server of the virtual cameras sent a malformed answer");
    }
    return answer;
}

}  // namespace

Expected<Feeder> Feeder::Connect(const std::string& server_name, unsigned camera) {
    Feeder feeder;
    const int socket = ConnectServer(server_name.c_str());
    if (socket < 0) {
        return Fail("no virtual cameras: " + ErrnoText(-socket));
    }
    feeder.m_socket.Reset(socket);
    auto answer = Ask(socket, camera);
    if (!answer) {
        return Fail(answer.error());
    }
    const size_t size = FeedMemorySize(answer->offer.slot_size);
    struct stat status {};
    if (fstat(answer->memory.Get(), &status) != 0 || status.st_size < static_cast<off_t>(size)) {
        return Fail("the memory of camera " + std::to_string(camera) + " is too small");
    }
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, answer->memory.Get(), 0);
    if (memory == MAP_FAILED) {
        return Fail("no memory for camera " + std::to_string(camera) + ": " + ErrnoText(errno));
    }
    feeder.m_header = static_cast<FeedMemory*>(memory);
    feeder.m_slot_size = answer->offer.slot_size;
    return feeder;
}

Feeder::Feeder(Feeder&& other) noexcept
    : m_socket(std::move(other.m_socket)),
      m_header(std::exchange(other.m_header, nullptr)),
      m_slot_size(other.m_slot_size),
      m_slot(other.m_slot) {}

Feeder::~Feeder() {
    if (m_header != nullptr) {
        munmap(m_header, FeedMemorySize(m_slot_size));
    }
}

Expected<std::optional<FeedNotice>> Feeder::Receive() {
    FeedNotice notice{};
    const ssize_t received = recv(m_socket.Get(), &notice, sizeof notice, MSG_DONTWAIT);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) {
        return std::nullopt;
    }
    if (received != sizeof notice) {
        return Fail("the server of the virtual cameras is gone");
    }
    return notice;
}

bool Feeder::Put(const Picture& picture) {
    if (!FitsSlot(picture.width, picture.height, m_slot_size)) {
        return false;
    }
    uint8_t* to = reinterpret_cast<uint8_t*>(m_header) + kFeedHeaderSize + size_t{m_slot} * m_slot_size;
    for (size_t plane = 0; plane < picture.planes.size(); ++plane) {
        const size_t part = plane == 0 ? 1 : 2;
        const size_t columns = picture.width / part;
        for (size_t row = 0; row < picture.height / part; ++row) {
            to = std::copy_n(picture.planes[plane] + row * picture.strides[plane], columns, to);
        }
    }
    m_header->pictures[m_slot].width.store(picture.width, std::memory_order_relaxed);
    m_header->pictures[m_slot].height.store(picture.height, std::memory_order_relaxed);
    m_slot = m_header->newest.exchange(m_slot | FeedMemory::kNew, std::memory_order_acq_rel) &
             FeedMemory::kSlotMask;
    m_slot = std::min(m_slot, FeedMemory::kSlots - 1);  // the server is trusted, but not with this memory
    const FeedCommand command{FeedCommand::kPicture};
    // If the socket is full, the server has yet to read earlier commands, which will make it look, too.
    (void)send(m_socket.Get(), &command, sizeof command, MSG_DONTWAIT | MSG_NOSIGNAL);
    return true;
}

Expected<void> Feeder::SetPlugged(bool is_plugged) {
    const FeedCommand command{is_plugged ? FeedCommand::kPlugIn : FeedCommand::kUnplug};
    if (send(m_socket.Get(), &command, sizeof command, MSG_NOSIGNAL) != sizeof command) {
        return Fail("the server of the virtual cameras is gone");
    }
    return {};
}

}  // namespace zumod::vcam
