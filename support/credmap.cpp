// RPC authenticators. They are made without asking a name service, so that none can hang there.
#include <support/credmap.h>

#include <grp.h>
#include <unistd.h>

#include <support/sysutl.h>

namespace {

constexpr int wire_groups_max = 16; // of AUTH_SYS
constexpr int groups_max = 65536;
constexpr uid_t nobody = 65534;

int own_groups(gid_t *groups) {
    static thread_local gid_t all[groups_max];
    const int count = getgroups(groups_max, all);
    const int taken = count < wire_groups_max ? count : wire_groups_max;
    for (int i = 0; i < taken; ++i)
        groups[i] = all[i];
    return taken > 0 ? taken : 0;
}

AUTH *make(uid_t uid, gid_t gid, int count, gid_t *groups) {
    char host[MAX_MACHINE_NAME + 1];
    size_t length = 0;
    for (const char *name = sysutl_myhostname(); name[length] != '\0' && length < MAX_MACHINE_NAME; ++length)
        host[length] = name[length];
    host[length] = '\0';
    return authunix_create(host, uid, gid, count, groups);
}

} // namespace

AUTH *credmap_auth_create_default(const char * /*host*/) {
    gid_t groups[wire_groups_max];
    const int count = own_groups(groups);
    return make(geteuid(), getegid(), count, groups);
}

AUTH *credmap_authunix_create_nobody(void) {
    gid_t none = nobody;
    return make(nobody, nobody, 0, &none);
}
