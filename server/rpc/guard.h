// Whether a call may be answered as it asks: asked once its arguments are read, before anything is done.
#pragma once

#include <cstdint>

#include <server/rpc/caller.h>
#include <support/tbs.h>

namespace velia::server {

// What a call wants.
struct Demand {
    uint32_t procedure;
    int64_t operation = -1; // of the procedures that have several
    int32_t pid = 0;        // the process that a report is about
};

class Guard {
public:
    Guard() = default;
    virtual ~Guard() = default;
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

    virtual bool permits(const Demand &demand, const Caller &caller) const = 0;
};

} // namespace velia::server
