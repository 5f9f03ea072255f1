// The table of shared records, the idle list with its limits, and the timer that closes what has stayed idle.
//
// Limits: 5 idle records, 2 idle connections, 60 seconds. Only idle records are counted.
#include <rvzd/client/rvzd_clnt/cached_handle.h>

#include <cstring>
#include <strings.h>
#include <unistd.h>

#include <common/require.h>
#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rpc_client.h>
#include <support/rt.h>
#include <support/stg.h>

using namespace velia;
using namespace velia::rvzd_clnt;

ivlthread_mutex_t rvzd_call_lock;

namespace {

void leave_records_to_parent();

} // namespace

ForkWatch velia::rvzd_clnt::call_lock_watch = {rvzd_call_lock, leave_records_to_parent};

namespace {

constexpr int32_t idle_handles_full = 6;
constexpr int32_t idle_sockets_full = 3;
constexpr time_t idle_age_max_s = 60;
constexpr int close_delay_s = 61;

rvzd_cached_handle_t *rvzd_handle_hash_tb[hash_buckets];
llist_d_head_t rvzd_handle_lru = {&rvzd_handle_lru, &rvzd_handle_lru};
// Signed: a record that came to rest without a connection was not counted in, and yet is counted out.
int32_t rvzd_num_cached_handles;
int32_t rvzd_num_cached_sockets;
rt_event_t rvzd_handle_cache_close_h;
// In a child of a process that was in a call: its client may be anywhere in that call.
bool parent_was_in_call;

bool lru_is_empty() {
    return rvzd_handle_lru.next == &rvzd_handle_lru;
}

rvzd_cached_handle_t *owner_of(llist_d_head_t *element) {
    return static_cast<rvzd_cached_handle_t *>(reinterpret_cast<llist_d_elem_t *>(element)->owner);
}

rvzd_cached_handle_t *oldest_idle() {
    require_as(!lru_is_empty(), "!llist_d_empty(&rvzd_handle_lru)", __LINE__);
    return owner_of(rvzd_handle_lru.next);
}

// Of one record: no more is looked at than what is at hand.
void require_sound(const rvzd_cached_handle_t *record) {
    const bool is_in_table = record->hash_bucket != no_bucket;
    require(record->reference_count >= 0);
    require(record->hash_bucket >= no_bucket && record->hash_bucket < hash_buckets);
    require(!is_in_table || record->host_name != nullptr);
    require(record->client == nullptr || record->host_name != nullptr);
}

#ifdef VELIA_CHECK_INVARIANTS
size_t idle_in_bucket(int32_t bucket) {
    size_t idle = 0;
    for (const rvzd_cached_handle_t *at = rvzd_handle_hash_tb[bucket]; at != nullptr; at = at->hash_next) {
        require_sound(at);
        require(at->hash_bucket == bucket);
        idle += at->reference_count == 0;
    }
    return idle;
}

// Of the table and the idle list: what is in the list is in the table, without a reference. What is idle and not in the
// list is met by whoever runs off its end.
void require_sound_cache() {
    size_t idle = 0;
    for (int32_t bucket = 0; bucket < hash_buckets; ++bucket)
        idle += idle_in_bucket(bucket);
    size_t listed = 0;
    for (llist_d_head_t *at = rvzd_handle_lru.next; at != &rvzd_handle_lru; at = at->next, ++listed)
        require(owner_of(at)->reference_count == 0 && owner_of(at)->hash_bucket != no_bucket);
    require(listed <= idle);
}
#else
void require_sound_cache() {}
#endif

void leave_idle_list(rvzd_cached_handle_t *record) {
    llist_d_remove(&record->lru_elem);
    --rvzd_num_cached_handles;
    if (record->client != nullptr)
        --rvzd_num_cached_sockets;
}

// Sockets are counted always and handles only with a client, the other way round than leave_idle_list does. It is
// meant: a record that comes back without a connection raises the socket count alone, and the limits work on those
// numbers.
void join_idle_list(rvzd_cached_handle_t *record) {
    record->released_at = now_s();
    ++rvzd_num_cached_sockets;
    if (record->client != nullptr)
        ++rvzd_num_cached_handles;
    llist_d_insert(&rvzd_handle_lru, record, &record->lru_elem, 0);
}

void free_hostinfo(rvzd_cached_handle_t *record) {
    if (record->hostinfo == nullptr)
        return;
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_clnt_hostinfo_t), record->hostinfo);
    stg_free(record->hostinfo);
    record->hostinfo = nullptr;
}

