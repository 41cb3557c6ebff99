#include "peer/printed_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "common/safe_text.h"
#include "common/terminal_text.h"
#include "peer/host_calls.h"

namespace zumod::peer {
namespace {

// Keeps the order of the members.
using Json = nlohmann::ordered_json;

std::string JsonLine(const Json& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

std::string Padded(const std::string& text, size_t width) {
    return text + std::string(width - std::min(width, DisplayWidth(text)), ' ');
}

// Continues on a new line after `indent` spaces where the columns end.
std::string SizesText(const std::vector<PictureSize>& sizes, size_t indent, std::optional<size_t> columns) {
    std::string text;
    size_t at = indent;
    for (const PictureSize size : sizes) {
        const std::string next = SizeText(size);
        const bool first = at == indent;
        if (!first && columns && at + 1 + next.size() > *columns) {
            text += '\n';
            text.append(indent, ' ');
            at = indent;
        } else if (!first) {
            text += " ";
            ++at;
        }
        text += next;
        at += next.size();
    }
    return text.empty() ? "-" : text;
}

// The name, cut to the columns. A camera that the host states to be in use is marked.
std::string NameText(const CameraEntry& camera, size_t columns) {
    const std::string mark = camera.in_use ? " (in use)" : "";
    return Shortened(SafeText(camera.name), columns - std::min(columns, mark.size())) + mark;
}

std::string Number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

constexpr const char* kEventNames[] = {"stalled", "gone", "closed", "back"};  // by CameraEvent

}  // namespace

std::string CameraTable(const std::vector<CameraEntry>& cameras, std::optional<size_t> columns) {
    if (cameras.empty()) {
        return "The host has no camera.\n";
    }
    // The longest name leaves place for an id and one size.
    constexpr size_t kRest = 20;
    constexpr size_t kShortestCut = 16;
    const size_t most = columns ? std::max(*columns, kRest + kShortestCut) - kRest : SIZE_MAX;
    size_t id_width = DisplayWidth("ID");
    size_t name_width = DisplayWidth("NAME");
    for (const CameraEntry& camera : cameras) {
        id_width = std::max(id_width, std::to_string(camera.id).size());
        name_width = std::max(name_width, DisplayWidth(NameText(camera, most)));
    }
    std::string table = Padded("ID", id_width) + "  " + Padded("NAME", name_width) + "  SIZES\n";
    for (const CameraEntry& camera : cameras) {
        table += Padded(std::to_string(camera.id), id_width) + "  " +
                 Padded(NameText(camera, most), name_width) + "  " +
                 SizesText(camera.sizes, id_width + name_width + 4, columns) + "\n";
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

std::string ControlsJson(const std::vector<ControlEntry>& controls) {
    Json list = Json::array();
    for (const ControlEntry& entry : controls) {
        list.push_back({{"name", FindControl(entry.property)->name},
                        {"value", entry.value},
                        {"minimum", entry.minimum},
                        {"maximum", entry.maximum},
                        {"step", entry.step},
                        {"default", entry.default_value},
                        {"automatic", entry.has_automatic ? Json(entry.is_automatic) : Json()},
                        {"read_only", entry.is_read_only}});
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

std::string FiguresLine(const CameraEntry& camera, PictureSize size, const StreamFigures& figures,
                        size_t columns) {
    // A character in the last column would begin the next line.
    const size_t most = columns - std::min<size_t>(columns, 1);
    std::string text = FiguresText(camera, size, figures);
    if (DisplayWidth(text) <= most) {
        return text;
    }
    std::string rest;
    const auto add = [&rest](const std::string& value, const char* unit) {
        rest += ' ';
        rest += value;
        rest += unit;
    };
    if (size.width != 0) {
        add(SizeText(size), "");
    }
    add(Number(figures.FramesPerSecond(), 1), "/s");
    add(Number(figures.BitsPerSecond() / 1e6, 2), " Mbit/s");
    if (figures.median_latency_ms) {
        add(Number(*figures.median_latency_ms, 1), " ms (max ");
        rest += Number(*figures.greatest_latency_ms, 1);
        rest += ')';
    }
    if (figures.dropped) {
        add(std::to_string(*figures.dropped), " dropped");
    }
    if (figures.undecoded != 0) {
        add(std::to_string(figures.undecoded), " undecoded");
    }
    constexpr size_t kShortestName = 4;
    const size_t place = std::max(most, rest.size() + kShortestName) - rest.size();
    return Shortened(Shortened(SafeText(camera.name), place) + rest, most);
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
