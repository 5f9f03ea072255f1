// Each procedure of the registry: what its record asks, and what the answer is as a record.
#include <server/registry/procedures.h>

#include <algorithm>
#include <array>

#include <server/broker/process.h>
#include <server/daemon/private_files.h>
#include <server/registry/serve_store.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::server {

namespace {

using EmptyReply = Reply<rvzd_null_reply_t>;

// Below what the RPC library takes for a datagram, its headers included; and below what one record may be.
constexpr size_t udp_records_bytes_max = 8000;
constexpr size_t tcp_records_bytes_max = 60000;

std::string text_of(const char *text) {
    return text != nullptr ? text : "";
}

bool is_db(int64_t db) {
    return db >= 0 && db < RGY_DB_ALL;
}

// Clients of the first version take one entry at a time, in a form of its own.
constexpr int64_t single_entry_version = 1;

int64_t reply_version(int64_t version) {
    return version == single_entry_version ? single_entry_version : int64_t{RGY_PROTOCOL_VERSION};
}

// What the wire's fetch requests have in common, whatever they search by.
struct Fetch {
    Selection selection;
    Filter filter;
};

// An empty key would select every record; no item has it, unless a record really has an item without a name.
Fetch found_by(std::string key, std::string value) {
    if (!key.empty())
        return {{0, "", std::move(key), std::move(value)}, {}};
    return {{}, [value](const Items &items) {
                const auto item = items.find("");
                return item != items.end() && item->second == value;
            }};
}

Fetch fetch_of(const rvzd_registry_get_req_t & /*request*/) {
    return {};
}

Fetch fetch_of(const rvzd_registry_findbystring_req_t &request) {
    return found_by(text_of(request.item_key), text_of(request.lookup_string));
}

Fetch fetch_of(const rvzd_registry_findbyuuid_req_t &request) {
    std::array<char, TBS_UUID_STR_SIZE> uuid;
    return found_by(text_of(request.item_key), tbs_uuid_to_str(&request.lookup_uuid, uuid.data()));
}

Fetch fetch_of(const rvzd_registry_findbyattr_req_t &request) {
    return {{},
            [key = text_of(request.item_key), name = text_of(request.attr_name), value = text_of(request.attr_value)](
                const Items &items) { return has_attribute(value_of(items, key), name, value); }};
}

// What it takes to try the patterns on a record, in looks at one.
uint64_t work_of(const std::vector<std::string> &patterns) {
    constexpr uint64_t tries_a_look = 4;
    constexpr uint64_t bytes_a_look = 64;
    uint64_t bytes = 0;
    for (const auto &pattern : patterns)
        bytes += pattern.size();
    return patterns.size() / tries_a_look + bytes / bytes_a_look;
}

Fetch fetch_of(const rvzd_registry_get_pattern_req_t &request) {
    std::vector<std::string> patterns;
    for (int64_t i = 0; i < request.patterns_length; ++i)
        patterns.push_back(text_of(request.patterns[i]));
    const uint64_t work = work_of(patterns);
    return {{},
            {[patterns = std::move(patterns)](const Items &items) {
                 return std::any_of(patterns.begin(), patterns.end(),
                                    [&](const std::string &pattern) { return matches_pattern(items, pattern); });
             },
             work}};
}

// The batch goes into the reply's arena; its records' texts are lent.
void take_batch(AnswerMemory::Answer made, Reply<rvzd_registry_get_reply_t> &reply) {
    const Batch &batch = reply.arena.share(std::move(made));
    auto &entries = reply.arena.keep(std::vector<rgy_svr_entry_t>());
    entries.reserve(batch.records.size());
    for (const Record &record : batch.records)
        entries.push_back({record.id, unowned(record.flex_text)});
    reply.record.cursor = batch.cursor;
    reply.record.count = static_cast<int64_t>(entries.size());
    reply.record.entries = entries.empty() ? nullptr : entries.data();
}

// The registry host or its backup in this host's hosts file.
tbs_status_t change_hosts(int64_t op, const std::string &host) {
    const auto status = rgy_clnt_conf_change(op, host.c_str());
    share_with_host("rgy_hosts.conf"); // clients read it
    rgy_hostname_cache_inval();
    return status;
}

tbs_status_t get_id(RegistryView &registry, const rvzd_registry_get_id_req_t &request, const Caller & /*caller*/,
                    Reply<rvzd_registry_get_id_reply_t> &reply) {
    if (!is_db(request.db))
        return TBS_ST_INVALID_ARG;
    const auto stamps = registry.stamps_of(static_cast<rgy_db_t>(request.db));
    if (!stamps)
        return not_in_memory;
    reply.record.version = RGY_PROTOCOL_VERSION;
    reply.record.dtm = stamps->pair;
    return TBS_ST_OK;
}

tbs_status_t get_dtm(RegistryView &registry, const rvzd_registry_get_dtm_req_t &request, const Caller & /*caller*/,
                     Reply<rvzd_registry_get_dtm_reply_t> &reply) {
    if (!is_db(request.db))
        return TBS_ST_INVALID_ARG;
    const auto stamps = registry.stamps_of(static_cast<rgy_db_t>(request.db));
    if (!stamps)
        return not_in_memory;
    reply.record.version = RGY_PROTOCOL_VERSION;
    reply.record.dtm = stamps->pair;
    reply.record.aux_uuid1 = stamps->registry;
    reply.record.aux_uuid2 = stamps->copy;
    return TBS_ST_OK;
}

bool is_null(const rgy_dtm_pair_t &pair) {
    constexpr rgy_dtm_pair_t null = {};
    return is_same(pair, null);
}

// The five fetches, which differ in what they select and pass.
template <class Request>
tbs_status_t fetch(RegistryView &registry, const Request &request, const Caller &caller,
                   Reply<rvzd_registry_get_reply_t> &reply) {
    if (!is_db(request.db) || request.max_entries < 1)
        return TBS_ST_INVALID_ARG;
    Fetch fetch = fetch_of(request);
    fetch.selection.db = static_cast<rgy_db_t>(request.db);
    fetch.selection.region = text_of(request.region);
    const int64_t version = reply_version(request.version);
    const BatchLimits limits = {version == single_entry_version ? 1 : static_cast<uint64_t>(request.max_entries),
                                caller.transport == RVZD_PROTOCOL_UDP ? udp_records_bytes_max : tcp_records_bytes_max};
    auto found = registry.find(fetch.selection, request.cursor, limits, fetch.filter);
    if (!found)
        return not_in_memory;
    if (registry.is_substitute() && !is_null(request.dtm) && !is_same(found->stamps.pair, request.dtm))
        return TBS_ST_TRY_AGAIN; // it goes on where it began, or on what is the same
    reply.record.version = version;
    reply.record.dtm = found->stamps.pair;
    take_batch(std::move(found->batch), reply);
    return TBS_ST_OK;
}

// What has been changed is told once it is on disk.
template <class Record>
void tell_change(Reply<Record> &reply, rgy_db_t db, bool is_added, std::string what, const Caller &caller) {
    reply.afterwards = [=, what = std::move(what)] { RegistryService::print_change(db, is_added, what, caller); };
}

tbs_status_t add_entry(Registry &registry, const rvzd_registry_add_req_t &request, const Caller &caller,
                       EmptyReply &reply) {
    if (!is_db(request.db))
        return TBS_ST_INVALID_ARG;
    const auto db = static_cast<rgy_db_t>(request.db);
    const std::string text = text_of(request.flex_text);
    const auto status = registry.add(db, request.dtm, text, caller);
    if (status == TBS_ST_OK)
        tell_change(reply, db, true, printable(text), caller);
    return status;
}

tbs_status_t remove_entry(Registry &registry, const rvzd_registry_remove_req_t &request, const Caller &caller,
                          EmptyReply &reply) {
    if (!is_db(request.db))
        return TBS_ST_INVALID_ARG;
    const auto db = static_cast<rgy_db_t>(request.db);
    const auto status = registry.remove(db, request.entry_id, caller);
    if (status == TBS_ST_OK)
        tell_change(reply, db, false, std::to_string(request.entry_id), caller);
    return status;
}

// The changes themselves are the reply's body: what became of them, when they could be looked at.
tbs_status_t change_entries(Registry &registry, const rvzd_registry_change_req_t &request, const Caller &caller,
                            Reply<rvzd_registry_change_reply_t> &reply) {
    if (!is_db(request.db))
        return TBS_ST_INVALID_ARG;
    const auto db = static_cast<rgy_db_t>(request.db);
    const auto outcome = registry.change(request, caller);
    if (outcome.status == TBS_ST_NO_ACCESS)
        return outcome.status;
    reply.record.version = RGY_PROTOCOL_VERSION;
    reply.record.dtm = registry.stamps(db).pair;
    reply.record.outcome = outcome.status;
    reply.record.failed = outcome.failed;
    reply.record.passed = outcome.passed;
    if (outcome.status == TBS_ST_OK)
        reply.afterwards = [=, done = outcome.done] {
            RegistryService::print_changes(db, done.added, done.changed, done.removed, caller);
        };
    return TBS_ST_OK;
}

tbs_status_t chk_access(Registry &registry, const rvzd_registry_chk_access_req_t &request, const Caller & /*caller*/,
                        EmptyReply & /*reply*/) {
    return registry.check_password(text_of(request.password));
}

tbs_status_t get_db_list(Registry &registry, const rvzd_registry_get_db_req_t &request, const Caller & /*caller*/,
                         Reply<rvzd_registry_get_db_reply_t> &reply) {
    auto &dbs = reply.arena.keep(std::array<rgy_db_info_t, RGY_DB_ALL>());
    const auto count = std::clamp<int64_t>(request.db_max, 0, RGY_DB_ALL);
    for (rgy_db_t db = 0; db < count; ++db) {
        const Stamps stamps = registry.stamps(db);
        dbs[db] = {db, const_cast<char *>(registry_db_name(db)), stamps.pair.dtm, stamps.pair.svr_dtm,
                   static_cast<int64_t>(registry.count(db))};
    }
    reply.record.version = RGY_PROTOCOL_VERSION;
    reply.record.count = count;
    reply.record.dbs = dbs.data();
    return TBS_ST_OK;
}

tbs_status_t get_backup(Registry &registry, const rvzd_registry_get_backup_req_t & /*request*/,
                        const Caller & /*caller*/, Reply<rvzd_registry_get_backup_reply_t> &reply) {
    reply.record.host_list = reply.arena.text(registry.backup_hosts());
    return TBS_ST_OK;
}

tbs_status_t set_backup(Registry &registry, const rvzd_registry_set_backup_req_t &request, const Caller & /*caller*/,
                        EmptyReply & /*reply*/) {
    registry.set_backup_hosts(text_of(request.host_list));
    return TBS_ST_OK;
}

} // namespace

