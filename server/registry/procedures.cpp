// Between wire records and the registry. A reply's texts belong to the batch that it was made of, which lives until the
// reply is encoded.
#include <server/registry/procedures.h>

#include <algorithm>
#include <array>

#include <server/broker/privilege.h>
#include <server/broker/process.h>
#include <server/rpc/records.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::server {

namespace {

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

// The reply and what its pointers point into.
struct FetchReply {
    Batch batch;
    std::vector<rgy_svr_entry_t> entries;
    rvzd_registry_get_reply_t record = {};
};

// The registry host or its backup in this host's hosts file.
tbs_status_t change_hosts(int64_t op, const std::string &host) {
    const auto status = rgy_clnt_conf_change(op, host.c_str());
    rgy_hostname_cache_inval();
    return status;
}

class Rows {
public:
    explicit Rows(RegistryService &service) : service_(service) {}

    std::vector<Procedure> take() {
        add_stamps();
        add_fetches();
        add_updates();
        add_site();
        add_configuration();
        return std::move(rows_);
    }

private:
    // Runs the work if this host has a registry, and turns what the database says into a status.
    template <class Request, class Reply, class Work>
    void add(uint32_t number, bool_t (*request_routine)(XDR *, Request *), bool_t (*reply_routine)(XDR *, Reply *),
             Work work, bool runs_once = false) {
        rows_.push_back(make_procedure<Request, Reply>(
            number, runs_once, request_routine, reply_routine,
            [&service = service_, work](const Request &request, const Caller &caller, const Answer<Reply> &answer) {
                Reply reply = {};
                reply.header = reply_header(request.header, TBS_ST_NO_SERVER);
                try {
                    Registry *registry = service.registry();
                    if (registry != nullptr)
                        reply.header.status = work(*registry, request, caller, reply);
                } catch (const StoreError &error) {
                    reply = {};
                    reply.header = reply_header(request.header, RegistryService::tell_failure(error.what()));
                }
                answer(reply);
            }));
    }

    void add_stamps() {
        add(RVZD_PROC_RGY_GET_ID, xdr_rvzd_registry_get_id_req_t, xdr_rvzd_registry_get_id_reply_t,
            [](Registry &registry, const rvzd_registry_get_id_req_t &request, const Caller &,
               rvzd_registry_get_id_reply_t &reply) -> tbs_status_t {
                if (!is_db(request.db))
                    return TBS_ST_INVALID_ARG;
                reply.version = RGY_PROTOCOL_VERSION;
                reply.dtm = registry.stamps(static_cast<rgy_db_t>(request.db)).pair;
                return TBS_ST_OK;
            });
        add(RVZD_PROC_RGY_GET_DTM, xdr_rvzd_registry_get_dtm_req_t, xdr_rvzd_registry_get_dtm_reply_t,
            [](Registry &registry, const rvzd_registry_get_dtm_req_t &request, const Caller &,
               rvzd_registry_get_dtm_reply_t &reply) -> tbs_status_t {
                if (!is_db(request.db))
                    return TBS_ST_INVALID_ARG;
                const Stamps stamps = registry.stamps(static_cast<rgy_db_t>(request.db));
                reply.version = RGY_PROTOCOL_VERSION;
                reply.dtm = stamps.pair;
                reply.aux_uuid1 = stamps.registry;
                reply.aux_uuid2 = stamps.copy;
                return TBS_ST_OK;
            });
    }

    template <class Request>
    void add_fetch(uint32_t number, bool_t (*request_routine)(XDR *, Request *), Fetch (*fetch_of)(const Request &)) {
        add(number, request_routine, xdr_rvzd_registry_get_reply_t,
            [fetch_of](Registry &registry, const Request &request, const Caller &caller,
                       rvzd_registry_get_reply_t &reply) -> tbs_status_t {
                if (!is_db(request.db) || request.max_entries < 1)
                    return TBS_ST_INVALID_ARG;
                Fetch fetch = fetch_of(request);
                fetch.selection.db = static_cast<rgy_db_t>(request.db);
                fetch.selection.region = text_of(request.region);
                static FetchReply made; // lives until the reply is encoded, which is before the next one is made
                made.record.version = reply_version(request.version);
                const BatchLimits limits = {
                    made.record.version == single_entry_version ? 1 : static_cast<uint64_t>(request.max_entries),
                    caller.transport == RVZD_PROTOCOL_UDP ? udp_records_bytes_max : tcp_records_bytes_max};
                made.batch = registry.fetch(fetch.selection, request.cursor, limits, fetch.filter);
                fill(made, registry.stamps(fetch.selection.db).pair);
                made.record.header = reply.header;
                reply = made.record;
                return TBS_ST_OK;
            });
    }

