// Credentials of users and groups.
#include <support/credutl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <support/stg.h>
#include <support/strutl.h>

#include "paths.h"

namespace {

constexpr char unknown_domain[] = "<unknown>";
constexpr uint32_t flavour_ids = 1;
constexpr int lifetime_not_set = -1;
constexpr uint32_t groups_max = CREDUTL_GROUPS_MAX;

int server_group_lifetime_s = lifetime_not_set;

// Runs `look_up(buffer, size)` with a buffer that grows until the database's entry fits; stores the name found.
template <class LookUp>
bool find_name(char (&name)[CREDUTL_NAME_SIZE], LookUp &&look_up) {
    constexpr size_t largest = 1024 * 1024;
    for (size_t size = 4096; size <= largest; size *= 4) {
        auto *buffer = static_cast<char *>(stg_malloc(size));
        if (buffer == nullptr)
            return false;
        const char *found = nullptr;
        const int error_number = look_up(buffer, size, found);
        const bool is_found = error_number == 0 && found != nullptr && strutl_cpy_buf(name, found, sizeof name) == 0;
        stg_free(buffer);
        if (error_number != ERANGE)
            return is_found;
    }
    return false;
}

void user_name(uint32_t id, char (&name)[CREDUTL_NAME_SIZE]) {
    const bool found = find_name(name, [&](char *buffer, size_t size, const char *&text) {
        passwd entry;
        passwd *result = nullptr;
        const int error_number = getpwuid_r(id, &entry, buffer, size, &result);
        text = result != nullptr ? result->pw_name : nullptr;
        return error_number;
    });
    if (!found)
        snprintf(name, sizeof name, "%u", id);
}

void group_name(uint32_t id, char (&name)[CREDUTL_NAME_SIZE]) {
    const bool found = find_name(name, [&](char *buffer, size_t size, const char *&text) {
        group entry;
        group *result = nullptr;
        const int error_number = getgrgid_r(id, &entry, buffer, size, &result);
        text = result != nullptr ? result->gr_name : nullptr;
        return error_number;
    });
    if (!found)
        snprintf(name, sizeof name, "%u", id);
}

uint32_t kept_groups(uint32_t group_count) {
    return group_count < groups_max ? group_count : groups_max;
}

// The process's groups, cut to what a record holds.
int first_groups(uint32_t (&groups)[CREDUTL_GROUPS_MAX], uint32_t &count) {
    const int known = getgroups(0, nullptr);
    if (known < 0)
        return errno;
    auto *all = static_cast<gid_t *>(stg_malloc(static_cast<size_t>(known) * sizeof(gid_t)));
    if (all == nullptr)
        return ENOMEM;
    const int taken = getgroups(known, all);
    const int error_number = taken < 0 ? errno : 0;
    count = taken > 0 ? kept_groups(static_cast<uint32_t>(taken)) : 0;
    for (uint32_t i = 0; i < count; ++i)
        groups[i] = all[i];
    stg_free(all);
    return error_number;
}

bool copy_part(const char *begin, size_t length, char *buffer, size_t size) {
    if (length >= size)
        return false;
    strutl_ncpy(buffer, begin, length);
    return true;
}

bool split_name(const char *name, char *domain, size_t domain_size, char *user, size_t user_size) {
    const size_t length = strlen(name);
    if (const char *backslash = strchr(name, '\\'))
        return copy_part(name, static_cast<size_t>(backslash - name), domain, domain_size) &&
               copy_part(backslash + 1, strlen(backslash + 1), user, user_size);
    if (const char *at_sign = strrchr(name, '@'))
        return copy_part(at_sign + 1, strlen(at_sign + 1), domain, domain_size) &&
               copy_part(name, static_cast<size_t>(at_sign - name), user, user_size);
    return copy_part(unknown_domain, strlen(unknown_domain), domain, domain_size) &&
           copy_part(name, length, user, user_size);
}

} // namespace

int credutl_uid_to_sid(credutl_sid_t *result, uint32_t user) {
    *result = {CREDUTL_SID_USER, user};
    return 0;
}

int credutl_gid_to_sid(credutl_sid_t *result, uint32_t group) {
    *result = {CREDUTL_SID_GROUP, group};
    return 0;
}

int credutl_getgroups(int group_count_max, uint32_t *groups) {
    static_assert(sizeof(gid_t) == sizeof(uint32_t));
    if (group_count_max <= 0) {
        errno = EINVAL;
        return -1;
    }
    return getgroups(group_count_max, groups);
}

