// The tag registry of this host: what may be read, added and removed by whom. It knows no wire and no database.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <server/registry/answers.h>
#include <server/registry/store.h>
#include <server/rpc/caller.h>
#include <support/tbs.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::server {

enum {
    REGISTRY_WORK_MAX = 5000, // of one request, in looks at a record; the rest is for the next one
    REGISTRY_ANSWERS_BYTES_MAX = 16 << 20,
};

// How much a reply may hold.
struct BatchLimits {
    uint64_t records_max = 0;
    size_t bytes_max = 0; // of the records as they are encoded
};

// Which records a fetch wants, beyond what the store can select.
struct Filter {
    Filter() = default;
    template <class Passes>
    Filter(Passes filter, uint64_t work = 0) : passes(std::move(filter)), work_of_record(work) {}

    explicit operator bool() const { return passes != nullptr; }

    std::function<bool(const Items &)> passes;
    uint64_t work_of_record = 0; // beyond a look at it and its items, in the same measure
};

// What the registry says to those who read: out of memory, or of its store.
class RegistryView {
public:
    RegistryView() = default;
    virtual ~RegistryView() = default;
    RegistryView(const RegistryView &) = delete;
    RegistryView &operator=(const RegistryView &) = delete;

    // Nothing where it is not known here.
    virtual std::optional<Stamps> stamps_of(rgy_db_t db) = 0;
    // No entry of it is older than the stamps: younger ones are only fetched once more, but older ones would be taken
    // for what is there now.
    struct Found {
        Stamps stamps;
        AnswerMemory::Answer batch;
    };
    virtual std::optional<Found> find(const Selection &selection, uint64_t cursor, const BatchLimits &limits,
                                      const Filter &filter) = 0;
    // May be behind what the caller has read elsewhere.
    virtual bool is_substitute() const { return false; }
};

// What was read of a store for one request.
struct Learned {
    std::array<std::optional<Stamps>, RGY_DB_ALL> stamps;
    std::optional<bool> is_filled;
    std::string question;
    AnswerMemory::Answer answer;
};

// What the registry has told lately. Each of it is good for one version of the store.
class RegistryMemory : public RegistryView {
public:
    // Begins anew, on another store.
    void follow(std::unique_ptr<StoreVersion> version);

    uint64_t version() { return version_ != nullptr ? version_->now() : 0; }

    std::optional<Stamps> stamps_of(rgy_db_t db) override { return known().stamps.at(db); }
    std::optional<Found> find(const Selection &selection, uint64_t cursor, const BatchLimits &limits,
                              const Filter &filter) override;
    std::optional<bool> is_filled() { return known().is_filled; }

    // Takes what was read since the store had this version; it is forgotten if there is another one by now.
    void learn(uint64_t version, Learned learned);

private:
    struct Known {
        uint64_t version;
        std::array<std::optional<Stamps>, RGY_DB_ALL> stamps;
        std::optional<bool> is_filled;
    };
    Known &known();

    std::unique_ptr<StoreVersion> version_;
    Known known_ = {};
    AnswerMemory answers_{REGISTRY_ANSWERS_BYTES_MAX};
    std::string question_; // the last one; its storage serves again
};

// The rules, over one thread's store.
class Registry : public RegistryView {
public:
    explicit Registry(Store &store, Learned *learned = nullptr) : store_(store), learned_(learned) {}

    Stamps stamps(rgy_db_t db);
    std::optional<Stamps> stamps_of(rgy_db_t db) override { return stamps(db); }
    bool is_substitute() const override { return store_.is_substitute(); }
    uint64_t count(rgy_db_t db) { return store_.count(db); }

    // At least one record comes, however small `bytes_max` is, or the cursor moves on.
    Batch fetch(const Selection &selection, uint64_t cursor, const BatchLimits &limits, const Filter &filter = {}) {
        return fetch_with_stamps(selection, cursor, limits, filter).second;
    }
    std::optional<Found> find(const Selection &selection, uint64_t cursor, const BatchLimits &limits,
                              const Filter &filter) override;

    // TBS_ST_NO_ACCESS: the caller does not say who it is; TBS_ST_STALE_ID: the stamps are not those of now;
    // TBS_ST_ALREADY_EXISTS: one of the same identity stands there, which among the site's settings is TBS_ST_STALE_ID,
    // too; TBS_ST_INVALID_ARG: malformed.
    tbs_status_t add(rgy_db_t db, const rgy_dtm_pair_t &stamps, const std::string &flex_text, const Caller &caller);

    // A number is given once only, so whoever knows it means that record: the stamps are not looked at, and a client
    // can remove what it has fetched record by record. TBS_ST_NOT_FOUND: there is none of that number.
    tbs_status_t remove(rgy_db_t db, uint64_t id, const Caller &caller);

    // A set of changes is made with its last request, all or none. What became of it, and of which one; `passed` stood
    // there in the same words already.
    struct Outcome {
        tbs_status_t status = TBS_ST_OK;
        uint32_t failed = 0;
        uint32_t passed = 0;
        struct {
            uint32_t added = 0, changed = 0, removed = 0;
        } done = {};
    };
    Outcome change(const rvzd_registry_change_req_t &request, const Caller &caller);

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
    std::pair<Stamps, Batch> fetch_with_stamps(const Selection &selection, uint64_t cursor, const BatchLimits &limits,
                                               const Filter &filter);
    Outcome stage(const rvzd_registry_change_req_t &request);
    void make_all(const rvzd_registry_change_req_t &request, Outcome &outcome);
    tbs_status_t make(rgy_db_t db, uint32_t flags, uint64_t id, const std::string &text, Outcome &outcome);
    tbs_status_t add_or_pass(rgy_db_t db, uint32_t flags, const std::string &text, const Items &items,
                             Outcome &outcome);
    bool stands(rgy_db_t db, const std::string &text, const Items &items);

    Store &store_;
    Learned *learned_; // null: nobody asks
};

// The bytes that a record takes in a reply.
size_t encoded_bytes(const Record &record);

} // namespace velia::server
