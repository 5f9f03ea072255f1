// veliactl server list: the servers of a host as its broker knows them.
#include <cli/server.h>

#include <array>
#include <memory>

#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/imsg.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

namespace {

struct Arguments {
    ServerFilter filter;
    bool watches = false;
    Duration interval = std::chrono::seconds(2);
};

Options filter_options(ServerFilter &filter) {
    constexpr Range number = {0, INT32_MAX};
    return {
        {.name = "--prog",
         .type = "NUMBER",
         .help = "RPC program number, decimal or 0x...",
         .target = &filter.program,
         .range = number},
        {.name = "--vers", .type = "NUMBER", .help = "RPC version number", .target = &filter.version, .range = number},
        {.name = "--port",
         .type = "NUMBER",
         .help = "port that the server listens on",
         .target = &filter.port,
         .range = Range{0, UINT16_MAX}},
        {.name = "--pid", .type = "NUMBER", .help = "process number", .target = &filter.pid, .range = number},
        {.name = "--proto", .type = "udp|tcp", .help = "transport", .target = &filter.transport, .words = transports},
        {.name = "--uuid",
         .type = "UUID",
         .help = "the server's uuid",
         .target = &filter.uuid_text,
         .fault = fault_of_uuid},
        {.name = "--name",
         .type = "PATH",
         .help = "the whole path under which the server is registered",
         .target = &filter.name},
    };
}

Options options_of(Arguments &arguments) {
    return joined({
        {{.name = "HOST", .help = "host name", .target = &arguments.filter.host, .is_required = true}},
        filter_options(arguments.filter),
        {{.name = "--watch", .help = "go on, and show what changes, until interrupted", .target = &arguments.watches},
         {.name = "--interval",
          .type = "SECONDS",
          .help = "seconds between two looks",
          .target = &arguments.interval,
          .range = Range{1, 3600 * 1000},
          .needs = "--watch",
          .shows_default = true}},
    });
}

int run_list(const Arguments &arguments, const Settings &settings);

constexpr const char *when_watching = "--watch";
constexpr Column columns[] = {{"time", Type::time, "when it was seen", false, when_watching},
                              {"change", Type::text, "present, started, ended or changed", false, when_watching},
                              {"prog", Type::integer, "RPC program number"},
                              {"vers", Type::integer, "RPC version number"},
                              {"proto", Type::text, "udp or tcp"},
                              {"address", Type::text, "where the server listens", true},
                              {"state", Type::text, "starting, idle, offered, busy or ending"},
                              {"pid", Type::integer, "process number"},
                              {"uuid", Type::text, "the server's uuid"},
                              {"name", Type::text, "the path under which it is registered"}};

constexpr const char *notes =
    R"(With --watch all servers are shown first, as "present", and then what changes: "started", "ended", "changed". A broker
that does not answer for a while is told, and asked again. An interrupt (Ctrl-C) ends it.
)";

constexpr Command commands[] = {
    {.path = "server list",
     .help = "List the servers of a host, all or those that pass every filter",
     .examples = {"veliactl server list build7", "veliactl server list build7 --prog 390600 --proto tcp --output table",
                  "veliactl server list build7 --watch --interval 1",
                  "veliactl server list build7 --watch --output jsonl | jq -r 'select(.change == \"ended\").pid'"},
     .notes = notes,
     .make = call_of<run_list, options_of>,
     .output = &watch_output},
};

constexpr std::array<const char *, 6> states = {"", "starting", "idle", "offered", "busy", "ending"};

Cell cell_of_state(int32_t state) {
    const auto index = static_cast<size_t>(state);
    return state > 0 && index < states.size() ? Cell(states[index]) : Cell(std::to_string(state));
}

Cell cell_of_transport(rvzd_protocol_in_t transport) {
    return transport == RVZD_PROTOCOL_UDP || transport == RVZD_PROTOCOL_TCP ? Cell(rvzd_protocol_names[transport])
                                                                            : Cell(std::to_string(transport));
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
    const bool has_uuid = !filter.uuid_text.empty();
    const tbs_uuid_t uuid = uuid_of(filter.uuid_text);
    const int32_t transport =
        filter.transport.empty() ? RVZD_SERVER_ANY : static_cast<int32_t>(protocol_of_name(filter.transport));
    List list;
    const auto status = rvzd_list_matching_servers(handle, filter.program, filter.version, transport, filter.port,
                                                   has_uuid ? &uuid : nullptr, filter.pid,
                                                   filter.name ? filter.name->c_str() : nullptr, &list.head);
    if (status != TBS_ST_OK)
        return status;
    for (llist_d_head_t *at = list.head.next; at != &list.head; at = at->next)
        servers.push_back(
            cells_of(handle, *static_cast<rvzd_server_entry_elem_t *>(reinterpret_cast<llist_d_elem_t *>(at)->owner)));
    return TBS_ST_OK;
}

int run_list(const Arguments &arguments, const Settings &settings) {
    if (arguments.watches)
        return watch_servers(arguments.filter, arguments.interval, settings);
    Servers servers;
    const int status = list_servers(arguments.filter, settings, servers);
    if (status != exit_done)
        return status;
    Results results(server_output, settings);
    for (auto &server : servers)
        results.add(std::move(server));
    results.finish();
    return exit_done;
}

} // namespace

const Output watch_output = {Output::Shape::list, columns};
const Output server_output = {Output::Shape::list, std::span(columns).subspan(2)};

int list_servers(const ServerFilter &filter, const Settings &settings, Servers &servers) {
    const Broker broker = reach_broker(filter.host, RVZD_PROTOCOL_UDP, settings.timeout);
    if (broker == nullptr)
        return exit_unreachable;
    const auto status = fill(broker.get(), filter, servers);
    if (status == TBS_ST_OK)
        return exit_done;
    tell_failure(status, filter.host, "The servers of host '%s' could not be listed: %s\n", filter.host.c_str(),
                 tbs_strerror(status));
    return exit_failed;
}

const Commands server_list_commands = commands;

} // namespace velia::cli
