// Where the registry is, and the default region. The master host is read from its file once a process.
#include <rvzd/client/registry_clnt/local/site.h>

#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/env.h>
#include <support/ks.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/tls_impl.h>

using namespace velia;
using namespace velia::registry_clnt;

ivlthread_mutex_t velia::registry_clnt::rgy_hostname_mutex;

namespace {

void load_master_anew();

} // namespace

ForkWatch velia::registry_clnt::hostname_watch = {rgy_hostname_mutex, load_master_anew};

namespace {

constexpr char map_variable[] = "IVLWEB_USER_REGION_MAPFILE";
constexpr size_t map_path_size = 1024;

char master[host_size];
const char *registry_hostname_p; // null until `master` is loaded

static_assert(sizeof(rvzd_tls_t::registry_host) == host_size);
static_assert(sizeof(rvzd_tls_t::default_region) == RGY_REGION_SIZE);

void load_master_anew() {
    registry_hostname_p = nullptr;
}

tbs_status_t load_master() {
    if (registry_hostname_p != nullptr) {
        if (registry_hostname_p != master)
            pfm_assert_fail("registry_hostname_p == master", source_file, __LINE__);
        return TBS_ST_OK;
    }
    char backup[host_size];
    const auto status =
        registry_prop_get_hostnames_local(sizeof master, sizeof backup, nullptr, nullptr, master, backup);
    if (status == TBS_ST_OK)
        registry_hostname_p = master;
    return status;
}

tbs_status_t duplicate(const char *text, char **out) {
    *out = stg_strdup(text);
    return *out != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

} // namespace

tbs_status_t velia::registry_clnt::rgy_load_svrloc(const char *&host) {
    return with_lock(hostname_lock, [&] {
        const auto status = load_master();
        if (status == TBS_ST_OK) {
            char *own = rvzd_tls_get()->registry_host;
            memcpy(own, master, sizeof master);
            host = own;
        }
        return status;
    });
}

tbs_status_t rgy_get_server_host(int32_t /*unused1*/, int32_t /*unused2*/, char **out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = nullptr;
    const char *host = nullptr;
    const auto status = rgy_load_svrloc(host);
    return status == TBS_ST_OK ? duplicate(host, out) : status;
}

tbs_status_t rgy_get_server_host_sil(int32_t unused1, int32_t unused2, char **out) {
    return rgy_get_server_host(unused1, unused2, out);
}

tbs_status_t rgy_hostname_cache_inval(void) {
    with_lock(hostname_lock, [] { registry_hostname_p = nullptr; });
    return TBS_ST_OK;
}

// The hosts are read, and an empty list is given, on purpose: the backup in the file is not one to fall over to by
// itself, and so the fail-over ends at once.
tbs_status_t rgy_get_cached_backup_list(char **out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = nullptr;
    char master_host[host_size];
    char backup_host[host_size];
    const auto status =
        registry_prop_get_hostnames_local(host_size, host_size, nullptr, nullptr, master_host, backup_host);
    return status == TBS_ST_OK ? duplicate("", out) : status;
}

tbs_status_t rgy_get_default_region(const char **out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    char *own = rvzd_tls_get()->default_region;
    char map_path[map_path_size];
    char second[RGY_REGION_SIZE];
    const bool has_map =
        ks_web_gui() != 0 && getenv_safe(map_variable, map_path, sizeof map_path, 0) != nullptr && *map_path != '\0';
    const auto status =
        has_map ? registry_prop_get_user_region(map_path, RGY_REGION_SIZE, own)
                : registry_prop_get_region_names_local(RGY_REGION_SIZE, sizeof second, nullptr, nullptr, own, second);
    if (status == TBS_ST_OK)
        *out = own;
    return status;
}

tbs_status_t rgy_fetch_default_region(size_t size, char *buffer) {
    if (buffer == nullptr)
        return TBS_ST_INVALID_ARG;
    const char *region = nullptr;
    const auto status = rgy_get_default_region(&region);
    if (status != TBS_ST_OK)
        return status;
    const size_t needed = strlen(region) + 1;
    if (needed > size)
        return TBS_ST_INVALID_ARG;
    memcpy(buffer, region, needed);
    return TBS_ST_OK;
}

tbs_status_t rgy_set_process_default_region(const char *region) {
    return registry_prop_set_process_default_region_local(region);
}

tbs_status_t rgy_is_slim_region(const char * /*region*/, int32_t *out) {
    if (out != nullptr)
        *out = 0;
    return TBS_ST_OK;
}