void credutl_init_credentials(uint32_t user, uint32_t group, uint32_t group_count, const uint32_t *groups,
                              credutl_credentials_t *result) {
    *result = {};
    result->user = user;
    result->group = group;
    result->group_count = groups != nullptr ? kept_groups(group_count) : 0;
    for (uint32_t i = 0; i < result->group_count; ++i)
        result->groups[i] = groups[i];
}

void credutl_init_sid_credentials(const credutl_sid_t *user, const credutl_sid_t *group, uint32_t group_count,
                                  const uint32_t *groups, credutl_sid_credentials_t *result) {
    *result = {};
    if (user != nullptr)
        result->user = *user;
    if (group != nullptr)
        result->group = *group;
    result->group_count = groups != nullptr ? kept_groups(group_count) : 0;
    for (uint32_t i = 0; i < result->group_count; ++i)
        credutl_gid_to_sid(&result->groups[i], groups[i]);
}

int credutl_get_sid_credentials(credutl_sid_credentials_t *result) {
    uint32_t groups[CREDUTL_GROUPS_MAX];
    uint32_t group_count = 0;
    credutl_sid_t user;
    credutl_sid_t group;
    const int error_number = first_groups(groups, group_count);
    if (error_number != 0)
        return error_number;
    credutl_uid_to_sid(&user, geteuid());
    credutl_gid_to_sid(&group, getegid());
    credutl_init_sid_credentials(&user, &group, group_count, groups, result);
    return 0;
}

int credutl_sid_credentials_to_string_credentials(const credutl_sid_credentials_t *credentials,
                                                  credutl_string_credentials_t *result) {
    user_name(credentials->user.id, result->user);
    group_name(credentials->group.id, result->group);
    return 0;
}

char *credutl_credentials_to_str(const credutl_credentials_t *credentials, char *buffer) {
    if (credentials->user == CREDUTL_NO_ID && credentials->group == CREDUTL_NO_ID) {
        strutl_cpy_buf(buffer, "<none>", CREDUTL_TEXT_SIZE);
        return buffer;
    }
    // Two ids and 32 groups of ten digits each fit the least size.
    static_assert((CREDUTL_GROUPS_MAX + 2) * 11 + sizeof "uid= gid= groups=" < CREDUTL_TEXT_SIZE);
    char *at = buffer + snprintf(buffer, CREDUTL_TEXT_SIZE, "uid=%u gid=%u", credentials->user, credentials->group);
    const uint32_t group_count = kept_groups(credentials->group_count);
    for (uint32_t i = 0; i < group_count; ++i)
        at += snprintf(at, static_cast<size_t>(buffer + CREDUTL_TEXT_SIZE - at), "%s%u", i == 0 ? " groups=" : ",",
                       credentials->groups[i]);
    return buffer;
}

int credutl_crack_fq_name(const char *name, char *domain, size_t domain_size, char *user, size_t user_size) {
    if (domain_size == 0 || user_size == 0)
        return 1;
    if (name != nullptr && split_name(name, domain, domain_size, user, user_size))
        return 0;
    domain[0] = '\0';
    user[0] = '\0';
    return 1;
}

int credutl_is_privileged(void) {
    const uid_t caller = geteuid();
    if (caller == 0)
        return 1;
    struct stat root;
    return stat(velia::support::root_directory(), &root) == 0 && root.st_uid == caller;
}

int credutl_set_server_group_lifetime(int seconds) {
    if (seconds < 0)
        return 1;
    __atomic_store_n(&server_group_lifetime_s, seconds, __ATOMIC_RELAXED);
    return 0;
}

int credutl_get_server_group_lifetime(void) {
    return __atomic_load_n(&server_group_lifetime_s, __ATOMIC_RELAXED);
}

tbs_status_t credutl_mk_client_ironvale(int count, credutl_auth_ironvale_t *auth, credutl_client_t *client) {
    if (count != 1)
        return TBS_ST_INVALID_ARG;
    uint32_t groups[CREDUTL_GROUPS_MAX];
    uint32_t group_count = 0;
    if (first_groups(groups, group_count) != 0)
        return TBS_ST_ERROR;
    auth->flavour = flavour_ids;
    credutl_init_credentials(geteuid(), getegid(), group_count, groups, &auth->credentials);
    *client = {count, auth};
    return TBS_ST_OK;
}

void credutl_free_client(credutl_client_t *client) {
    *client = {0, nullptr};
}
