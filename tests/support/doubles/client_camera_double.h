// Double of the platform's cameras: lists what the script says, records what the plugin calls, and opens or
// fails as the script says.
//
// Thread rule: [run thread], except that a test may deliver frames through the listener from any thread.
#pragma once

#include <string>
#include <vector>

#include "src/bridge/camera_client.h"

namespace zumod::testing {

// What the two functions of the factory return in a program that links this double, and what was called.
struct ClientCameraScript {
    bool built_in = true;                   // false: CreateClientCamera returns null
    std::vector<CameraDeviceInfo> cameras;  // what ListCameras returns
    bool open_result = true;
    std::string throws_in;  // the call that throws std::runtime_error after it was recorded, as "Open()"
    // Every call in order: "ListCameras()", and those on each camera with its number in front, "0 Open()".
    std::vector<std::string> calls;
    std::vector<IClientCameraListenter*> listeners;
    int created = 0;
    int alive = 0;
};

ClientCameraScript& CameraScript();

}  // namespace zumod::testing
