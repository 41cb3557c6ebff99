#include "peer/camera_table.h"

#include <algorithm>

#include "common/safe_text.h"
#include "peer/json_text.h"

namespace zumod::peer {
namespace {

struct Row {
    std::string id;
    std::string name;
    std::string sizes;
};

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

}  // namespace zumod::peer
