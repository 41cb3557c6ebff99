#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "peer/commands.h"
#include "peer/printed_text.h"

namespace zumod::peer {
namespace {

struct ControlledCamera {
    Session session;
    CameraEntry camera;
    std::vector<ControlEntry> controls;
};

Expected<ControlledCamera> AskCamera(const CommandContext& context) {
    auto session = context.Connect();
    if (!session) {
        return Fail(session.error());
    }
    const auto camera = AskCameras(*session).and_then(
        [&](const std::vector<CameraEntry>& cameras) { return FindCamera(cameras, context.options.camera); });
    if (!camera) {
        return Fail(camera.error());
    }
    auto controls = AskControls(*session, *camera);
    if (!controls) {
        return Fail(controls.error());
    }
    return ControlledCamera{std::move(*session), *camera, std::move(*controls)};
}

}  // namespace

Expected<void> ListControls(const CommandContext& context) {
    return AskCamera(context).and_then([&](const ControlledCamera& asked) {
        return context.output.Write(context.options.json ? ControlsJson(asked.controls)
                                                         : ControlTable(asked.controls));
    });
}

// Nothing is changed unless every setting is right. A change is not answered, so the controls are read again.
Expected<void> SetControls(const CommandContext& context) {
    auto asked = AskCamera(context);
    if (!asked) {
        return Fail(asked.error());
    }
    const std::string label = CameraLabel(asked->camera);
    std::vector<ControlChange> changes;
    for (const ControlSetting& setting : context.options.settings) {
        const auto change = CheckSetting(setting, asked->controls, label);
        if (!change) {
            return Fail(change.error());
        }
        changes.push_back(*change);
    }
    for (const ControlChange& change : changes) {
        if (auto sent = asked->session.Send(SetControlRequest(asked->camera.id, change)); !sent) {
            return sent;
        }
    }
    const auto controls = AskControls(asked->session, asked->camera);
    if (!controls) {
        return Fail(controls.error());
    }
    for (const ControlChange& change : changes) {
        const std::string_view name = FindControl(change.property)->name;
        const ControlEntry* const now = FindEntry(*controls, change.property);
        if (now == nullptr || !IsDone(change, *now)) {
            std::ostringstream text;
            text << "the host did not change the " << name << " of " << label;
            return Fail(text.str() + (now == nullptr ? "" : "; it is " + ValueText(*now)));
        }
        std::ostringstream line;
        line << label << ": " << name << ' ' << ValueText(*now) << '\n';
        if (auto printed = context.output.Write(line.str()); !printed) {
            return printed;
        }
    }
    return {};
}

}  // namespace zumod::peer
