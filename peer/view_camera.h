// One camera of the host on the page: who views it, what is recorded of it, and what the page says about it.
// When it is open at the host is decided by a PublishedCamera, whose readers are the viewers and the
// recording.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/message_reader.h"
#include "peer/options.h"
#include "peer/published_camera.h"
#include "peer/recording_files.h"
#include "peer/stream_parser.h"
#include "peer/view_queue.h"

namespace zumod::peer {

enum class ViewState : uint8_t { kIdle, kConnecting, kWaiting, kLive, kStalled, kGone, kBusy, kRefused };

// A camera in the connection of a viewer.
struct ViewPart {
    ViewQueue pictures;
    bool has_state = true;  // the viewer does not know the camera's state yet
};

class ViewCamera {
public:
    struct Made {
        const std::vector<CameraEntry>& listed;
        const CameraEntry& entry;
        const PeerOptions& options;
    };
    // `id`: for the page. The options are borrowed.
    ViewCamera(uint32_t id, const Made& made);

    uint32_t Id() const { return m_id; }
    std::string Label() const;

    // ---- Viewers. `part` is borrowed.
    void AddViewer(ViewPart& part, Clock::time_point now);
    void RemoveViewer(const ViewPart& part);
    bool HasReaders() const { return !m_viewers.empty() || m_recording; }
    bool IsRecording() const { return m_recording.has_value(); }

    // ---- Events

    // A frame of this camera. A failed recording has ended when it returns its error.
    Expected<void> OnFrame(const FrameMessage& frame, Clock::time_point arrived);
    // The camera is opened as a new stream.
    void OnOpen();
    void OnOpened();
    // It could not be opened: why, as the host says; "" if it did not.
    void OnRefused(const std::string& notice);
    // It sends nothing more, for now. `text`: why.
    void OnLost(bool is_listed, const std::string& text);
    // `entry`: null if the host does not list it any more.
    void OnListed(const CameraEntry* entry);
    void OnControls(const std::vector<ControlEntry>& controls) { m_controls = controls; }
    // Returns whether what the page shows has changed.
    bool UpdateState();

    // ---- Recording

    // Returns the name of the file.
    Expected<std::string> StartRecording(const std::string& directory);
    Expected<void> FinishRecording();
    Clock::time_point FlushDue() const;
    Expected<void> Flush();

    // ---- What the page shows

    nlohmann::json Json(std::optional<double> round_trip_ms, Clock::time_point now) const;
    // For the viewers.
    std::string StateJson() const;
    const std::optional<std::vector<ControlEntry>>& Controls() const { return m_controls; }
    const CameraEntry& Entry() const { return m_entry; }
    bool IsListed() const { return m_is_listed; }

    PublishedCamera published;
    uint64_t notices_at_open = 0;  // of the host

private:
    struct Recorded {
        std::unique_ptr<RecordingFiles> files;
        std::string name;
        std::optional<Clock::time_point> begin;  // of the first picture
        uint64_t bytes = 0;
    };

    void SetState(ViewState state, const std::string& text);

    const uint32_t m_id;
    const PeerOptions& m_options;
    CameraEntry m_entry;
    bool m_is_listed = true;
    ViewState m_state = ViewState::kIdle;
    std::string m_text;
    bool m_has_changed = true;

    std::vector<ViewPart*> m_viewers;
    ViewGroup m_group;
    std::optional<StreamParser> m_parser;  // of the current stream
    std::vector<uint8_t> m_parameter_sets;
    PictureSize m_size;  // of the pictures
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
    uint64_t m_lost = 0;  // by viewers that have left
    std::optional<std::vector<ControlEntry>> m_controls;
    std::optional<Recorded> m_recording;
};

// "Front Camera" as "front-camera": a name for files that needs no escapes anywhere. Never empty.
std::string FileNamePart(const std::string& name);

}  // namespace zumod::peer
