// What the commands that change a site's master share: the state of a host's registry, and the hosts of the site.
#pragma once

#include <string>
#include <vector>

#include <cli/broker.h>
#include <cli/command.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rvzd_daemon.h>

namespace velia::cli {

// The daemon of a host, with the caller's credentials; null without an answer, of which nothing is told.
Broker reach_quietly(const std::string &host, const Settings &settings);

// A reply that is released at the end.
class RegistryState {
public:
    RegistryState() = default;
    ~RegistryState() { rvzd_registry_state_free(&reply_); }
    RegistryState(const RegistryState &) = delete;
    RegistryState &operator=(const RegistryState &) = delete;

    tbs_status_t ask(rvzd_handle_t *daemon);
    // The same by the host's name; it prints nothing and waits no longer than for one step.
    tbs_status_t ask(const std::string &host, const Settings &settings);

    const rvzd_registry_state_reply_t &operator*() const { return reply_; }
    const rvzd_registry_state_reply_t *operator->() const { return &reply_; }

private:
    rvzd_registry_state_reply_t reply_ = {};
};

std::string name_of_role(int32_t role);
Cell text_or_none(const char *text);

bool is_same_host(const std::string &one, const std::string &other);

// Hosts of one registry in a database: each of them is a master.
bool serve_one_store(const std::string &one, const std::string &other, const Settings &settings);

// The host that is the master of the registry that `host`, a standby, has: of those that it copies from, that its copy
// is of, and that belong to the site. None: no host that answers is, or all were superseded.
std::string master_over(const std::string &host, const Settings &settings);

// Those of the list that the registry on `host` has; none without an answer.
std::vector<std::string> backup_hosts_of(const std::string &host, const Settings &settings);

// Of this host's hosts file and of the list of backup hosts that the registry on `host` has: each once.
std::vector<std::string> hosts_of_site(const std::string &host, const Settings &settings);

// Makes `host` take `master` for its registry; how that went, as a step of a turn tells it.
struct HostTurned {
    bool is_done = false;
    std::string told; // where it is not: the command for that host
};
HostTurned turn_host(const std::string &host, const std::string &master, const Settings &settings);

} // namespace velia::cli
