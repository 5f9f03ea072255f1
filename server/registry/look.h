// Which hosts belong to the site's registry, and whether one of them knows of a higher term than this host. A process
// of its own asks them, so that one that is slow or answers nonsense is no trouble of the daemon.
#pragma once

#include <string>
#include <vector>

#include <server/registry/store.h>

namespace velia::server {

// The setting that names who was the master before this host.
constexpr const char *former_master_setting = "former-master";

// Of the hosts file, of the list of backup hosts, and the master before this one: each once, without this host.
std::vector<std::string> other_hosts(Store *store);

// The words of a list of hosts, between blanks, commas or semicolons.
std::vector<std::string> hosts_in(const std::string &list);

// In place of a host's word for itself.
bool is_this_host(const std::string &host);

// Asks the others, tells them of this host's term, and notes the highest that they tell. Throws CopyError where another
// host takes updates under the same term. Where no daemon serves the store, whoever answers for it has another one.
enum class Serving { here, elsewhere };
void look_at_site(Store &store, Serving serving);

// The same for the registry of this host; asks the others, tells them of this host's term, and notes the highest that
// they tell. The process's exit status: failed, with words, where another host takes updates under the same term.
int run_look();

} // namespace velia::server
