#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include "common/safe_text.h"
#include "peer/commands.h"
#include "peer/view_service.h"

namespace zumod::peer {
namespace {

// A new directory that only the user can enter.
Expected<std::string> NewTemporaryDirectory() {
    std::error_code error;
    std::string path = (std::filesystem::temp_directory_path(error) / "zu-camera-view-XXXXXX").string();
    if (error || mkdtemp(path.data()) == nullptr) {
        return Fail("no temporary directory for recordings: " + (error ? error.message() : ErrnoText(errno)));
    }
    return path;
}

}  // namespace

Expected<void> ViewCameras(const CommandContext& context) {
    const PeerOptions& options = context.options;
    auto listener = ViewListener::Open(options.port);
    if (!listener) {
        return Fail(listener.error());
    }
    const std::string token = NewHttpToken();
    const std::string address = PageAddress(listener->port, token);
    auto temporary = options.directory.empty() ? NewTemporaryDirectory() : Expected<std::string>("");
    if (!temporary) {
        return Fail(temporary.error());
    }
    auto connector = ViewConnector::Start(context, {*temporary, address});
    if (!connector) {
        return Fail(connector.error());
    }
    const std::string directory = options.directory.empty() ? *temporary : options.directory;
    // The connection is made by the connector, outside.
    if (auto restricted = RestrictProcess(options, -1, {}, directory); !restricted) {
        return restricted;
    }
    ViewService service(context, {std::move(*listener), token, std::move(*connector), directory});
    auto ran = service.Connect()
                   .and_then([&] { return context.output.Write(address + "\n"); })
                   .and_then([&] { return options.open_page ? service.OpenPage() : Expected<void>(); })
                   .and_then([&] { return service.Run(); });
    return !ran && ran.error() == Interrupted() ? Expected<void>() : ran;
}

}  // namespace zumod::peer
