// The text that the commands print, for people and as JSON.
//
// JSON is one line of ASCII; bytes that are not UTF-8 become U+FFFD.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "peer/camera_list.h"
#include "peer/camera_watch.h"
#include "peer/control_list.h"
#include "peer/stream_meter.h"

namespace zumod::peer {

// Ids, names and sizes in columns. The names come from the other machine and are made safe for a terminal. If
// the terminal's columns are known, long names are cut, and sizes continue on the next line.
std::string CameraTable(const std::vector<CameraEntry>& cameras,
                        std::optional<size_t> columns = std::nullopt);
std::string CameraJson(const std::vector<CameraEntry>& cameras);

std::string ControlsJson(const std::vector<ControlEntry>& controls);

// Without a line end. `size` is 0x0 while no picture was decoded.
std::string FiguresText(const CameraEntry& camera, PictureSize size, const StreamFigures& figures);
// The same in fewer columns than the terminal has: in short form, and with a shortened name.
std::string FiguresLine(const CameraEntry& camera, PictureSize size, const StreamFigures& figures,
                        size_t columns);
std::string FiguresJson(const CameraEntry& camera, PictureSize size, const StreamFigures& figures);
std::string EventJson(const CameraEntry& camera, CameraEvent event, const std::string& text);

}  // namespace zumod::peer
