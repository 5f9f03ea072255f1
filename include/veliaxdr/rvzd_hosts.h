/*
 * What the broker of a host tells about it, and its list of the hosts that have used it.
 *
 *     clnt_hostinfo_t info = {0};
 *     rvzd_hostinfo_opts_t options;
 *     if (rvzd_hostinfo("build7", &info) == TBS_ST_OK && rvzd_hostinfo_parse_opts(&info, &options) == TBS_ST_OK) {
 *         printf("%s runs %s%s\n", info.hostname, info.osname, options.no_servers ? ", serves nothing" : "");
 *         rvzd_hostinfo_free_opts(&options);
 *     }
 *     rvzd_hostinfo_free(info);
 *
 * Every operation that asks a broker holds rvzd_call_lock until it has the answer, and may be called from any thread.
 */
#ifndef VELIAXDR_RVZD_HOSTS_H
#define VELIAXDR_RVZD_HOSTS_H

#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <support/imsg.h>
#include <veliaxdr/clnt_timezone.h>
#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The message table of the client list, which the daemon shares. */
extern const imsg_table_t _clnt_list_rvzd_msg_table;

enum {
    CLNT_LIST_MSG_CANNOT_OPEN = 0,
    CLNT_LIST_MSG_NOT_FOUND = 1,
    CLNT_LIST_MSG_INVALID_ENTRY = 2,
    CLNT_LIST_MSG_INVALID_ADDRESS = 3,
    CLNT_LIST_MSG_DUPLICATE_ADDRESS = 4,
    CLNT_LIST_MSG_CANNOT_CREATE = 5,
    CLNT_LIST_MSG_CREATED = 6,
    CLNT_LIST_MSG_CANNOT_WRITE = 7,
    CLNT_LIST_MSG_CANNOT_SYNC = 8,
    CLNT_LIST_MSG_CANNOT_CLOSE = 9,
    CLNT_LIST_MSG_CANNOT_BACK_UP = 10,
    CLNT_LIST_MSG_CANNOT_REPLACE = 11,
    CLNT_LIST_MSG_READ_LINES = 14,
    CLNT_LIST_MSG_ADDED = 15,
    CLNT_LIST_MSG_UPDATED = 16,
    CLNT_LIST_MSG_ENTERING = 18,
    CLNT_LIST_MSG_WROTE_LINES = 19,
    CLNT_LIST_MSG_UNKNOWN_VERSION = 22,
    CLNT_LIST_MSG_NO_HOST_INFO = 23,
    CLNT_LIST_MSG_NO_OS_NAME = 24,
    CLNT_LIST_MSG_NO_PLATFORM = 25,
};

/* The options of a host, taken apart. */
typedef struct rvzd_hostinfo_opts {
    int32_t no_servers; /* non-zero: the host cannot serve */
    char *rest;         /* all other words, joined with blanks; null without any */
} rvzd_hostinfo_opts_t;

/*
 * What `host` says of itself. This host is described without asking anybody; a broker that was asked before over the
 * same cached record is not asked again. `seconds` is the time-out for reaching it, 4 in the short form; the question
 * itself has 4 seconds. Nothing is printed.
 *
 * The record is the caller's: it is cleared and filled with heap copies, nulls where nothing is known, and released
 * with rvzd_hostinfo_free. It is untouched where no answer came. Without storage a text is null.
 *
 *   TBS_ST_RPC_FAILED   no answer in time
 *   TBS_ST_UNSUPPORTED  the broker does not know the question
 *   TBS_ST_ERROR        the call failed in another way, or this host's platform is not known
 *   else                why no handle could be had, or the broker's own status
 */
tbs_status_t rvzd_hostinfo(const char *host, clnt_hostinfo_t *info);
tbs_status_t rvzd_hostinfo_timeout(const char *host, int64_t seconds, clnt_hostinfo_t *info);

/* Releases the ten texts; the record, taken by value, keeps its pointers. */
void rvzd_hostinfo_free(clnt_hostinfo_t info);

/*
 * Takes the options of a host apart; *options need not be initialised.
 *
 *   TBS_ST_ERROR      the text cannot be split into words, or holds a flag that nobody handles (printed)
 *   TBS_ST_NO_MEMORY  no storage
 */
tbs_status_t rvzd_hostinfo_parse_opts(const clnt_hostinfo_t *info, rvzd_hostinfo_opts_t *options);
void rvzd_hostinfo_free_opts(rvzd_hostinfo_opts_t *options); /* null is ignored */

/*
 * This host as it describes itself. `registry_host` and `reserved` are heap texts that the caller releases; the others
 * are not to be freed and live as long as the process (`hostname`, `region`: until the thread asks again).
 * TBS_ST_ERROR if the platform is not known.
 */
tbs_status_t clnt_list_get_local_hostinfo(clnt_hostinfo_t *info);

