#include "peer/printed_text.h"

#include <utf8.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "common/safe_text.h"
#include "peer/host_calls.h"

namespace zumod::peer {
namespace {

// Keeps the order of the members.
using Json = nlohmann::ordered_json;

std::string JsonLine(const Json& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

struct Row {
    std::string id;
    std::string name;
    std::string sizes;
};

// The number of characters in UTF-8 text.
size_t CharacterCount(const std::string& text) {
    return static_cast<size_t>(utf8::distance(text.begin(), text.end()));
}

std::string Padded(const std::string& text, size_t width) {
    return text + std::string(width - CharacterCount(text), ' ');
}

std::string SizesText(const std::vector<PictureSize>& sizes) {
    std::string text;
    for (const PictureSize size : sizes) {
        text += text.empty() ? "" : " ";
        text += SizeText(size);
    }
    return text.empty() ? "-" : text;
}

std::string Number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

constexpr const char* kEventNames[] = {"stalled", "gone", "closed", "back"};  // by CameraEvent

}  // namespace

std::string CameraTable(const std::vector<CameraEntry>& cameras) {
    if (cameras.empty()) {
        return "The host has no camera.\n";
    }
    std::vector<Row> rows = {{"ID", "NAME", "SIZES"}};
    for (const CameraEntry& camera : cameras) {
        rows.push_back({std::to_string(camera.id), SafeText(camera.name), SizesText(camera.sizes)});
    }
    size_t id_width = 0;
    size_t name_width = 0;
    for (const Row& row : rows) {
        id_width = std::max(id_width, row.id.size());
        name_width = std::max(name_width, CharacterCount(row.name));
    }
    std::string table;
    for (const Row& row : rows) {
        table += Padded(row.id, id_width) + "  " + Padded(row.name, name_width) + "  " + row.sizes + "\n";
    }
    return table;
}

std::string CameraJson(const std::vector<CameraEntry>& cameras) {
    Json list = Json::array();
    for (const CameraEntry& camera : cameras) {
        Json sizes = Json::array();
        for (const PictureSize size : camera.sizes) {
            sizes.push_back({{"width", size.width}, {"height", size.height}});
        }
        list.push_back({{"id", camera.id},
                        {"name", camera.name},
                        {"display_name", camera.display_name},
                        {"in_use", camera.in_use},
                        {"sizes", sizes}});
    }
    return JsonLine(list);
}

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
    return JsonLine({{"camera", camera.id},
                     {"name", camera.name},
                     {"event", kEventNames[static_cast<size_t>(event)]},
                     {"text", text}});
}

}  // namespace zumod::peer
