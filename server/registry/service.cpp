#include <server/registry/service.h>

#include <array>
#include <ctime>

#include <server/daemon/private_files.h>
#include <server/registry/copy.h>
#include <server/registry/messages.h>
#include <server/registry/role.h>
#include <server/registry/sqlite.h>
#include <support/date.h>
#include <veliaxdr/rgy_local.h>

namespace velia::server {

namespace {

constexpr uint64_t last_copy_ms = 5000; // the client that asks for the promotion waits

// Each a bound on what its calls hold in memory: a search may be as long as a message, others are short.
// Threads with the store share locks of SQLite's: one that is worth less than the others and is put off while it holds
// such a lock puts all of them off.
constexpr Worker::Shape look_up_shape = {{64, 1024, 4096}, 1, 0};
constexpr Worker::Shape search_shape = {{64, 128, 512}, 1, 0};
constexpr Worker::Shape hash_shape = {{16, 64, 256}, 1, 15};
constexpr Worker::Shape update_shape = {{64, 1024, 4096}, 256, 0};

// False, and told, where it cannot be had.
bool open_store(std::unique_ptr<Store> &store) {
    if (store != nullptr)
        return true;
    const std::string file_name = registry_file();
    try {
        bool is_new = false;
        store = open_sqlite_store(file_name, is_new);
        print_registry(IMSG_PLAIN, is_new ? MSG_FILE_CREATED : MSG_LOADED, file_name.c_str());
        return true;
    } catch (const StoreError &error) {
        print_registry(IMSG_ERROR, MSG_OPEN_FAILED, file_name.c_str(), error.what());
        return false;
    }
}

// Hands over the store that is open, or else the one in its file; null if there is none.
template <class Body>
auto with_memory(const std::unique_ptr<Store> &store, Body &&body) {
    const auto opened = store == nullptr ? existing_store(registry_file()) : nullptr;
    return body(store != nullptr ? store.get() : opened.get());
}

// Nothing, told, where neither the role's file nor the registry can be read.
std::optional<int32_t> role_of(const std::unique_ptr<Store> &store, const std::optional<int32_t> &written) {
    if (written)
        return written;
    try {
        return with_memory(store, [](Store *memory) { return last_role(memory); });
    } catch (const StoreError &error) {
        RegistryService::print_failure(error.what());
        return std::nullopt;
    }
}

void remember(const std::unique_ptr<Store> &store, int32_t role) {
    try {
        with_memory(store, [&](Store *memory) {
            if (memory == nullptr)
                return;
            remember_role(*memory, role);
            if (role == RGY_SVR_MASTER && memory->setting(origin_setting) != origin_master)
                memory->set_setting(origin_setting, origin_master);
        });
    } catch (const StoreError &error) {
        RegistryService::print_failure(error.what());
    }
}

tbs_status_t make_master(Store &store) {
    Registry registry(store);
    try {
        if (!registry.is_filled()) {
            print_registry(IMSG_ERROR, MSG_BACKUP_ERROR, "there is no copy of the master's registry yet");
            return TBS_ST_NOT_SET;
        }
        registry.become_master();
        remember_role(store, RGY_SVR_MASTER);
        const auto status = rgy_set_svr_type(RGY_SVR_MASTER);
        share_with_host("rgy_svr.conf"); // clients read the role
        if (status != TBS_ST_OK) {
            remember_role(store, RGY_SVR_STANDBY);
            store.set_setting(origin_setting, origin_copy);
        }
        return status;
    } catch (const StoreError &error) {
        return RegistryService::print_failure(error.what());
    }
}

} // namespace

RegistryService::RegistryService(uv_loop_t *loop)
    : copier_(loop), look_ups_(loop, look_up_shape, false), searches_(loop, search_shape, false),
      hashes_(loop, hash_shape, false), updates_(loop, update_shape, true) {}

std::string registry_file() {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), "registry.db") == TBS_ST_OK ? path.data() : "";
}

StoreWorker &RegistryService::worker_of(Lane lane) {
    switch (lane) {
    case Lane::look_up:
        return look_ups_;
    case Lane::search:
        return searches_;
    case Lane::hash:
        return hashes_;
    default:
        return updates_;
    }
}

bool RegistryService::ask(Lane lane, const Sender &sender, StoreWorker::Task task) {
    return worker_of(lane).submit(sender, std::move(task));
}

// A copy is asked for each version of it: the copying process takes it out of service before it makes it another
// registry's.
std::optional<bool> RegistryService::is_serving() {
    if (is_master_ || !is_serving_)
        return is_serving_;
    return memory_.is_filled();
}

void RegistryService::serve(std::unique_ptr<StoreVersion> version) {
    memory_.follow(std::move(version));
    if (is_serving_)
        return;
    is_serving_ = true;
    for (StoreWorker *reader : {&look_ups_, &searches_, &hashes_})
        reader->use(registry_file());
}

void RegistryService::stop_serving() {
    is_master_ = false;
    memory_.follow(nullptr);
    if (!is_serving_)
        return;
    is_serving_ = false;
    for (StoreWorker *reader : {&look_ups_, &searches_, &hashes_})
        reader->use("");
}

RegistryService::Taken RegistryService::take_in(std::unique_ptr<Store> &store, const std::optional<int32_t> &written) {
    Taken taken;
    taken.is_taken_away = store != nullptr && !store->is_in_place();
    if (taken.is_taken_away)
        return taken;
    taken.role = role_of(store, written);
    if (!taken.role)
        return taken;
    taken.is_open = *taken.role != RGY_SVR_NONE && open_store(store);
    if (taken.is_open || *taken.role == RGY_SVR_NONE)
        remember(store, *taken.role);
    if (taken.is_open)
        taken.version = store->watch_version();
    return taken;
}

