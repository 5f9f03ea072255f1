// veliactl acl: who may do what with the jobs of a host.
#include <cli/commands.h>

#include <array>
#include <sstream>

#include <cli/jobs.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/xdr_prims.h>
#include <veliaxdr/sched_access.h>

namespace velia::cli {

namespace {

struct Arguments {
    std::string host;
    std::vector<std::string> entries;
    bool is_dry_run = false;
};

constexpr std::array kind_names = {"everyone", "user", "group"}; // by TBS_ACL_EVERYONE and its kin

// What a scheduler calls its permissions.
struct Names {
    uint32_t count = 0;
    strutl_flag_item_t *items = nullptr;
    tbs_acl_generic_map_t map = {};
};

std::string fault_of_entry(const std::string &text) {
    const std::string whom = text.substr(0, text.find_first_of(":="));
    const bool is_kind = whom == kind_names[TBS_ACL_USER] || whom == kind_names[TBS_ACL_GROUP];
    const bool is_good =
        text.find('=') != std::string::npos &&
        (whom == kind_names[TBS_ACL_EVERYONE] ? text[whom.size()] == '=' : is_kind && text[whom.size()] == ':');
    return is_good ? "" : "'" + text + "' is no entry, as everyone=read, user:anna=read,run or group:staff=change";
}

Options show_options(Arguments &arguments) {
    return job_host_options(arguments.host);
}

Options set_options(Arguments &arguments) {
    return joined({job_host_options(arguments.host),
                   {{.name = "ENTRY",
                     .help = "everyone=read, user:anna=read,run, group:staff=change; the list is these, and no others",
                     .target = &arguments.entries,
                     .fault = fault_of_entry,
                     .is_required = true},
                    {.name = "--dry-run", .help = "only tell what would be done", .target = &arguments.is_dry_run}}});
}

int show_acl(const Arguments &arguments, const Settings &settings);
int set_acl(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {{"kind", Type::text, "everyone, user or group"},
                              {"identity", Type::text, "of the user or group", true},
                              {"permissions", Type::texts, "what they may, by the scheduler's names"}};
constexpr Output output = {Output::Shape::list, columns};

constexpr Command commands[] = {
    {.path = "acl", .help = "Who may do what with the jobs of a host"},
    {.path = "acl show",
     .help = "Tell the access control list",
     .examples = {"veliactl acl show build7"},
     .make = call_of<show_acl, show_options>,
     .output = &output},
    {.path = "acl set",
     .help = "Set the access control list",
     .examples = {"veliactl acl set build7 everyone=read group:operators=change,run --dry-run"},
     .make = call_of<set_acl, set_options>,
     .output = &output},
};

std::vector<Cell> permission_cells(const Names &names, tbs_acl_permission_set_t permissions) {
    std::vector<Cell> cells;
    for (uint32_t i = 0; i < names.count; ++i)
        if ((permissions & names.items[i].value) != 0)
            cells.emplace_back(names.items[i].name);
    return cells;
}

void print_list(const tbs_acl_t *list, const Names &names, const Settings &settings, Results::Of of) {
    Results results(output, settings, of);
    for (uint32_t i = 0; list != nullptr && i < list->count; ++i) {
        const auto &entry = list->entries[i];
        const bool has_identity = entry.identity != nullptr && *entry.identity != '\0';
        results.add({kind_names.at(entry.kind < kind_names.size() ? entry.kind : 0),
                     has_identity ? Cell(entry.identity) : Cell(), permission_cells(names, entry.permissions)});
    }
    results.finish();
}

// Opens the scheduler, asks for the names and hands both over.
template <class Body>
int with_names(const Arguments &arguments, const Settings &settings, Body &&body) {
    int exit_status = exit_done;
    const auto scheduler = open_scheduler(arguments.host, settings, exit_status);
    if (scheduler == nullptr)
        return exit_status;
    Names names;
    const auto status = sched_get_app_perms(scheduler.get(), &names.items, &names.count, &names.map);
    exit_status = status == TBS_ST_OK ? body(scheduler, names)
                                      : fail_of_scheduler(status, arguments.host, "The permissions cannot be had");
    sched_free_app_perms(scheduler.get(), &names.items, names.count, &names.map);
    return exit_status;
}

int show_acl(const Arguments &arguments, const Settings &settings) {
    return with_names(arguments, settings, [&](const SchedulerHandle &scheduler, const Names &names) {
        tbs_acl_h_t list = nullptr;
        const auto status = sched_get_acl(scheduler.get(), &list);
        if (status == TBS_ST_OK)
            print_list(list, names, settings, Results::Of::look);
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_tbs_acl_h_t), &list);
        return status == TBS_ST_OK ? int{exit_done}
                                   : fail_of_scheduler(status, arguments.host, "The list cannot be had");
    });
}

// An entry taken apart, with what it points to.
struct Entry {
    uint32_t kind = TBS_ACL_EVERYONE;
    std::string identity;
    tbs_acl_permission_set_t permissions = 0;
};

bool read_permissions(const std::string &text, const Names &names, tbs_acl_permission_set_t &permissions) {
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');) {
        uint32_t i = 0;
        while (i < names.count && word != names.items[i].name)
            ++i;
        if (i == names.count) {
            tell_failure(TBS_ST_INVALID_ARG, "", "'%s' is no permission of this scheduler\n", word.c_str());
            return false;
        }
        permissions |= static_cast<tbs_acl_permission_set_t>(names.items[i].value);
    }
    return true;
}

bool read_entry(const std::string &text, const Names &names, Entry &entry) {
    const auto equals = text.find('=');
    const auto colon = text.substr(0, equals).find(':');
    if (colon != std::string::npos) {
        entry.kind = text.starts_with(kind_names[TBS_ACL_USER]) ? TBS_ACL_USER : TBS_ACL_GROUP;
        entry.identity = text.substr(colon + 1, equals - colon - 1);
    }
    return read_permissions(text.substr(equals + 1), names, entry.permissions);
}

int set_acl(const Arguments &arguments, const Settings &settings) {
    return with_names(arguments, settings, [&](const SchedulerHandle &scheduler, const Names &names) {
        std::vector<Entry> entries(arguments.entries.size());
        std::vector<tbs_acl_entry_t> records;
        for (size_t i = 0; i < entries.size(); ++i) {
            if (!read_entry(arguments.entries[i], names, entries[i]))
                return int{exit_usage};
            records.push_back({entries[i].kind, entries[i].identity.data(), entries[i].permissions});
        }
        tbs_acl_t list = {static_cast<uint32_t>(records.size()), records.data()};
        const auto status = arguments.is_dry_run ? tbs_status_t{TBS_ST_OK} : sched_set_acl(scheduler.get(), &list);
        if (status != TBS_ST_OK)
            return fail_of_scheduler(status, arguments.host, "The list cannot be set");
        print_list(&list, names, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
        return int{exit_done};
    });
}

} // namespace

const Commands acl_commands = commands;

} // namespace velia::cli
