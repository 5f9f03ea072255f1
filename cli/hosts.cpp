// veliactl host and clients: what a broker tells of its host, and of the hosts that have used it.
#include <cli/commands.h>

#include <array>
#include <memory>

#include <cli/broker.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/time_zone.h>
#include <support/date.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/rvzd_hosts.h>

namespace velia::cli {

namespace {

struct Arguments {
    std::string host;
    std::string name;
    int32_t year = 0;
};

Options host_options(Arguments &arguments) {
    return {{.name = "HOST", .help = "host of the broker", .target = &arguments.host, .is_required = true}};
}

Options zone_options(Arguments &arguments) {
    return joined({host_options(arguments), {year_option(arguments.year)}});
}

Options lookup_options(Arguments &arguments) {
    return joined({host_options(arguments),
                   {{.name = "NAME", .help = "host name", .target = &arguments.name, .is_required = true}}});
}

int print_info(const Arguments &arguments, const Settings &settings);
int print_time_zone(const Arguments &arguments, const Settings &settings);
int list_clients(const Arguments &arguments, const Settings &settings);
int look_up_client(const Arguments &arguments, const Settings &settings);

#define INFO_COLUMNS                                                                                                   \
    {"host", Type::text, "the host's name for itself", true}, {"product", Type::text, "what it runs of ours", true},   \
        {"version", Type::text, "of the product", true}, {"os", Type::text, "its operating system", true},             \
        {"os_version", Type::text, "of the operating system", true}, {"machine", Type::text, "kind of machine", true}, \
        {"registry_host", Type::text, "whose registry it uses", true},                                                 \
        {"region", Type::text, "its default region", true}, {                                                          \
        "options", Type::text, "what else it tells, as words", true                                                    \
    }

constexpr Column info_columns[] = {INFO_COLUMNS};
constexpr Output info_output = {Output::Shape::one, info_columns};

constexpr Column client_columns[] = {{"address", Type::text, "under which the broker saw it", true},
                                     {"last_contact", Type::time, "when it was heard of last", true},
                                     INFO_COLUMNS};
constexpr Output client_output = {Output::Shape::one, client_columns};
constexpr Output clients_output = {Output::Shape::list, client_columns};

constexpr Command commands[] = {
    {.path = "host", .help = "What a host tells of itself"},
    {.path = "host info",
     .help = "Tell what a host is and runs",
     .examples = {"veliactl host info build7 --output json"},
     .make = call_of<print_info, host_options>,
     .output = &info_output},
    {.path = "host tz",
     .help = "Tell the time zone of a host",
     .examples = {"veliactl host tz build7 2026"},
     .make = call_of<print_time_zone, zone_options>,
     .output = &zone_output},
    {.path = "clients", .help = "The hosts that have used a broker"},
    {.path = "clients list",
     .help = "List them all",
     .examples = {"veliactl clients list build7 --output table"},
     .make = call_of<list_clients, host_options>,
     .output = &clients_output},
    {.path = "clients lookup",
     .help = "Look one up by its name",
     .examples = {"veliactl clients lookup build7 pluto"},
     .make = call_of<look_up_client, lookup_options>,
     .output = &client_output},
};

int fail(const char *what, const std::string &host, tbs_status_t status) {
    tell_failure(status, host, "%s of host '%s' could not be had: %s\n", what, host.c_str(), tbs_strerror(status));
    return status == TBS_ST_RPC_FAILED || status == TBS_ST_NOT_FOUND ? exit_unreachable : exit_failed;
}

Cell text_cell(const char *text) {
    return text != nullptr && *text != '\0' ? Cell(text) : Cell();
}

Cells cells_of(const clnt_hostinfo_t &info) {
    return {text_cell(info.hostname),      text_cell(info.product),   text_cell(info.version),
            text_cell(info.osname),        text_cell(info.osversion), text_cell(info.machine),
            text_cell(info.registry_host), text_cell(info.region),    text_cell(info.options)};
}

int print_info(const Arguments &arguments, const Settings &settings) {
    const std::string &host = arguments.host;
    clnt_hostinfo_t info = {};
    const auto status = rvzd_hostinfo_timeout(host.c_str(), whole_seconds(settings.timeout), &info);
    if (status != TBS_ST_OK)
        return fail("The description", host, status);
    Results results(info_output, settings);
    results.add(cells_of(info));
    rvzd_hostinfo_free(info);
    results.finish();
    return exit_done;
}

int print_time_zone(const Arguments &arguments, const Settings &settings) {
    const int32_t year = year_or_current(arguments.year);
    clnt_tz_info_t record = {};
    clnt_tz_info_t *info = &record;
    const auto status = rvzd_tzinfo(year, arguments.host.c_str(), &info);
    if (status != TBS_ST_OK)
        return fail("The time zone", arguments.host, status);
    print_zone(record, year, settings);
    return exit_done;
}

struct FreeEntries {
    uint32_t count;
    void operator()(clnt_entry_t *entries) const {
        for (uint32_t i = 0; i < count; ++i)
            rvzd_hostinfo_free(entries[i].hostinfo);
        stg_free(entries);
    }
};

void add_client(const clnt_entry_t &entry, Results &results) {
    std::array<char, SYSUTL_ADDRESS_TEXT_SIZE> address = {};
    sysutl_host_numeric(&entry.address.base, address.size(), address.data(), 0, 0);
    Cells cells = {text_cell(address.data()),
                   time_cell(entry.registry_time, date_fmt_token_date_time(entry.registry_time))};
    for (auto &cell : cells_of(entry.hostinfo))
        cells.push_back(std::move(cell));
    results.add(std::move(cells));
}

int list_clients(const Arguments &arguments, const Settings &settings) {
    const std::string &host = arguments.host;
    const Broker broker = reach_broker(host, RVZD_PROTOCOL_UDP, settings.timeout);
    if (broker == nullptr)
        return exit_unreachable;
    Results results(clients_output, settings);
    int32_t position = 0;
    tbs_boolean_t finished = 0;
    tbs_status_t status = TBS_ST_OK;
    while (status == TBS_ST_OK && !finished && results.pause()) {
        uint32_t count = 0;
        clnt_entry_t *entries = nullptr;
        const int32_t before = position;
        status = rvzd_clnt_list_get(broker.get(), 0, 0, &position, &finished, &count, &entries);
        const std::unique_ptr<clnt_entry_t, FreeEntries> owner(entries, {count});
        for (uint32_t i = 0; status == TBS_ST_OK && i < count; ++i)
            add_client(entries[i], results);
        if (status == TBS_ST_OK && !finished && position <= before)
            status = TBS_ST_ERROR; // a list that makes no progress has no end
    }
    if (status != TBS_ST_OK)
        return fail("The client list", host, status);
    results.finish();
    return exit_done;
}

int look_up_client(const Arguments &arguments, const Settings &settings) {
    const auto &[host, name, year] = arguments;
    const Broker broker = reach_broker(host, RVZD_PROTOCOL_UDP, settings.timeout);
    if (broker == nullptr)
        return exit_unreachable;
    clnt_entry_t entry = {};
    const auto status = rvzd_clnt_list_lookup(broker.get(), name.c_str(), &entry);
    if (status == TBS_ST_OK) {
        Results results(client_output, settings);
        add_client(entry, results);
        rvzd_clnt_list_lookup_free(broker.get(), &entry);
        results.finish();
    }
    if (status == TBS_ST_OK)
        return exit_done;
    tell_failure(status, host, "Host '%s' is not in the client list of '%s': %s\n", name.c_str(), host.c_str(),
                 tbs_strerror(status));
    return status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
}

} // namespace

const Commands host_commands = commands;

} // namespace velia::cli