    static void fill(FetchReply &made, const rgy_dtm_pair_t &stamps) {
        made.entries.clear();
        for (const Record &record : made.batch.records)
            made.entries.push_back({record.id, unowned(record.flex_text)});
        made.record.dtm = stamps;
        made.record.cursor = made.batch.cursor;
        made.record.count = static_cast<int64_t>(made.entries.size());
        made.record.entries = made.entries.empty() ? nullptr : made.entries.data();
    }

    void add_fetches() {
        add_fetch<rvzd_registry_get_req_t>(RVZD_PROC_RGY_GET_ENTRY, xdr_rvzd_registry_get_req_t,
                                           [](const rvzd_registry_get_req_t &) { return Fetch{}; });
        add_fetch<rvzd_registry_findbystring_req_t>(
            RVZD_PROC_RGY_FINDBYSTRING_ENTRY, xdr_rvzd_registry_findbystring_req_t,
            [](const rvzd_registry_findbystring_req_t &request) {
                return found_by(text_of(request.item_key), text_of(request.lookup_string));
            });
        add_fetch<rvzd_registry_findbyuuid_req_t>(
            RVZD_PROC_RGY_FINDBYUUID_ENTRY, xdr_rvzd_registry_findbyuuid_req_t,
            [](const rvzd_registry_findbyuuid_req_t &request) {
                std::array<char, TBS_UUID_STR_SIZE> uuid;
                return found_by(text_of(request.item_key), tbs_uuid_to_str(&request.lookup_uuid, uuid.data()));
            });
        add_fetch<rvzd_registry_findbyattr_req_t>(
            RVZD_PROC_RGY_FINDBYATTR_ENTRY, xdr_rvzd_registry_findbyattr_req_t,
            [](const rvzd_registry_findbyattr_req_t &request) {
                return Fetch{{},
                             [key = text_of(request.item_key), name = text_of(request.attr_name),
                              value = text_of(request.attr_value)](const Items &items) {
                                 return has_attribute(value_of(items, key), name, value);
                             }};
            });
        add_fetch<rvzd_registry_get_pattern_req_t>(
            RVZD_PROC_RGY_GET_PATTERN_ENTRY, xdr_rvzd_registry_get_pattern_req_t,
            [](const rvzd_registry_get_pattern_req_t &request) {
                std::vector<std::string> patterns;
                for (int64_t i = 0; i < request.patterns_length; ++i)
                    patterns.push_back(text_of(request.patterns[i]));
                return Fetch{{}, [patterns](const Items &items) {
                                 return std::any_of(patterns.begin(), patterns.end(), [&](const std::string &pattern) {
                                     return matches_pattern(items, pattern);
                                 });
                             }};
            });
    }

    // An empty key would select every record; no item has it, unless a record really has an item without a name.
    static Fetch found_by(std::string key, std::string value) {
        if (!key.empty())
            return {{0, "", std::move(key), std::move(value)}, {}};
        return {{}, [value](const Items &items) {
                    const auto item = items.find("");
                    return item != items.end() && item->second == value;
                }};
    }

    void add_updates() {
        add(
            RVZD_PROC_RGY_ADD_ENTRY, xdr_rvzd_registry_add_req_t, xdr_rvzd_registry_add_reply_t,
            [&service = service_](Registry &registry, const rvzd_registry_add_req_t &request, const Caller &caller,
                                  rvzd_null_reply_t &) -> tbs_status_t {
                if (!service.is_master())
                    return TBS_ST_NO_SERVER;
                if (!is_db(request.db))
                    return TBS_ST_INVALID_ARG;
                const auto db = static_cast<rgy_db_t>(request.db);
                const std::string text = text_of(request.flex_text);
                const auto status = registry.add(db, request.dtm, text, caller);
                if (status == TBS_ST_OK)
                    RegistryService::tell_change(db, true, printable(text), caller);
                return status;
            },
            true);
        add(
            RVZD_PROC_RGY_REMOVE_ENTRY, xdr_rvzd_registry_remove_req_t, xdr_rvzd_registry_remove_reply_t,
            [&service = service_](Registry &registry, const rvzd_registry_remove_req_t &request, const Caller &caller,
                                  rvzd_null_reply_t &) -> tbs_status_t {
                if (!service.is_master())
                    return TBS_ST_NO_SERVER;
                if (!is_db(request.db))
                    return TBS_ST_INVALID_ARG;
                const auto db = static_cast<rgy_db_t>(request.db);
                const auto status = registry.remove(db, request.entry_id, caller);
                if (status == TBS_ST_OK)
                    RegistryService::tell_change(db, false, std::to_string(request.entry_id), caller);
                return status;
            },
            true);
    }