typedef struct rvzd_tz_info_req {
    rvzd_hdr_req_t header;
    int32_t year; /* counted as usual */
} rvzd_tz_info_req_t;

/* The record is there with status TBS_ST_OK only. */
typedef struct rvzd_tz_info_reply {
    rvzd_hdr_reply_t header;
    clnt_tz_info_t info;
} rvzd_tz_info_reply_t;

bool_t xdr_rvzd_tz_info_req_t(XDR *xdrs, rvzd_tz_info_req_t *record);
bool_t xdr_rvzd_tz_info_reply_t(XDR *xdrs, rvzd_tz_info_reply_t *record);

/*
 * Asks the broker of `host` for the time-zone record of its host in `year` and copies it into the caller's record
 * **info; a null record is no failure, and nothing is copied. Waits 4 seconds at most, for the contact and for the
 * answer each. Nothing is printed. Statuses as of rvzd_hostinfo.
 */
tbs_status_t rvzd_tzinfo(int32_t year, const char *host, clnt_tz_info_t **info);

/*
 * One piece of a broker's client list. `first` and `second` are carried through to the broker; *position is 0 to begin
 * and then what the last call left there, until *finished is set. The outs are written on TBS_ST_OK only; the entries
 * are given back with rvzd_clnt_list_get_free. TBS_ST_RPC_FAILED: the call failed, printed; else the broker's status.
 */
tbs_status_t rvzd_clnt_list_get(rvzd_handle_t *handle, int32_t first, uint32_t second, int32_t *position,
                                tbs_boolean_t *finished, uint32_t *count, clnt_entry_t **entries);

/*
 * Gives the pointer back and clears it. The array and its texts are not released: the client's free operation knows
 * nothing of them, and callers that want their storage back release it themselves.
 */
void rvzd_clnt_list_get_free(rvzd_handle_t *handle, uint32_t count, clnt_entry_t **entries);

/*
 * The entry of one host, its texts released with rvzd_clnt_list_lookup_free. TBS_ST_RPC_FAILED or TBS_ST_UNSUPPORTED
 * when the call fails, nothing printed; else the broker's status. *entry is written on TBS_ST_OK only.
 */
tbs_status_t rvzd_clnt_list_lookup(rvzd_handle_t *handle, const char *host, clnt_entry_t *entry);
void rvzd_clnt_list_lookup_free(rvzd_handle_t *handle, clnt_entry_t *entry);

/*
 * Tells the broker that this host is a client of it: at most once in six hours for each broker and host, and with two
 * brokers at most in the life of a process. A courtesy, made on the way to other things: it costs nothing when there is
 * nothing to do, and only a failed call is told.
 */
void rvzd_clnt_list_register(rvzd_handle_t *handle);

/*
 * Asks for the data of a remote build host for this user. `host` has at most RVZD_HOST_NAME_MAX characters. The numbers
 * are the broker's. The three texts are copied to the caller's buffers of RVZD_REMOTE_BUILD_TEXT_SIZE bytes each; one
 * that does not fit is not cut but left empty. The outs are written whenever there was an answer, whatever its status.
 *
 *   TBS_ST_ERROR          the groups of this process cannot be read; printed
 *   TBS_ST_RPC_FAILED     the call failed; printed
 *   TBS_ST_NAME_TOO_LONG  a text does not fit; the others are there
 *   else                  the broker's status
 */
enum { RVZD_REMOTE_BUILD_TEXT_SIZE = 1024 };
tbs_status_t rvzd_remote_build_request_hi(rvzd_handle_t *handle, const char *host, uint32_t user, uint32_t group,
                                          int32_t *first, int32_t *second, time_t *when, int32_t *third, char *text1,
                                          char *text2, char *text3);

/*
 * TBS_ST_OK when `host` answers with its description, else TBS_ST_ERROR; and TBS_ST_ERROR without asking when it is the
 * host that was asked about last, whatever the outcome was then. A name of 256 bytes or more is TBS_ST_ERROR and is not
 * remembered.
 */
tbs_status_t rvzd_exist_check(const char *host);

/*
 * Writers of the client list file: its first line, one line for an entry, and a whole file. Values are written as they
 * stand. clnt_list_write_file truncates or makes the file at `path` and has it on disk when it returns; what makes a
 * new file the current one is for its caller. One write that fails fails it, whatever the later ones do, and leaves a
 * file that is short. The first two end at a write that fails; the stream's error indicator tells.
 *
 *   TBS_ST_INVALID_ARG  no path, no entries, or a count of 0: the file is not touched
 *   else                the status of the system's error, printed
 */
void clnt_list_write_header(FILE *stream);
void clnt_list_write_entry(FILE *stream, const clnt_entry_t *entry);
tbs_status_t clnt_list_write_file(const char *path, uint32_t count, const clnt_entry_t *entries);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
