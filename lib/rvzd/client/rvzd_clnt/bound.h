// How work ended for which something had to be bound first: a handle, or a registry host.
#pragma once

#include <support/tbs.h>

namespace velia::rvzd_clnt {

struct Bound {
    bool is_bound;
    tbs_status_t status; // of the work, or else of the binding
};

} // namespace velia::rvzd_clnt
