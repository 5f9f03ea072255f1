// veliactl registry dbs, stats, role, hosts, region: what a registry holds, how well its answers are kept, and how this
// host stands to it.
#include <cli/registry.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include <cli/choices.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

namespace {

constexpr size_t host_size = 64;

struct FreeText {
    void operator()(char *text) const { stg_free(text); }
};
using HeapText = std::unique_ptr<char, FreeText>;

HeapText configured_host() {
    char *host = nullptr;
    const auto status = rgy_get_server_host(1, 0, &host);
    if (status != TBS_ST_OK)
        imsg_print(IMSG_ERROR, "No registry host is configured: %s\n", IMSG_FORMAT, tbs_strerror(status));
    return HeapText(status == TBS_ST_OK ? host : nullptr);
}

int print_dbs(const std::string &given_host, const Settings &settings) {
    const HeapText configured = given_host.empty() ? configured_host() : HeapText();
    if (given_host.empty() && configured == nullptr)
        return exit_failed;
    const std::string host = given_host.empty() ? configured.get() : given_host;
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle(host.c_str(), &handle) != TBS_ST_OK)
        return exit_unreachable;
    std::array<rgy_db_info_t, RGY_DB_ALL> dbs = {};
    int64_t count = 0;
    const auto status = rvzd_rgy_get_db_list(handle, RGY_PROTOCOL_VERSION, RGY_DB_ALL, dbs.data(), &count);
    rvzd_free_handle(handle);
    if (status != TBS_ST_OK) {
        imsg_print(IMSG_ERROR, "The databases of the registry on host '%s' could not be had: %s\n", IMSG_FORMAT,
                   host.c_str(), tbs_strerror(status));
        return exit_status_of(status);
    }
    Results results({"db", "name", "entries", "stamp"});
    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
        const HeapText name(dbs[i].name);
        std::array<char, TBS_UUID_STR_SIZE> stamp;
        results.add(
            {dbs[i].db, name != nullptr ? name.get() : "", dbs[i].last, tbs_uuid_to_str(&dbs[i].uuid1, stamp.data())});
    }
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

struct Repetition {
    Search search;
    int64_t times = 10;
};

// The library prints its counters when the process ends, to whoever traces the registry.
void trace_counters() {
    setenv("VELIA_VERBOSITY", "3", 0);
    setenv("VELIA_TRACE", "registry:3", 0);
}

int look_up_repeatedly(const Repetition &repetition, const Settings &settings) {
    int64_t entries = 0;
    for (int64_t i = 0; i < repetition.times; ++i) {
        const auto status = each_entry(repetition.search, [&](rgy_entry_t *) {
            ++entries;
            return TBS_ST_OK;
        });
        if (status != TBS_ST_OK)
            return exit_status_of(status);
    }
    Results results({"lookups", "entries"});
    results.add({repetition.times, entries});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

int print_role(const Settings &settings) {
    struct FreePlain {
        void operator()(char *text) const { free(text); }
    };
    const std::unique_ptr<char, FreePlain> type(rgy_get_svr_type_str());
    Results results({"role"});
    results.add({type != nullptr && *type != '\0' ? type.get() : rgy_svrtype_table[RGY_SVR_NONE].text});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

int print_hosts(const Settings &settings) {
    std::array<char, host_size> master = {};
    std::array<char, host_size> backup = {};
    size_t length = 0;
    if (registry_prop_get_hostnames_local(master.size(), backup.size(), &length, &length, master.data(),
                                          backup.data()) != TBS_ST_OK) {
        imsg_print(IMSG_ERROR, "No registry host is configured in %s\n", IMSG_FORMAT,
                   registry_configuration_pathname());
        return exit_failed;
    }
    Results results({"master", "backup"});
    results.add({master.data(), backup.data()});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

// What is to be changed in the hosts file; a name that is not given stays as it is.
struct HostsChange {
    std::optional<std::string> master;
    std::optional<std::string> backup;
};

int change_hosts(const HostsChange &change, const Settings &settings) {
    for (const auto &[op, name] : {std::pair(RGY_CONF_SET_HOST, &change.master), {RGY_CONF_SET_BACKUP, &change.backup}})
        if (*name && rgy_clnt_conf_change(op, (*name)->c_str()) != TBS_ST_OK)
            return exit_failed;
    return print_hosts(settings);
}

void add_hosts(CLI::App &group, Settings &settings, Command &chosen, const std::string &footer) {
    auto change = std::make_shared<HostsChange>();
    CLI::App *command = group.add_subcommand("hosts", "Tell, or set, this host's registry and its backup");
    command->add_option("--master", change->master, "take this host's registry from now on")->type_name("HOST");
    command->add_option("--backup", change->backup, "and this one as its backup")->type_name("HOST");
    add_common_options(*command, settings);
    command->footer(footer);
    command->callback(
        [change, &chosen] { chosen = [change](const Settings &given) { return change_hosts(*change, given); }; });
}

int print_region(const Settings &settings) {
    std::array<char, RGY_REGION_SIZE> region = {};
    const auto status = rgy_fetch_default_region(region.size(), region.data());
    if (status != TBS_ST_OK) {
        imsg_print(IMSG_ERROR, "This host has no default region: %s\n", IMSG_FORMAT, tbs_strerror(status));
        return exit_failed;
    }
    Results results({"region"});
    results.add({region.data()});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

struct LocalVerb {
    const char *name;
    const char *help;
    const char *example;
    int (*run)(const Settings &);
};

constexpr std::array local_verbs = {
    LocalVerb{"role", "Tell which registry server this host is", "veliactl registry role", print_role},
    LocalVerb{"region", "Tell the default region of this host", "veliactl registry region --no-headers", print_region},
};

} // namespace

void add_registry_site(CLI::App &group, Settings &settings, Command &chosen) {
    auto host = std::make_shared<std::string>();
    CLI::App *dbs = group.add_subcommand("dbs", "List the databases of a registry");
    add_registry_host(*dbs, *host);
    add_common_options(*dbs, settings);
    dbs->footer(examples("veliactl registry dbs\n  veliactl registry dbs --host build7 --output table"));
    dbs->callback([host, &chosen] { chosen = [host](const Settings &given) { return print_dbs(*host, given); }; });

    auto repetition = std::make_shared<Repetition>();
    repetition->search.batch = 1;
    CLI::App *stats =
        group.add_subcommand("stats", "Look something up again and again, and show what the read cache made of it");
    stats->add_option("DB", repetition->search.db, "database, by name or number")
        ->type_name("")
        ->required()
        ->check(offering(db_names(), check_db));
    add_search_options(*stats, repetition->search);
    stats->add_option("--times", repetition->times, "look-ups")
        ->type_name("COUNT")
        ->capture_default_str()
        ->check(CLI::Range(int64_t{1}, int64_t{1000000}).description(""));
    add_registry_host(*stats, repetition->search.host);
    add_common_options(*stats, settings);
    stats->footer(examples("veliactl registry stats regions --string name=east --times 100"));
    stats->callback([repetition, &chosen] {
        trace_counters();
        chosen = [repetition](const Settings &given) { return look_up_repeatedly(*repetition, given); };
    });

    add_hosts(group, settings, chosen,
              examples("veliactl registry hosts --output json\n  veliactl registry hosts --master build8"));
    for (const LocalVerb &verb : local_verbs) {
        CLI::App *command = group.add_subcommand(verb.name, verb.help);
        add_common_options(*command, settings);
        command->footer(examples(verb.example));
        command->callback([run = verb.run, &chosen] { chosen = run; });
    }
}

} // namespace velia::cli
