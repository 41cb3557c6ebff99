// Virtual cameras for a test program that runs with the preload library: while one of these exists, the
// program's own calls find /dev/videoN, and the test controls the camera model in C++. See zu_test(...
// CAMERAS) in cmake/Zu.cmake.
//
// Thread rule: constructed and destroyed while no other thread of the test runs.
#pragma once

#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "vcam/model/camera_option.h"
#include "vcam/model/camera_server.h"

namespace zumod::vcam {

class PreloadedCameras {
public:
    // One string of options per camera, as in --camera.
    explicit PreloadedCameras(std::initializer_list<const char*> cameras) {
        std::vector<CameraConfig> configs;
        for (const char* options : cameras) {
            configs.push_back(ParseCamera(options).value());
        }
        m_server = CameraServer::Start(std::move(configs)).value();
        setenv(kServerVariable, m_server->Name().c_str(), 1);
    }
    PreloadedCameras(const PreloadedCameras&) = delete;
    PreloadedCameras& operator=(const PreloadedCameras&) = delete;
    ~PreloadedCameras() { unsetenv(kServerVariable); }

    // By position in the constructor's list.
    Camera& At(size_t index) { return m_server->At(index); }

private:
    std::unique_ptr<CameraServer> m_server;
};

}  // namespace zumod::vcam
