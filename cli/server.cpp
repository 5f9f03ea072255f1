// veliactl server find and connect: where a server listens, and whether it answers.
#include <cli/server.h>

#include <chrono>
#include <iostream>
#include <memory>

#include <fmt/format.h>

#include <cli/broker.h>
#include <cli/choices.h>
#include <support/imsg.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_lookup.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

namespace {

constexpr const char *find_footer = R"(Examples:
  veliactl server find build7 --prog 390600
  veliactl server find build7 --prog 0x5f5c8 --proto tcp --uuid 0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f --path /srv/db
)";
constexpr const char *connect_footer = R"(Examples:
  veliactl server connect build7 --prog 390600
  veliactl server connect build7 --prog 390600 --proto tcp --timeout 5 --output json
)";

struct Arguments {
    std::string host;
    uint64_t program = 0;
    uint64_t version = 1;
    std::string transport = "udp";
    std::string uuid_text = "00000000-0000-0000-0000-000000000000";
    std::string path;

    tbs_uuid_t uuid() const {
        tbs_uuid_t parsed = {};
        tbs_str_to_uuid(uuid_text.c_str(), &parsed); // checked with the command line
        return parsed;
    }
    rvzd_rpc_trait_t trait() const {
        return {program, version, static_cast<rvzd_protocol_in_t>(protocol_of_name(transport))};
    }
};

void print_not_found(const Arguments &arguments, tbs_status_t status) {
    imsg_print(IMSG_ERROR, "No server of program %lu version %lu on host '%s': %s\n", IMSG_FORMAT, arguments.program,
               arguments.version, arguments.host.c_str(), tbs_strerror(status));
}

int find_server(const Arguments &arguments, const Settings &settings) {
    if (!reach_broker(arguments.host, RVZD_PROTOCOL_UDP, settings.timeout_s).answered)
        return exit_unreachable;
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(arguments.host.c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    handle->tv_sec = settings.timeout_s;
    rvzd_rpc_trait_t trait = arguments.trait();
    const tbs_uuid_t uuid = arguments.uuid();
    rvzd_server_addr_t addresses = {};
    const auto status = rvzd_find_server(handle, &trait, &uuid, arguments.path.c_str(), &addresses);
    rvzd_free_handle(handle);
    if (status != TBS_ST_OK) {
        print_not_found(arguments, status);
        return status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
    }
    Results results({"host", "prog", "vers", "proto", "address"});
    for (uint32_t i = 0; i < addresses.addr_count; ++i)
        results.add({arguments.host, arguments.program, arguments.version, arguments.transport,
                     text_of_address(addresses.addrs[i])});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

// Calls procedure 0, which every program answers; false and printed when it does not.
bool ping(CLIENT *client, int timeout_s, double &round_trip_ms) {
    const auto nothing = reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_void));
    const timeval time_out = {timeout_s, 0};
    const auto start = std::chrono::steady_clock::now();
    if (clnt_call(client, NULLPROC, nothing, nullptr, nothing, nullptr, time_out) != RPC_SUCCESS) {
        ks_clnt_perror(client, "procedure 0 call failed");
        return false;
    }
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    round_trip_ms = elapsed.count();
    return true;
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
    if (!reach_broker(arguments.host, RVZD_PROTOCOL_UDP, settings.timeout_s).answered)
        return exit_unreachable;
    rvzd_rpc_trait_t trait = arguments.trait();
    const tbs_uuid_t uuid = arguments.uuid();
    rvzd_connection_t connection = {};
    connection.wait_s = std::min(settings.timeout_s, 3);
    connection.transport = trait.proto == RVZD_PROTOCOL_TCP;
    const std::string name = fmt::format("server {}.{}", arguments.program, arguments.version);
    if (rvzd_connect_to_server(arguments.host.c_str(), &trait, &connection, &uuid, arguments.path.c_str(),
                               name.c_str()) != TBS_ST_OK)
        return exit_failed;
    double round_trip_ms = 0;
    const bool answered = ping(connection.client, settings.timeout_s, round_trip_ms);
    if (answered) {
        Results results({"host", "prog", "vers", "proto", "address", "round_trip_ms"});
        results.add({arguments.host, arguments.program, arguments.version, arguments.transport,
                     peer_of(connection.client), Cell::milliseconds(round_trip_ms)});
        results.print(settings.format, settings.with_headers, std::cout);
    }
    clnt_destroy(connection.client);
    return answered ? exit_done : exit_unreachable;
}

struct Verb {
    const char *name;
    const char *help;
    const char *footer;
    int (*run)(const Arguments &, const Settings &);
};

constexpr Verb verbs[] = {
    {"find", "Ask the broker of a host where a server listens; it is started if need be", find_footer, find_server},
    {"connect", "Find a server, open a connection to it and call its procedure 0", connect_footer, connect_server},
};

void add_verb(CLI::App &group, const Verb &verb, Settings &settings, Command &chosen) {
    auto arguments = std::make_shared<Arguments>();
    const auto is_word = CLI::Range(uint64_t{0}, uint64_t{UINT32_MAX}).description("");
    CLI::App *command = group.add_subcommand(verb.name, verb.help);
    command->add_option("HOST", arguments->host, "host name")->type_name("")->required();
    command->add_option("--prog", arguments->program, "RPC program number, decimal or 0x...")
        ->required()
        ->type_name("NUMBER")
        ->check(is_word);
    command->add_option("--vers", arguments->version, "RPC version number")
        ->capture_default_str()
        ->type_name("NUMBER")
        ->check(is_word);
    command->add_option("--proto", arguments->transport, "transport")
        ->type_name("udp|tcp")
        ->capture_default_str()
        ->check(one_of({"udp", "tcp"}));
    command->add_option("--uuid", arguments->uuid_text, "the server's uuid (default: the nil uuid)")
        ->type_name("UUID")
        ->check(CLI::Validator(check_uuid, ""));
    command->add_option("--path", arguments->path, "the server's path (default: none)")->type_name("PATH");
    add_common_options(*command, settings);
    command->footer(std::string(verb.footer) + "\n" + exit_status_help);
    command->callback([arguments, run = verb.run, &chosen] {
        chosen = [arguments, run](const Settings &given) { return run(*arguments, given); };
    });
}

} // namespace

std::string check_uuid(const std::string &text) {
    tbs_uuid_t uuid;
    return tbs_str_to_uuid(text.c_str(), &uuid) == TBS_ST_OK ? "" : "'" + text + "' is no uuid";
}

void add_server_commands(CLI::App &app, Settings &settings, Command &chosen) {
    CLI::App *group = app.add_subcommand("server", "Servers of a host");
    group->require_subcommand(1);
    group->footer(exit_status_help);
    for (const Verb &verb : verbs)
        add_verb(*group, verb, settings, chosen);
    add_server_list(*group, settings, chosen);
}

} // namespace velia::cli
