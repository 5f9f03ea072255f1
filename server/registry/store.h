// Where the registry's data are kept. The interface is narrow so that a site that outgrows one machine can put another
// database behind it; what the data mean is the registry's affair, not the store's.
#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include <server/registry/record.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::server {

// What the database underneath says when it fails. Nothing of the work in hand has been kept then.
class StoreError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Somebody else has the database, and had it for long. It may be tried again.
class StoreBusy : public StoreError {
    using StoreError::StoreError;
};

// The database is not reached, or takes no changes for now. It may be tried again.
class StoreAway : public StoreBusy {
    using StoreBusy::StoreBusy;
};

// Whether what was to be done was done could not be learned. It must not be tried again.
class StoreUncertain : public StoreError {
    using StoreError::StoreError;
};

// The registry has been moved elsewhere, and is not served from here any more.
class StoreMoved : public StoreError {
    using StoreError::StoreError;
};

constexpr const char *moved_setting = "moved"; // of a registry in a file: where to

// What is said of such a one.
inline std::string moved_words(const std::string &place) {
    return "the registry was moved to " + place;
}

// The stamps of one database: a pair that is new after each update, and two uuids that name the registry and this copy
// of it.
struct Stamps {
    rgy_dtm_pair_t pair = {};
    tbs_uuid_t registry = {};
    tbs_uuid_t copy = {};
};

inline bool is_same(const rgy_dtm_pair_t &left, const rgy_dtm_pair_t &right) {
    return memcmp(&left, &right, sizeof left) == 0;
}

// What a change says; the empty text where it has none.
std::string flex_text_of(const rgy_change_t &change);

// Which records a scan visits: those whose item `key` is exactly `value`, or all if the key is empty. A region, if it
// is not empty, leaves out the records of other regions; a record without a region is of every one.
struct Selection {
    rgy_db_t db = 0;
    std::string region;
    std::string key;
    std::string value;
};

// A whole database, as it was read from another host: texts by their numbers.
using Contents = std::map<uint64_t, std::string>;

// Another number than before when anything has been changed since it was last asked for, by whomever: what was read
// under a number is still so when there is this number again. It is asked for before each answer: it takes no system
// call and waits for nobody, and any thread may have one of its own. The store has to outlive it.
class StoreVersion {
public:
    StoreVersion() = default;
    virtual ~StoreVersion() = default;
    StoreVersion(const StoreVersion &) = delete;
    StoreVersion &operator=(const StoreVersion &) = delete;

    virtual uint64_t now() = 0;
};

// One thread's way to the data. Several may be open on one registry.
class Store {
public:
    Store() = default;
    virtual ~Store() = default;
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    virtual std::unique_ptr<StoreVersion> watch_version() = 0;

    // Takes notice of what others made of the registry's name.
    virtual void refresh() = 0;

    // It stands in for another one, and may be behind that.
    virtual bool is_substitute() const { return false; }

    // False: the data that stand under the store's name are not these any more, so nothing is changed here.
    virtual bool is_in_place() = 0;

    virtual Stamps stamps(rgy_db_t db) = 0;
    virtual uint64_t count(rgy_db_t db) = 0;

    // Visits the records with numbers above `after_id` in the order of their numbers, until the visitor has enough
    // (false) or there are no more. A region leaves records out one by one: these are visited, too, as null, since they
    // cost time. Cheap to begin anywhere.
    using Visit = std::function<bool(uint64_t id, const Record *record)>;
    virtual void scan(const Selection &selection, uint64_t after_id, const Visit &visit) = 0;

    // The same, and the stamps of that database: nothing that is visited is older than they are.
    virtual Stamps scan_with_stamps(const Selection &selection, uint64_t after_id, const Visit &visit) {
        const Stamps before = stamps(selection.db);
        scan(selection, after_id, visit);
        return before;
    }

    // All that the body reads is of one moment.
    virtual void at_one_moment(const std::function<void()> &body) { together(body); }

