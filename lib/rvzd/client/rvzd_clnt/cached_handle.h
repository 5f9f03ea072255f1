// The shared record behind a handle, and the process-wide table and idle list of such records. All of it is guarded by
// rvzd_call_lock; stretches that leave table or list in mid-change run with raises inhibited.
//
// A record is new (not in the table, one reference), live (in the table, references), idle (in the table and the idle
// list, no reference), idle without a connection (the same with a null client), or orphaned (out of the table with
// references left: its last handle destroys it).
#pragma once

#include <cstddef>
#include <ctime>

#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/llist.h>
#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_wire.h>

struct rvzd_cached_handle {
    uint64_t sequence;   // of the next request; 0 when the client is made
    uint64_t uniquifier; // of the client's connection; first word of each request
    rvzd_server_addr_t server_addr;
    CLIENT *client;  // null while the record holds no connection; its cl_auth is the record's own
    char *host_name; // as the first caller spelled it; null until the address step
    time_t last_contact;
    time_t released_at;
    rvzd_cached_handle *hash_next;
    llist_d_elem_t lru_elem; // its owner word refers to this record
    int32_t reference_count;
    int32_t hash_bucket; // -1: not in the table
    int32_t socket_fd;   // -1: none
    uint32_t protocol;
    uint32_t prim; // non-zero: the caller's credentials, zero: nobody's
    clnt_hostinfo_t *hostinfo;
    uint32_t generic_service;
    uint32_t protocol_version;
    uint32_t program;    // by whose port range the connection is made
    uint32_t generation; // of the process that made the connection
};

static_assert(sizeof(rvzd_handle_t) == 24);
static_assert(offsetof(rvzd_handle_t, tv_sec) == 8 && offsetof(rvzd_handle_t, tv_usec) == 16);
static_assert(sizeof(rvzd_server_addr_t) == 60 && offsetof(rvzd_server_addr_t, addrs) == 4);
static_assert(sizeof(llist_d_elem_t) == 3 * sizeof(void *));
static_assert(offsetof(rvzd_cached_handle, server_addr) == 16);
static_assert(offsetof(rvzd_cached_handle, client) == 80);
static_assert(offsetof(rvzd_cached_handle, lru_elem) == 120);
static_assert(offsetof(rvzd_cached_handle, reference_count) == 144);
static_assert(offsetof(rvzd_cached_handle, protocol_version) == 180);

namespace velia::rvzd_clnt {

constexpr int hash_buckets = 10;
constexpr int32_t no_bucket = -1;
constexpr int32_t no_socket = -1;

struct RecordKey {
    const char *host;
    uint32_t protocol;
    uint32_t prim;
};

// Over the spelling as given: two spellings of a host share a record only if they fall into the same bucket.
uint32_t bucket_of(const char *host, uint32_t protocol);

// The record of this key in the bucket, host names compared without regard to case; null if there is none.
rvzd_cached_handle_t *find_record(uint32_t bucket, const RecordKey &key);

// A new record with one reference, not in the table; null without storage.
rvzd_cached_handle_t *make_record(const RecordKey &key, bool generic_service);

void enter_record(rvzd_cached_handle_t *record, uint32_t bucket);

// One more handle on a record of the table; an idle record leaves the idle list.
void take_reference(rvzd_cached_handle_t *record);

// Whether the record has a connection that this process made: it may have come with a fork.
bool is_connected(const rvzd_cached_handle_t *record);

// Destroys authenticator and client and closes the socket; the record keeps what it knows of its host.
void drop_connection(rvzd_cached_handle_t *record);

} // namespace velia::rvzd_clnt
