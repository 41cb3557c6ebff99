// The server of virtual cameras. Its clients are the programs that run with the preload library and have the
// server's name in their environment.
//
// Thread rule: any thread. One thread of the server answers all requests, one connection at a time.
#pragma once

#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/error.h"
#include "common/unique_fd.h"
#include "common/waiter.h"
#include "vcam/model/camera.h"
#include "vcam/model/feed_input.h"
#include "vcam/model/fifo_input.h"

namespace zumod::vcam {

class CameraServer {
public:
    // Gets a line without its end, on the server's thread.
    using Log = FifoInput::Log;

    // An error is one line. An empty name: a random one. The log gets what goes wrong later.
    static Expected<std::unique_ptr<CameraServer>> Start(std::vector<CameraConfig> configs,
                                                         std::string name = {}, Log log = {});
    CameraServer(const CameraServer&) = delete;
    CameraServer& operator=(const CameraServer&) = delete;
    ~CameraServer();

    // The value of kServerVariable in a program's environment.
    const std::string& Name() const { return m_name; }
    // In the order of the configurations.
    Camera& At(size_t index) { return *m_cameras.at(index); }

    // Carries out a line for one camera, such as "0 unplug" or "1 status", and returns the camera's answer.
    Expected<std::string> Control(const std::string& line);

private:
    // A camera's FIFO, or the process that feeds it.
    struct Input {
        std::optional<FifoInput> fifo;
        std::unique_ptr<FeedInput> feed;
        UniqueFd feeder;  // the connection
        Waiter::Registration pictures;
        Waiter::Registration commands;
        uint64_t refusals = 0;  // of feeders that did not keep to the protocol
    };

    CameraServer(std::string name, Log log) : m_name(std::move(name)), m_log(std::move(log)) {}
    Expected<void> OpenFifos(const std::vector<CameraConfig>& configs);
    bool MakeBoards();
    bool Listen();
    void Loop();
    void ServeConnection(UniqueFd connection);
    void WatchFifo(size_t index);
    // Returns errno for the reply, after which the connection is the feeder's.
    int BeginFeed(size_t index, UniqueFd& connection);
    void TakeFed(size_t index);
    void ReceiveCommand(size_t index);
    void EndFeed(size_t index);
    // Returns Reply::error.
    int Answer(const Request& request, std::vector<uint8_t>& payload, UniqueFd& descriptor,
               uint32_t& delay_ms);
    int Open(const Request& request, UniqueFd& descriptor, uint32_t& delay_ms);
    Camera* FindNumber(int number);
    // The error for a number that no camera has.
    int ErrorFor(int number) const { return WasVirtual(number) ? ENOENT : kNotVirtual; }
    bool WasVirtual(int number) const;

    std::string m_name;
    Log m_log;
    UniqueFd m_boards_memory;
    CameraBoard* m_boards = nullptr;
    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::vector<int> m_numbers;  // all that a camera ever had; only the server's thread uses it
    UniqueFd m_listener;
    UniqueFd m_stop;
    // From here on only the server's thread uses them, once it has started.
    Waiter m_waiter;
    std::vector<Input> m_inputs;  // one per camera
    std::thread m_thread;
};

}  // namespace zumod::vcam
