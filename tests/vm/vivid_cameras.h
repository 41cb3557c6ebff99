// The guest's cameras, and the tools that control and query them: v4l2-ctl and the driver's files.
//
// Thread rule: the test's thread.
#pragma once

#include <string>

namespace zumod::testing {

// In the order in which the driver creates them from tests/vm/vm_parameters.
inline constexpr int kWebcam = 0;
inline constexpr int kHdmi = 1;
inline constexpr int kSecondWebcam = 2;
inline constexpr int kCameras = 3;

std::string DeviceFile(int camera);

// The output of a shell command. A failure of the test if its exit status is not 0.
std::string OutputOf(const std::string& command);

// v4l2-ctl --set-ctrl for that camera: "name=value,name=value".
void SetControls(int camera, const std::string& controls);

// Set in the environment of a test program that must not change the cameras.
inline constexpr char kCamerasAreSetUp[] = "ZU_VM_CAMERAS_ARE_SET_UP";

// Shows a still picture on every camera, with the running time in its first rows and other colours for
// each camera. Removes all faults.
void SetUpCameras();

// Detaches the driver from its cameras, as if all were unplugged, and attaches it again.
void UnbindDriver();
void BindDriver();

}  // namespace zumod::testing
