// veliactl server find and connect: where a server listens, and whether it answers.
#include <cli/server.h>

#include <algorithm>
#include <chrono>

#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/imsg.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_lookup.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

namespace {

struct Arguments {
    std::string host;
    uint64_t program = 0;
    uint64_t version = 1;
    std::string transport = "udp";
    std::string uuid_text = "00000000-0000-0000-0000-000000000000";
    std::string path;

    rvzd_rpc_trait_t trait() const {
        return {program, version, static_cast<rvzd_protocol_in_t>(protocol_of_name(transport))};
    }
};

Options options_of(Arguments &arguments) {
    constexpr Range word = {0, UINT32_MAX};
    return {
        {.name = "HOST", .help = "host name", .target = &arguments.host, .is_required = true},
        {.name = "--prog",
         .type = "NUMBER",
         .help = "RPC program number, decimal or 0x...",
         .target = &arguments.program,
         .range = word,
         .is_required = true},
        {.name = "--vers",
         .type = "NUMBER",
         .help = "RPC version number",
         .target = &arguments.version,
         .range = word,
         .shows_default = true},
        {.name = "--proto",
         .type = "udp|tcp",
         .help = "transport",
         .target = &arguments.transport,
         .words = transports,
         .shows_default = true},
        {.name = "--uuid",
         .type = "UUID",
         .help = "the server's uuid (default: the nil uuid)",
         .target = &arguments.uuid_text,
         .fault = fault_of_uuid},
        {.name = "--path", .type = "PATH", .help = "the server's path (default: none)", .target = &arguments.path},
    };
}

int find_server(const Arguments &arguments, const Settings &settings);
int connect_server(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {{"host", Type::text, "as it was given"},
                              {"prog", Type::integer, "RPC program number"},
                              {"vers", Type::integer, "RPC version number"},
                              {"proto", Type::text, "udp or tcp"},
                              {"address", Type::text, "where the server listens"},
                              {"round_trip_ms", Type::number, "how long its answer took"}};
constexpr Output connect_output = {Output::Shape::one, columns};
constexpr Output find_output = {Output::Shape::list, std::span(columns).first(5)};

constexpr Command commands[] = {
    {.path = "server", .help = "Servers of a host"},
    {.path = "server find",
     .help = "Ask the broker of a host where a server listens; it is started if need be",
     .examples = {"veliactl server find build7 --prog 390600",
                  "veliactl server find build7 --prog 0x5f5c8 --proto tcp --uuid 0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f "
                  "--path /srv/db"},
     .make = call_of<find_server, options_of>,
     .output = &find_output},
    {.path = "server connect",
     .help = "Find a server, open a connection to it and call its procedure 0",
     .examples = {"veliactl server connect build7 --prog 390600",
                  "veliactl server connect build7 --prog 390600 --proto tcp --timeout 5 --output json"},
     .make = call_of<connect_server, options_of>,
     .output = &connect_output},
};

void print_not_found(const Arguments &arguments, tbs_status_t status) {
    tell_failure(status, arguments.host, "No server of program %lu version %lu on host '%s': %s\n", arguments.program,
                 arguments.version, arguments.host.c_str(), tbs_strerror(status));
}

int find_server(const Arguments &arguments, const Settings &settings) {
    const Broker broker = reach_broker(arguments.host, RVZD_PROTOCOL_UDP, settings.timeout);
    if (broker == nullptr)
        return exit_unreachable;
    rvzd_rpc_trait_t trait = arguments.trait();
    const tbs_uuid_t uuid = uuid_of(arguments.uuid_text);
    rvzd_server_addr_t addresses = {};
    const auto status = rvzd_find_server(broker.get(), &trait, &uuid, arguments.path.c_str(), &addresses);
    if (status != TBS_ST_OK) {
        print_not_found(arguments, status);
        return status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
    }
    Results results(find_output, settings);
    for (uint32_t i = 0; i < addresses.addr_count; ++i)
        results.add({arguments.host, arguments.program, arguments.version, arguments.transport,
                     text_of_address(addresses.addrs[i])});
    results.finish();
    return exit_done;
}

std::string peer_of(CLIENT *client) {
    sockaddr_storage peer = {};
    if (!clnt_control(client, CLGET_SERVER_ADDR, reinterpret_cast<char *>(&peer)))
        return "";
    ks_sockaddr_storage_t address;
    sysutl_copy_sockaddr(&address, reinterpret_cast<sockaddr *>(&peer));
    return text_of_address(address);
}

int connect_server(const Arguments &arguments, const Settings &settings) {
    if (reach_broker(arguments.host, RVZD_PROTOCOL_UDP, settings.timeout) == nullptr)
        return exit_unreachable;
    rvzd_rpc_trait_t trait = arguments.trait();
    const tbs_uuid_t uuid = uuid_of(arguments.uuid_text);
    rvzd_connection_t connection = {};
    connection.wait_s = std::min(whole_seconds(settings.timeout), 3);
    connection.transport = trait.proto == RVZD_PROTOCOL_TCP;
    const std::string name = "server " + std::to_string(arguments.program) + "." + std::to_string(arguments.version);
    if (rvzd_connect_to_server(arguments.host.c_str(), &trait, &connection, &uuid, arguments.path.c_str(),
                               name.c_str()) != TBS_ST_OK)
        return exit_failed;
    double round_trip_ms = 0;
    const bool answered = ping(connection.client, settings.timeout, "procedure 0 call failed", round_trip_ms);
    if (answered) {
        Results results(connect_output, settings);
        results.add({arguments.host, arguments.program, arguments.version, arguments.transport,
                     peer_of(connection.client), Cell::milliseconds(round_trip_ms)});
        results.finish();
    }
    clnt_destroy(connection.client);
    return answered ? exit_done : exit_unreachable;
}

} // namespace

std::string fault_of_uuid(const std::string &text) {
    tbs_uuid_t uuid;
    return tbs_str_to_uuid(text.c_str(), &uuid) == TBS_ST_OK ? "" : "'" + text + "' is no uuid";
}

tbs_uuid_t uuid_of(const std::string &text) {
    tbs_uuid_t uuid = {};
    tbs_str_to_uuid(text.c_str(), &uuid); // checked with the command line
    return uuid;
}

const Commands server_commands = commands;

} // namespace velia::cli
