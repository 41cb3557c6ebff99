#include "peer/stats_text.h"

#include <cstdio>

#include "peer/host_calls.h"
#include "peer/json_text.h"
#include "peer/picture_size.h"

namespace zumod::peer {
namespace {

std::string Number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

const char* EventName(CameraEvent event) {
    switch (event) {
        case CameraEvent::kStalled:
            return "stalled";
        case CameraEvent::kGone:
            return "gone";
        case CameraEvent::kClosed:
            return "closed";
        case CameraEvent::kBack:
            return "back";
    }
    return "";
}

}  // namespace

std::string FiguresText(const CameraEntry& camera, PictureSize size, const StreamFigures& figures) {
    std::string text = CameraLabel(camera);
    if (size.width != 0) {
        text += " ";
        text += SizeText(size);
    }
    text += ": " + Number(figures.FramesPerSecond(), 1) + " frames/s, " +
            Number(figures.BitsPerSecond() / 1e6, 2) + " Mbit/s";
    if (figures.median_latency_ms) {
        text += ", latency " + Number(*figures.median_latency_ms, 1) + " ms (max " +
                Number(*figures.greatest_latency_ms, 1) + " ms)";
    }
    if (figures.dropped) {
        text += ", " + std::to_string(*figures.dropped) + " dropped";
    }
    if (figures.undecoded != 0) {
        text += ", " + std::to_string(figures.undecoded) + " not decoded";
    }
    return text;
}

std::string FiguresJson(const CameraEntry& camera, PictureSize size, const StreamFigures& figures) {
    Json latency = nullptr;
    if (figures.median_latency_ms) {
        latency = {{"median", *figures.median_latency_ms}, {"max", *figures.greatest_latency_ms}};
    }
    return JsonLine({{"camera", camera.id},
                     {"name", camera.name},
                     {"width", size.width},
                     {"height", size.height},
                     {"seconds", figures.seconds},
                     {"frames", figures.frames},
                     {"fps", figures.FramesPerSecond()},
                     {"bit_rate", figures.BitsPerSecond()},
                     {"latency_ms", latency},
                     {"dropped", figures.dropped ? Json(*figures.dropped) : Json(nullptr)},
                     {"undecoded", figures.undecoded}});
}

std::string EventJson(const CameraEntry& camera, CameraEvent event, const std::string& text) {
    return JsonLine(
        {{"camera", camera.id}, {"name", camera.name}, {"event", EventName(event)}, {"text", text}});
}

}  // namespace zumod::peer
