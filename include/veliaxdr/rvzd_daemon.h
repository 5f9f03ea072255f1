/*
 * What a daemon tells of itself and of its registry, a registry's data as one file, and the steps of making another
 * host the master. These are procedures of our own, which a daemon of another make does not know.
 *
 *     rvzd_handle_t *handle = NULL;
 *     rvzd_registry_state_reply_t state;
 *     if (rvzd_get_handle("build7", &handle) == TBS_ST_OK) {
 *         if (rvzd_registry_state(handle, NULL, 0, "", &state) == TBS_ST_OK) {
 *             printf("term %llu, the master is %s\n", (unsigned long long)state.term, state.master);
 *             rvzd_registry_state_free(&state);
 *         }
 *         rvzd_free_handle(handle);
 *     }
 *
 * Every operation asks the daemon of a handle, holds rvzd_call_lock until it has the answer, and may be called from any
 * thread. A reply is the caller's to give: it is cleared and filled with heap copies on TBS_ST_OK, and released with
 * the operation beside it; otherwise it is empty. Nothing is printed.
 *
 *   TBS_ST_UNSUPPORTED  the daemon does not know the question
 *   TBS_ST_RPC_FAILED   no answer
 *   TBS_ST_NO_MEMORY    no storage for the copies
 *   else                the daemon's own status
 */
#ifndef VELIAXDR_RVZD_DAEMON_H
#define VELIAXDR_RVZD_DAEMON_H

#include <stdint.h>

#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    RVZD_DAEMON_TEXT_MAX = 1023,      /* longest text of these records */
    RVZD_SAVE_PIECE_MAX = 60000,      /* bytes of a saved registry that come with one reply */
    RVZD_DAEMON_PROCEDURES_MAX = 1000 /* of which a daemon tells */
};

/*
 * `term` and `host` tell the daemon of the highest term of this registry that the caller knows, and whose it is; 0 and
 * "" of none.
 */
typedef struct rvzd_registry_state_req {
    rvzd_hdr_req_t header;
    tbs_uuid_t registry;
    uint64_t term;
    char *host;
} rvzd_registry_state_req_t;

/* Times count in seconds since 1970, by the daemon's clock; 0: never. */
typedef struct rvzd_registry_state_reply {
    rvzd_hdr_reply_t header;
    int32_t role; /* RGY_SVR_... */
    tbs_boolean_t takes_updates;
    uint64_t term;       /* of the data there; 0: they are of no master that began one */
    char *master;        /* whose term that is; empty where it is not known */
    uint64_t heard_term; /* a higher one, because of which no updates are taken; else 0 */
    char *heard_host;
    tbs_uuid_t registry; /* all zero: none is served */
    int64_t now;
    int64_t looked;  /* when a standby asked its master last */
    int64_t current; /* when it was last found, or made, like the master */
    char *source;    /* whom it asks */
    char *failure;   /* why the last time was in vain; empty if it was not */
} rvzd_registry_state_reply_t;

/* A null registry: the daemon is told of nothing. */
tbs_status_t rvzd_registry_state(rvzd_handle_t *handle, const tbs_uuid_t *registry, uint64_t term, const char *host,
                                 rvzd_registry_state_reply_t *reply);
void rvzd_registry_state_free(rvzd_registry_state_reply_t *reply);

/* Steps of a turn of the site to another master. */
enum {
    RVZD_TURN_HOLD = 1,    /* the master takes no updates for `seconds`, from now on; also after a new start */
    RVZD_TURN_RELEASE = 2, /* it takes them again, if no other turn to the same host holds them */
    RVZD_TURN_FOLLOW = 3,  /* becomes a standby of `host` */
};

typedef struct rvzd_registry_turn_req {
    rvzd_hdr_req_t header;
    int64_t op;
    uint32_t seconds;
    char *host;
} rvzd_registry_turn_req_t;

