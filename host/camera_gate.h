// Which cameras peers may list and open, and what they are told about the others.
//
// A rule names a camera by its name or its bus. The gate finds both behind a camera's number with
// CameraFiles, and looks at the device file itself. A number can name another camera at any time, so an open
// goes like this when there are rules (the steps are in the broker):
//
// 1. The broker lets the module list the cameras, for itself. CameraFiles is up to date then.
// 2. CheckOpen looks at the camera's device file and decides.
// 3. The module gets the request. It looks for the cameras again and opens one.
// 4. IsStill compares the device file of 2 with the one that the module has found in 3. IsDevice looks at
// that
//    file once more: while the module has the device open, no other one can get its number. So a device that
//    was replaced between 2 and 3 is found. Until then no frame goes out. If anything differs, the peer gets
//    no frame, and the camera is closed.
//
// Without a rule none of this happens: an open is passed on as it is.
//
// Thread rule: IsStill and Camera are [any thread]; the rest is [run thread], and may block as long as a
// driver does. ReportProblems is also [main thread], before the run thread exists.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "host/video_devices.h"

namespace zumod::host {

struct LendingRules {
    // Patterns as in a shell ("*", "?", "[a-z]"), of names and buses, in any letter case.
    std::vector<std::string> allow;  // empty: every camera
    std::vector<std::string> deny;   // stronger than `allow`
    bool list_only = false;          // no camera is opened
    bool ask = false;                // the owner decides about each open
};

bool IsLent(const LendingRules& rules, const VideoDevice& device);

class CameraGate {
public:
    // A warning.
    using LogFunction = std::function<void(const std::string& text)>;

    CameraGate(LendingRules rules, const CameraFiles& files, LogFunction log);
    CameraGate(const CameraGate&) = delete;
    CameraGate& operator=(const CameraGate&) = delete;

    // Why no camera is opened at all; empty if some may be.
    std::string OpenRefusal() const;
    // Whether the owner decides about each open that CheckOpen allows.
    bool AsksOwner() const { return m_rules.ask; }
    // Whether an open needs CheckOpen.
    bool ChecksOpens() const { return HasPatterns() || m_rules.ask; }

    struct Verdict {
        std::string refusal;  // empty: may be opened
        // Of a camera that may be opened.
        ListedCamera camera = {};
        std::string identity = {};  // what the owner agrees to: another device at the file differs
    };
    Verdict CheckOpen(uint32_t camera);
    // Whether the device at this file is the one that CheckOpen has found.
    static bool IsDevice(const std::string& file, const std::string& identity);

    // The camera of this number in the module's last list.
    ListedCamera Camera(uint32_t camera) const { return m_files.Camera(camera); }
    // Whether the camera of this number is still the one at this device file.
    bool IsStill(uint32_t camera, const std::string& file) const { return Camera(camera).file == file; }

    struct Listing {
        std::vector<uint8_t> message;          // with the cameras that are lent
        std::vector<std::string> information;  // for the peer, before the list
    };
    // A list message of the module.
    Listing OnList(std::span<const uint8_t> message);

    // Logs what cannot be used, if it has changed since the last time.
    void ReportProblems() { (void)ReportProblems(LookAtDevices()); }

private:
    bool HasPatterns() const { return !m_rules.allow.empty() || !m_rules.deny.empty(); }
    std::vector<std::string> ReportProblems(const std::vector<VideoDevice>& devices);

    const LendingRules m_rules;
    const CameraFiles& m_files;
    const LogFunction m_log;
    std::vector<std::string> m_reported;  // of the main thread first, then of one run thread after the other
};

}  // namespace zumod::host
