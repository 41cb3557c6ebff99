// A virtual camera: its open files, and its parts (camera_parts.h) under one lock. A request goes through
// the table in ioctl_table.h to the part that answers it.
//
// Thread rule: any thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "vcam/model/camera_parts.h"
#include "vcam/model/feed.h"

namespace zumod::vcam {

struct CameraStatus {
    int number = 0;
    bool present = false;
    bool streaming = false;
    unsigned open_files = 0;
    uint64_t delivered = 0;  // frames, in all streams
    uint64_t dropped = 0;  // frames without a queued buffer, taken by a fault, or replaced by a newer picture
    uint32_t fourcc = 0;
    Size size;
    Rate rate;
};

class Camera {
public:
    // The board must outlive the camera. A Y4M file that cannot be read is replaced by the test pattern.
    Camera(unsigned slot, CameraConfig config, std::string server_name, CameraBoard& board);
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;
    ~Camera();

    // Opens the device file with the flags of open(2). Returns 0 or errno.
    int Open(uint32_t flags, UniqueFd& program_end, FileIdentity& identity);
    // How many milliseconds opening takes under the current faults.
    uint32_t OpenDelay();
    // Serves a request of an open file. The reply's payload replaces the request's. Returns 0 or errno.
    int Serve(const Request& request, std::vector<uint8_t>& payload, UniqueFd& descriptor);

    void Inject(const Fault& fault);
    void ClearFaults();
    CameraStatus Status();

    // The newest of `count` pictures of a live camera.
    void PutPicture(std::shared_ptr<const PlanarImage> picture, uint64_t count = 1);
    // A camera that a process feeds: plugs it in and sends each change of what programs want as a FeedNotice,
    // the present state first. `notices` is a socket. Returns false if there is a feeder already.
    bool AttachFeed(UniqueFd notices);
    // The feeder is gone: the camera is unplugged until the next one comes.
    void DetachFeed();
    // For the feeder. A camera that it unplugged comes back only when it says so; the faults that plug a
    // camera in apply after a fault that unplugs it.
    void SetPlugged(bool is_plugged);

    // The device number, or -1 while it is unplugged.
    int Number();
    CameraBoard& Board() { return m_board; }
    CameraConfig Config();

private:
    int ServeFile(const OpenFile& file, const Request& request, std::vector<uint8_t>& payload,
                  UniqueFd& descriptor) ZU_REQUIRES(m_lock);
    // Forgets the files that no process has open any more.
    void Reap() ZU_REQUIRES(m_lock);
    void Unplug() ZU_REQUIRES(m_lock);
    // Unplug, and plan to come back if a fault says so.
    void UnplugByFault() ZU_REQUIRES(m_lock);
    // What the feeder says, or its end.
    void LetFeederPlug(bool is_plugged) ZU_REQUIRES(m_lock);
    // Tells the feeder if what programs want has changed. Called after everything that may change it.
    void NotifyFeed() ZU_REQUIRES(m_lock);
    void OnFaultsChanged() ZU_REQUIRES(m_lock);
    void OnFrameThread(FrameThread::Next next) ZU_REQUIRES(m_lock);

    const unsigned m_slot;
    const std::string m_server_name;
    CameraBoard& m_board;

    Mutex m_lock;
    CameraParts m_parts ZU_GUARDED_BY(m_lock);
    std::map<uint32_t, OpenFile> m_files ZU_GUARDED_BY(m_lock);
    uint32_t m_next_file ZU_GUARDED_BY(m_lock) = 1;
    UniqueFd m_feed ZU_GUARDED_BY(m_lock);  // to the feeder
    std::optional<FeedNotice> m_noticed ZU_GUARDED_BY(m_lock);
};

}  // namespace zumod::vcam
