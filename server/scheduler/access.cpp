// Entries of users and groups are about those whom the kernel knows. What a stranger claims to be is nobody here.
#include <server/scheduler/access.h>

#include <charconv>
#include <grp.h>
#include <pwd.h>

#include <server/scheduler/xdr_bytes.h>
#include <support/xdr_prims.h>

namespace velia::server {

namespace {

bool is_number(const std::string &text, uint32_t &number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool find_id(uint32_t kind, const std::string &identity, uint32_t &id) {
    if (is_number(identity, id))
        return true;
    if (kind == TBS_ACL_USER) {
        const passwd *user = getpwnam(identity.c_str());
        id = user != nullptr ? user->pw_uid : 0;
        return user != nullptr;
    }
    const group *group = getgrnam(identity.c_str());
    id = group != nullptr ? group->gr_gid : 0;
    return group != nullptr;
}

std::string usual_list() {
    char nobody[] = "";
    tbs_acl_entry_t everyone = {TBS_ACL_EVERYONE, nobody, PERMISSION_READ};
    tbs_acl_t list = {1, &everyone};
    tbs_acl_h_t handle = &list;
    return xdr_bytes(xdr_tbs_acl_h_t, handle);
}

} // namespace

AccessList::AccessList() {
    take(usual_list());
}

bool AccessList::take_entry(const tbs_acl_entry_t &entry) {
    uint32_t id = 0;
    const std::string identity = entry.identity != nullptr ? entry.identity : "";
    if (entry.kind > TBS_ACL_GROUP || (entry.kind != TBS_ACL_EVERYONE && !find_id(entry.kind, identity, id)))
        return false;
    entries_.push_back({entry.kind, id, entry.permissions});
    return true;
}

bool AccessList::take(const std::string &bytes) {
    OwnedRecord<tbs_acl_h_t, xdr_tbs_acl_h_t> list(bytes);
    entries_.clear();
    bytes_ = bytes;
    if (!list.is_whole())
        return false;
    bool is_good = true;
    for (uint32_t i = 0; list.get() != nullptr && i < list.get()->count; ++i)
        is_good = take_entry(list.get()->entries[i]) && is_good;
    return is_good;
}

tbs_acl_permission_set_t AccessList::permissions_of(const Caller &caller) const {
    tbs_acl_permission_set_t permissions = PERMISSION_NONE;
    for (const auto &entry : entries_) {
        const bool is_his = entry.kind == TBS_ACL_EVERYONE ||
                            (caller.known && (entry.kind == TBS_ACL_USER ? entry.id == caller.known->uid
                                                                         : caller.known->is_in(entry.id)));
        if (is_his)
            permissions |= entry.permissions;
    }
    return permissions;
}

} // namespace velia::server
