// veliactl daemon status: what a daemon tells of itself and of its registry.
#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/site.h>
#include <support/date.h>
#include <support/imsg.h>
#include <veliaxdr/rvzd_procedure_names.hpp>

namespace velia::cli {

namespace {

struct Arguments {
    std::string host;
};

Options options_of(Arguments &arguments) {
    return {{.name = "HOST", .help = "host of the daemon", .target = &arguments.host, .is_required = true}};
}

int print_status(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {
    {"host", Type::text, "the daemon's host, by its own name"},
    {"version", Type::text, "of its program"},
    {"started", Type::time, "when it was started"},
    {"uptime_s", Type::integer, "seconds since then"},
    {"role", Type::text, "which registry server it is"},
    {"takes_updates", Type::text, "yes or no: of the registry"},
    {"term", Type::integer, "of the registry's data; 0: of no master that began one"},
    {"master", Type::text, "whose term that is", true},
    {"superseded_by", Type::text, "the master of a higher term, because of which no updates are taken", true},
    {"source", Type::text, "whom a standby copies from", true},
    {"looked", Type::time, "when a standby asked it last", true},
    {"lag_s", Type::integer, "seconds since a standby was last as its master is", true},
    {"failure", Type::text, "why a standby's last look was in vain, or a master's database is not reached", true},
    {"connections", Type::integer, "that are open"},
    {"connections_max", Type::integer, "that may be"},
    {"services", Type::integer, "that are configured"},
    {"servers", Type::integer, "processes of them"},
    {"servers_busy", Type::integer, "of these, those at work"},
    {"entries", Type::integer, "of the registry"},
    {"store_bytes", Type::integer, "of the registry's file"},
    {"log_bytes", Type::integer, "of the log beside it"},
    {"requests", Type::items,
     "by procedure: how often it was called, the median and the 99th percentile of its answers in microseconds"}};
constexpr Output output = {Output::Shape::one, columns};

constexpr Command commands[] = {
    {.path = "daemon", .help = "The daemon of a host"},
    {.path = "daemon status",
     .help = "Tell how the daemon of a host is, and its registry",
     .examples = {"veliactl daemon status build7", "veliactl daemon status build7 --output json | jq .lag_s"},
     .make = call_of<print_status, options_of>,
     .output = &output},
};

Cell requests_cell(const rvzd_daemon_status_reply_t &status) {
    std::vector<std::string> names;
    std::vector<Cell> values;
    for (uint32_t i = 0; i < status.count; ++i) {
        const auto &row = status.procedures[i];
        names.push_back(procedure_name(row.number));
        values.push_back(
            Cell(std::to_string(row.calls) + "/" + std::to_string(row.median_us) + "/" + std::to_string(row.p99_us)));
    }
    return Cell::object(std::move(names), std::move(values));
}

Cell moment(int64_t seconds) {
    return seconds > 0 ? time_cell(seconds, date_fmt_token_date_time(seconds)) : Cell();
}

void add_status(const rvzd_daemon_status_reply_t &status, const rvzd_registry_state_reply_t &state, Results &results) {
    const bool is_copy = state.role != RGY_SVR_MASTER && state.role != RGY_SVR_NONE;
    const auto of_copy = [&](Cell cell) { return is_copy ? std::move(cell) : Cell(); };
    results.add({status.host,
                 status.version,
                 moment(status.started),
                 status.now - status.started,
                 name_of_role(state.role),
                 state.takes_updates != 0 ? "yes" : "no",
                 state.term,
                 text_or_none(state.master),
                 state.role == RGY_SVR_MASTER ? text_or_none(state.heard_host) : Cell(),
                 of_copy(text_or_none(state.source)),
                 of_copy(moment(state.looked)),
                 of_copy(state.current > 0 ? Cell(state.now - state.current) : Cell()),
                 text_or_none(state.failure),
                 status.connections,
                 status.connections_max,
                 status.services,
                 status.servers,
                 status.servers_busy,
                 status.registry_entries,
                 status.registry_bytes,
                 status.registry_log_bytes,
                 requests_cell(status)});
}

int print_status(const Arguments &arguments, const Settings &settings) {
    const std::string &host = arguments.host;
    const Broker daemon = reach_broker(host, RVZD_PROTOCOL_TCP, settings.timeout);
    if (daemon == nullptr)
        return exit_unreachable;
    rvzd_daemon_status_reply_t reply = {};
    const auto status = rvzd_daemon_status(daemon.get(), &reply);
    RegistryState state;
    const auto state_status = status == TBS_ST_OK ? state.ask(daemon.get()) : status;
    if (state_status != TBS_ST_OK) {
        rvzd_daemon_status_free(&reply);
        tell_failure(state_status, host, "The state of the daemon on host '%s' could not be had: %s\n", host.c_str(),
                     tbs_strerror(state_status));
        return state_status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
    }
    Results results(output, settings);
    add_status(reply, *state, results);
    rvzd_daemon_status_free(&reply);
    results.finish();
    return exit_done;
}

} // namespace

const Commands daemon_commands = commands;

} // namespace velia::cli
