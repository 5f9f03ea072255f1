/*
 * The broker's wire protocol: program identity, and the record of each request and reply. The procedures that carry
 * them are in <veliaxdr/rvzd_procedures.h>.
 *
 * Every record has one XDR routine, xdr_<record>, used in all three directions: it encodes, decodes or frees by the
 * x_op of its stream and returns false as soon as one field fails. A record that is decoded into must be cleared
 * beforehand; what decoding allocates (strings, arrays, the server list's buffer when none was given) is stg_ storage
 * and is released by the same routine in free mode. The routines hold no state and may run in any thread.
 *
 *     rvzd_find_server_reply_t reply;
 *     memset(&reply, 0, sizeof reply);
 *     if (xdr_rvzd_find_server_reply_t(&stream, &reply) && reply.header.status == TBS_ST_OK)
 *         use(&reply.ports);
 *     xdr_free((xdrproc_t)xdr_rvzd_find_server_reply_t, &reply);
 */
#ifndef VELIAXDR_RVZD_WIRE_H
#define VELIAXDR_RVZD_WIRE_H

#include <stdint.h>
#include <time.h>

#include <support/sysutl.h>
#include <support/tbs.h>
#include <support/xdr_prims.h>
#include <veliaxdr/rvzd_procedures.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    RVZD_PROGRAM = 390512,
    RVZD_VERSION = 3, /* the RPC version; what changes is the protocol version that contact negotiates */
    RVZD_GENERIC_SERVICE_PROGRAM = 390520,
};

/* Protocol versions: 5 carries one IPv4 address where 6 carries port lists and addresses of both families. */
enum { RVZD_PROTOCOL_V70 = 5, RVZD_PROTOCOL_CURRENT = 6 };

/*
 * Transports, the index into rvzd_protocol_names. 3 marks a name that is in no table. The cell is a plain word, not an
 * enumeration: a peer may send any value, and whoever uses it as an index checks it.
 */
enum {
    RVZD_PROTOCOL_NONE = 0,
    RVZD_PROTOCOL_UDP = 1,
    RVZD_PROTOCOL_TCP = 2,
    RVZD_PROTOCOL_UNKNOWN = 3,
};
typedef int32_t rvzd_protocol_in_t;

/* The RPC identity of a served program. */
typedef struct rvzd_rpc_trait {
    uint64_t prog;
    uint64_t vers;
    rvzd_protocol_in_t proto;
} rvzd_rpc_trait_t;

enum { RVZD_SERVER_PORTS_MAX = 2 };

typedef struct rvzd_server_port {
    int32_t family; /* AF_INET, AF_INET6, or 0 for an empty slot */
    uint32_t port;  /* in host order */
} rvzd_server_port_t;

typedef struct rvzd_server_port_list {
    uint32_t count;
    rvzd_server_port_t ports[RVZD_SERVER_PORTS_MAX];
} rvzd_server_port_list_t;

typedef struct sockaddr_in rvzd_sockaddr_in_t;

/* Ten heap strings about one host. */
typedef struct clnt_hostinfo {
    char *hostname; /* at most 255 characters */
    char *product;
    char *version;
    char *osname;
    char *osversion;
    char *machine;
    char *registry_host;
    char *region;
    char *reserved; /* transferred as it stands, left empty by clients */
    char *options;
} clnt_hostinfo_t;

/* One element of the client list. */
typedef struct clnt_entry {
    ks_sockaddr_storage_t address;
    clnt_hostinfo_t hostinfo;
    time_t reserved_time;
    time_t registry_time; /* of the last registry contact */
} clnt_entry_t;

/* Opens every request. */
typedef struct rvzd_hdr_req {
    uint64_t uniquifier;
    uint64_t sequence;
} rvzd_hdr_req_t;

/* Opens every reply. */
typedef struct rvzd_hdr_reply {
    uint64_t word; /* the client decodes it and never looks at it */
    tbs_status_t status;
} rvzd_hdr_reply_t;

typedef struct rvzd_null_req {
    rvzd_hdr_req_t header;
} rvzd_null_req_t;

typedef struct rvzd_null_reply {
    rvzd_hdr_reply_t header;
} rvzd_null_reply_t;

typedef struct rvzd_contact_req {
    rvzd_hdr_req_t header;
    uint64_t protocol_version; /* the highest that the client speaks */
} rvzd_contact_req_t;

typedef struct rvzd_contact_reply {
    rvzd_hdr_reply_t header;
    uint64_t protocol_version; /* present whatever the status */
} rvzd_contact_reply_t;

