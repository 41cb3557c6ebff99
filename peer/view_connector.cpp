#include "peer/view_connector.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <utility>

namespace zumod::peer {
namespace {

constexpr size_t kLongestText = 4096;
constexpr size_t kMostDescriptors = 2;
// A message with descriptors needs at least one byte.
constexpr char kConnected = '+';
constexpr char kFailed = '-';

struct alignas(cmsghdr) Control {
    std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> bytes{};
};

void SendAnswer(int socket, const Expected<Connection>& connection) {
    std::string text = connection ? std::string(1, kConnected) : kFailed + connection.error().text;
    text.resize(std::min(text.size(), kLongestText));
    iovec vector{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    Control control;
    if (connection) {
        const std::array<int, kMostDescriptors> descriptors = {connection->Input(), connection->Output()};
        const size_t size = (descriptors[0] == descriptors[1] ? 1 : 2) * sizeof(int);
        message.msg_control = control.bytes.data();
        message.msg_controllen = CMSG_SPACE(size);
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(size);
        std::memcpy(CMSG_DATA(header), descriptors.data(), size);
    }
    (void)sendmsg(socket, &message, MSG_NOSIGNAL);
}

// Not waited for: a browser may stay.
void OpenPage(std::string address) {
    char program[] = "xdg-open";
    char* words[] = {program, address.data(), nullptr};
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t child = -1;
    const int error = posix_spawnp(&child, program, nullptr, &attributes, words, environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        (void)ReportError("zu-camera-peer", {"cannot run xdg-open: " + ErrnoText(error)});
    }
}

// An exception ends the process: there is no memory.
[[noreturn]] void ServeRequests(const CommandContext& context, const UniqueFd& socket,
                                const ViewConnector::Settings& settings) noexcept {
    // The reader of the program's output sees the end of it when the program ends.
    const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    dup2(null.Get(), STDIN_FILENO);
    dup2(null.Get(), STDOUT_FILENO);
    const PeerOptions& options = context.options;
    Waiter waiter;
    std::optional<Connection> made;
    for (char request = 0; recv(socket.Get(), &request, 1, 0) == 1;) {
        if (request == 'o') {
            OpenPage(settings.page);
            continue;
        }
        made.reset();
        auto connection = options.exec.empty()
                              ? Connection::ToSocket(options.socket, options.host_user, waiter, options.limit)
                              : Connection::ToCommand(options.exec);
        SendAnswer(socket.Get(), connection);
        if (connection) {
            // Otherwise its end would not be seen at the other side.
            connection->CloseDescriptors();
            made.emplace(std::move(*connection));
        }
    }
    made.reset();
    if (!settings.temporary.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(settings.temporary, ignored);
    }
    _exit(0);
}

}  // namespace

Expected<ViewConnector> ViewConnector::Start(const CommandContext& context, const Settings& settings) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return Fail("no socket: " + ErrnoText(errno));
    }
    UniqueFd own(ends[0]);
    const UniqueFd other(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        own.Reset();
        ServeRequests(context, other, settings);
    }
    if (child < 0) {
        return Fail("cannot start a process: " + ErrnoText(errno));
    }
    return ViewConnector(std::move(own));
}

Expected<void> ViewConnector::Send(char request) {
    if (send(m_socket.Get(), &request, 1, MSG_NOSIGNAL) != 1) {
        return Fail("the process that connects to the host has ended");
    }
    return {};
}

ViewConnector::Answer ViewConnector::Receive() {
    std::string text(kLongestText, '\0');
    iovec vector{text.data(), text.size()};
    Control control;
    msghdr message{};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes.data();
    message.msg_controllen = control.bytes.size();
    const ssize_t count = recvmsg(m_socket.Get(), &message, MSG_CMSG_CLOEXEC);
    if (count <= 0) {
        return {Fail("the process that connects to the host has ended"), true};
    }
    text.resize(static_cast<size_t>(count));
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (text.front() != kConnected || header == nullptr || header->cmsg_len < CMSG_LEN(sizeof(int))) {
        return {Fail(text.substr(1))};
    }
    std::array<int, kMostDescriptors> descriptors = {-1, -1};
    std::memcpy(descriptors.data(), CMSG_DATA(header), header->cmsg_len - CMSG_LEN(0));
    return {Connection::FromDescriptors(UniqueFd(descriptors[0]), UniqueFd(descriptors[1]))};
}

}  // namespace zumod::peer
