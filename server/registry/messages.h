// Positions in the registry's message table that only a server prints.
#pragma once

#include <support/imsg.h>
#include <veliaxdr/rgy_messages.h>

namespace velia::server {

enum RegistryMessage : int {
    MSG_FILE_CREATED = 0,
    MSG_INTERNAL_ERROR = 9,
    MSG_OPEN_FAILED = 13,
    MSG_LOADED = 14,
    MSG_TROUBLE_CONTACTING = 29,
    MSG_BACKUP_ERROR = 45,
    MSG_NO_BACKUP_CONFIGURATION = 48,
    MSG_BACKUP_STARTED = 61,
    MSG_BACKUP_FINISHED = 62,
    MSG_NOT_FOR_SERVER = 72,
    MSG_ADDED = 73,
    MSG_REMOVED = 74,
    MSG_WHAT = 75,
};

template <class... Arguments>
void print_registry(int severity, int position, Arguments... arguments) {
    imsg_print(severity, &_registry_rvzd_msg_table, position, arguments...);
}

} // namespace velia::server
