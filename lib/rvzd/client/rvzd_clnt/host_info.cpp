// Who a host is: this one from what is known here, another one from its broker, whose answer stays with the cached
// record as long as the connection does.
#include <rvzd/client/rvzd_clnt/host_info.h>

#include <cstring>

#include <common/require.h>
#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <support/fileutl.h>
#include <support/stg.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr int64_t question_timeout_s = 4;
constexpr int server_side_component = 1;
constexpr size_t checked_host_size = 256;
constexpr char no_servers_option[] = "-no_servers";

tbs_status_t describe_this_host(clnt_hostinfo_t &info) {
    clnt_hostinfo_t local = {};
    return with_release(
        [&] {
            const auto status = clnt_list_get_local_hostinfo(&local);
            if (status == TBS_ST_OK)
                with_inhibit([&] { copy_hostinfo(local, info); });
            return status;
        },
        [&] { with_inhibit([&] { release_local_hostinfo(local); }); });
}

// Whatever its status, the reply is what is known of the host from now on: one without information, too.
void remember(rvzd_cached_handle_t *record, const clnt_hostinfo_t &info) {
    require(record->hostinfo == nullptr); // else nobody would have asked
    record->hostinfo = static_cast<clnt_hostinfo_t *>(stg_malloc(sizeof(clnt_hostinfo_t)));
    if (record->hostinfo != nullptr)
        copy_hostinfo(info, *record->hostinfo);
}

tbs_status_t ask_broker(rvzd_handle_t *handle, clnt_hostinfo_t &info) {
    handle->tv_sec = question_timeout_s;
    rvzd_hostinfo_req_t request = {};
    rvzd_hostinfo_reply_t reply = {};
    return broker_call(handle, quiet(procedures::hostinfo), request, reply, [&](clnt_stat outcome) -> tbs_status_t {
        if (outcome == RPC_SUCCESS)
            with_inhibit([&] {
                copy_hostinfo(reply.hostinfo, info);
                remember(handle->cached, reply.hostinfo);
            });
        return status_of_question(outcome, reply.header.status);
    });
}

tbs_status_t describe_other_host(rvzd_handle_t *handle, clnt_hostinfo_t &info) {
    const clnt_hostinfo_t *known = handle->cached->hostinfo;
    if (known == nullptr)
        return ask_broker(handle, info);
    with_inhibit([&] { copy_hostinfo(*known, info); });
    return TBS_ST_OK;
}

} // namespace

void velia::rvzd_clnt::copy_hostinfo(const clnt_hostinfo_t &from, clnt_hostinfo_t &to) {
    to = {};
    for (const auto text : hostinfo_texts)
        to.*text = stg_strdup(from.*text);
}

void velia::rvzd_clnt::release_local_hostinfo(clnt_hostinfo_t &info) {
    stg_free(info.registry_host);
    stg_free(info.reserved);
    info = {};
}

tbs_status_t velia::rvzd_clnt::status_of_question(clnt_stat outcome, tbs_status_t reply_status) {
    switch (outcome) {
    case RPC_SUCCESS:
        return reply_status;
    case RPC_TIMEDOUT:
        return TBS_ST_RPC_FAILED;
    case RPC_PROCUNAVAIL:
        return TBS_ST_UNSUPPORTED;
    default:
        return TBS_ST_ERROR;
    }
}

tbs_status_t clnt_list_get_local_hostinfo(clnt_hostinfo_t *info) {
    *info = {};
    const char *os_name;
    const char *os_version;
    const char *machine;
    if (!tbs_platform_info(&os_name, &os_version, &machine))
        return TBS_ST_ERROR;
    const auto lend = [](const char *text) { return const_cast<char *>(text); };
    info->hostname = lend(sysutl_myhostname());
    info->product = lend(tbs_product_name());
    info->version = lend(tbs_product_version());
    info->osname = lend(os_name);
    info->osversion = lend(os_version);
    info->machine = lend(machine);
    const char *region = nullptr;
    if (rgy_get_server_host_sil(1, 0, &info->registry_host) != TBS_ST_OK)
        info->registry_host = nullptr;
    else if (rgy_get_default_region(&region) == TBS_ST_OK)
        info->region = lend(region);
    if ((tbs_product_comp_test(server_side_component) & 1) == 0)
        info->options = lend(no_servers_option);
    return TBS_ST_OK;
}

tbs_status_t rvzd_hostinfo(const char *host, clnt_hostinfo_t *info) {
    return rvzd_hostinfo_timeout(host, question_timeout_s, info);
}

tbs_status_t rvzd_hostinfo_timeout(const char *host, int64_t seconds, clnt_hostinfo_t *info) {
    return with_lock(call_lock, [&] {
        if (fileutl_is_localhost(host))
            return describe_this_host(*info);
        const auto describe = [&](rvzd_handle_t *handle) { return describe_other_host(handle, *info); };
        return with_handle(question_request(host, seconds), describe).status;
    });
}

void rvzd_hostinfo_free(clnt_hostinfo_t info) {
    for (const auto text : hostinfo_texts)
        stg_free(info.*text);
}

// A run of equal names succeeds once at most: the last name is remembered, its outcome is not.
tbs_status_t rvzd_exist_check(const char *host) {
    static char prevhost[checked_host_size];
    return with_lock(call_lock, [&]() -> tbs_status_t {
        if (strlen(host) >= sizeof prevhost || strcmp(host, prevhost) == 0)
            return TBS_ST_ERROR;
        strutl_cpy_buf(prevhost, host, sizeof prevhost);
        clnt_hostinfo_t info = {};
        if (rvzd_hostinfo(host, &info) != TBS_ST_OK)
            return TBS_ST_ERROR;
        rvzd_hostinfo_free(info);
        return TBS_ST_OK;
    });
}
