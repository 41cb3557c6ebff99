// Serves virtual cameras to every program that is preloaded for them and finds the server's name in its
// environment. Any thread.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "vcam/model/camera.h"

namespace zumod::vcam {

class CameraServer {
public:
    // Null when it cannot start; `error` then says why, in one line. An empty name makes a new one.
    static std::unique_ptr<CameraServer> Start(std::vector<CameraConfig> configs, std::string& error,
                                               std::string name = {});
    CameraServer(const CameraServer&) = delete;
    CameraServer& operator=(const CameraServer&) = delete;
    ~CameraServer();

    // For a program's environment, as the value of kServerVariable.
    const std::string& Name() const { return m_name; }
    // In the order they were given.
    Camera& At(size_t index) { return *m_cameras.at(index); }
    size_t Count() const { return m_cameras.size(); }

    // A line for one camera, "0 unplug", "1 status": what it answers. False for a line that makes no sense.
    bool Control(const std::string& line, std::string& answer);

private:
    explicit CameraServer(std::string name) : m_name(std::move(name)) {}
    bool MakeBoards();
    bool Listen();
    void Loop();
    bool ServeConnection(int connection);
    Reply Answer(const Request& request, std::vector<uint8_t>& payload, UniqueFd& descriptor);
    Reply Open(const Request& request, UniqueFd& descriptor);
    Camera* FindNumber(int number);
    bool WasVirtual(int number) const;

    std::string m_name;
    UniqueFd m_boards_memory;
    CameraBoard* m_boards = nullptr;
    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::vector<int> m_numbers;  // all that ever were a camera's; used by the server's thread alone
    UniqueFd m_listener;
    UniqueFd m_stop;
    std::thread m_thread;
};

}  // namespace zumod::vcam
