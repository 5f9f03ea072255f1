// veliactl host and clients: what a broker tells of its host, and of the hosts that have used it.
#include <cli/commands.h>

#include <array>
#include <iostream>
#include <memory>

#include <fmt/format.h>

#include <cli/time_zone.h>
#include <support/date.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/rvzd_hosts.h>

namespace velia::cli {

namespace {

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

int print_info(const std::string &host, const Settings &settings) {
    clnt_hostinfo_t info = {};
    const auto status = rvzd_hostinfo_timeout(host.c_str(), settings.timeout_s, &info);
    if (status != TBS_ST_OK)
        return fail("The description", host, status);
    Results results(info_columns);
    results.add(cells_of(info));
    rvzd_hostinfo_free(info);
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

int print_time_zone(const std::string &host, int32_t year, const Settings &settings) {
    clnt_tz_info_t record = {};
    clnt_tz_info_t *info = &record;
    const auto status = rvzd_tzinfo(year, host.c_str(), &info);
    if (status != TBS_ST_OK)
        return fail("The time zone", host, status);
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

int list_clients(const std::string &host, const Settings &settings) {
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(host.c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    handle->tv_sec = settings.timeout_s;
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
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

int look_up_client(const std::string &host, const std::string &name, const Settings &settings) {
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(host.c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    handle->tv_sec = settings.timeout_s;
    clnt_entry_t entry = {};
    const auto status = rvzd_clnt_list_lookup(handle, name.c_str(), &entry);
    if (status == TBS_ST_OK) {
        Results results(client_columns());
        add_client(entry, results);
        rvzd_clnt_list_lookup_free(handle, &entry);
        results.print(settings.format, settings.with_headers, std::cout);
    }
    rvzd_free_handle(handle);
    if (status == TBS_ST_OK)
        return exit_done;
    imsg_print(IMSG_ERROR, "Host '%s' is not in the client list of '%s': %s\n", IMSG_FORMAT, name.c_str(), host.c_str(),
               tbs_strerror(status));
    return status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
}

struct Arguments {
    std::string host;
    std::string name;
    int32_t year = 0;
};

CLI::App *add_verb(CLI::App &group, const char *name, const char *help, const char *example, Arguments &arguments,
                   Settings &settings) {
    CLI::App *command = group.add_subcommand(name, help);
    command->add_option("HOST", arguments.host, "host of the broker")->type_name("")->required();
    add_common_options(*command, settings);
    command->footer(examples(example));
    return command;
}

} // namespace

void add_host_commands(CLI::App &app, Settings &settings, Command &chosen) {
    CLI::App *group = app.add_subcommand("host", "What a host tells of itself");
    group->require_subcommand(1);
    group->footer(exit_status_help);
    auto arguments = std::make_shared<Arguments>();
    add_verb(*group, "info", "Tell what a host is and runs", "veliactl host info build7 --output json", *arguments,
             settings)
        ->callback([arguments, &chosen] {
            chosen = [arguments](const Settings &given) { return print_info(arguments->host, given); };
        });
    CLI::App *zone =
        add_verb(*group, "tz", "Tell the time zone of a host", "veliactl host tz build7 2026", *arguments, settings);
    zone->add_option("YEAR", arguments->year, "year of the changes (default: this one)")->type_name("");
    zone->callback([arguments, &chosen] {
        chosen = [arguments](const Settings &given) {
            return print_time_zone(arguments->host, year_or_current(arguments->year), given);
        };
    });
}

void add_client_commands(CLI::App &app, Settings &settings, Command &chosen) {
    CLI::App *group = app.add_subcommand("clients", "The hosts that have used a broker");
    group->require_subcommand(1);
    group->footer(exit_status_help);
    auto arguments = std::make_shared<Arguments>();
    add_verb(*group, "list", "List them all", "veliactl clients list build7 --output table", *arguments, settings)
        ->callback([arguments, &chosen] {
            chosen = [arguments](const Settings &given) { return list_clients(arguments->host, given); };
        });
    CLI::App *lookup = add_verb(*group, "lookup", "Look one up by its name", "veliactl clients lookup build7 pluto",
                                *arguments, settings);
    lookup->add_option("NAME", arguments->name, "host name")->type_name("")->required();
    lookup->callback([arguments, &chosen] {
        chosen = [arguments](const Settings &given) { return look_up_client(arguments->host, arguments->name, given); };
    });
}

} // namespace velia::cli
