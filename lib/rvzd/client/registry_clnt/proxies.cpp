// The procedures of the registry, fifteen and one more. Each is a record and what becomes of its reply; five of them
// are fetches, and six have no answer but a status.
#include <veliaxdr/rgy_wire.h>

#include <cstring>

#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <support/strutl.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

char *as_sent(const char *text) {
    return const_cast<char *>(text);
}

// Makes the call; `take` has the reply when its status is good, and gives the result.
template <class Request, class Reply, class Take>
tbs_status_t ask(rvzd_handle_t *handle, const Procedure<Request, Reply> &procedure, Request &request, Take &&take) {
    Reply reply = {};
    return broker_call(handle, procedure, request, reply, [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome != RPC_SUCCESS)
            return TBS_ST_RPC_FAILED;
        return reply.header.status == TBS_ST_OK ? take(reply) : reply.header.status;
    });
}

// A call whose answer is a status.
template <class Request>
tbs_status_t order(rvzd_handle_t *handle, const Procedure<Request, rvzd_null_reply_t> &procedure, Request request) {
    return ask(handle, procedure, request, [](const rvzd_null_reply_t &) { return tbs_status_t{TBS_ST_OK}; });
}

// Where a fetch puts what it brings.
struct Batch {
    rgy_dtm_pair_t *pair;
    uint64_t *cursor;
    int64_t max_entries;
    rgy_elist_t elist;
    int64_t *count;
};

// What was copied before storage ran out stays in the list, for the caller to free.
tbs_status_t take_batch(const rvzd_registry_get_reply_t &reply, const Batch &batch) {
    if (reply.count > batch.max_entries)
        return TBS_ST_INVALID_ARG;
    *batch.pair = reply.dtm;
    *batch.cursor = reply.cursor;
    *batch.count = reply.count;
    for (int64_t i = 0; i < reply.count; ++i) {
        batch.elist[i] = {reply.entries[i].entry_id, stg_strdup(reply.entries[i].flex_text)};
        if (batch.elist[i].flex_text == nullptr)
            return TBS_ST_NO_MEMORY;
    }
    return TBS_ST_OK;
}

bool are_sendable(const rgy_change_t *changes, int64_t count) {
    size_t bytes = 0;
    for (int64_t i = 0; i < count && bytes <= RGY_CHANGE_BYTES_MAX; ++i)
        bytes += RGY_CHANGE_WORDS_BYTES + (changes[i].flex_text != nullptr ? strlen(changes[i].flex_text) : 0);
    return count >= 0 && bytes <= RGY_CHANGE_BYTES_MAX;
}

tbs_status_t rpc_failed(clnt_stat /*outcome*/) {
    return TBS_ST_RPC_FAILED;
}

// The registry host learns first that this host is one of its clients.
template <class Request, class StatusOfFailure = tbs_status_t(clnt_stat)>
tbs_status_t fetch(rvzd_handle_t *handle, const Procedure<Request, rvzd_registry_get_reply_t> &procedure,
                   Request request, const Batch &batch, StatusOfFailure &&status_of_failure = rpc_failed) {
    rvzd_registry_get_reply_t reply = {};
    const auto status_of = [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome != RPC_SUCCESS)
            return status_of_failure(outcome);
        return reply.header.status == TBS_ST_OK ? take_batch(reply, batch) : reply.header.status;
    };
    return broker_call(handle, procedure, request, reply, status_of, rvzd_clnt_list_register);
}

// The elements copied so far, for the case that a raise lands.
struct DbList {
    rgy_db_info_t *dbs;
    int64_t copied;

    void release() {
        while (copied > 0)
            stg_free(dbs[--copied].name);
    }
};

// A name that cannot be had is null: the list is delivered all the same.
tbs_status_t take_db_list(const rvzd_registry_get_db_reply_t &reply, int64_t db_max, DbList &list) {
    if (reply.count > db_max)
        return TBS_ST_INVALID_ARG;
    with_inhibit([&] {
        for (; list.copied < reply.count; ++list.copied) {
            list.dbs[list.copied] = reply.dbs[list.copied];
            list.dbs[list.copied].name = stg_strdup(reply.dbs[list.copied].name);
        }
    });
    return TBS_ST_OK;
}

} // namespace

