// What the configuration file says: the services that the daemon can start, and its options.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <server/config/access.h>
#include <server/scheduler/definitions.h>
#include <server/scheduler/task.h>
#include <support/imsg.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

enum class ServerKind {
    shared,    // any process of the service answers for any uuid and path
    dedicated, // one process for each uuid and path
    resident,  // started with the daemon, and again when it exits
};

struct Control {
    uint32_t processes_max = 1;
    uint32_t idle_s = 300;     // an idle server is ended after so long; 0: never
    uint32_t start_s = 30;     // within which a started server has to register
    uint32_t busy_s = 60;      // within which a server that was handed out has to report busy
    uint32_t restarts_max = 5; // of a resident server
    bool operator==(const Control &) const = default;
};

struct Service {
    bool udp = false;
    bool tcp = false;
    ServerKind kind = ServerKind::shared;
    uint32_t program = 0;
    uint32_t version = 0;
    Control control;
    std::optional<uid_t> user; // none: the daemon's own
    std::optional<gid_t> group;
    std::string path;
    std::vector<std::string> arguments;

    bool operator==(const Service &) const = default;

    bool serves(uint64_t wanted_program, uint64_t wanted_version, rvzd_protocol_in_t transport) const {
        const bool offered = transport == RVZD_PROTOCOL_UDP ? udp : transport == RVZD_PROTOCOL_TCP && tcp;
        return offered && program == wanted_program && version == wanted_version;
    }
};

struct Options {
    uint32_t protocol = RVZD_PROTOCOL_CURRENT;
    uint32_t connections_max = 256;
    uint32_t idle_connection_s = 300;
    uint32_t request_s = 30;       // from the first byte of a request to its last
    uint32_t registry_copy_s = 10; // between two looks of a standby at the master's registry
    uint32_t catch_up_s = 3600;    // how old a start that fell due while the daemon was down may be, to be made
    uint32_t jobs_max = 16;        // that run at once
    uint32_t job_output_mib = 64;  // of a run's output, that its file holds
    uint32_t take_over_s = 120;    // of jobs that daemons share: after so long without a word one is taken for gone
    bool operator==(const Options &) const = default;
};

// Which messages the log has, and how.
struct LogOptions {
    int least_severity = IMSG_TRACE; // of less interest than this nothing is written
    bool is_json = false;
    bool operator==(const LogOptions &) const = default;
};

struct Configuration {
    std::vector<Service> services;
    std::vector<AccessLine> access; // in the order of the file: the first that names a host decides
    Options options;
    std::vector<Task> tasks;
    std::string notify_program;    // empty: none
    std::string registry_database; // a connection string; empty: the registry is in a file of this host's
    std::string registry_replica;  // another one of a server that is behind that database; empty: none
    bool reads_from_copy = false;  // while that database is away
    std::string tasks_file;        // empty: none
    std::string schedule_file;     // the same
    std::string metrics;           // where figures are given out; the same
    LogOptions log;
    std::vector<DefinedJob> schedule;
};

} // namespace velia::server
