// Virtual cameras for the calls of this very process: a test program that runs with the preload library makes
// one of these, and /dev/videoN is there, with the model at hand in C++. See zu_vcam_test in CMakeLists.txt.
// Make and destroy it on one thread while no other thread of the test runs.
#pragma once

#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "vcam/model/camera_option.h"
#include "vcam/model/camera_server.h"

namespace zumod::vcam {

class PreloadedCameras {
public:
    // One list of options a camera, as --camera takes it.
    explicit PreloadedCameras(std::initializer_list<const char*> cameras) {
        std::vector<CameraConfig> configs;
        std::string error;
        for (const char* options : cameras) {
            if (!ParseCamera(options, configs.emplace_back(), error)) {
                throw std::invalid_argument(error);
            }
        }
        server_ = CameraServer::Start(std::move(configs), error);
        if (!server_) {
            throw std::runtime_error(error);
        }
        setenv(kServerVariable, server_->Name().c_str(), 1);
    }
    PreloadedCameras(const PreloadedCameras&) = delete;
    PreloadedCameras& operator=(const PreloadedCameras&) = delete;
    ~PreloadedCameras() { unsetenv(kServerVariable); }

    // In the order they were given.
    Camera& At(size_t index) { return server_->At(index); }
    CameraServer& Server() { return *server_; }

private:
    std::unique_ptr<CameraServer> server_;
};

}  // namespace zumod::vcam
