#include <server/registry/service.h>

#include <array>
#include <ctime>

#include <support/date.h>
#include <support/imsg.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_messages.h>

namespace velia::server {

namespace {

// Positions in the registry's message table that only a server prints.
enum Message : int {
    MSG_FILE_CREATED = 0,
    MSG_INTERNAL_ERROR = 9,
    MSG_OPEN_FAILED = 13,
    MSG_LOADED = 14,
    MSG_ADDED = 73,
    MSG_REMOVED = 74,
    MSG_WHAT = 75,
};

template <class... Arguments>
void print(int severity, int position, Arguments... arguments) {
    imsg_print(severity, &_registry_rvzd_msg_table, position, arguments...);
}

} // namespace

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
        print(IMSG_PLAIN, is_new ? MSG_FILE_CREATED : MSG_LOADED, file_name.c_str());
        return true;
    } catch (const StoreError &error) {
        print(IMSG_ERROR, MSG_OPEN_FAILED, file_name.c_str(), error.what());
        return false;
    }
}

void RegistryService::take_role() {
    const int32_t type = rgy_get_svr_type();
    is_master_ = type == RGY_SVR_MASTER;
    if (type != RGY_SVR_NONE) {
        open();
    } else {
        registry_.reset();
        store_.reset();
    }
}

tbs_status_t RegistryService::promote() {
    if (rgy_get_svr_type() != RGY_SVR_STANDBY)
        return TBS_ST_UNSUPPORTED;
    if (!open())
        return TBS_ST_ERROR;
    const auto status = rgy_set_svr_type(RGY_SVR_MASTER);
    is_master_ = status == TBS_ST_OK;
    return status;
}

tbs_status_t RegistryService::step_down() {
    if (!is_master_)
        return TBS_ST_UNSUPPORTED;
    is_master_ = false;
    registry_.reset();
    store_.reset();
    return TBS_ST_OK;
}

void RegistryService::tell_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller) {
    const int uid = caller.credentials ? static_cast<int>(caller.credentials->uid) : -1;
    print(IMSG_PLAIN, is_added ? MSG_ADDED : MSG_REMOVED, registry_db_name(db), uid, address_text(caller.peer).c_str(),
          date_fmt_token_date_time(time(nullptr)));
    print(IMSG_PLAIN, MSG_WHAT, what.c_str());
}

tbs_status_t RegistryService::tell_failure(const char *what) {
    print(IMSG_ERROR, MSG_INTERNAL_ERROR, what);
    return TBS_ST_ERROR;
}

} // namespace velia::server
