// The change of registry hosts and roles. A promotion leaves the former hosts file behind as ".old"; a demotion needs
// it and puts it back.
#include <veliaxdr/rgy_role.h>

#include <rvzd/client/registry_clnt/local/local_files.h>
#include <rvzd/client/registry_clnt/local/site.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <rvzd/client/rvzd_clnt/get_handle.h>
#include <support/fileutl.h>
#include <support/strutl.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_messages.h>
#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_handle.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

constexpr size_t own_name_size = 256;

void print(int position) {
    imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, position);
}

void print(int position, const char *name) {
    imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, position, name);
}

// The two names of the hosts file.
struct Hosts {
    char master[host_size];
    char backup[host_size];
};

// A file that cannot be read leaves both names empty.
Hosts read_hosts() {
    Hosts hosts = {};
    registry_prop_get_hostnames_local(host_size, host_size, nullptr, nullptr, hosts.master, hosts.backup);
    return hosts;
}

tbs_status_t write_hosts(const Hosts &hosts) {
    return registry_prop_set_hostnames_local(strlen(hosts.master) + 1, strlen(hosts.backup) + 1, hosts.master,
                                             hosts.backup);
}

// The file holds words, so a name with white space would be read as something else.
bool is_host_word(const char *text) {
    return strnlen(text, host_size) < host_size && strpbrk(text, white_space) == nullptr;
}

char *name_to_set(int64_t op, Hosts &hosts) {
    switch (op) {
    case RGY_CONF_SET_HOST:
        return hosts.master;
    case RGY_CONF_SET_BACKUP:
        return hosts.backup;
    default:
        return nullptr;
    }
}

tbs_status_t set_host(int64_t op, const char *text) {
    if (!is_host_word(text))
        return TBS_ST_ERROR;
    Hosts hosts = read_hosts();
    char *name = name_to_set(op, hosts);
    if (name == nullptr)
        return TBS_ST_ERROR;
    memcpy(name, text, strlen(text) + 1);
    return write_hosts(hosts);
}

// Only a standby is promoted: it alone has the data.
tbs_status_t become_master(int32_t present_type, const char *host) {
    if (present_type != RGY_SVR_STANDBY) {
        print(REGISTRY_MSG_NOT_STANDBY, host);
        return TBS_ST_ERROR;
    }
    const auto status = rgy_promote_standby_svr(host);
    if (status == TBS_ST_OK)
        imsg_print(IMSG_PLAIN, &_registry_rvzd_msg_table, REGISTRY_MSG_SERVER_TYPE,
                   rgy_svrtype_table[RGY_SVR_MASTER].text);
    return status;
}

tbs_status_t become_other(int32_t present_type, const char *host, int32_t type) {
    if (present_type != RGY_SVR_MASTER)
        return rgy_set_svr_type(type);
    if (rgy_demote_master_svr(host, type) == TBS_ST_OK)
        return TBS_ST_OK;
    print(REGISTRY_MSG_CANNOT_DEMOTE_MASTER, host);
    return TBS_ST_ERROR;
}

} // namespace

tbs_status_t rgy_svr_conf_change(const char *host, int64_t op, const char * /*text*/) {
    rvzd_handle_t *handle = nullptr;
    return with_release(
        [&]() -> tbs_status_t {
            if (rvzd_get_handle(host, &handle) != TBS_ST_OK)
                return TBS_ST_NOT_FOUND;
            return rvzd_rgy_svr_conf_change(handle, RGY_PROTOCOL_VERSION, op, "");
        },
        [&] { rvzd_clnt::give_back_handle(handle); });
}

tbs_status_t rgy_clnt_conf_change(int64_t op, const char *text) {
    const char *name = text != nullptr ? text : "";
    const auto status = set_host(op, name);
    if (status != TBS_ST_OK)
        print(REGISTRY_MSG_BAD_REQUEST, name);
    return status;
}

// Without a name this host would be promoted, and the registry host of its file blanked.
tbs_status_t rgy_promote_standby_svr(const char *host) {
    if (host == nullptr || *host == '\0')
        return TBS_ST_INVALID_ARG;
    const auto status = rgy_svr_conf_change(host, RGY_CONF_PROMOTE, "");
    if (status == TBS_ST_OK)
        return rgy_clnt_conf_change(RGY_CONF_SET_HOST, host);
    imsg_print(IMSG_ERROR, &_registry_rvzd_msg_table, REGISTRY_MSG_CANNOT_START_SERVICE, host, tbs_strerror(status));
    return status;
}

tbs_status_t rgy_change_server_type(int32_t type) {
    const int32_t present_type = rgy_get_svr_type();
    if (type == present_type)
        return TBS_ST_OK;
    char host[own_name_size];
    if (strutl_cpy_buf(host, sysutl_myhostname(), sizeof host) != 0)
        return TBS_ST_ERROR;
    switch (type) {
    case RGY_SVR_MASTER:
        return become_master(present_type, host);
    case RGY_SVR_SLAVE:
    case RGY_SVR_BACKUP:
    case RGY_SVR_STANDBY:
        return become_other(present_type, host, type);
    default:
        print(REGISTRY_MSG_UNRECOGNIZED_SERVER_TYPE);
        return TBS_ST_ERROR;
    }
}

// A master that does not answer is demoted all the same: it reads its type when it starts. So is one whose former hosts
// file cannot be put back, for its type has changed by then.
tbs_status_t rgy_demote_master_svr(const char *host, int32_t type) {
    char former[path_size];
    const char *current = registry_configuration_pathname();
    if (make_backup_path(current, former) != TBS_ST_OK)
        return TBS_ST_ERROR;
    if (fileutl_exists(former, 0) == 0) {
        print(REGISTRY_MSG_CANNOT_DEMOTE_MASTER, host);
        print(REGISTRY_MSG_NOT_PROMOTED);
        return TBS_ST_NOT_SET;
    }
    rgy_svr_conf_change(host, RGY_CONF_DEMOTE, "");
    if (rgy_set_svr_type(type) != TBS_ST_OK) {
        print(REGISTRY_MSG_CANNOT_DEMOTE_MASTER, host);
        print(REGISTRY_MSG_UNRECOVERABLE);
        return TBS_ST_ERROR;
    }
    fileutl_rename(former, current);
    return TBS_ST_OK;
}
