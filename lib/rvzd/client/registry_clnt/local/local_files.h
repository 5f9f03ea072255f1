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

// What generate_backup_pathname, write_file and username_match do. The library calls these: a program that has a
// function of its own with so plain a name would be called in their place.
tbs_status_t make_backup_path(const char *path, char *out);
tbs_status_t replace_file(const char *path, const char *text);
bool is_user_of(const char *user, const char *pattern);

} // namespace velia::registry_clnt