/*
 * To hold or release, `host` names the turn: the host that is to become the master and, behind a '#', a word of the
 * caller's own. TBS_ST_ALREADY_EXISTS while a turn to another host holds the updates, or has superseded this daemon;
 * TBS_ST_UNSUPPORTED for any other that is not the master. TBS_ST_INVALID_ARG for a daemon that is to follow itself or
 * no host.
 */
tbs_status_t rvzd_registry_turn(rvzd_handle_t *handle, int64_t op, uint32_t seconds, const char *host);

/* `save` 0 begins a new one; then the number of the last reply comes again, with how many bytes have arrived. */
typedef struct rvzd_registry_save_req {
    rvzd_hdr_req_t header;
    uint64_t save;
    uint64_t offset;
} rvzd_registry_save_req_t;

typedef struct rvzd_registry_save_reply {
    rvzd_hdr_reply_t header;
    uint64_t save;
    uint64_t pages_done; /* while the daemon makes its copy; then both are the same */
    uint64_t pages;
    uint64_t size;  /* of the file; 0 while it is made */
    char *failure;  /* why there will be none; else empty */
    uint32_t count; /* of the bytes from the offset on */
    uint8_t *bytes;
} rvzd_registry_save_reply_t;

/*
 * One step of saving: the daemon makes a copy of its registry at one moment, and gives it out piece by piece. A save
 * for which nobody asks for a minute is forgotten. TBS_ST_TRY_AGAIN while it makes another one, TBS_ST_NOT_FOUND for a
 * number that it does not know, TBS_ST_NO_SERVER without a registry.
 */
tbs_status_t rvzd_registry_save(rvzd_handle_t *handle, uint64_t save, uint64_t offset,
                                rvzd_registry_save_reply_t *reply);
void rvzd_registry_save_free(rvzd_registry_save_reply_t *reply);

typedef struct rvzd_daemon_status_req {
    rvzd_hdr_req_t header;
} rvzd_daemon_status_req_t;

/* What was asked of one procedure since the daemon started; times are in microseconds, from the call to the answer. */
typedef struct rvzd_procedure_figures {
    uint32_t number;
    uint64_t calls;
    uint64_t median_us;
    uint64_t p99_us;
} rvzd_procedure_figures_t;

typedef struct rvzd_daemon_status_reply {
    rvzd_hdr_reply_t header;
    char *version; /* of the program */
    char *host;
    int64_t now;
    int64_t started;
    uint32_t connections;
    uint32_t connections_max;
    uint32_t services; /* configured */
    uint32_t servers;  /* processes of them */
    uint32_t servers_busy;
    uint64_t registry_entries;
    uint64_t registry_bytes; /* of the file, and of the log beside it */
    uint64_t registry_log_bytes;
    uint32_t count;
    rvzd_procedure_figures_t *procedures; /* those that were called */
} rvzd_daemon_status_reply_t;

tbs_status_t rvzd_daemon_status(rvzd_handle_t *handle, rvzd_daemon_status_reply_t *reply);
void rvzd_daemon_status_free(rvzd_daemon_status_reply_t *reply);

bool_t xdr_rvzd_registry_state_req_t(XDR *xdrs, rvzd_registry_state_req_t *record);
bool_t xdr_rvzd_registry_state_reply_t(XDR *xdrs, rvzd_registry_state_reply_t *record);
bool_t xdr_rvzd_registry_turn_req_t(XDR *xdrs, rvzd_registry_turn_req_t *record);
bool_t xdr_rvzd_registry_save_req_t(XDR *xdrs, rvzd_registry_save_req_t *record);
bool_t xdr_rvzd_registry_save_reply_t(XDR *xdrs, rvzd_registry_save_reply_t *record);
bool_t xdr_rvzd_daemon_status_req_t(XDR *xdrs, rvzd_daemon_status_req_t *record);
bool_t xdr_rvzd_procedure_figures_t(XDR *xdrs, rvzd_procedure_figures_t *record);
bool_t xdr_rvzd_daemon_status_reply_t(XDR *xdrs, rvzd_daemon_status_reply_t *record);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
