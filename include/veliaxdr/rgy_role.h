/*
 * Changing which host is the site's registry: what a host plays as a registry server, and where a client looks for it.
 *
 *     tbs_status_t take_over(void) {
 *         tbs_status_t status = rgy_change_server_type(RGY_SVR_MASTER);
 *         if (status == TBS_ST_OK)
 *             rgy_hostname_cache_inval();
 *         return status;
 *     }
 *
 * What is read and written is in the files of rgy_local.h; the hosts of a running process are read anew only after
 * rgy_hostname_cache_inval, which is the caller's to call. "This host" is sysutl_myhostname. Messages are those of
 * _registry_rvzd_msg_table. Any thread may call; two changes of one host at the same time are the caller's to keep
 * apart, as files are not locked. What asks a host may block for its time-out (25 seconds).
 */
#ifndef VELIAXDR_RGY_ROLE_H
#define VELIAXDR_RGY_ROLE_H

#include <stdint.h>

#include <support/tbs.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_site.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Changes of a configuration: of a client's hosts, of a server's role. */
enum {
    RGY_CONF_SET_HOST = 10,   /* the registry host of a client */
    RGY_CONF_SET_BACKUP = 11, /* its backup host */
    RGY_CONF_PROMOTE = 12,    /* start the registry service on a standby */
    RGY_CONF_DEMOTE = 13,     /* step down as the master */
};

/*
 * Asks the registry server on `host` to change. `text` is not used. TBS_ST_NOT_FOUND when the host cannot be reached,
 * whatever the reason; else what rvzd_rgy_svr_conf_change says.
 */
tbs_status_t rgy_svr_conf_change(const char *host, int64_t op, const char *text);

/*
 * Writes `text` (null: the empty name) as the registry host or the backup host into this host's hosts file; the other
 * name stays. A file that cannot be read counts as two empty names. The file holds words: an empty registry host lets
 * the backup stand in its place for whoever reads it.
 *
 * TBS_ST_ERROR, printed as message 77, for a name of more than 63 characters, one with white space in it, another `op`,
 * and a file that cannot be written.
 */
tbs_status_t rgy_clnt_conf_change(int64_t op, const char *text);

/*
 * Makes the standby on `host` the master, and this host its client. TBS_ST_OK; the status of the first step, printed as
 * message 99, or of the second, as above; TBS_ST_INVALID_ARG without a name.
 */
tbs_status_t rgy_promote_standby_svr(const char *host);

/*
 * Makes this host a server of this type; nothing is done if it is one. A master comes of a standby only; a master that
 * becomes something else is demoted. Nothing makes a server "not a server".
 *
 *   TBS_ST_OK     done; message 16 names the type, but for one that is the present one
 *   TBS_ST_ERROR  not a standby (message 92), no type to change to (94), cannot be demoted (93)
 *   else          the status of rgy_promote_standby_svr or rgy_set_svr_type
 */
tbs_status_t rgy_change_server_type(int32_t type);

/*
 * Makes the master on `host`, which is this host, a server of `type`, and puts back the hosts file from before its
 * promotion. Whether it steps down when asked is not waited for: its type is what counts.
 *
 *   TBS_ST_NOT_SET  it was never promoted: there is no such file; messages 93 and 96
 *   TBS_ST_ERROR    the type could not be written; messages 93 and 95. A path that is too long, not printed
 */
tbs_status_t rgy_demote_master_svr(const char *host, int32_t type);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
