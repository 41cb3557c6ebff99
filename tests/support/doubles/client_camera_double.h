// Stands in for the platform's camera client: records what the plugin calls, and opens or not as it is told.
//
// Thread rule: [run thread], except that a test may deliver frames through the listener from any thread.
#pragma once

#include <string>
#include <vector>

#include "src/bridge/client_camera.h"
#include "src/bridge/client_camera_listenter.h"

namespace zumod::testing {

// What CreateClientCamera gives in a program that links this double, and what was done to it.
struct ClientCameraScript {
    bool built_in = true;  // false: CreateClientCamera gives nothing
    bool open_result = true;
    // Every call on every camera in order, "name(arguments)", the camera's number in front: "0 Open()".
    std::vector<std::string> calls;
    std::vector<IClientCameraListenter*> listeners;
    int created = 0;
    int alive = 0;
};

ClientCameraScript& CameraScript();

}  // namespace zumod::testing
