/*
 * The registry subsystem's message table, for any program that prints from it through imsg_print. Most of its rows are
 * the registry service's.
 *
 *     imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, host, tbs_strerror(status));
 *
 * Positions never move. A position at or above the table's count is a programming error.
 */
#ifndef VELIAXDR_RGY_MESSAGES_H
#define VELIAXDR_RGY_MESSAGES_H

#include <support/imsg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

extern const imsg_table_t _registry_rvzd_msg_table;

/* Positions that the library's own code prints. */
enum {
    REGISTRY_MSG_TROUBLE_LOADING_SERVER_FILE = 11,
    REGISTRY_MSG_INVALID_CONFIG_FILE = 12,
    REGISTRY_MSG_SERVER_TYPE = 16,
    REGISTRY_MSG_TROUBLE_CONTACTING = 29,
    REGISTRY_MSG_PASSWORD_PROMPT = 40,
    REGISTRY_MSG_ACCESS_FOR_MODIFICATION = 41,
    REGISTRY_MSG_ACCESS_DENIED = 42,
    REGISTRY_MSG_NO_PASSWORD_CONFIGURED = 43,
    REGISTRY_MSG_BAD_REQUEST = 77,
    REGISTRY_MSG_CACHE_STATISTICS = 80,
    REGISTRY_MSG_CACHE_STALE = 81,
    REGISTRY_MSG_CACHE_FOUND = 82,
    REGISTRY_MSG_CACHE_MISSING = 83,
    REGISTRY_MSG_NOT_STANDBY = 92,
    REGISTRY_MSG_CANNOT_DEMOTE_MASTER = 93,
    REGISTRY_MSG_UNRECOGNIZED_SERVER_TYPE = 94,
    REGISTRY_MSG_UNRECOVERABLE = 95,
    REGISTRY_MSG_NOT_PROMOTED = 96,
    REGISTRY_MSG_CANNOT_START_SERVICE = 99,
};

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
