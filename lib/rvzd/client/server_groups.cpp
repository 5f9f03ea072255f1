// Group lists that a server looks up itself. It stands above the settings, which it reads, and so above the registry
// and the broker client.
#include <support/credutl.h>
#include <veliaxdr/rvzd_knob.h>
#include <veliaxdr/rvzd_messages.h>
#include <veliaxdr/rvzd_svr.h>

namespace {

constexpr char subsystem[] = "xdr/rvzd";
constexpr int32_t lifetime_min_s = 1;

} // namespace

// The setting is told under a name that it never had; users know it so.
tbs_status_t rvzd_enable_server_group_substitution(tbs_boolean_t quiet, tbs_boolean_t *enabled) {
    if (enabled != nullptr)
        *enabled = 0;
    int32_t lifetime_s = 0;
    const auto status = rvzd_knob_get_integer(RVZD_KNOB_SERVER_GROUP_LIFETIME, nullptr, &lifetime_s);
    if (status != TBS_ST_OK) {
        imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED,
                          "rvzd_knob_get_integer(server_group_cache_lifetime)", tbs_strerror(status));
        return status;
    }
    if (lifetime_s < lifetime_min_s)
        return TBS_ST_OK;
    if (credutl_set_server_group_lifetime(lifetime_s) != 0) {
        imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_GROUPS_UNSUPPORTED);
        return TBS_ST_OK;
    }
    if (quiet == 0)
        imsg_print(IMSG_PLAIN, &_rvzd_rvzd_msg_table, RVZD_MSG_GROUPS_SUBSTITUTED, lifetime_s);
    if (enabled != nullptr)
        *enabled = 1;
    return TBS_ST_OK;
}