typedef struct rvzd_register_server_req {
    rvzd_hdr_req_t header;
    rvzd_rpc_trait_t trait;
    tbs_uuid_t uuid;
    char *path;
    rvzd_server_port_list_t ports;
    int32_t pid;
} rvzd_register_server_req_t;

typedef struct rvzd_server_idle_req {
    rvzd_hdr_req_t header;
    int32_t pid;
    tbs_boolean_t flag;
} rvzd_server_idle_req_t;

typedef struct rvzd_server_busy_req {
    rvzd_hdr_req_t header;
    int32_t pid;
    tbs_uuid_t uuid;
} rvzd_server_busy_req_t;

typedef rvzd_server_busy_req_t rvzd_server_alternate_uuid_req_t;

/* The two numbers that a server reports with rvzd_sched_info; their meaning lies with the broker. */
typedef struct rvzd_sched_info_pair {
    int32_t kind;
    uint64_t value;
} rvzd_sched_info_pair_t;

typedef struct rvzd_sched_info_req {
    rvzd_hdr_req_t header;
    int32_t pid;
    tbs_uuid_t uuid;
    rvzd_sched_info_pair_t pair;
} rvzd_sched_info_req_t;

typedef struct rvzd_find_server_req {
    rvzd_hdr_req_t header;
    rvzd_rpc_trait_t trait;
    tbs_uuid_t uuid;
    char *path; /* the empty string for none */
} rvzd_find_server_req_t;

/* Nothing behind the gate word travels unless it is 0. */
typedef struct rvzd_find_server_reply {
    rvzd_hdr_reply_t header;
    time_t gate;
    tbs_uuid_t uuid;
    char *path;
    rvzd_server_port_list_t ports;
} rvzd_find_server_reply_t;

typedef struct rvzd_find_server_v70_reply {
    rvzd_hdr_reply_t header;
    time_t gate;
    tbs_uuid_t uuid;
    char *path;
    rvzd_sockaddr_in_t address;
} rvzd_find_server_v70_reply_t;

typedef struct rvzd_get_local_path_req {
    rvzd_hdr_req_t header;
    char *global_path;
    uint64_t size; /* of the caller's buffer */
} rvzd_get_local_path_req_t;

/*
 * `path` null: decoding allocates. `path` set: it is a buffer of `size` bytes and decoding fills it; a path that does
 * not fit with its terminator fails the routine and leaves the buffer as it was. Clear a `path` of the caller's before
 * free mode, which releases it.
 */
typedef struct rvzd_get_local_path_reply {
    rvzd_hdr_reply_t header;
    char *path;
    uint64_t size; /* of the buffer behind `path`; not transferred */
} rvzd_get_local_path_reply_t;

typedef struct rvzd_clnt_list_get_req {
    rvzd_hdr_req_t header;
    int32_t first;
    uint32_t second;
    int32_t position; /* to resume from */
} rvzd_clnt_list_get_req_t;

/* Free mode leaves `entries` alone. */
typedef struct rvzd_clnt_list_get_reply {
    rvzd_hdr_reply_t header;
    int32_t position;
    tbs_boolean_t at_end;
    uint32_t count;
    clnt_entry_t *entries;
} rvzd_clnt_list_get_reply_t;

typedef rvzd_clnt_list_get_reply_t rvzd_clnt_list_get_v70_reply_t;

enum { RVZD_HOST_NAME_MAX = 63 };

/* More than any host says of itself, and than any list holds: a record with more is none. */
enum { RVZD_HOST_TEXT_MAX = 65535, RVZD_CLNT_LIST_ENTRIES_MAX = 65536 };

typedef struct rvzd_clnt_list_lookup_req {
    rvzd_hdr_req_t header;
    char *hostname; /* at most RVZD_HOST_NAME_MAX characters */
} rvzd_clnt_list_lookup_req_t;

typedef struct rvzd_clnt_list_lookup_reply {
    rvzd_hdr_reply_t header;
    clnt_entry_t entry;
} rvzd_clnt_list_lookup_reply_t;

typedef rvzd_clnt_list_lookup_reply_t rvzd_clnt_list_lookup_v70_reply_t;

typedef struct rvzd_clnt_list_register_req {
    rvzd_hdr_req_t header;
    clnt_hostinfo_t hostinfo;
} rvzd_clnt_list_register_req_t;

typedef rvzd_null_reply_t rvzd_clnt_list_register_reply_t;

typedef rvzd_null_req_t rvzd_hostinfo_req_t;

typedef struct rvzd_hostinfo_reply {
    rvzd_hdr_reply_t header;
    clnt_hostinfo_t hostinfo;
} rvzd_hostinfo_reply_t;

enum { RVZD_SERVER_NAME_MAX = 64 };

