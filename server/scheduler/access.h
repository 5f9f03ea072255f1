// Who may do what with jobs: the access control list of the scheduler. Administrators may do all, whatever it says.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <server/rpc/caller.h>
#include <support/strutl.h>
#include <support/tbs_acl.h>

namespace velia::server {

enum Permission : tbs_acl_permission_set_t {
    PERMISSION_NONE = 0, // whom the table of rights lets through
    PERMISSION_READ = 1,
    PERMISSION_CHANGE = 2, // to make jobs, and to change and delete one's own
    PERMISSION_RUN = 4,    // to start and end one's own by hand
};

constexpr tbs_acl_generic_map_t generic_permissions = {PERMISSION_READ,
                                                       PERMISSION_READ | PERMISSION_CHANGE | PERMISSION_RUN};

struct PermissionName {
    const char *name;
    Permission permission;
};
inline constexpr std::array permission_names = {PermissionName{"read", PERMISSION_READ},
                                                PermissionName{"change", PERMISSION_CHANGE},
                                                PermissionName{"run", PERMISSION_RUN}};

class AccessList {
public:
    // Where nobody has set another: everyone may read.
    AccessList();

    // Names of users and groups are looked up here, which may wait. False for a list with an entry of no kind or of a
    // name that there is not.
    bool take(const std::string &bytes);

    const std::string &bytes() const { return bytes_; }
    tbs_acl_permission_set_t permissions_of(const Caller &caller) const;

private:
    struct Entry {
        uint32_t kind;
        uint32_t id;
        tbs_acl_permission_set_t permissions;
    };
    bool take_entry(const tbs_acl_entry_t &entry);

    std::string bytes_;
    std::vector<Entry> entries_;
};

} // namespace velia::server
