/*
 * Credentials of users and groups.
 *
 * A sid names a user or a group in a form of its own; on this system it is the numeric id and what it is an id of. The
 * records hold everything in themselves: copying one copies it whole, and none needs to be released.
 *
 *     credutl_sid_credentials_t mine;
 *     credutl_string_credentials_t names;
 *     if (credutl_get_sid_credentials(&mine) == 0 &&
 *         credutl_sid_credentials_to_string_credentials(&mine, &names) == 0)
 *         imsg_print(IMSG_PLAIN, "%s in %s\n", IMSG_FORMAT, names.user, names.group);
 *
 * All operations may be called from any thread, and print nothing. Those that return an int return 0 on success.
 */
#ifndef VELIA_SUPPORT_CREDUTL_H
#define VELIA_SUPPORT_CREDUTL_H

#include <stddef.h>
#include <stdint.h>

#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum { CREDUTL_GROUPS_MAX = 32, CREDUTL_NAME_SIZE = 256 };

/* The user and group id that say: no identity. */
#define CREDUTL_NO_ID 0xFFFFFFFEu

enum { CREDUTL_SID_NONE = 0, CREDUTL_SID_USER = 1, CREDUTL_SID_GROUP = 2 };

typedef struct credutl_sid {
    uint32_t kind; /* CREDUTL_SID_ */
    uint32_t id;
} credutl_sid_t;

/* Ids of a user. With CREDUTL_NO_ID as user and group, no identity. */
typedef struct credutl_credentials {
    uint32_t user;
    uint32_t group;
    uint32_t group_count; /* at most CREDUTL_GROUPS_MAX */
    uint32_t groups[CREDUTL_GROUPS_MAX];
} credutl_credentials_t;

typedef struct credutl_sid_credentials {
    credutl_sid_t user;
    credutl_sid_t group;
    uint32_t group_count; /* at most CREDUTL_GROUPS_MAX */
    credutl_sid_t groups[CREDUTL_GROUPS_MAX];
} credutl_sid_credentials_t;

typedef struct credutl_string_credentials {
    char user[CREDUTL_NAME_SIZE];
    char group[CREDUTL_NAME_SIZE];
} credutl_string_credentials_t;

/* What a caller shows a scheduler of itself. All zero is nobody in particular. */
typedef struct credutl_auth_ironvale {
    uint32_t flavour; /* 0 none, 1 the ids in `credentials` */
    credutl_credentials_t credentials;
} credutl_auth_ironvale_t;

/* Authentication records in use by a client: two words. */
typedef struct credutl_client {
    int64_t count;
    credutl_auth_ironvale_t *auth; /* the caller's */
} credutl_client_t;

/* Store the sid of a user or group id in `*result`. */
int credutl_uid_to_sid(credutl_sid_t *result, uint32_t user);
int credutl_gid_to_sid(credutl_sid_t *result, uint32_t group);

/*
 * Stores the process's groups in `groups`, an array of `group_count_max` ids. Returns their number; negative with errno
 * set on failure, also (EINVAL) when the process is in more groups.
 */
int credutl_getgroups(int group_count_max, uint32_t *groups);

/*
 * Fill `*result`. `groups` has `group_count` ids and may be null if that is 0; of more than CREDUTL_GROUPS_MAX only the
 * first are kept. A null `user` or `group` sid is none.
 */
void credutl_init_credentials(uint32_t user, uint32_t group, uint32_t group_count, const uint32_t *groups,
                              credutl_credentials_t *result);
void credutl_init_sid_credentials(const credutl_sid_t *user, const credutl_sid_t *group, uint32_t group_count,
                                  const uint32_t *groups, credutl_sid_credentials_t *result);

/* The calling process's effective user and group and its groups, at most CREDUTL_GROUPS_MAX of them. */
int credutl_get_sid_credentials(credutl_sid_credentials_t *result);

/*
 * The names of user and group; an id without a name reads as its number. Asks the system's user database, which may
 * wait for the network.
 */
int credutl_sid_credentials_to_string_credentials(const credutl_sid_credentials_t *credentials,
                                                  credutl_string_credentials_t *result);

/*
 * Writes "uid=1000 gid=100 groups=4,24" to `buffer` of at least CREDUTL_TEXT_SIZE bytes and returns `buffer`; "<none>"
 * for no identity. The groups are left out if there are none.
 */
enum { CREDUTL_TEXT_SIZE = 1024 };
char *credutl_credentials_to_str(const credutl_credentials_t *credentials, char *buffer);

/*
 * Splits "domain\user" or "user@domain" into its parts; a name without a domain gives "<unknown>" as domain. Sizes are
 * those of the buffers. 0; non-zero, with empty texts, for a part that does not fit.
 */
int credutl_crack_fq_name(const char *name, char *domain, size_t domain_size, char *user, size_t user_size);

/* Non-zero if the caller may administer servers: root, or the owner of the installation's root directory. */
int credutl_is_privileged(void);

/*
 * Sets for how long a server may use group lists that it looked up itself. 0; non-zero for a negative time. The second
 * operation gives the time in force, -1 before one was set.
 */
int credutl_set_server_group_lifetime(int seconds);
int credutl_get_server_group_lifetime(void);

/*
 * Fills `*auth` with the caller's credentials and sets `*client` to `count` records at `auth`. `count` is 1. The record
 * stays the caller's and must outlive the client area. TBS_ST_INVALID_ARG for another count, TBS_ST_ERROR if the
 * credentials cannot be had. credutl_free_client clears the area.
 */
tbs_status_t credutl_mk_client_ironvale(int count, credutl_auth_ironvale_t *auth, credutl_client_t *client);
void credutl_free_client(credutl_client_t *client);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