tbs_status_t rvzd_rgy_get_id(rvzd_handle_t *handle, rgy_db_t db, int64_t version, rgy_dtm_pair_t *out) {
    rvzd_registry_get_id_req_t request = {{}, db, version};
    return ask(handle, procedures::rgy_get_id, request, [&](const rvzd_registry_get_id_reply_t &reply) -> tbs_status_t {
        *out = reply.dtm;
        return TBS_ST_OK;
    });
}

tbs_status_t rvzd_rgy_get_dtm(rvzd_handle_t *handle, rgy_db_t db, int64_t version, rgy_dtm_pair_t *out,
                              tbs_uuid_t *aux_uuid1, tbs_uuid_t *aux_uuid2) {
    rvzd_registry_get_dtm_req_t request = {{}, db, version};
    return ask(handle, procedures::rgy_get_dtm, request,
               [&](const rvzd_registry_get_dtm_reply_t &reply) -> tbs_status_t {
                   *out = reply.dtm;
                   *aux_uuid1 = reply.aux_uuid1;
                   *aux_uuid2 = reply.aux_uuid2;
                   return TBS_ST_OK;
               });
}

tbs_status_t rvzd_rgy_get_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                rgy_dtm_pair_t *pair, uint64_t *cursor, int64_t max_entries, rgy_elist_t elist,
                                int64_t *count) {
    return fetch(handle, procedures::rgy_get_entry, {{}, db, version, *pair, as_sent(region), *cursor, max_entries},
                 {pair, cursor, max_entries, elist, count});
}

tbs_status_t rvzd_rgy_get_pattern_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                        rgy_dtm_pair_t *pair, uint64_t *cursor, const char *const *patterns,
                                        int32_t pattern_count, int64_t max_entries, rgy_elist_t elist, int64_t *count) {
    rvzd_registry_get_pattern_req_t request = {{},
                                               db,
                                               version,
                                               *pair,
                                               as_sent(region),
                                               *cursor,
                                               pattern_count,
                                               const_cast<char **>(patterns),
                                               pattern_count,
                                               max_entries};
    // A registry that does not know patterns is no failure to print.
    const auto status_of_failure = [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome == RPC_PROCUNAVAIL)
            return TBS_ST_UNSUPPORTED;
        print_failed_call(rvzd_get_rpc_clnt(handle), procedures::rgy_get_pattern_entry.failed_text);
        return TBS_ST_RPC_FAILED;
    };
    return fetch(handle, quiet(procedures::rgy_get_pattern_entry), request, {pair, cursor, max_entries, elist, count},
                 status_of_failure);
}

tbs_status_t rvzd_rgy_findbystring_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                         const char *item_key, const char *lookup_string, rgy_dtm_pair_t *pair,
                                         uint64_t *cursor, int64_t max_entries, rgy_elist_t elist, int64_t *count) {
    return fetch(
        handle, procedures::rgy_findbystring_entry,
        {{}, db, version, *pair, as_sent(region), *cursor, max_entries, as_sent(item_key), as_sent(lookup_string)},
        {pair, cursor, max_entries, elist, count});
}

tbs_status_t rvzd_rgy_findbyuuid_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                       const char *item_key, const tbs_uuid_t *lookup_uuid, rgy_dtm_pair_t *pair,
                                       uint64_t *cursor, int64_t max_entries, rgy_elist_t elist, int64_t *count) {
    return fetch(handle, procedures::rgy_findbyuuid_entry,
                 {{}, db, version, *pair, as_sent(region), *cursor, max_entries, as_sent(item_key), *lookup_uuid},
                 {pair, cursor, max_entries, elist, count});
}

tbs_status_t rvzd_rgy_findbyattr_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const char *region,
                                       const char *item_key, const char *attr_name, const char *attr_value,
                                       rgy_dtm_pair_t *pair, uint64_t *cursor, int64_t max_entries, rgy_elist_t elist,
                                       int64_t *count) {
    return fetch(handle, procedures::rgy_findbyattr_entry,
                 {{},
                  db,
                  version,
                  *pair,
                  as_sent(region),
                  *cursor,
                  max_entries,
                  as_sent(item_key),
                  as_sent(attr_name),
                  as_sent(attr_value)},
                 {pair, cursor, max_entries, elist, count});
}

