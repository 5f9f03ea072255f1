// What the broker knows of one server process, and of one service that it can start.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <server/broker/activity.h>
#include <server/config/service.h>
#include <server/rpc/caller.h>

namespace velia::server {

// Milliseconds of a clock that only goes forward; always handed in, so that tests own the time.
using Moment = int64_t;

enum {
    ALTERNATE_UUIDS_MAX = 16,
    REGISTRATIONS_MAX = 8, // of one process
    SCHED_INFOS_MAX = 32,  // of one process
};

// As it travels in a server list.
enum class ProcessState : int32_t {
    starting = 1, // started by the daemon, not registered yet
    idle = 2,
    offered = 3, // its address was given to a client, and it has not reported busy since
    busy = 4,
    ending = 5, // its lifeline is cut
};

struct FindRequest {
    rvzd_rpc_trait_t trait = {};
    tbs_uuid_t uuid = {};
    std::string path;
    ks_sockaddr_storage_t client = {}; // who asks, for messages; of no family: the daemon itself
};

// The client's name in messages.
std::string client_name(const ks_sockaddr_storage_t &client);

struct FindAnswer {
    tbs_status_t status = TBS_ST_ERROR;
    tbs_uuid_t uuid = {};
    std::string path;
    rvzd_server_port_list_t ports = {};
};

using FindDone = std::function<void(const FindAnswer &)>;

// A find that is answered when the server registers.
struct Waiter {
    FindRequest request;
    FindDone done;
};

// One RPC identity under which a process can be reached.
struct Registration {
    uint32_t cookie = 0; // its place in the server list; never used twice
    rvzd_rpc_trait_t trait = {};
    tbs_uuid_t uuid = {};
    std::string path;
    rvzd_server_port_list_t ports = {};
};

// A service of the configuration and what has happened to its servers.
struct ServiceState {
    Service service;
    uint32_t failures = 0;     // starts that failed since the last one that did not
    uint32_t restarts = 0;     // of a resident server
    Moment down_until = 0;     // no start before
    bool is_disabled = false;  // by the administrator
    bool is_exhausted = false; // too many restarts
    bool is_removed = false;   // no longer in the configuration

    bool may_start(Moment now) const { return !is_disabled && !is_exhausted && !is_removed && now >= down_until; }
};

struct SchedInfo {
    tbs_uuid_t uuid = {};
    rvzd_sched_info_pair_t pair = {};
};

struct Process {
    int32_t pid = 0;
    std::shared_ptr<ServiceState> service; // null: it started by itself
    std::optional<uid_t> user;             // whose it is, if it did
    ProcessState state = ProcessState::starting;
    Moment since = 0; // in this state
    Moment started = 0;
    tbs_uuid_t uuid = {}; // for which it was started
    std::string path;
    ks_sockaddr_storage_t client = {}; // to whom it was offered last
    uint32_t offers = 0;               // since it was last idle
    bool has_reported = false;         // busy or idle, so that it is known to work
    std::vector<tbs_uuid_t> alternate_uuids;
    std::vector<Registration> registrations;
    std::vector<Waiter> waiters;
    std::vector<SchedInfo> sched_infos;

    const Registration *registration_of(const rvzd_rpc_trait_t &trait) const;
    bool answers_for(const tbs_uuid_t &wanted) const;
    std::vector<ServedPort> served_ports() const;
    std::string name() const;
    // What it serves, for messages: its path, or this host where it serves any.
    std::string place() const;

    // Ends the daemon if the parts contradict each other.
    void require_sound() const;
};

// A stranger's text as it may stand in a message: bounded, and without control characters that would forge log lines.
std::string printable(const std::string &text);

bool is_nil(const tbs_uuid_t &uuid);
bool same_trait(const rvzd_rpc_trait_t &left, const rvzd_rpc_trait_t &right);

} // namespace velia::server
