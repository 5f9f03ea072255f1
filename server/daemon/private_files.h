// What the daemon has on disk is for its user, and at most for its group to read, whoever started it with which mask.
#pragma once

#include <string>

#include <sys/stat.h>
#include <sys/types.h>

namespace velia::server {

constexpr mode_t private_mode = 0640; // at most
constexpr mode_t private_umask = 0027;

// Files below host/priv that others may read or anybody else may write are told, and are so no more. False, told, where
// a symbolic link stands there: what it leads to may be somebody else's.
bool secure_private_files();

// Opens a file of the daemon's to be added to, never through a symbolic link; one that is looser than it should be is
// told and tightened. -1 with errno.
int open_private_log(const std::string &path);

// Lets all users of the host read a file of its configuration that was just written. The mask is the whole process's,
// and other threads make files meanwhile.
void share_with_host(const char *config_file);

} // namespace velia::server
