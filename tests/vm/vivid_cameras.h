// The guest's cameras as the tests of this folder find them, and the programs that set and question them from
// outside: v4l2-ctl, and the driver's files.
//
// Thread rule: the test's thread.
#pragma once

#include <string>

namespace zumod::testing {

// In the order in which tests/vm/vm_parameters has the driver make them.
inline constexpr int kWebcam = 0;
inline constexpr int kHdmi = 1;
inline constexpr int kSecondWebcam = 2;
inline constexpr int kCameras = 3;

std::string DeviceFile(int camera);

// What the shell command prints; a failure of the test when its exit status is not 0.
std::string OutputOf(const std::string& command);

// v4l2-ctl --set-ctrl for that camera: "name=value,name=value".
void SetControls(int camera, const std::string& controls);

// Set in the environment of a program of these tests that shall leave the cameras as they are.
inline constexpr char kCamerasAreSetUp[] = "ZU_VM_CAMERAS_ARE_SET_UP";

// The same still picture on every camera but for the running time in its first rows, each camera with other
// colours; no fault is left set.
void SetUpCameras();

// Takes the driver from its cameras, as if all were pulled out, and gives it back.
void UnbindDriver();
void BindDriver();

}  // namespace zumod::testing
