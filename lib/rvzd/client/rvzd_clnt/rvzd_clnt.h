// What the files of the broker client share: the module's name in traces and assertions, and the small helpers.
#pragma once

#include <ctime>

#include <common/lock.h>
#include <support/date.h>
#include <support/pfm.h>
#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_messages.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::rvzd_clnt {

inline constexpr char subsystem[] = "xdr/rvzd";
inline constexpr char source_file[] = "rvzd_clnt";

extern ForkWatch call_lock_watch; // stands beside the table of records
inline constexpr Lock<LockRank::broker_call> call_lock = {rvzd_call_lock, call_lock_watch};

inline time_t now_s() {
    timeval now;
    date_get_timeval(&now);
    return now.tv_sec;
}

// An invariant whose breach is known by these words and this line.
inline void require_as(bool holds, const char *expression, int line) {
    if (!holds)
        pfm_assert_fail(expression, source_file, line);
}

// A socket of `family` bound to the wildcard address, or to a port of the program's rule. Honours IVL_IP_VERSION.
// `report` set: a bind or getsockname that fails is printed. On failure desc.fd is -1 and nothing stays open.
tbs_status_t rvzd_alloc_one_socket(int family, int socket_type, uint64_t program, int use_range, int report,
                                   rvzd_socket_desc_t &desc);

} // namespace velia::rvzd_clnt
