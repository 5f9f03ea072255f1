// What every writer of the registry does whose stamps turn out to be out of date: it begins anew, ten times at most.
#pragma once

#include <support/tbs.h>

namespace velia::registry_clnt {

inline constexpr int passes_max = 10;

// How far one pass came.
struct Pass {
    tbs_status_t status;
    bool is_stale; // others changed the database meanwhile
};

// Runs `make_pass`, which returns a Pass or more, until one is not stale. The last one's outcome is the result.
template <class MakePass>
auto until_not_stale(MakePass &&make_pass) {
    auto pass = make_pass();
    for (int passes = 1; pass.is_stale && passes < passes_max; ++passes)
        pass = make_pass();
    return pass;
}

} // namespace velia::registry_clnt
