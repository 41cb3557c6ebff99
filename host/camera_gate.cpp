#include "host/camera_gate.h"

#include <fnmatch.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "common/camera_records.h"
#include "zumod/camera_channel.h"

namespace zumod::host {
namespace {

bool IsNamed(const std::vector<std::string>& patterns, const VideoDevice& device) {
    return std::ranges::any_of(patterns, [&](const std::string& pattern) {
        return fnmatch(pattern.c_str(), device.name.c_str(), FNM_CASEFOLD) == 0 ||
               fnmatch(pattern.c_str(), device.bus.c_str(), FNM_CASEFOLD) == 0;
    });
}

// What tells a device from any other one that may get its file.
std::string IdentityOf(const VideoDevice& device) {
    return device.file + '\n' + device.name + '\n' + device.bus + '\n' + device.node;
}

// A list message with these records.
std::vector<uint8_t> ListMessage(const std::vector<CameraRecordBytes>& records) {
    size_t size = sizeof(uint32_t);
    for (const CameraRecordBytes& record : records) {
        size += record.size();
    }
    std::vector<uint8_t> message(sizeof(_MESSAGE_HEADER) + size);
    uint8_t* at = WriteHeader(message.data(), kCameraList, static_cast<uint32_t>(size));
    at = WriteRecord(at, static_cast<uint32_t>(records.size()));
    for (const CameraRecordBytes& record : records) {
        at = std::ranges::copy(record, at).out;
    }
    return message;
}

}  // namespace

bool IsLent(const LendingRules& rules, const VideoDevice& device) {
    return (rules.allow.empty() || IsNamed(rules.allow, device)) && !IsNamed(rules.deny, device);
}

CameraGate::CameraGate(LendingRules rules, const CameraFiles& files, LogFunction log)
    : m_rules(std::move(rules)), m_files(files), m_log(std::move(log)) {}

std::string CameraGate::OpenRefusal() const {
    return m_rules.list_only ? "this host lists its cameras and opens none" : "";
}

CameraGate::Verdict CameraGate::CheckOpen(uint32_t camera) {
    const std::string file = Camera(camera).file;
    const VideoDevice device = LookAtDevice(file);
    // For the peer, a camera that is not lent does not exist.
    if (device.error != 0 || !IsLent(m_rules, device)) {
        return {"this host lends no camera " + std::to_string(camera)};
    }
    return {"", {file, device.name}, IdentityOf(device)};
}

bool CameraGate::IsDevice(const std::string& file, const std::string& identity) {
    const VideoDevice device = LookAtDevice(file);
    // Some drivers permit one program at a time: the module.
    return device.error == EBUSY ? identity.ends_with('\n' + NodeOf(file))
                                 : device.error == 0 && IdentityOf(device) == identity;
}

CameraGate::Listing CameraGate::OnList(std::span<const uint8_t> message) {
    const std::vector<VideoDevice> devices = LookAtDevices();
    Listing listing{{message.begin(), message.end()}, ReportProblems(devices)};
    if (!HasPatterns()) {
        return listing;
    }
    const auto is_lent = [&](const CameraRecordBytes& record) {
        const std::string file = Camera(ReadRecord<CameraRecord>(record.data()).id).file;
        const auto device = std::ranges::find(devices, file, &VideoDevice::file);
        return device != devices.end() && device->error == 0 && IsLent(m_rules, *device);
    };
    std::vector<CameraRecordBytes> lent;
    if (const auto records = SplitCameraList(message.subspan(sizeof(_MESSAGE_HEADER)))) {
        std::ranges::copy_if(*records, std::back_inserter(lent), is_lent);
    } else {
        m_log("[host] the module's camera list is malformed: no camera is lent");
    }
    listing.message = ListMessage(lent);
    return listing;
}

std::vector<std::string> CameraGate::ReportProblems(const std::vector<VideoDevice>& devices) {
    std::vector<VideoDevice> known;
    std::ranges::copy_if(devices, std::back_inserter(known), [this](const VideoDevice& device) {
        return device.error != 0 || IsLent(m_rules, device);
    });
    std::vector<std::string> problems = DeviceProblems(known);
    if (problems != m_reported) {
        for (const std::string& problem : problems) {
            m_log("[host] " + problem);
        }
        m_reported = problems;
    }
    return problems;
}

}  // namespace zumod::host
