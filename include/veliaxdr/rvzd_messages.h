/*
 * The broker's and the build service's message tables, for any program that prints from them through imsg_print.
 *
 *     imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_CANNOT_CONTACT, host);
 *
 * Positions never move. A position at or above a table's count is a programming error.
 */
#ifndef VELIAXDR_RVZD_MESSAGES_H
#define VELIAXDR_RVZD_MESSAGES_H

#include <support/imsg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

extern const imsg_table_t _rvzd_rvzd_msg_table;
extern const imsg_table_t _bldsvr_rvzd_msg_table;

/* Positions in _rvzd_rvzd_msg_table that the library's own code prints. */
enum {
    RVZD_MSG_NO_SOCKET = 5,
    RVZD_MSG_GETSOCKNAME = 22,
    RVZD_MSG_NO_SERVICE_PORT = 25,
    RVZD_MSG_UNKNOWN_HOST = 27,
    RVZD_MSG_CANNOT_FIND_BROKER = 28,
    RVZD_MSG_CANNOT_CONTACT = 33,
    RVZD_MSG_BAD_SWITCH = 58,
    RVZD_MSG_CONNECT_FAILED = 72,
    RVZD_MSG_RANGE_EXHAUSTED = 76,
    RVZD_MSG_CLIENT_ONLY_HOST = 91,
    RVZD_MSG_NO_OPTION_HANDLER = 93,
    RVZD_MSG_GENERIC_HANDLE = 102,
    RVZD_MSG_SERVER_NOT_FOUND = 115,
    RVZD_MSG_NOT_PRIVILEGED = 116,
    RVZD_MSG_NO_CONNECTION = 117,
    RVZD_MSG_NO_IPV6_SOCKET = 119,
    RVZD_MSG_SOCKET_ALLOCATED = 120,
    RVZD_MSG_IPV4_ONLY = 121,
    RVZD_MSG_IPV6_ONLY = 122,
    RVZD_MSG_GROUPS_SUBSTITUTED = 127,
    RVZD_MSG_GROUPS_UNSUPPORTED = 128,
    RVZD_MSG_SOCKET_INFO = 133,
};

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
