// Which family of platforms a host is of, and the questions of the reduced edition, which are settled in this one.
#include <cstring>

#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/tbs.h>
#include <veliaxdr/rvzd_hosts.h>
#include <veliaxdr/rvzd_servers.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr int64_t contact_timeout_s = 40;
constexpr char other_family[] = "Windows";

// Position in the support layer's own table.

bool is_of_other_family(const char *os_name) {
    return strncmp(os_name, other_family, sizeof other_family - 1) == 0;
}

void report(int position, const char *host, const char *text) {
    imsg_print(IMSG_ERROR, &_clnt_list_rvzd_msg_table, position, host, text);
}

tbs_status_t compare_with(const char *host, const char *local_os, clnt_hostinfo_t &info, tbs_boolean_t *is_hetero) {
    const auto status = rvzd_hostinfo_timeout(host, contact_timeout_s, &info);
    if (status != TBS_ST_OK) {
        report(CLNT_LIST_MSG_NO_HOST_INFO, host, tbs_strerror(status));
        return status;
    }
    // What the other host leaves out comes over the wire as an empty text.
    if (info.osname == nullptr || info.osname[0] == '\0') {
        imsg_print(IMSG_ERROR, &_clnt_list_rvzd_msg_table, CLNT_LIST_MSG_NO_OS_NAME, host);
        return TBS_ST_ERROR;
    }
    *is_hetero = is_of_other_family(local_os) != is_of_other_family(info.osname);
    return TBS_ST_OK;
}

} // namespace

tbs_status_t rvzd_is_hetero_server(const char *host, tbs_boolean_t *is_hetero) {
    const char *os_name;
    const char *os_version;
    const char *machine;
    if (!tbs_platform_info(&os_name, &os_version, &machine)) {
        imsg_print(IMSG_ERROR, &_clnt_list_rvzd_msg_table, CLNT_LIST_MSG_NO_PLATFORM);
        return TBS_ST_ERROR;
    }
    clnt_hostinfo_t info = {};
    const auto release = [&] {
        with_inhibit([&] {
            rvzd_hostinfo_free(info);
            info = {};
        });
    };
    return with_release([&] { return compare_with(host, os_name, info, is_hetero); }, release);
}

tbs_status_t rvzd_slim_server_is_slim(tbs_boolean_t *is_slim) {
    *is_slim = 0;
    return TBS_ST_OK;
}

tbs_status_t rvzd_slim_server_hostname() {
    tbs_log_int_error(subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_TEXT, source_file, __LINE__, 0,
                      "rvzd_slim_server_hostname");
    return TBS_ST_ERROR;
}
