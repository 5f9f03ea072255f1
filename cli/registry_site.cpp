// veliactl registry dbs, stats, role, hosts, region: what a registry holds, how well its answers are kept, and how this
// host stands to it.
#include <cli/registry.h>

#include <array>
#include <cstdlib>
#include <memory>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

namespace {

constexpr size_t host_size = 64;

struct Registry {
    std::string host;
};

Options registry_options(Registry &registry) {
    return {registry_host_option(registry.host)};
}

struct Repetition {
    Search search;
    int64_t times = 10;

    Repetition() { search.batch = 1; }
};

Options repetition_options(Repetition &repetition) {
    Search &search = repetition.search;
    return joined({{db_place(search.db)},
                   ways_to_search(search),
                   {{.name = "--times",
                     .type = "COUNT",
                     .help = "look-ups",
                     .target = &repetition.times,
                     .range = Range{1, 1000000},
                     .shows_default = true},
                    registry_host_option(search.host)}});
}

// What is to be changed in the hosts file; a name that is not given stays as it is.
struct HostsChange {
    std::optional<std::string> master;
    std::optional<std::string> backup;
};

Options change_options(HostsChange &change) {
    return {
        {.name = "--master", .type = "HOST", .help = "take this host's registry from now on", .target = &change.master},
        {.name = "--backup", .type = "HOST", .help = "and this one as its backup", .target = &change.backup},
    };
}

int print_dbs(const Registry &registry, const Settings &settings);
int look_up_repeatedly(const Repetition &repetition, const Settings &settings);
int change_hosts(const HostsChange &change, const Settings &settings);
int print_role(const NoArguments &arguments, const Settings &settings);
int print_region(const NoArguments &arguments, const Settings &settings);

constexpr Column dbs_columns[] = {{"db", Type::integer, "its number"},
                                  {"name", Type::text, "its name"},
                                  {"entries", Type::integer, "how many it has"},
                                  {"stamp", Type::text, "a uuid that changes with the database"}};
constexpr Output dbs_output = {Output::Shape::list, dbs_columns};
constexpr Column stats_columns[] = {{"lookups", Type::integer, "how often it was looked up"},
                                    {"entries", Type::integer, "how many were found in all"}};
constexpr Output stats_output = {Output::Shape::one, stats_columns};
constexpr Column hosts_columns[] = {{"master", Type::text, "host of the registry"},
                                    {"backup", Type::text, "its backup; empty for none"}};
constexpr Output hosts_output = {Output::Shape::one, hosts_columns};
constexpr Column role_columns[] = {{"role", Type::text, "of this host as a registry server"}};
constexpr Output role_output = {Output::Shape::one, role_columns};
constexpr Column region_columns[] = {{"region", Type::text, "this host's default"}};
constexpr Output region_output = {Output::Shape::one, region_columns};

constexpr Command commands[] = {
    {.path = "registry dbs",
     .help = "List the databases of a registry",
     .examples = {"veliactl registry dbs", "veliactl registry dbs --host build7 --output table"},
     .make = call_of<print_dbs, registry_options>,
     .output = &dbs_output},
    {.path = "registry stats",
     .help = "Look something up again and again, and show what the read cache made of it",
     .examples = {"veliactl registry stats regions --string name=east --times 100"},
     .make = call_of<look_up_repeatedly, repetition_options>,
     .output = &stats_output},
    {.path = "registry hosts",
     .help = "Tell, or set, this host's registry and its backup",
     .examples = {"veliactl registry hosts --output json", "veliactl registry hosts --master build8"},
     .make = call_of<change_hosts, change_options>,
     .output = &hosts_output},
    {.path = "registry role",
     .help = "Tell which registry server this host is",
     .examples = {"veliactl registry role"},
     .make = call_of<print_role, no_options>,
     .output = &role_output},
    {.path = "registry region",
     .help = "Tell the default region of this host",
     .examples = {"veliactl registry region --no-headers"},
     .make = call_of<print_region, no_options>,
     .output = &region_output},
};

struct FreeText {
    void operator()(char *text) const { stg_free(text); }
};
using HeapText = std::unique_ptr<char, FreeText>;

int print_dbs(const Registry &registry, const Settings &settings) {
    const auto host = settled_host(registry.host);
    if (!host)
        return exit_failed;
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(host->c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    std::array<rgy_db_info_t, RGY_DB_ALL> dbs = {};
    int64_t count = 0;
    const auto status = rvzd_rgy_get_db_list(handle, RGY_PROTOCOL_VERSION, RGY_DB_ALL, dbs.data(), &count);
    rvzd_free_handle(handle);
    if (status != TBS_ST_OK) {
        tell_failure(status, *host, "The databases of the registry on host '%s' could not be had: %s\n", host->c_str(),
                     tbs_strerror(status));
        return exit_status_of(status);
    }
    Results results(dbs_output, settings);
    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
        const HeapText name(dbs[i].name);
        std::array<char, TBS_UUID_STR_SIZE> stamp;
        results.add(
            {dbs[i].db, name != nullptr ? name.get() : "", dbs[i].last, tbs_uuid_to_str(&dbs[i].uuid1, stamp.data())});
    }
    results.finish();
    return exit_done;
}

// The library prints its counters when the process ends, to whoever traces the registry.
void trace_counters() {
    setenv("VELIA_VERBOSITY", "3", 0);
    setenv("VELIA_TRACE", "registry:3", 0);
}

int look_up_repeatedly(const Repetition &repetition, const Settings &settings) {
    trace_counters();
    int64_t entries = 0;
    for (int64_t i = 0; i < repetition.times; ++i) {
        const auto status = each_entry(repetition.search, [&](rgy_entry_t *) {
            ++entries;
            return TBS_ST_OK;
        });
        if (status != TBS_ST_OK)
            return exit_status_of_request(status);
    }
    Results results(stats_output, settings);
    results.add({repetition.times, entries});
    results.finish();
    return exit_done;
}

int print_role(const NoArguments & /*arguments*/, const Settings &settings) {
    struct FreePlain {
        void operator()(char *text) const { free(text); }
    };
    const std::unique_ptr<char, FreePlain> type(rgy_get_svr_type_str());
    Results results(role_output, settings);
    results.add({type != nullptr && *type != '\0' ? type.get() : rgy_svrtype_table[RGY_SVR_NONE].text});
    results.finish();
    return exit_done;
}

int print_hosts(const Settings &settings, Results::Of of) {
    std::array<char, host_size> master = {};
    std::array<char, host_size> backup = {};
    size_t length = 0;
    if (registry_prop_get_hostnames_local(master.size(), backup.size(), &length, &length, master.data(),
                                          backup.data()) != TBS_ST_OK) {
        tell_failure(TBS_ST_NOT_SET, "", "No registry host is configured in %s\n", registry_configuration_pathname());
        return exit_failed;
    }
    Results results(hosts_output, settings, of);
    results.add({master.data(), backup.data()});
    results.finish();
    return exit_done;
}

int change_hosts(const HostsChange &change, const Settings &settings) {
    for (const auto &[op, name] : {std::pair(RGY_CONF_SET_HOST, &change.master), {RGY_CONF_SET_BACKUP, &change.backup}})
        if (*name && rgy_clnt_conf_change(op, (*name)->c_str()) != TBS_ST_OK)
            return exit_failed;
    return print_hosts(settings, change.master || change.backup ? Results::Of::change : Results::Of::look);
}

int print_region(const NoArguments & /*arguments*/, const Settings &settings) {
    std::array<char, RGY_REGION_SIZE> region = {};
    const auto status = rgy_fetch_default_region(region.size(), region.data());
    if (status != TBS_ST_OK) {
        tell_failure(status, "", "This host has no default region: %s\n", tbs_strerror(status));
        return exit_failed;
    }
    Results results(region_output, settings);
    results.add({region.data()});
    results.finish();
    return exit_done;
}

} // namespace

const Commands registry_site_commands = commands;

} // namespace velia::cli
