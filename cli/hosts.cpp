// veliactl host and clients: what a broker tells of its host, and of the hosts that have used it.
#include <cli/commands.h>

#include <array>
#include <memory>

#include <cli/broker.h>
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

constexpr Command commands[] = {
    {.path = "host", .help = "What a host tells of itself"},
    {.path = "host info",
     .help = "Tell what a host is and runs",
     .examples = {"veliactl host info build7 --output json"},
     .make = call_of<print_info, host_options>},
    {.path = "host tz",
     .help = "Tell the time zone of a host",
     .examples = {"veliactl host tz build7 2026"},
     .make = call_of<print_time_zone, zone_options>},
    {.path = "clients", .help = "The hosts that have used a broker"},
    {.path = "clients list",
     .help = "List them all",
     .examples = {"veliactl clients list build7 --output table"},
     .make = call_of<list_clients, host_options>},
    {.path = "clients lookup",
     .help = "Look one up by its name",
     .examples = {"veliactl clients lookup build7 pluto"},
     .make = call_of<look_up_client, lookup_options>},
};

int fail(const char *what, const std::string &host, tbs_status_t status) {
    imsg_print(IMSG_ERROR, "%s of host '%s' could not be had: %s\n", IMSG_FORMAT, what, host.c_str(),
               tbs_strerror(status));
    return status == TBS_ST_RPC_FAILED || status == TBS_ST_NOT_FOUND ? exit_unreachable : exit_failed;
}

Cell text_cell(const char *text) {
    return text != nullptr && *text != '\0' ? Cell(text) : Cell();
}

const std::vector<std::string> info_columns = {"host",    "product",       "version", "os",     "os_version",
                                               "machine", "registry_host", "region",  "options"};

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
    Results results(info_columns);
    results.add(cells_of(info));
    rvzd_hostinfo_free(info);
    print(results, settings);
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

std::vector<std::string> client_columns() {
    std::vector<std::string> columns = {"address", "last_contact"};
    columns.insert(columns.end(), info_columns.begin(), info_columns.end());
    return columns;
}

void add_client(const clnt_entry_t &entry, Results &results) {
    std::array<char, SYSUTL_ADDRESS_TEXT_SIZE> address = {};
    sysutl_host_numeric(&entry.address.base, address.size(), address.data(), 0, 0);
    Cells cells = {text_cell(address.data()),
                   entry.registry_time != 0 ? Cell(date_fmt_token_date_time(entry.registry_time)) : Cell()};
    for (auto &cell : cells_of(entry.hostinfo))
        cells.push_back(std::move(cell));
    results.add(std::move(cells));
}

int list_clients(const Arguments &arguments, const Settings &settings) {
    const std::string &host = arguments.host;
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(host.c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    set_timeout(handle, settings.timeout);
    Results results(client_columns());
    int32_t position = 0;
    tbs_boolean_t finished = 0;
    tbs_status_t status = TBS_ST_OK;
    while (status == TBS_ST_OK && !finished) {
        uint32_t count = 0;
        clnt_entry_t *entries = nullptr;
        const int32_t before = position;
        status = rvzd_clnt_list_get(handle, 0, 0, &position, &finished, &count, &entries);
        const std::unique_ptr<clnt_entry_t, FreeEntries> owner(entries, {count});
        for (uint32_t i = 0; status == TBS_ST_OK && i < count; ++i)
            add_client(entries[i], results);
        if (status == TBS_ST_OK && !finished && position <= before)
            status = TBS_ST_ERROR; // a list that makes no progress has no end
    }
    rvzd_free_handle(handle);
    if (status != TBS_ST_OK)
        return fail("The client list", host, status);
    print(results, settings);
    return exit_done;
}

int look_up_client(const Arguments &arguments, const Settings &settings) {
    const auto &[host, name, year] = arguments;
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(host.c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    set_timeout(handle, settings.timeout);
    clnt_entry_t entry = {};
    const auto status = rvzd_clnt_list_lookup(handle, name.c_str(), &entry);
    if (status == TBS_ST_OK) {
        Results results(client_columns());
        add_client(entry, results);
        rvzd_clnt_list_lookup_free(handle, &entry);
        print(results, settings);
    }
    rvzd_free_handle(handle);
    if (status == TBS_ST_OK)
        return exit_done;
    imsg_print(IMSG_ERROR, "Host '%s' is not in the client list of '%s': %s\n", IMSG_FORMAT, name.c_str(), host.c_str(),
               tbs_strerror(status));
    return status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
}

} // namespace

const Commands host_commands = commands;

} // namespace velia::cli
