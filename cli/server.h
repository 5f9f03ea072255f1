// What the commands about servers share.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <cli/command.h>
#include <veliaxdr/rvzd_servers.h>

namespace velia::cli {

// Of an option that takes a uuid.
std::string fault_of_uuid(const std::string &text);
tbs_uuid_t uuid_of(const std::string &text);

// Which servers of a host are wanted; what is not set takes any.
struct ServerFilter {
    std::string host;
    int32_t program = RVZD_SERVER_ANY;
    int32_t version = RVZD_SERVER_ANY;
    int32_t port = RVZD_SERVER_ANY;
    int32_t pid = RVZD_SERVER_ANY;
    std::string transport;
    std::string uuid_text;
    std::optional<std::string> name; // the empty one is a name, too
};

// Of a listing; a watch has a time and a change before them.
extern const Output server_output;
extern const Output watch_output;

// The servers in the broker's order; each has cells for the columns.
using Servers = std::vector<Cells>;

// What fails is printed; the exit status of it, or exit_done with the servers.
int list_servers(const ServerFilter &filter, const Settings &settings, Servers &servers);

struct ServerChange {
    const char *what; // "present" in the beginning; then "started", "ended", "changed"
    Cells server;
};

// What became of the servers that were there: those that are gone first, then the others in their order.
std::vector<ServerChange> changes_of(const Servers &before, const Servers &now);

// Lists them again and again and prints what has changed, until the user has enough.
int watch_servers(const ServerFilter &filter, Duration interval, const Settings &settings);

} // namespace velia::cli
