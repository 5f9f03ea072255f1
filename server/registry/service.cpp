#include <server/registry/service.h>

#include <array>
#include <ctime>

#include <server/daemon/private_files.h>
#include <server/registry/copy.h>
#include <server/registry/messages.h>
#include <server/registry/role.h>
#include <support/date.h>
#include <veliaxdr/rgy_local.h>

namespace velia::server {

namespace {

constexpr uint64_t last_copy_ms = 5000; // the client that asks for the promotion waits

} // namespace

RegistryService::RegistryService(uv_loop_t *loop) : copier_(loop, [this] { follow_copy(); }) {}

std::string registry_file() {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), "registry.db") == TBS_ST_OK ? path.data() : "";
}

bool RegistryService::open() {
    if (registry_ != nullptr)
        return true;
    const std::string file_name = registry_file();
    try {
        bool is_new = false;
        store_ = open_sqlite_store(file_name, is_new);
        registry_ = std::make_unique<Registry>(*store_);
        print_registry(IMSG_PLAIN, is_new ? MSG_FILE_CREATED : MSG_LOADED, file_name.c_str());
        return true;
    } catch (const StoreError &error) {
        print_registry(IMSG_ERROR, MSG_OPEN_FAILED, file_name.c_str(), error.what());
        return false;
    }
}

void RegistryService::close() {
    registry_.reset();
    store_.reset();
}

// Nothing, told, where neither the role's file nor the registry can be read: then nothing changes.
std::optional<int32_t> RegistryService::present_role() {
    if (const auto role = role_in_file())
        return role;
    try {
        return with_memory([](Store *store) { return last_role(store); });
    } catch (const StoreError &error) {
        print_failure(error.what());
        return std::nullopt;
    }
}

void RegistryService::remember(int32_t role) {
    try {
        with_memory([&](Store *store) {
            if (store == nullptr)
                return;
            remember_role(*store, role);
            if (role == RGY_SVR_MASTER)
                store->set_setting(origin_setting, origin_master);
        });
    } catch (const StoreError &error) {
        print_failure(error.what());
    }
}

void RegistryService::take_role() {
    const auto role = is_in_promotion_ ? std::nullopt : present_role();
    if (!role)
        return;
    const bool is_server = *role != RGY_SVR_NONE;
    is_master_ = *role == RGY_SVR_MASTER;
    if (is_master_ || !is_server)
        copier_.stop();
    if (!is_server)
        close();
    else if (!open())
        return;
    remember(*role);
    if (is_server && !is_master_)
        copier_.start(copy_interval_s_);
}

Registry *RegistryService::registry() {
    if (is_master_ || registry_ == nullptr)
        return registry_.get();
    return registry_->is_filled() ? registry_.get() : nullptr;
}

void RegistryService::follow_copy() {
    if (store_ == nullptr)
        return;
    try {
        store_->version();
    } catch (const StoreError &error) {
        print_failure(error.what());
    }
}

void RegistryService::promote(std::function<void(tbs_status_t)> answer) {
    if (is_in_promotion_)
        return answer(TBS_ST_TRY_AGAIN);
    if (present_role() != RGY_SVR_STANDBY)
        return answer(TBS_ST_UNSUPPORTED);
    if (!open())
        return answer(TBS_ST_ERROR);
    is_in_promotion_ = true;
    copier_.finish(last_copy_ms, [this, answer = std::move(answer)] {
        const auto status = become_master();
        is_in_promotion_ = false;
        take_role();
        answer(status);
    });
}

tbs_status_t RegistryService::become_master() {
    try {
        if (!registry_->is_filled()) {
            print_registry(IMSG_ERROR, MSG_BACKUP_ERROR, "there is no copy of the master's registry yet");
            return TBS_ST_NOT_SET;
        }
        registry_->become_master();
        remember_role(*store_, RGY_SVR_MASTER);
        const PublicUmask umask; // clients of this host read the role
        const auto status = rgy_set_svr_type(RGY_SVR_MASTER);
        if (status != TBS_ST_OK) {
            remember_role(*store_, RGY_SVR_STANDBY);
            store_->set_setting(origin_setting, origin_copy);
        }
        return status;
    } catch (const StoreError &error) {
        return print_failure(error.what());
    }
}

// A file that is left half-written by whoever changes the role next does not make this host the master again.
tbs_status_t RegistryService::step_down() {
    if (!is_master_)
        return TBS_ST_UNSUPPORTED;
    is_master_ = false;
    remember(RGY_SVR_NONE);
    close();
    return TBS_ST_OK;
}

void RegistryService::print_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller) {
    const int uid = caller.credentials ? static_cast<int>(caller.credentials->uid) : -1;
    print_registry(IMSG_PLAIN, is_added ? MSG_ADDED : MSG_REMOVED, registry_db_name(db), uid,
                   address_text(caller.peer).c_str(), date_fmt_token_date_time(time(nullptr)));
    print_registry(IMSG_PLAIN, MSG_WHAT, what.c_str());
}

tbs_status_t RegistryService::print_failure(const char *what) {
    print_registry(IMSG_ERROR, MSG_INTERNAL_ERROR, what);
    return TBS_ST_ERROR;
}

} // namespace velia::server
