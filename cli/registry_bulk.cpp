#include <cli/registry_bulk.h>

#include <cstring>

#include <sys/random.h>

#include <cli/registry_steps.h>

#include <support/stg.h>

namespace velia::cli {

namespace {

constexpr int64_t batch = 1000;
constexpr int readings_max = 5;

// A batch's texts, which are the caller's.
class Batch {
public:
    Batch() : entries_(batch) {}
    ~Batch() { clear(); }
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;

    rgy_svr_entry_t *entries() { return entries_.data(); }
    void move_to(std::vector<EntryLine> &entries, rgy_db_t db, int64_t count) {
        for (size_t i = 0; i < static_cast<size_t>(count); ++i)
            entries.push_back({db, entries_[i].entry_id, entries_[i].flex_text});
        clear();
    }

private:
    void clear() {
        for (auto &entry : entries_) {
            stg_free(entry.flex_text);
            entry = {};
        }
    }

    std::vector<rgy_svr_entry_t> entries_;
};

bool is_same(const rgy_dtm_pair_t &left, const rgy_dtm_pair_t &right) {
    return memcmp(&left, &right, sizeof left) == 0;
}

// TBS_ST_STALE_ID when somebody changed it meanwhile.
tbs_status_t read_once(rvzd_handle_t *registry, rgy_db_t db, Database &database, const OnRead &on_read) {
    database = {};
    Batch read;
    uint64_t cursor = 0;
    auto status = rvzd_rgy_get_id(registry, db, RGY_PROTOCOL_VERSION, &database.stamps);
    if (status != TBS_ST_OK)
        return status;
    do {
        rgy_dtm_pair_t stamps = database.stamps;
        int64_t count = 0;
        status =
            rvzd_rgy_get_entry(registry, db, RGY_PROTOCOL_VERSION, "", &stamps, &cursor, batch, read.entries(), &count);
        if (status != TBS_ST_OK)
            return status;
        read.move_to(database.entries, db, count);
        if (on_read)
            on_read(database.entries.size());
        if (!is_same(stamps, database.stamps))
            return TBS_ST_STALE_ID;
    } while (cursor != 0);
    return TBS_ST_OK;
}

} // namespace

tbs_status_t read_database(rvzd_handle_t *registry, rgy_db_t db, Database &database, const OnRead &on_read) {
    tbs_status_t status = TBS_ST_STALE_ID;
    for (int reading = 0; status == TBS_ST_STALE_ID && reading < readings_max; ++reading)
        status = read_once(registry, db, database, on_read);
    return status;
}

Changes::Changes(rvzd_handle_t *registry, rgy_db_t db, As as, uint32_t flags, Duration silence_max,
                 const rgy_dtm_pair_t &stamps)
    : registry_(registry), db_(db), as_(as), flags_(flags), silence_max_(silence_max), stamps_(stamps) {
    if (getrandom(&set_, sizeof set_, 0) != static_cast<ssize_t>(sizeof set_))
        as_ = As::pieces; // never
}
Changes::~Changes() = default;

tbs_status_t Changes::add(uint64_t id, std::string text) {
    const size_t more_bytes = RGY_CHANGE_WORDS_BYTES + text.size();
    if (bytes_ + more_bytes > RGY_CHANGE_BYTES_MAX)
        if (const auto status = send(as_ == As::pieces); status != TBS_ST_OK)
            return status;
    bytes_ += more_bytes;
    ids_.push_back(id);
    texts_.push_back(std::move(text));
    return TBS_ST_OK;
}

tbs_status_t Changes::finish() {
    return ids_.empty() ? tbs_status_t{TBS_ST_OK} : send(true);
}

tbs_status_t Changes::send(bool is_last) {
    if (steps_ != nullptr)
        return make_steps();
    const auto status = send_at_once(is_last);
    if (status != TBS_ST_UNSUPPORTED || as_ == As::one)
        return status;
    steps_ = std::make_unique<Steps>(registry_, db_, flags_, stamps_, silence_max_);
    return make_steps();
}

tbs_status_t Changes::send_at_once(bool is_last) {
    std::vector<rgy_change_t> changes;
    for (size_t i = 0; i < ids_.size(); ++i)
        changes.push_back({ids_[i], texts_[i].data()});
    uint32_t failed = 0;
    uint32_t passed = 0;
    const bool is_set = as_ != As::pieces;
    const auto status = rvzd_rgy_change_entries(registry_, db_, RGY_PROTOCOL_VERSION, &stamps_,
                                                flags_ | (is_last ? 0 : uint32_t{RGY_CHANGE_MORE_TO_COME}),
                                                is_set ? &set_ : nullptr, is_set ? static_cast<uint32_t>(sent_) : 0,
                                                changes.data(), static_cast<int64_t>(changes.size()), &failed, &passed);
    failed_ = (is_set ? 0 : sent_) + failed;
    if (status != TBS_ST_OK)
        return status;
    passed_ += passed;
    forget_sent(changes.size());
    return status;
}

// What was made before one that fails stands.
tbs_status_t Changes::make_steps() {
    const size_t count = ids_.size();
    for (size_t i = 0; i < count; ++i) {
        bool is_passed = false;
        const auto status = steps_->make(ids_[i], texts_[i], is_passed);
        if (status != TBS_ST_OK) {
            failed_ = sent_ + i;
            sent_ = failed_;
            return status;
        }
        passed_ += is_passed ? 1 : 0;
    }
    forget_sent(count);
    return TBS_ST_OK;
}

void Changes::forget_sent(uint64_t count) {
    sent_ += count;
    bytes_ = 0;
    ids_.clear();
    texts_.clear();
}

} // namespace velia::cli
