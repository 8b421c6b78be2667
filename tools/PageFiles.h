// The files of the page that kym serve shows, built into the program.
#pragma once

#include <string>
#include <vector>

namespace KymTool {

struct PageFile {
    const char* name;  // as the page requests it: "index.html"
    const char* text;
};

const std::vector<PageFile>& pageFiles();

} // namespace KymTool