    // What the body reads may be of another server that has the same of this database: these stamps, which whoever
    // reads on has seen last. The body is run with the store that it reads, and once more with this one where that
    // failed.
    virtual void reading_on(rgy_db_t /*db*/, const rgy_dtm_pair_t & /*pair*/,
                            const std::function<void(Store &)> &body) {
        body(*this);
    }

    // What the body changes is one transaction, and on disk when this returns. What a StoreError in it leaves has not
    // been changed.
    virtual void together(const std::function<void()> &body) = 0;

    // Each is one transaction, and on disk when it returns, or a step of that in which others are put together. Adding
    // gives the number of the record, or nothing when `identity` is taken or `expected` are no longer the stamps;
    // removing is false where there is no such record. All of them change the stamps.
    enum class AddResult { added, stale, exists };
    virtual AddResult add(rgy_db_t db, const rgy_dtm_pair_t &expected, const std::string &identity,
                          const std::string &flex_text, const Items &items) = 0;
    virtual bool remove(rgy_db_t db, uint64_t id, Record &removed) = 0;
    // The record keeps its number.
    enum class ChangeResult { changed, absent, exists };
    virtual ChangeResult change(rgy_db_t db, uint64_t id, const std::string &identity, const std::string &flex_text,
                                const Items &items) = 0;

    // A set of changes that comes piece by piece: numbers and texts, in their order. It is not part of the data, and
    // not kept over a restart; when there are many, the oldest is forgotten.
    virtual void add_to_set(const tbs_uuid_t &set, std::span<const rgy_change_t> changes) = 0;
    struct SetSize {
        uint64_t changes = 0;
        uint64_t bytes = 0; // of their texts
    };
    virtual SetSize size_of_set(const tbs_uuid_t &set) = 0;
    virtual void each_of_set(const tbs_uuid_t &set,
                             const std::function<bool(uint64_t id, const std::string &text)> &visit) = 0;
    virtual void forget_set(const tbs_uuid_t &set) = 0;

    // Makes a database what it is elsewhere, numbers and all. Two records of one identity can come of a reading during
    // which the database changed: the later one stays. Without stamps it gets new ones of its own. One transaction.
    virtual void replace(rgy_db_t db, const std::optional<rgy_dtm_pair_t> &stamps, Contents contents) = 0;

    // Empties all databases and takes another registry's name. One transaction.
    virtual void begin_anew(const tbs_uuid_t &registry) = 0;

    // The next record's number is `gap` beyond where it would be.
    virtual void skip_numbers(uint64_t gap) = 0;

    // Writes everything to a file of this name, which replaces a former one.
    virtual void save_to(const std::string &file_name) = 0;

    // Single values by their name, such as the password's hash; the empty text where there is none.
    virtual std::string setting(const std::string &name) = 0;
    virtual void set_setting(const std::string &name, const std::string &value) = 0;

    virtual std::map<std::string, std::string> settings() = 0; // all of them, by their names

    // The highest number that has been given or skipped.
    virtual uint64_t last_number() = 0;

    // How many changes there have been, all of them on disk.
    virtual uint64_t changes() = 0;

    // Of the data on disk, with what they are found by.
    virtual uint64_t size_bytes() = 0;

    // Where the registry has been moved to, for people; empty while it is served from here. The mark stays behind when
    // the data are copied.
    virtual std::string moved_to() = 0;
    virtual void set_moved_to(const std::string &place) = 0;

    // Leaves little in what the database keeps beside its file.
    virtual void checkpoint() = 0;
};

// That there was a registry of this name once.
std::string trace_of_registry(const std::string &file_name);

// Opens the registry in this file, and makes it if none ever was there; `is_new` tells which. A file that is empty,
// that something else has made, or a newer version of this program, or that is older than what was acknowledged here,
// is refused and left as it is; and none is made in the place of one that is gone.
std::unique_ptr<Store> open_sqlite_store(const std::string &file_name, bool &is_new);

// The registry in this file, as what stands in for another one; null if there is none.
std::unique_ptr<Store> existing_copy(const std::string &file_name);

} // namespace velia::server
