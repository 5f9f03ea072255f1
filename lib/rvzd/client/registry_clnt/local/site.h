// Where the registry is.
#pragma once

#include <common/lock.h>
#include <veliaxdr/rgy_site.h>

namespace velia::registry_clnt {

constexpr size_t host_size = 64;

// Guards the master registry host. Taken within registry_cache_lock, never the other way round, and never twice.
extern ivlthread_mutex_t rgy_hostname_mutex;
extern ForkWatch hostname_watch;
inline constexpr Lock<LockRank::registry_host> hostname_lock = {rgy_hostname_mutex, hostname_watch};

// The master registry host, in the calling thread's own storage: good until the same thread asks again.
tbs_status_t rgy_load_svrloc(const char *&host);

} // namespace velia::registry_clnt
