#include "peer/recording_name.h"

#include <climits>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <locale>
#include <sstream>

namespace zumod::peer {

std::string ExpandName(const std::string& pattern, std::time_t time) {
    std::tm local{};
    localtime_r(&time, &local);
    std::ostringstream name;
    name.imbue(std::locale::classic());
    name << std::put_time(&local, pattern.c_str());
    std::string text = name.str();
    return text.size() < PATH_MAX ? text : "";
}

std::string NumberedName(const std::string& path, unsigned number) {
    if (number == 1) {
        return path;
    }
    char text[16];
    std::snprintf(text, sizeof text, "-%03u", number);
    const std::string extension = std::filesystem::path(path).extension().string();
    return path.substr(0, path.size() - extension.size()) + text + extension;
}

}  // namespace zumod::peer