// What the file takes away holds from now on; what it gives, once the database is open.
void RegistryService::begin_taking(const std::optional<int32_t> &written) {
    if (!written)
        return;
    if (*written != RGY_SVR_MASTER)
        is_master_ = false;
    if (*written == RGY_SVR_NONE)
        stop_serving();
    if (*written == RGY_SVR_NONE || *written == RGY_SVR_MASTER)
        copier_.stop();
}

void RegistryService::follow_role(Taken taken) {
    if (taken.is_taken_away) {
        copier_.stop();
        stop_serving();
        is_another_change_due_ = true; // without that store
        return close_store([this] { end_change(); });
    }
    if (!taken.role)
        return end_change();
    const bool is_server = *taken.role != RGY_SVR_NONE;
    const bool is_master = *taken.role == RGY_SVR_MASTER;
    if (is_master || !is_server)
        copier_.stop();
    if (!is_server || !taken.is_open) {
        stop_serving();
        return close_store([this] { end_change(); });
    }
    is_master_ = is_master;
    serve(std::move(taken.version));
    if (!is_master)
        copier_.start(copy_interval_s_);
    end_change();
}

// Only when the loop has stopped looking at its version.
void RegistryService::close_store(std::function<void()> done) {
    updates_.change([](std::unique_ptr<Store> &store) { store.reset(); }, std::move(done));
}

void RegistryService::take_role() {
    is_another_change_due_ = is_changing_;
    if (is_changing_)
        return;
    is_changing_ = true;
    given_up_.clear();
    const auto written = role_in_file();
    begin_taking(written);
    const auto taken = std::make_shared<Taken>();
    updates_.change([taken, written](std::unique_ptr<Store> &store) { *taken = take_in(store, written); },
                    [this, taken] { follow_role(std::move(*taken)); });
}

void RegistryService::end_change() {
    is_changing_ = false;
    if (is_another_change_due_)
        return take_role();
    while (!is_changing_ && !waiting_.empty()) {
        const auto change = std::move(waiting_.front());
        waiting_.pop_front();
        change();
    }
}

void RegistryService::follow_role_file() {
    if (given_up_.empty() || mark_of_role_file() != given_up_)
        take_role();
}

void RegistryService::stop() {
    copier_.stop();
    wait_for_others(0);
}

void RegistryService::take_role_at_once() {
    take_role();
    while (is_changing_)
        updates_.wait();
}

void RegistryService::promote(const Answered &answer) {
    if (is_changing_)
        return waiting_.push_back([this, answer] { promote(answer); });
    is_changing_ = true;
    const auto refuse = [this, answer](tbs_status_t status) {
        answer(status);
        end_change();
    };
    const auto taken = std::make_shared<Taken>();
    updates_.change(
        [taken, written = role_in_file()](std::unique_ptr<Store> &store) {
            taken->role = role_of(store, written);
            taken->is_open = taken->role == RGY_SVR_STANDBY && open_store(store);
        },
        [this, taken, answer, refuse] {
            if (taken->role != RGY_SVR_STANDBY)
                return refuse(TBS_ST_UNSUPPORTED);
            if (!taken->is_open)
                return refuse(TBS_ST_ERROR);
            copier_.finish(last_copy_ms, [this, answer] { become_master(answer); });
        });
}

// Its role is taken before it is told.
void RegistryService::become_master(const Answered &answer) {
    const auto taken = std::make_shared<Taken>();
    const auto status = std::make_shared<tbs_status_t>(TBS_ST_ERROR);
    updates_.change(
        [taken, status](std::unique_ptr<Store> &store) {
            *status = make_master(*store);
            *taken = take_in(store, role_in_file());
        },
        [this, taken, status, answer] {
            follow_role(std::move(*taken));
            answer(*status);
        });
}

// While a role is being taken, the one that comes of it is the one to give up.
void RegistryService::step_down(const Answered &answer) {
    if (is_changing_)
        waiting_.push_back([this, answer] { step_down(answer); });
    else if (!is_master_)
        answer(TBS_ST_UNSUPPORTED);
    else
        give_up_role(answer);
}

// Neither a file that is left half-written by whoever changes the role next, nor one that was written before and is
// only now heard of, makes this host the master again.
void RegistryService::give_up_role(const Answered &answer) {
    is_changing_ = true;
    given_up_ = mark_of_role_file();
    stop_serving();
    updates_.change(
        [](std::unique_ptr<Store> &store) {
            remember(store, RGY_SVR_NONE);
            store.reset();
        },
        [this, answer] {
            answer(TBS_ST_OK);
            end_change();
        });
}

void RegistryService::print_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller) {
    const int uid = caller.credentials ? static_cast<int>(caller.credentials->uid) : -1;
    print_registry(IMSG_PLAIN, is_added ? MSG_ADDED : MSG_REMOVED, registry_db_name(db), uid,
                   address_text(caller.peer).c_str(), date_fmt_token_date_time(time(nullptr)));
    print_registry(IMSG_PLAIN, MSG_WHAT, what.c_str());
}

void RegistryService::print_changes(rgy_db_t db, uint32_t added, uint32_t changed, uint32_t removed,
                                    const Caller &caller) {
    if (added + changed + removed == 0)
        return;
    const int uid = caller.credentials ? static_cast<int>(caller.credentials->uid) : -1;
    imsg_print(IMSG_PLAIN, "%s: %u entries added, %u changed, %u removed by %d from %s\n", IMSG_FORMAT,
               registry_db_name(db), added, changed, removed, uid, address_text(caller.peer).c_str());
}

tbs_status_t RegistryService::print_failure(const char *what) {
    print_registry(IMSG_ERROR, MSG_INTERNAL_ERROR, what);
    return TBS_ST_ERROR;
}

} // namespace velia::server
