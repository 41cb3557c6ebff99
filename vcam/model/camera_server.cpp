#include "vcam/model/camera_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <span>
#include <sstream>

#include "common/unix_socket.h"
#include "vcam/preload/addresses.h"

namespace zumod::vcam {
namespace {

constexpr size_t kBoardsSize = sizeof(CameraBoard) * kMaxCameras;
// That wait for their request.
constexpr size_t kMaxConnections = 256;
constexpr size_t kMostDescriptors = 1;  // of a reply
constexpr size_t kMaxPayload = sizeof(v4l2_ext_controls) + kMaxExtControls * sizeof(v4l2_ext_control);

std::string NewName() {
    std::random_device random;
    return std::to_string(random()) + "." + std::to_string(random());
}

// Assigns a number to each camera that has none.
Expected<void> AssignNumbers(std::vector<CameraConfig>& configs) {
    std::set<int> taken;
    for (const CameraConfig& config : configs) {
        if (config.number >= 0 && !taken.insert(config.number).second) {
            return Fail("two cameras have device=" + std::to_string(config.number));
        }
    }
    int next = 0;
    for (CameraConfig& config : configs) {
        if (config.number < 0) {
            while (taken.count(next) != 0) {
                ++next;
            }
            config.number = next++;
        }
    }
    return {};
}

bool IsSameUser(int connection) {
    const uid_t user = PeerUser(connection);
    return user == geteuid() || user == 0;
}

void SendReply(int connection, const Reply& reply, std::span<const uint8_t> payload,
               std::span<const int> descriptors) {
    iovec parts[2] = {{const_cast<Reply*>(&reply), sizeof reply},
                      {const_cast<uint8_t*>(payload.data()), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    alignas(cmsghdr) char control[CMSG_SPACE(kMostDescriptors * sizeof(int))] = {};
    if (!descriptors.empty()) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(descriptors.size_bytes());
        std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size_bytes());
    }
    sendmsg(connection, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

std::string StatusText(const CameraStatus& status) {
    std::ostringstream text;
    text << "device=/dev/video" << status.number << " present=" << (status.present ? "yes" : "no")
         << " streaming=" << (status.streaming ? "yes" : "no") << " open=" << status.open_files
         << " format=" << FourccText(status.fourcc) << " size=" << status.size.width << "x"
         << status.size.height << " fps=" << status.rate.numerator << "/" << status.rate.denominator
         << " delivered=" << status.delivered << " dropped=" << status.dropped;
    return text.str();
}

}  // namespace

Expected<std::unique_ptr<CameraServer>> CameraServer::Start(std::vector<CameraConfig> configs,
                                                            std::string name, Log log) {
    if (configs.size() > kMaxCameras) {
        return Fail("at most " + std::to_string(kMaxCameras) + " cameras are possible");
    }
    if (name.size() >= kServerNameSize) {
        return Fail("a name has at most " + std::to_string(kServerNameSize - 1) + " characters");
    }
    if (const auto assigned = AssignNumbers(configs); !assigned) {
        return Fail(assigned.error());
    }
    std::unique_ptr<CameraServer> server(
        new CameraServer(name.empty() ? NewName() : std::move(name), std::move(log)));
    if (const auto opened = server->OpenFifos(configs); !opened) {
        return Fail(opened.error());
    }
    if (!server->MakeBoards() || !server->Listen()) {
        return Fail("cannot serve cameras: " + ErrnoText(errno));
    }
    for (CameraConfig& config : configs) {
        const auto slot = static_cast<unsigned>(server->m_cameras.size());
        server->m_numbers.push_back(config.number);
        server->m_cameras.push_back(
            std::make_unique<Camera>(slot, std::move(config), server->m_name, server->m_boards[slot]));
    }
    server->m_thread = std::thread([raw = server.get()] { raw->Loop(); });
    return server;
}

CameraServer::~CameraServer() {
    if (m_thread.joinable()) {
        eventfd_write(m_stop.Get(), 1);
        m_thread.join();
    }
    m_cameras.clear();
    if (m_boards != nullptr) {
        munmap(m_boards, kBoardsSize);
    }
}

Expected<void> CameraServer::OpenFifos(const std::vector<CameraConfig>& configs) {
    for (const CameraConfig& config : configs) {
        Input& input = m_inputs.emplace_back();
        if (config.source.path.empty()) {
            continue;
        }
        auto fifo = FifoInput::Open(config.source);
        if (!fifo) {
            return Fail(fifo.error());
        }
        input.fifo.emplace(std::move(*fifo));
    }
    return {};
}

bool CameraServer::MakeBoards() {
    m_boards_memory.Reset(memfd_create("zu-vcam-boards", MFD_CLOEXEC));
    if (!m_boards_memory || ftruncate(m_boards_memory.Get(), static_cast<off_t>(kBoardsSize)) != 0) {
        return false;
    }
    void* memory = mmap(nullptr, kBoardsSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_boards_memory.Get(), 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    // New memory is zero, which is a board's initial state.
    m_boards = static_cast<CameraBoard*>(memory);
    return true;
}

bool CameraServer::Listen() {
    m_stop.Reset(eventfd(0, EFD_CLOEXEC));
    m_listener.Reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    const unsigned length = ServerAddress(m_name.c_str(), address);
    return m_stop && m_listener &&
           bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
           listen(m_listener.Get(), SOMAXCONN) == 0;
}

void CameraServer::Loop() {
    struct Connection {
        UniqueFd socket;
        Waiter::Registration request;
    };
    // In the order of their arrival. Each ends with its one request, unless that is for a feed.
    std::map<uint64_t, Connection> connections;
    uint64_t next_connection = 0;
    bool stopped = false;
    const auto stop = m_waiter.Watch(m_stop.Get(), POLLIN, [&] { stopped = true; });
    const auto listening = m_waiter.Watch(m_listener.Get(), POLLIN, [&] {
        UniqueFd socket(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        // A program sends its request at once, so the oldest connection without one is the least likely to be
        // a program's. A failed accept is for want of descriptors.
        if (!connections.empty() && (!socket || connections.size() >= kMaxConnections)) {
            connections.erase(connections.begin());
        }
        if (!socket || !IsSameUser(socket.Get())) {
            return;
        }
        const uint64_t number = next_connection++;
        const int descriptor = socket.Get();
        auto request = m_waiter.Watch(descriptor, POLLIN, [&, number] {
            Connection connection = std::move(connections[number]);
            connections.erase(number);
            ServeConnection(std::move(connection.socket));
        });
        connections[number] = {std::move(socket), std::move(request)};
    });
    for (size_t index = 0; index < m_inputs.size(); ++index) {
        if (m_inputs[index].fifo) {
            WatchFifo(index);
        }
    }
    while (!stopped) {
        m_waiter.Wait(Clock::time_point::max());
    }
}

void CameraServer::WatchFifo(size_t index) {
    Input& input = m_inputs[index];
    if (input.fifo->Descriptor() < 0) {
        input.pictures.reset();
        return;
    }
    input.pictures = m_waiter.Watch(input.fifo->Descriptor(), POLLIN, [this, index] {
        const auto put = [&](PlanarImage image, uint64_t count) {
            m_cameras[index]->PutPicture(std::make_shared<PlanarImage>(std::move(image)), count);
        };
        if (m_inputs[index].fifo->OnReadable(put, m_log)) {
            WatchFifo(index);
        }
    });
}

int CameraServer::BeginFeed(size_t index, UniqueFd& connection) {
    if (index >= m_cameras.size()) {
        return ENODEV;
    }
    const CameraConfig config = m_cameras[index]->Config();
    if (config.source.kind != LiveSource::kFeed) {
        return ENOTSUP;
    }
    Input& input = m_inputs[index];
    if (input.feed) {
        return EBUSY;
    }
    UniqueFd notices(fcntl(connection.Get(), F_DUPFD_CLOEXEC, 0));
    input.feed = notices ? FeedInput::Create(config) : nullptr;
    if (!input.feed) {
        return errno;
    }
    const FeedOffer offer{input.feed->SlotSize()};
    const int memory = input.feed->Memory();
    SendReply(connection.Get(), {0, sizeof offer, 0},
              std::span(reinterpret_cast<const uint8_t*>(&offer), sizeof offer), std::span(&memory, 1));
    input.feeder = std::move(connection);
    input.commands = m_waiter.Watch(input.feeder.Get(), POLLIN, [this, index] { ReceiveCommand(index); });
    m_cameras[index]->AttachFeed(std::move(notices));
    return 0;
}

void CameraServer::TakeFed(size_t index) {
    auto taken = m_inputs[index].feed->Take();
    if (!taken) {
        // One that comes again and again must not fill a log.
        if (const uint64_t count = ++m_inputs[index].refusals; m_log && std::has_single_bit(count)) {
            m_log("the program that feeds camera " + std::to_string(index) + " is disconnected: " +
                  taken.error().text + (count > 1 ? ", after " + std::to_string(count - 1) + " before" : ""));
        }
        EndFeed(index);
    } else if (*taken) {
        m_cameras[index]->PutPicture(std::make_shared<PlanarImage>(std::move(**taken)));
    }
}

void CameraServer::ReceiveCommand(size_t index) {
    FeedCommand command{};
    const ssize_t received = recv(m_inputs[index].feeder.Get(), &command, sizeof command, MSG_DONTWAIT);
    if (received == sizeof command && command.action == FeedCommand::kPicture) {
        TakeFed(index);
    } else if (received == sizeof command) {
        m_cameras[index]->SetPlugged(command.action != FeedCommand::kUnplug);
    } else if (received >= 0 || (errno != EAGAIN && errno != EINTR)) {
        EndFeed(index);
    }
}

void CameraServer::EndFeed(size_t index) {
    Input& input = m_inputs[index];
    input.commands.reset();
    input.feeder.Reset();
    input.feed.reset();
    m_cameras[index]->DetachFeed();
}

void CameraServer::ServeConnection(UniqueFd connection) {
    Request request{};
    std::vector<uint8_t> payload(kMaxPayload);
    iovec parts[2] = {{&request, sizeof request}, {payload.data(), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t received = recvmsg(connection.Get(), &message, MSG_DONTWAIT);
    if (received < static_cast<ssize_t>(sizeof request) || request.magic != kWireMagic ||
        request.version != kWireVersion) {
        return;
    }
    payload.resize(static_cast<size_t>(received) - sizeof request);
    UniqueFd descriptor;
    Reply reply{};
    if (request.operation == Operation::kFeed) {
        reply.error = BeginFeed(request.slot, connection);
        if (reply.error == 0) {
            return;
        }
        payload.clear();
    } else {
        reply.error = Answer(request, payload, descriptor, reply.delay_ms);
    }
    reply.size = static_cast<uint32_t>(payload.size());
    const int passed = descriptor.Get();
    SendReply(connection.Get(), reply, payload, std::span(&passed, descriptor ? 1 : 0));
}

int CameraServer::Answer(const Request& request, std::vector<uint8_t>& payload, UniqueFd& descriptor,
                         uint32_t& delay_ms) {
    switch (request.operation) {
        case Operation::kOpen:
            return Open(request, descriptor, delay_ms);
        case Operation::kStat: {
            const int number = static_cast<int>(request.value);
            return FindNumber(number) != nullptr ? 0 : ErrorFor(number);
        }
        case Operation::kList:
            payload.clear();
            for (const auto& camera : m_cameras) {
                if (const int number = camera->Number(); number >= 0) {
                    const auto* bytes = reinterpret_cast<const uint8_t*>(&number);
                    payload.insert(payload.end(), bytes, bytes + sizeof number);
                }
            }
            return 0;
        case Operation::kBoards:
            descriptor.Reset(fcntl(m_boards_memory.Get(), F_DUPFD_CLOEXEC, 0));
            return descriptor ? 0 : errno;
        case Operation::kControl: {
            const auto answer = Control(std::string(payload.begin(), payload.end()));
            const std::string& text = answer ? *answer : answer.error().text;
            payload.assign(text.begin(), text.end());
            return answer ? 0 : EINVAL;
        }
        default:
            return request.slot < m_cameras.size()
                       ? m_cameras[request.slot]->Serve(request, payload, descriptor)
                       : ENODEV;
    }
}

int CameraServer::Open(const Request& request, UniqueFd& descriptor, uint32_t& delay_ms) {
    const int number = static_cast<int>(request.value);
    Camera* const camera = FindNumber(number);
    if (camera == nullptr) {
        return ErrorFor(number);
    }
    FileIdentity identity{};
    delay_ms = camera->OpenDelay();
    return camera->Open(request.flags, descriptor, identity);
}

Camera* CameraServer::FindNumber(int number) {
    for (const auto& camera : m_cameras) {
        if (camera->Number() == number) {
            // A fault can replug a camera under another number.
            if (!WasVirtual(number)) {
                m_numbers.push_back(number);
            }
            return camera.get();
        }
    }
    return nullptr;
}

bool CameraServer::WasVirtual(int number) const {
    return std::ranges::find(m_numbers, number) != m_numbers.end();
}

Expected<std::string> CameraServer::Control(const std::string& line) {
    std::istringstream words(line);
    size_t index = 0;
    std::string verb;
    if (!(words >> index >> verb) || index >= m_cameras.size()) {
        return Fail(
            "expected the number of a camera, counted from 0 in the order they were given, and a command");
    }
    Camera& camera = *m_cameras[index];
    if (verb == "status") {
        return StatusText(camera.Status());
    }
    if (verb == "clear") {
        camera.ClearFaults();
        return {};
    }
    return ParseFault(verb).map([&camera](const Fault& fault) {
        camera.Inject(fault);
        return std::string();
    });
}

}  // namespace zumod::vcam
