// What is installed here, and where its files lie.
#include <support/tbs.h>

#include <cstdio>
#include <cstdlib>

#include <sys/utsname.h>
#include <unistd.h>

#include <support/ivlthread.h>

#include "paths.h"

namespace {

using velia::support::path_below_root;

constexpr char default_root[] = "/var/lib/velia";
constexpr int server_component_bit = 1;
constexpr int host_components = 1;

struct utsname platform;
bool platform_is_known;
ivlthread_once_t platform_once;

int learn_platform() {
    platform_is_known = uname(&platform) == 0;
    return 0;
}

} // namespace

const char *velia::support::root_directory() {
    const char *root = getenv("VELIA_ROOT");
    return root != nullptr && *root != '\0' ? root : default_root;
}

tbs_status_t velia::support::path_below_root(char *buffer, size_t size, const char *directory, const char *file_name) {
    const int length = snprintf(buffer, size, "%s/%s%s%s", root_directory(), directory, file_name != nullptr ? "/" : "",
                                file_name != nullptr ? file_name : "");
    if (length >= 0 && static_cast<size_t>(length) < size)
        return TBS_ST_OK;
    if (size > 0)
        buffer[0] = '\0';
    return TBS_ST_NAME_TOO_LONG;
}

const char *tbs_product_name(void) {
    return "Velia";
}

const char *tbs_product_version(void) {
    return VELIA_PRODUCT_VERSION;
}

int tbs_product_comp_test(int component) {
    if (component != host_components)
        return 0;
    char path[TBS_PATH_SIZE];
    const bool is_client_only = tbs_product_config_dir(path, "client_only") == TBS_ST_OK && access(path, F_OK) == 0;
    return is_client_only ? 0 : server_component_bit;
}

tbs_status_t tbs_product_config_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, TBS_PATH_SIZE, "config", file_name);
}

tbs_status_t tbs_product_host_config_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, TBS_PATH_SIZE, "host/config", file_name);
}

tbs_status_t tbs_product_host_priv_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, TBS_PATH_SIZE, "host/priv", file_name);
}

tbs_status_t tbs_product_log_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, TBS_PATH_SIZE, "log", file_name);
}

int tbs_platform_info(const char **os_name, const char **os_version, const char **machine) {
    ivlthread_once(&platform_once, learn_platform);
    if (!platform_is_known)
        return 0;
    *os_name = platform.sysname;
    *os_version = platform.release;
    *machine = platform.machine;
    return 1;
}