void destroy_record(rvzd_cached_handle_t *record) {
    drop_connection(record);
    stg_free(record->host_name);
    free_hostinfo(record);
    stg_free(record);
}

void unlink_from_table(rvzd_cached_handle_t *record) {
    rvzd_cached_handle_t **link = &rvzd_handle_hash_tb[record->hash_bucket];
    while (*link != record)
        link = &(*link)->hash_next;
    *link = record->hash_next;
    record->hash_next = nullptr;
    record->hash_bucket = no_bucket;
}

void evict_oldest_idle() {
    rvzd_cached_handle_t *record = oldest_idle();
    leave_idle_list(record);
    rvzd_release_handle(record);
}

// The oldest connections go; their records stay, and lose their host information on the way.
void enforce_socket_limit() {
    llist_d_head_t *element = rvzd_handle_lru.next;
    while (rvzd_num_cached_sockets >= idle_sockets_full) {
        require_as(element != &rvzd_handle_lru, "!llist_d_end(&rvzd_handle_lru, lru_elem)", __LINE__);
        rvzd_cached_handle_t *record = owner_of(element);
        if (record->client != nullptr) {
            --rvzd_num_cached_sockets;
            drop_connection(record);
        }
        free_hostinfo(record);
        element = element->next;
    }
}

void arm_close_timer(int delay_s) {
    rvzd_handle_cache_close_h = rt_sched(rvzd_cached_handle_close_check, nullptr, delay_s);
    if (rvzd_handle_cache_close_h == nullptr)
        tbs_log_int_error(subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, source_file, __LINE__, 0,
                          "rt_sched", tbs_strerror(TBS_ST_ERROR));
}

void put_to_rest(rvzd_cached_handle_t *record) {
    join_idle_list(record);
    while (rvzd_num_cached_handles >= idle_handles_full)
        evict_oldest_idle();
    enforce_socket_limit();
    if (rvzd_handle_cache_close_h == nullptr)
        arm_close_timer(close_delay_s);
}

void drop_reference(rvzd_cached_handle_t *record) {
    --record->reference_count;
    if (record->reference_count > 0)
        return;
    if (record->reference_count < 0)
        pfm_panic(source_file, __LINE__);
    require_sound(record);
    if (record->hash_bucket == no_bucket)
        rvzd_release_handle(record);
    else
        put_to_rest(record);
    require_sound_cache();
}

// Handles of the parent that the child has keep their records, which are in no table from now on. Idle records are
// lost.
void leave_records_to_parent() {
    parent_was_in_call = true;
    for (auto &bucket : rvzd_handle_hash_tb) {
        for (rvzd_cached_handle_t *record = bucket; record != nullptr; record = record->hash_next)
            record->hash_bucket = no_bucket;
        bucket = nullptr;
    }
    rvzd_handle_lru = {&rvzd_handle_lru, &rvzd_handle_lru};
    rvzd_num_cached_handles = 0;
    rvzd_num_cached_sockets = 0;
}

// Client and authenticator are lost: what a thread of the parent was doing with them is half done.
void leave_connection_to_parent(rvzd_cached_handle_t *record) {
    if (record->socket_fd != no_socket)
        close(record->socket_fd);
    record->client = nullptr;
    record->socket_fd = no_socket;
}

void evict_aged(time_t now) {
    while (rvzd_num_cached_handles > 0 && now - idle_age_max_s > oldest_idle()->released_at)
        evict_oldest_idle();
    require_sound_cache();
}

} // namespace

uint32_t velia::rvzd_clnt::bucket_of(const char *host, uint32_t protocol) {
    uint32_t hash = protocol;
    for (const char *at = host; *at != '\0'; ++at)
        hash = (hash << 5 | hash >> 27) + static_cast<unsigned char>(*at);
    return hash % hash_buckets;
}