    void add_site() {
        add(RVZD_PROC_RGY_CHK_ACCESS, xdr_rvzd_registry_chk_access_req_t, xdr_rvzd_registry_chk_access_reply_t,
            [](Registry &registry, const rvzd_registry_chk_access_req_t &request, const Caller &, rvzd_null_reply_t &) {
                return registry.check_password(text_of(request.password));
            });
        add(RVZD_PROC_RGY_GET_DB_LIST, xdr_rvzd_registry_get_db_req_t, xdr_rvzd_registry_get_db_reply_t,
            [](Registry &registry, const rvzd_registry_get_db_req_t &request, const Caller &,
               rvzd_registry_get_db_reply_t &reply) -> tbs_status_t {
                static std::array<rgy_db_info_t, RGY_DB_ALL> dbs; // lives until the reply is encoded
                const auto count = std::clamp<int64_t>(request.db_max, 0, RGY_DB_ALL);
                for (rgy_db_t db = 0; db < count; ++db) {
                    const Stamps stamps = registry.stamps(db);
                    dbs[db] = {db, const_cast<char *>(registry_db_name(db)), stamps.pair.dtm, stamps.pair.svr_dtm,
                               static_cast<int64_t>(registry.count(db))};
                }
                reply.version = RGY_PROTOCOL_VERSION;
                reply.count = count;
                reply.dbs = dbs.data();
                return TBS_ST_OK;
            });
        add(RVZD_PROC_RGY_GET_BACKUP, xdr_rvzd_registry_get_backup_req_t, xdr_rvzd_registry_get_backup_reply_t,
            [](Registry &registry, const rvzd_registry_get_backup_req_t &, const Caller &,
               rvzd_registry_get_backup_reply_t &reply) -> tbs_status_t {
                static std::string hosts; // as above
                hosts = registry.backup_hosts();
                reply.host_list = unowned(hosts);
                return TBS_ST_OK;
            });
        add(
            RVZD_PROC_RGY_SET_BACKUP, xdr_rvzd_registry_set_backup_req_t, xdr_rvzd_registry_set_backup_reply_t,
            [](Registry &registry, const rvzd_registry_set_backup_req_t &request, const Caller &caller,
               rvzd_null_reply_t &) -> tbs_status_t {
                if (!has_own_credentials(caller))
                    return TBS_ST_NO_ACCESS;
                registry.set_backup_hosts(text_of(request.host_list));
                return TBS_ST_OK;
            },
            true);
    }

    // Changes of this host's own configuration, with a registry here or without. The proof of the right to it is a
    // socket of this host that belongs to root or to the daemon's user. `work(request, done)` may answer later.
    template <class Request, class Work>
    void add_change(uint32_t number, bool_t (*request_routine)(XDR *, Request *), Work work) {
        rows_.push_back(make_procedure<Request, rvzd_null_reply_t>(
            number, true, request_routine, xdr_rvzd_null_reply_t,
            [work](const Request &request, const Caller &caller, const Answer<rvzd_null_reply_t> &answer) {
                const auto done = [header = request.header, answer](tbs_status_t status) {
                    answer({reply_header(header, status)});
                };
                if (is_privileged(caller))
                    work(request, done);
                else
                    done(TBS_ST_NO_ACCESS);
            }));
    }

    void add_configuration() {
        using Done = std::function<void(tbs_status_t)>;
        add_change(RVZD_PROC_RGY_CLNT_CONF_CHANGE, xdr_rvzd_registry_clnt_conf_req_t,
                   [](const rvzd_registry_clnt_conf_req_t &request, const Done &done) {
                       done(change_hosts(request.op, text_of(request.text)));
                   });
        add_change(RVZD_PROC_RGY_SVR_CONF_CHANGE, xdr_rvzd_registry_svr_conf_req_t,
                   [&service = service_](const rvzd_registry_svr_conf_req_t &request, const Done &done) {
                       switch (request.op) {
                       case RGY_CONF_PROMOTE:
                           return service.promote(done);
                       case RGY_CONF_DEMOTE:
                           return done(service.step_down());
                       default:
                           return done(TBS_ST_INVALID_ARG);
                       }
                   });
    }

    RegistryService &service_;
    std::vector<Procedure> rows_;
};

} // namespace

std::vector<Procedure> registry_procedures(RegistryService &service) {
    return Rows(service).take();
}

} // namespace velia::server