typedef struct rvzd_toggle_server_restart_req {
    rvzd_hdr_req_t header;
    tbs_boolean_t enable;
    char *name; /* at most RVZD_SERVER_NAME_MAX characters */
} rvzd_toggle_server_restart_req_t;

typedef struct clnt_toggle_server_restart {
    int32_t status; /* of the toggling itself */
} clnt_toggle_server_restart_t;

typedef struct rvzd_toggle_server_restart_reply {
    rvzd_hdr_reply_t header;
    clnt_toggle_server_restart_t toggle;
} rvzd_toggle_server_restart_reply_t;

typedef struct rvzd_remote_build_hi_req {
    rvzd_hdr_req_t header;
    char *hostname; /* at most RVZD_HOST_NAME_MAX characters */
    uint64_t uid;
    uint64_t gid;
} rvzd_remote_build_hi_req_t;

/* All fields travel, whatever the status. */
typedef struct rvzd_remote_build_hi_reply {
    rvzd_hdr_reply_t header;
    int32_t word1;
    int32_t word2;
    time_t time;
    int32_t word3;
    char *text1;
    char *text2;
    char *text3;
} rvzd_remote_build_hi_reply_t;

typedef struct rvzd_list_servers_req {
    rvzd_hdr_req_t header;
    uint64_t cookie; /* 0 to begin */
    uint64_t size;   /* most bytes of reply wanted */
} rvzd_list_servers_req_t;

/*
 * One record of a server list, as it stands in the flat buffer of a reply: `name_length` bytes of name and a NUL follow
 * the fixed fields at RVZD_SERVER_ENTRY_NAME_OFFSET, and the next record begins rvzd_server_entry_size() bytes on.
 */
typedef struct rvzd_server_entry {
    uint64_t cookie;
    rvzd_rpc_trait_t trait;
    rvzd_server_port_list_t ports;
    tbs_uuid_t uuid;
    int32_t state; /* the broker's business */
    int32_t pid;
    uint16_t name_length;
} rvzd_server_entry_t;

enum {
    RVZD_SERVER_ENTRY_NAME_OFFSET = 78,
    RVZD_LIST_SERVERS_BYTES_MAX = 8744, /* of one reply */
    RVZD_SERVER_NAME_END = -1,          /* length word that ends the stream of records */
};

static inline uint64_t rvzd_server_entry_size(uint64_t name_length) {
    return (name_length + 86) & ~(uint64_t)7;
}

static inline char *rvzd_server_entry_name(rvzd_server_entry_t *entry) {
    return (char *)entry + RVZD_SERVER_ENTRY_NAME_OFFSET;
}

/* `size` is the buffer's capacity on the way in and the bytes used on the way out. */
typedef struct rvzd_list_servers_reply {
    rvzd_hdr_reply_t header;
    uint64_t cookie;
    uint64_t size;
    tbs_boolean_t at_end;
    char *buffer; /* null: decoding allocates `size` bytes */
} rvzd_list_servers_reply_t;

typedef rvzd_list_servers_reply_t rvzd_list_servers_v70_reply_t;

typedef struct rvzd_slim_is_slim_reply {
    rvzd_hdr_reply_t header;
    tbs_boolean_t is_slim;
} rvzd_slim_is_slim_reply_t;

bool_t xdr_rvzd_protocol_in_t(XDR *xdrs, rvzd_protocol_in_t *record);
bool_t xdr_rvzd_rpc_trait_t(XDR *xdrs, rvzd_rpc_trait_t *record);
bool_t xdr_rvzd_server_port_t(XDR *xdrs, rvzd_server_port_t *record);
bool_t xdr_rvzd_server_port_list_t(XDR *xdrs, rvzd_server_port_list_t *record);
bool_t xdr_rvzd_sockaddr_in_t(XDR *xdrs, rvzd_sockaddr_in_t *record);
bool_t xdr_clnt_hostinfo_t(XDR *xdrs, clnt_hostinfo_t *record);
bool_t xdr_clnt_entry_t(XDR *xdrs, clnt_entry_t *record);
bool_t xdr_clnt_entry_v70_t(XDR *xdrs, clnt_entry_t *record);
bool_t xdr_clnt_toggle_server_restart_t(XDR *xdrs, clnt_toggle_server_restart_t *record);

bool_t xdr_rvzd_hdr_req_t(XDR *xdrs, rvzd_hdr_req_t *record);
bool_t xdr_rvzd_hdr_reply_t(XDR *xdrs, rvzd_hdr_reply_t *record);
bool_t xdr_rvzd_null_req_t(XDR *xdrs, rvzd_null_req_t *record);
bool_t xdr_rvzd_null_reply_t(XDR *xdrs, rvzd_null_reply_t *record);
bool_t xdr_rvzd_contact_req_t(XDR *xdrs, rvzd_contact_req_t *record);
bool_t xdr_rvzd_contact_reply_t(XDR *xdrs, rvzd_contact_reply_t *record);