tbs_status_t rvzd_rgy_add_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const rgy_dtm_pair_t *pair,
                                const char *flex_text) {
    return order(handle, procedures::rgy_add_entry, {{}, db, version, *pair, as_sent(flex_text)});
}

tbs_status_t rvzd_rgy_remove_entry(rvzd_handle_t *handle, rgy_db_t db, int64_t version, const rgy_dtm_pair_t *pair,
                                   uint64_t entry_id) {
    return order(handle, procedures::rgy_remove_entry, {{}, db, version, *pair, entry_id});
}

tbs_status_t rvzd_rgy_change_entries(rvzd_handle_t *handle, rgy_db_t db, int64_t version, rgy_dtm_pair_t *pair,
                                     uint32_t flags, const tbs_uuid_t *set, uint32_t before,
                                     const rgy_change_t *changes, int64_t count, uint32_t *failed, uint32_t *passed) {
    rvzd_registry_change_req_t request = {
        {}, db, version, *pair, flags, {}, before, count, const_cast<rgy_change_t *>(changes)};
    if (set != nullptr)
        request.set = *set;
    rvzd_registry_change_reply_t reply = {};
    *failed = 0;
    if (!are_sendable(changes, count))
        return TBS_ST_INVALID_ARG;
    // A daemon of an older version does not know such changes, which is no failure to print.
    const auto status_of = [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome == RPC_PROCUNAVAIL)
            return TBS_ST_UNSUPPORTED;
        if (outcome != RPC_SUCCESS) {
            print_failed_call(rvzd_get_rpc_clnt(handle), procedures::rgy_change_entries.failed_text);
            return TBS_ST_RPC_FAILED;
        }
        if (reply.header.status != TBS_ST_OK)
            return reply.header.status;
        *pair = reply.dtm;
        *failed = reply.failed;
        *passed = reply.passed;
        return reply.outcome;
    };
    return broker_call(handle, quiet(procedures::rgy_change_entries), request, reply, status_of);
}

tbs_status_t rvzd_rgy_chk_access(rvzd_handle_t *handle, rgy_db_t db, int64_t version, int64_t uid,
                                 const char *password) {
    return order(handle, procedures::rgy_chk_access, {{}, db, version, uid, as_sent(password)});
}

tbs_status_t rvzd_rgy_get_db_list(rvzd_handle_t *handle, int64_t version, int64_t db_max, rgy_db_info_t *dbs,
                                  int64_t *count) {
    rvzd_registry_get_db_req_t request = {{}, version, db_max};
    DbList list = {dbs, 0};
    return with_cleanup(
        [&] {
            const auto status =
                ask(handle, procedures::rgy_get_db_list, request,
                    [&](const rvzd_registry_get_db_reply_t &reply) { return take_db_list(reply, db_max, list); });
            if (status == TBS_ST_OK)
                *count = list.copied;
            return status;
        },
        [&] { list.release(); });
}

tbs_status_t rvzd_rgy_clnt_conf_change(rvzd_handle_t *handle, int64_t version, int64_t op, const char *text) {
    return order(handle, procedures::rgy_clnt_conf_change, {{}, version, op, as_sent(text)});
}

tbs_status_t rvzd_rgy_svr_conf_change(rvzd_handle_t *handle, int64_t version, int64_t op, const char *text) {
    return order(handle, procedures::rgy_svr_conf_change, {{}, version, op, as_sent(text)});
}

tbs_status_t rvzd_rgy_get_backup(rvzd_handle_t *handle, int64_t version, char **host_list) {
    rvzd_registry_get_backup_req_t request = {{}, version};
    return ask(handle, procedures::rgy_get_backup, request,
               [&](const rvzd_registry_get_backup_reply_t &reply) -> tbs_status_t {
                   *host_list = strutl_ncpy(*host_list, reply.host_list, strlen(reply.host_list));
                   return TBS_ST_OK;
               });
}

tbs_status_t rvzd_rgy_set_backup(rvzd_handle_t *handle, int64_t version, const char *host_list) {
    return order(handle, procedures::rgy_set_backup, {{}, version, as_sent(host_list)});
}
