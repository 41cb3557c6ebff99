// The files of the page, which are part of the program: peer/page/, put into a generated view_page.cpp.
//
// Thread rule: constants; any thread.
#pragma once

#include <span>
#include <string_view>

namespace zumod::peer {

struct PageFile {
    std::string_view name;
    std::string_view text;
};

std::span<const PageFile> PageFiles();

}  // namespace zumod::peer