rvzd_cached_handle_t *velia::rvzd_clnt::find_record(uint32_t bucket, const RecordKey &key) {
    rvzd_cached_handle_t *record = rvzd_handle_hash_tb[bucket];
    while (record != nullptr && (record->protocol != key.protocol || record->prim != key.prim ||
                                 strcasecmp(record->host_name, key.host) != 0))
        record = record->hash_next;
    return record;
}

rvzd_cached_handle_t *velia::rvzd_clnt::make_record(const RecordKey &key, bool generic_service) {
    auto *record = static_cast<rvzd_cached_handle_t *>(stg_malloc(sizeof(rvzd_cached_handle_t)));
    if (record == nullptr)
        return nullptr;
    memset(record, 0, sizeof *record);
    record->socket_fd = no_socket;
    record->hash_bucket = no_bucket;
    record->reference_count = 1;
    record->protocol = key.protocol;
    record->prim = key.prim;
    record->generic_service = generic_service;
    return record;
}

void velia::rvzd_clnt::enter_record(rvzd_cached_handle_t *record, uint32_t bucket) {
    require(record->hash_bucket == no_bucket && record->reference_count > 0);
    with_inhibit([&] {
        record->hash_next = rvzd_handle_hash_tb[bucket];
        rvzd_handle_hash_tb[bucket] = record;
        record->hash_bucket = static_cast<int32_t>(bucket);
        require_sound_cache();
    });
}

void velia::rvzd_clnt::take_reference(rvzd_cached_handle_t *record) {
    require_sound(record);
    require(record->hash_bucket != no_bucket);
    if (record->reference_count++ == 0)
        leave_idle_list(record);
}

bool velia::rvzd_clnt::is_connected(const rvzd_cached_handle_t *record) {
    return record->client != nullptr && record->generation == process_generation();
}

void velia::rvzd_clnt::drop_connection(rvzd_cached_handle_t *record) {
    if (parent_was_in_call && record->generation != process_generation()) {
        leave_connection_to_parent(record);
        return;
    }
    if (record->client != nullptr) {
        if (record->client->cl_auth != nullptr)
            auth_destroy(record->client->cl_auth);
        // A TCP client owns its descriptor. It is taken back here, so that it is closed once: a second close could
        // meet a descriptor that another thread has opened in between.
        clnt_control(record->client, CLSET_FD_NCLOSE, nullptr);
        clnt_destroy(record->client);
        record->client = nullptr;
    }
    if (record->socket_fd != no_socket)
        close(record->socket_fd);
    record->socket_fd = no_socket;
}

void rvzd_release_handle(rvzd_cached_handle_t *record) {
    with_inhibit([&] {
        if (record->hash_bucket != no_bucket)
            unlink_from_table(record);
        if (record->reference_count <= 0)
            destroy_record(record);
    });
}

void rvzd_free_handle(rvzd_handle_t *handle) {
    if (handle == nullptr)
        return;
    with_lock(call_lock, [&] {
        with_inhibit([&] {
            if (handle->cached != nullptr)
                drop_reference(handle->cached);
            stg_free(handle);
        });
    });
}

void rvzd_free_cached_handles(void) {
    with_lock(call_lock, [] { with_inhibit([] { evict_aged(now_s()); }); });
}

void rvzd_cached_handle_close_check(void * /*unused*/) {
    const time_t now = now_s();
    with_lock(call_lock, [&] {
        with_inhibit([&] {
            require_as(rvzd_handle_cache_close_h != nullptr, "rvzd_handle_cache_close_h != NULL", __LINE__);
            rvzd_handle_cache_close_h = nullptr;
            evict_aged(now);
            if (!lru_is_empty())
                arm_close_timer(static_cast<int>(oldest_idle()->released_at - now + close_delay_s));
        });
    });
}

CLIENT *rvzd_get_rpc_clnt(rvzd_handle_t *handle) {
    rvzd_cached_handle_t *record = handle->cached;
    if (is_connected(record))
        return record->client;
    return with_lock(call_lock, [&]() -> CLIENT * { return renew_connection(record) ? record->client : nullptr; });
}

void rvzd_get_addr(rvzd_handle_t *handle, rvzd_server_addr_t *out) {
    with_lock(call_lock, [&] { *out = handle->cached->server_addr; });
}

uint32_t rvzd_get_server_protocol_version(rvzd_handle_t *handle) {
    return with_lock(call_lock, [&] { return handle->cached->protocol_version; });
}
