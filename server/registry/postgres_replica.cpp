#include <server/registry/postgres_replica.h>

#include <server/loop/handles.h>
#include <server/registry/postgres_store.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr int64_t pause_ms = 2000;

} // namespace

bool PostgresReplica::read(rgy_db_t db, const rgy_dtm_pair_t &pair, const std::function<void(Store &)> &body) {
    if (monotonic_ms() < not_before_ms_)
        return false;
    try {
        const bool is_read = read_at_once(db, pair, body);
        told_.clear();
        return is_read;
    } catch (const StoreBusy &) { // whoever is away is told of by the connections
        not_before_ms_ = monotonic_ms() + pause_ms;
    } catch (const StoreError &error) {
        note_failure(error.what());
    }
    return false;
}

bool PostgresReplica::read_at_once(rgy_db_t db, const rgy_dtm_pair_t &pair, const std::function<void(Store &)> &body) {
    bool is_read = false;
    if (store_ == nullptr)
        store_ = open_postgres_store(conninfo_, is_read, PostgresUse::reading);
    store_->at_one_moment([&] {
        is_read = is_same(store_->stamps(db).pair, pair);
        if (is_read)
            body(*store_);
    });
    return is_read;
}

void PostgresReplica::note_failure(const char *words) {
    not_before_ms_ = monotonic_ms() + pause_ms;
    if (told_ == words)
        return;
    told_ = words;
    imsg_print(IMSG_WARNING, "The replica of the registry's database is not read: %s\n", IMSG_FORMAT, words);
}

} // namespace velia::server