std::vector<ServedProcedure> RegistryProcedures::rows() {
    using P = RegistryProcedures;
    return {
        serve_store<procedures::rgy_get_id, Lane::look_up, &get_id>(service_),
        serve_store<procedures::rgy_get_dtm, Lane::look_up, &get_dtm>(service_),
        serve_store<procedures::rgy_get_entry, Lane::search, &fetch<rvzd_registry_get_req_t>>(service_),
        serve_store<procedures::rgy_findbystring_entry, Lane::look_up, &fetch<rvzd_registry_findbystring_req_t>>(
            service_),
        serve_store<procedures::rgy_findbyuuid_entry, Lane::look_up, &fetch<rvzd_registry_findbyuuid_req_t>>(service_),
        serve_store<procedures::rgy_findbyattr_entry, Lane::search, &fetch<rvzd_registry_findbyattr_req_t>>(service_),
        serve_store<procedures::rgy_get_pattern_entry, Lane::search, &fetch<rvzd_registry_get_pattern_req_t>>(service_),
        serve_store<procedures::rgy_add_entry, Lane::update, &add_entry>(service_),
        serve_store<procedures::rgy_remove_entry, Lane::update, &remove_entry>(service_),
        serve_store<procedures::rgy_change_entries, Lane::update, &change_entries>(service_),
        serve_store<procedures::rgy_chk_access, Lane::hash, &chk_access>(service_),
        serve_store<procedures::rgy_get_db_list, Lane::look_up, &get_db_list>(service_),
        serve_store<procedures::rgy_get_backup, Lane::look_up, &get_backup>(service_),
        serve_store<procedures::rgy_set_backup, Lane::update, &set_backup>(service_),
        serve<procedures::rgy_clnt_conf_change, &P::clnt_conf_change>(*this),
        serve<procedures::rgy_svr_conf_change, &P::svr_conf_change>(*this),
    };
}

tbs_status_t RegistryProcedures::clnt_conf_change(const rvzd_registry_clnt_conf_req_t &request,
                                                  const Caller & /*caller*/, EmptyReply & /*reply*/) {
    return change_hosts(request.op, text_of(request.text));
}

// A promotion is answered when it is done.
void RegistryProcedures::svr_conf_change(const rvzd_registry_svr_conf_req_t &request, const Caller & /*caller*/,
                                         const Answer<rvzd_null_reply_t> &answer) {
    const auto done = [answer](tbs_status_t status) { answer(status, {}); };
    switch (request.op) {
    case RGY_CONF_PROMOTE:
        return service_.promote(done);
    case RGY_CONF_DEMOTE:
        return service_.step_down(done);
    default:
        return done(TBS_ST_INVALID_ARG);
    }
}

} // namespace velia::server
