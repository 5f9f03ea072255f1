// RPC authenticators. They are made from what the kernel knows of the process, so that making one never waits.
#include <support/credmap.h>

#include <cstring>

#include <unistd.h>

#include <support/stg.h>
#include <support/sysutl.h>

namespace {

// The protocol has room for so many groups.
constexpr int auth_group_count_max = 16;
constexpr uid_t nobody_id = 65534;

AUTH *create_unix(uid_t user, gid_t group, int group_count, gid_t *groups) {
    constexpr size_t machine_name_max = 255; // of the protocol
    char machine[machine_name_max + 1];
    strncpy(machine, sysutl_myhostname(), machine_name_max);
    machine[machine_name_max] = '\0';
    return authunix_create(machine, user, group, group_count, groups);
}

} // namespace

AUTH *credmap_auth_create_default(const char *) {
    constexpr int kernel_group_count_max = 65536;
    gid_t first_groups[auth_group_count_max];
    const int group_count = getgroups(0, nullptr);
    if (group_count < 0 || group_count > kernel_group_count_max)
        return nullptr;
    if (group_count <= auth_group_count_max) {
        const int taken = getgroups(auth_group_count_max, first_groups);
        return taken >= 0 ? create_unix(geteuid(), getegid(), taken, first_groups) : nullptr;
    }
    auto *groups = static_cast<gid_t *>(stg_malloc(static_cast<size_t>(group_count) * sizeof(gid_t)));
    if (groups == nullptr)
        return nullptr;
    const int taken = getgroups(group_count, groups);
    AUTH *auth = taken >= 0 ? create_unix(geteuid(), getegid(),
                                          taken < auth_group_count_max ? taken : auth_group_count_max, groups)
                            : nullptr;
    stg_free(groups);
    return auth;
}

AUTH *credmap_authunix_create_nobody(void) {
    gid_t none[1] = {};
    return create_unix(nobody_id, nobody_id, 0, none);
}

int credmap_local_to_remote_sid(const credutl_sid_credentials_t *credentials, const char *,
                                credutl_sid_credentials_t *result) {
    if (credentials == nullptr || result == nullptr)
        return 1;
    *result = *credentials;
    return 0;
}