bool_t xdr_rvzd_register_server_req_t(XDR *xdrs, rvzd_register_server_req_t *record);
bool_t xdr_rvzd_server_idle_req_t(XDR *xdrs, rvzd_server_idle_req_t *record);
bool_t xdr_rvzd_server_busy_req_t(XDR *xdrs, rvzd_server_busy_req_t *record);
bool_t xdr_rvzd_server_alternate_uuid_req_t(XDR *xdrs, rvzd_server_alternate_uuid_req_t *record);
bool_t xdr_rvzd_sched_info_req_t(XDR *xdrs, rvzd_sched_info_req_t *record);
bool_t xdr_rvzd_find_server_req_t(XDR *xdrs, rvzd_find_server_req_t *record);
bool_t xdr_rvzd_find_server_reply_t(XDR *xdrs, rvzd_find_server_reply_t *record);
bool_t xdr_rvzd_find_server_v70_reply_t(XDR *xdrs, rvzd_find_server_v70_reply_t *record);
bool_t xdr_rvzd_get_local_path_req_t(XDR *xdrs, rvzd_get_local_path_req_t *record);
bool_t xdr_rvzd_get_local_path_reply_t(XDR *xdrs, rvzd_get_local_path_reply_t *record);
bool_t xdr_rvzd_clnt_list_get_req_t(XDR *xdrs, rvzd_clnt_list_get_req_t *record);
bool_t xdr_rvzd_clnt_list_get_reply_t(XDR *xdrs, rvzd_clnt_list_get_reply_t *record);
bool_t xdr_rvzd_clnt_list_get_v70_reply_t(XDR *xdrs, rvzd_clnt_list_get_v70_reply_t *record);
bool_t xdr_rvzd_clnt_list_lookup_req_t(XDR *xdrs, rvzd_clnt_list_lookup_req_t *record);
bool_t xdr_rvzd_clnt_list_lookup_reply_t(XDR *xdrs, rvzd_clnt_list_lookup_reply_t *record);
bool_t xdr_rvzd_clnt_list_lookup_v70_reply_t(XDR *xdrs, rvzd_clnt_list_lookup_v70_reply_t *record);
bool_t xdr_rvzd_clnt_list_register_req_t(XDR *xdrs, rvzd_clnt_list_register_req_t *record);
bool_t xdr_rvzd_clnt_list_register_reply_t(XDR *xdrs, rvzd_clnt_list_register_reply_t *record);
bool_t xdr_rvzd_hostinfo_req_t(XDR *xdrs, rvzd_hostinfo_req_t *record);
bool_t xdr_rvzd_hostinfo_reply_t(XDR *xdrs, rvzd_hostinfo_reply_t *record);
bool_t xdr_rvzd_toggle_server_restart_req_t(XDR *xdrs, rvzd_toggle_server_restart_req_t *record);
bool_t xdr_rvzd_toggle_server_restart_reply_t(XDR *xdrs, rvzd_toggle_server_restart_reply_t *record);
bool_t xdr_rvzd_remote_build_hi_req_t(XDR *xdrs, rvzd_remote_build_hi_req_t *record);
bool_t xdr_rvzd_remote_build_hi_reply_t(XDR *xdrs, rvzd_remote_build_hi_reply_t *record);
bool_t xdr_rvzd_list_servers_req_t(XDR *xdrs, rvzd_list_servers_req_t *record);

/*
 * The server list. Decoding fills the buffer with as many whole records as its capacity holds; a record that does not
 * fit ends it successfully with `at_end` false and the cookie of the last record stored, so that the next call brings
 * that record again. Encoding ends the list before a record whose name length plus 63, rounded down to a multiple of 4,
 * would lead beyond RVZD_LIST_SERVERS_BYTES_MAX behind the header, and fails on a record that runs beyond the buffer's
 * used size. Free mode releases only the buffer. A buffer of the caller's begins at a multiple of 8, and so does each
 * record in it.
 */
bool_t xdr_rvzd_list_servers_reply_t(XDR *xdrs, rvzd_list_servers_reply_t *record);
bool_t xdr_rvzd_list_servers_v70_reply_t(XDR *xdrs, rvzd_list_servers_v70_reply_t *record);

bool_t xdr_rvzd_slim_is_slim_reply_t(XDR *xdrs, rvzd_slim_is_slim_reply_t *record);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
