// The replacement of a configuration file, and what its readers share.
#pragma once

#include <cstddef>

#include <common/lock.h>
#include <support/tbs.h>

namespace velia::registry_clnt {

constexpr size_t path_size = TBS_PATH_SIZE;

// Guards the cached paths and the process's default region. Never taken twice.
extern ivlthread_mutex_t rgy_prop_local_mutex;
extern ForkWatch prop_local_watch;
inline constexpr Lock<LockRank::local_files> prop_local_lock = {rgy_prop_local_mutex, prop_local_watch};

// `path` with ".old" behind it, in a buffer of path_size bytes; TBS_ST_ERROR if that does not fit.
tbs_status_t generate_backup_pathname(const char *path, char *out);

// Makes `text` the contents of the file by way of a ".new" one, and keeps the file that was there as ".old". A failure
// is printed, and leaves the file as it was.
tbs_status_t write_file(const char *path, const char *text);

// Whether `user`, which may have a domain, is the one that `pattern` names. A pattern without a domain fits any.
bool username_match(const char *user, const char *pattern);

} // namespace velia::registry_clnt
