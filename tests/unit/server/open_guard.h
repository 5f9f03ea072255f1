// A guard that lets everybody do everything, for tests of what is behind it.
#pragma once

#include <server/rpc/guard.h>

namespace server_tests {

class OpenGuard : public velia::server::Guard {
public:
    bool permits(const velia::server::Demand & /*demand*/, const velia::server::Caller & /*caller*/) const override {
        return true;
    }
};

inline const OpenGuard open_guard;

} // namespace server_tests
