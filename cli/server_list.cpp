// veliactl server list: the servers of a host as its broker knows them.
#include <cli/server.h>

#include <array>
#include <iostream>
#include <memory>

#include <cli/broker.h>
#include <cli/choices.h>
#include <support/imsg.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

namespace {

constexpr const char *footer = R"(Examples:
  veliactl server list build7
  veliactl server list build7 --prog 390600 --proto tcp --output table
  veliactl server list build7 --watch --interval 1
  veliactl server list build7 --watch --output json | jq -r 'select(.change == "ended").pid'

With --watch all servers are shown first, as "present", and then what changes: "started", "ended", "changed". A broker
that does not answer for a while is told, and asked again. An interrupt (Ctrl-C) ends it with exit status 0.
)";

constexpr std::array<const char *, 6> states = {"", "starting", "idle", "offered", "busy", "ending"};

Cell cell_of_state(int32_t state) {
    const auto index = static_cast<size_t>(state);
    return state > 0 && index < states.size() ? Cell(states[index]) : Cell(state);
}

Cell cell_of_transport(rvzd_protocol_in_t transport) {
    return transport == RVZD_PROTOCOL_UDP || transport == RVZD_PROTOCOL_TCP ? Cell(rvzd_protocol_names[transport])
                                                                            : Cell(transport);
}

struct FreeInfo {
    void operator()(rvzd_server_info_t *info) const { stg_free(info); }
};

Cells cells_of(rvzd_handle_t *handle, rvzd_server_entry_elem_t &node) {
    const rvzd_server_entry_t &entry = node.entry;
    const std::unique_ptr<rvzd_server_info_t, FreeInfo> info(rvzd_get_server_entry(handle, &node, STG_HEAP_AREA));
    std::array<char, TBS_UUID_STR_SIZE> uuid;
    return {entry.trait.prog,
            entry.trait.vers,
            cell_of_transport(entry.trait.proto),
            info != nullptr ? Cell(text_of_address(info->address)) : Cell(),
            cell_of_state(entry.state),
            entry.pid,
            tbs_uuid_to_str(&entry.uuid, uuid.data()),
            rvzd_server_entry_name(&node.entry)};
}

class List {
public:
    List() = default;
    ~List() { rvzd_destroy_server_entry_list(&head); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;

    llist_d_head_t head = {};
};

tbs_status_t fill(rvzd_handle_t *handle, const ServerFilter &filter, Servers &servers) {
    tbs_uuid_t uuid = {};
    const bool has_uuid = !filter.uuid_text.empty();
    if (has_uuid)
        tbs_str_to_uuid(filter.uuid_text.c_str(), &uuid); // checked with the command line
    const int32_t transport =
        filter.transport.empty() ? RVZD_SERVER_ANY : static_cast<int32_t>(protocol_of_name(filter.transport));
    List list;
    const auto status = rvzd_list_matching_servers(handle, filter.program, filter.version, transport, filter.port,
                                                   has_uuid ? &uuid : nullptr, filter.pid,
                                                   filter.has_name ? filter.name.c_str() : nullptr, &list.head);
    if (status != TBS_ST_OK)
        return status;
    for (llist_d_head_t *at = list.head.next; at != &list.head; at = at->next)
        servers.push_back(
            cells_of(handle, *static_cast<rvzd_server_entry_elem_t *>(reinterpret_cast<llist_d_elem_t *>(at)->owner)));
    return TBS_ST_OK;
}

struct Arguments {
    ServerFilter filter;
    bool watches = false;
    int interval_s = 2;
};

int run_list(const Arguments &arguments, const Settings &settings) {
    if (arguments.watches)
        return watch_servers(arguments.filter, arguments.interval_s, settings);
    Servers servers;
    const int status = list_servers(arguments.filter, settings, servers);
    if (status != exit_done)
        return status;
    Results results(server_columns);
    for (auto &server : servers)
        results.add(std::move(server));
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

void add_filters(CLI::App &command, ServerFilter &filter) {
    struct Number {
        const char *name;
        const char *help;
        int32_t &value;
        int32_t most;
    };
    const std::array numbers = {
        Number{"--prog", "RPC program number, decimal or 0x...", filter.program, INT32_MAX},
        Number{"--vers", "RPC version number", filter.version, INT32_MAX},
        Number{"--port", "port that the server listens on", filter.port, UINT16_MAX},
        Number{"--pid", "process number", filter.pid, INT32_MAX},
    };
    for (const auto &[name, help, value, most] : numbers)
        command.add_option(name, value, help)->type_name("NUMBER")->check(CLI::Range(0, most).description(""));
    command.add_option("--proto", filter.transport, "transport")->type_name("udp|tcp")->check(one_of({"udp", "tcp"}));
    command.add_option("--uuid", filter.uuid_text, "the server's uuid")
        ->type_name("UUID")
        ->check(CLI::Validator(check_uuid, ""));
    command
        .add_option_function<std::string>(
            "--name",
            [&filter](const std::string &name) {
                filter.name = name;
                filter.has_name = true;
            },
            "the whole path under which the server is registered")
        ->type_name("PATH");
}

} // namespace

const std::vector<std::string> server_columns = {"prog", "vers", "proto", "address", "state", "pid", "uuid", "name"};

int list_servers(const ServerFilter &filter, const Settings &settings, Servers &servers) {
    if (!reach_broker(filter.host, RVZD_PROTOCOL_UDP, settings.timeout_s).answered)
        return exit_unreachable;
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(filter.host.c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    handle->tv_sec = settings.timeout_s;
    const auto status = fill(handle, filter, servers);
    rvzd_free_handle(handle);
    if (status == TBS_ST_OK)
        return exit_done;
    imsg_print(IMSG_ERROR, "The servers of host '%s' could not be listed: %s\n", IMSG_FORMAT, filter.host.c_str(),
               tbs_strerror(status));
    return exit_failed;
}

void add_server_list(CLI::App &group, Settings &settings, Command &chosen) {
    auto arguments = std::make_shared<Arguments>();
    CLI::App *command = group.add_subcommand("list", "List the servers of a host, all or those that pass every filter");
    command->add_option("HOST", arguments->filter.host, "host name")->type_name("")->required();
    add_filters(*command, arguments->filter);
    CLI::Option *watch =
        command->add_flag("--watch", arguments->watches, "go on, and show what changes, until interrupted");
    command->add_option("--interval", arguments->interval_s, "seconds between two looks")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->needs(watch)
        ->check(CLI::Range(1, 3600).description(""));
    add_common_options(*command, settings);
    command->footer(std::string(footer) + "\n" + exit_status_help);
    command->callback(
        [arguments, &chosen] { chosen = [arguments](const Settings &given) { return run_list(*arguments, given); }; });
}

} // namespace velia::cli
