#include <server/registry/role.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <support/imsg.h>
#include <support/tbs.h>
#include <veliaxdr/rgy_local.h>

namespace velia::server {

namespace {

constexpr const char *role_setting = "role";

struct FreePlain {
    void operator()(char *text) const { free(text); }
};

std::string role_file() {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_config_dir(path.data(), "rgy_svr.conf") == TBS_ST_OK ? path.data() : "";
}

bool is_absent(const std::string &path) {
    return access(path.c_str(), F_OK) != 0 && errno == ENOENT;
}

// The library reads one word, so of a role of several the first stands for it.
std::optional<int32_t> role_of_word(const std::string &word) {
    for (const auto *row = rgy_svrtype_table; row->text != nullptr; ++row) {
        const std::string text = row->text;
        if (word == text.substr(0, text.find(' ')))
            return row->value;
    }
    return std::nullopt;
}

const char *text_of(int32_t role) {
    return rgy_svrtype_table[role].text;
}

} // namespace

std::optional<int32_t> role_in_file() {
    const std::unique_ptr<char, FreePlain> word(rgy_get_svr_type_str());
    if (word != nullptr && *word == '\0' && is_absent(role_file()))
        return RGY_SVR_NONE;
    return word != nullptr ? role_of_word(word.get()) : std::nullopt;
}

std::string mark_of_role_file() {
    struct stat status = {};
    if (stat(role_file().c_str(), &status) != 0)
        return "none";
    const auto text = [](const timespec &time) {
        return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec) + " ";
    };
    return std::to_string(status.st_ino) + " " + text(status.st_mtim) + text(status.st_ctim);
}

int32_t remembered_role(Store &store) {
    const std::string text = store.setting(role_setting);
    for (const auto *row = rgy_svrtype_table; row->text != nullptr; ++row)
        if (text == row->text)
            return row->value;
    return RGY_SVR_NONE;
}

void remember_role(Store &store, int32_t role) {
    if (role != remembered_role(store))
        store.set_setting(role_setting, text_of(role));
}

std::unique_ptr<Store> existing_store(const std::string &registry_file) {
    bool is_new = false;
    return is_absent(registry_file) ? nullptr : open_sqlite_store(registry_file, is_new);
}

int32_t last_role(Store *store) {
    const int32_t last = store != nullptr ? remembered_role(*store) : int32_t{RGY_SVR_NONE};
    imsg_print(IMSG_WARNING, "There is no registry server type in \"%s\"; this host goes on as the last one: %s.\n",
               IMSG_FORMAT, role_file().c_str(), text_of(last));
    return last;
}

} // namespace velia::server
