// The programs that jobs may run, as the configuration names them.
#pragma once

#include <cstdint>
#include <string>

namespace velia::server {

struct Task {
    uint32_t id = 0;
    std::string name;
    std::string path;
    std::string ui_info;
    bool operator==(const Task &) const = default;
};

} // namespace velia::server
