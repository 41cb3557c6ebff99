// The commands that ask one thing and print the answer.
#include "peer/camera_table.h"
#include "peer/commands.h"
#include "peer/picture_size.h"

namespace zumod::peer {
namespace {

const char* StateText(CameraState state) {
    switch (state) {
        case kCameraFailed:
            return "failed";
        case kCameraOpen:
            return "open";
        case kCameraClosed:
            return "closed";
    }
    return "";
}

}  // namespace

Session Work::Connect() const {
    Connection connection = options.exec.empty() ? Connection::ToSocket(options.socket, options.limit)
                                                 : Connection::ToCommand(options.exec);
    return {std::move(connection), waiter, options.limit};
}

PictureSize SizeFor(const PeerOptions& options, const CameraEntry& camera) {
    return options.size ? *options.size : DefaultSize(camera.sizes);
}

void ListCameras(const Work& work) {
    Session session = work.Connect();
    const std::vector<CameraEntry> cameras = AskCameras(session);
    work.output.Write(work.options.json ? CameraJson(cameras) : CameraTable(cameras));
}

void CloseOne(const Work& work) {
    Session session = work.Connect();
    const uint32_t id = work.options.id;
    const CameraState state = CloseCamera(session, id);
    work.output.Write("camera " + std::to_string(id) + ": " + StateText(state) + "\n");
}

void ShowVersion(const Work& work) {
    Session session = work.Connect();
    work.output.Write(std::to_string(AskVersion(session)) + "\n");
}

}  // namespace zumod::peer
