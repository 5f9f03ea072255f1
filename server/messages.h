// Positions in the broker's message table that the daemon prints; the library's own are in <veliaxdr/rvzd_messages.h>.
#pragma once

#include <server/loop/line_rate.h>
#include <veliaxdr/rvzd_messages.h>

namespace velia::server {

enum Message : int {
    MSG_UP_AND_RUNNING = 1,
    MSG_EXITING = 2,
    MSG_ALREADY_RUNNING = 3,
    MSG_CANNOT_REGISTER = 16,
    MSG_WRONG_UUID = 7,
    MSG_SCRUBBED = 11,
    MSG_FORK_FAILED = 12,
    MSG_EXECUTING = 14,
    MSG_LISTEN_FAILED = 18,
    MSG_ACCEPT_FAILED = 19,
    MSG_SOCKET_FAILED = 20,
    MSG_BIND_FAILED = 21,
    MSG_USED_TO_BE = 26,
    MSG_WAITING = 29,
    MSG_IDLE_FROM_UNKNOWN = 30,
    MSG_BUSY_FROM_UNKNOWN = 31,
    MSG_CANNOT_KILL = 32,
    MSG_DIED_ON_STARTUP = 38,
    MSG_CONFIG_UNREADABLE = 43,
    MSG_CONFIG_READ_ERROR = 44,
    MSG_CONFIG_FAILURE = 45,
    MSG_CONFIG_LINE_TOO_LONG = 46,
    MSG_CONFIG_INCOMPLETE = 47,
    MSG_CONFIG_PROTOCOL = 48,
    MSG_CONFIG_KIND = 49,
    MSG_CONFIG_CONTROL = 50,
    MSG_CONFIG_ARGUMENTS = 51,
    MSG_CONFIG_PROGRAM = 52,
    MSG_CONFIG_VERSION = 53,
    MSG_CONFIG_UID = 54,
    MSG_CONFIG_GID = 55,
    MSG_UUID_TABLE_FULL = 57,
    MSG_COMMAND_TOO_LONG = 59,
    MSG_COMMAND_FAILED = 74,
    MSG_WRONG_PATH = 75,
    MSG_TOO_FEW_SERVERS = 85,
    MSG_SERVER_EXITED = 88,
    MSG_SERVER_SIGNALLED = 89,
    MSG_SERVER_EXIT_STATUS = 90,
    MSG_LISTENING_ON = 103,
    MSG_NEVER_BUSY = 104,
    MSG_CLIENT_NEVER_CAME = 105,
    MSG_UNKNOWN_SERVER = 106,
    MSG_RESTARTS_EXCEEDED = 107,
    MSG_RESTART_DISABLED = 108,
    MSG_RESTART_ENABLED = 109,
    MSG_CANNOT_BIND_ANY = 112,
    MSG_INVALID_REGISTER = 114,
    MSG_REGISTERED = 118,
};

// One road to the printer for all rows of the broker's table.
template <class... Arguments>
void print(int severity, int position, Arguments... arguments) {
    imsg_print(severity, &_rvzd_rvzd_msg_table, position, arguments...);
}

// The same of what any stranger may cause, as often as he likes: too many are left out, and counted.
template <class... Arguments>
void print_of_stranger(int severity, int position, Arguments... arguments) {
    if (may_tell_of_stranger())
        print(severity, position, arguments...);
}

} // namespace velia::server
