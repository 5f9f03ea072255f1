// The tag registry of this host: what may be read, added and removed by whom. It knows no wire and no database.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <server/registry/answers.h>
#include <server/registry/store.h>
#include <server/rpc/caller.h>
#include <support/tbs.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::server {

enum {
    REGISTRY_VISITS_MAX = 5000,            // records that one request looks at; the rest is for the next one
    REGISTRY_ANSWERS_BYTES_MAX = 16 << 20, // of answers in memory
};

// How much a reply may hold.
struct BatchLimits {
    uint64_t records_max = 0;
    size_t bytes_max = 0; // of the records as they are encoded
};

// Which records a fetch wants, beyond what the store can select.
using Filter = std::function<bool(const Items &)>;

class Registry {
public:
    explicit Registry(Store &store) : store_(store) {}

    Stamps stamps(rgy_db_t db);
    uint64_t count(rgy_db_t db) { return store_.count(db); }

    // At least one record comes, however small `bytes_max` is, or the cursor moves on.
    Batch fetch(const Selection &selection, uint64_t cursor, const BatchLimits &limits, const Filter &filter = {});

    // The same. A look-up by an item that was answered before is answered from memory while the store is as it was.
    AnswerMemory::Answer answer(const Selection &selection, uint64_t cursor, const BatchLimits &limits,
                                const Filter &filter = {});

    // TBS_ST_NO_ACCESS: the caller does not say who it is; TBS_ST_STALE_ID: the stamps are not those of now;
    // TBS_ST_ALREADY_EXISTS: one of the same identity stands there, which among the site's settings is TBS_ST_STALE_ID,
    // too; TBS_ST_INVALID_ARG: malformed.
    tbs_status_t add(rgy_db_t db, const rgy_dtm_pair_t &stamps, const std::string &flex_text, const Caller &caller);

    // A number is given once only, so whoever knows it means that record: the stamps are not looked at, and a client
    // can remove what it has fetched record by record. TBS_ST_NOT_FOUND: there is none of that number.
    tbs_status_t remove(rgy_db_t db, uint64_t id, const Caller &caller);

    // TBS_ST_NOT_FOUND: the registry has no password; TBS_ST_NO_ACCESS: it is another one.
    tbs_status_t check_password(const std::string &password);
    void set_password(const std::string &password); // empty: none from now on

    // Whose data these are: a registry that never was a master's, and never copied one whole, has nothing to tell.
    bool is_filled();

    // From now on this registry is changed here. The numbers that the former master gave to records which did not come
    // here are not given again.
    void become_master();

    std::string backup_hosts() { return store_.setting("backup"); }
    void set_backup_hosts(const std::string &hosts) { store_.set_setting("backup", hosts); }

private:
    // What was read of the store, and is so while it has this version.
    struct Known {
        uint64_t version;
        std::array<std::optional<Stamps>, RGY_DB_ALL> stamps;
        std::optional<bool> is_filled;
    };
    Known &known();

    Store &store_;
    Known known_ = {};
    AnswerMemory answers_{REGISTRY_ANSWERS_BYTES_MAX};
    std::string question_; // the last one; its storage serves again
};

// The bytes that a record takes in a reply.
size_t encoded_bytes(const Record &record);

} // namespace velia::server
