// veliactl registry add and remove. A write tells what it would do with --dry-run, and does nothing then.
#include <cli/registry.h>

#include <iostream>
#include <memory>

#include <cli/choices.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

namespace {

constexpr int tries_max = 10; // an add by somebody else makes the stamps of this one stale

constexpr const char *add_footer = R"(Examples:
  veliactl registry add regions name=east title='The eastern lab'
  veliactl registry add vault_tag tag=/vaults/src region=east hostname=build7 --dry-run
)";
constexpr const char *remove_footer = R"(Examples:
  veliactl registry remove regions --string name=east --dry-run
  veliactl registry remove vault_object --uuid vault_replica=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f
)";

struct Addition {
    std::string db;
    std::string host;
    std::vector<std::string> items;
    bool is_dry_run = false;
};

struct FreeText {
    void operator()(char *text) const { stg_free(text); }
};

std::string flex_text_of(const std::vector<std::string> &items) {
    std::string text;
    for (const auto &word : items) {
        const auto item = item_value_of(word);
        text += std::string(registry_item_name(item->item)) + "=" + item->value + ";";
    }
    return text;
}

// The host that was given, or the configured one; empty and told when there is none.
std::string registry_host(const std::string &given) {
    if (!given.empty())
        return given;
    char *host = nullptr;
    const auto status = rgy_get_server_host(1, 0, &host);
    if (status != TBS_ST_OK)
        imsg_print(IMSG_ERROR, "No registry host is configured: %s\n", IMSG_FORMAT, tbs_strerror(status));
    const std::unique_ptr<char, FreeText> owner(host);
    return status == TBS_ST_OK ? host : "";
}

tbs_status_t add_once(rvzd_handle_t *handle, rgy_db_t db, const std::string &text) {
    rgy_dtm_pair_t stamps = {};
    const auto status = rvzd_rgy_get_id(handle, db, RGY_PROTOCOL_VERSION, &stamps);
    return status == TBS_ST_OK ? rvzd_rgy_add_entry(handle, db, RGY_PROTOCOL_VERSION, &stamps, text.c_str()) : status;
}

tbs_status_t send_addition(const std::string &host, rgy_db_t db, const std::string &text) {
    rvzd_handle_t *handle = nullptr;
    auto status = rvzd_get_handle_prim(host.c_str(), 1, &handle);
    if (status != TBS_ST_OK)
        return TBS_ST_NO_SERVER; // told by the library
    int tries = 0;
    do
        status = add_once(handle, db, text);
    while (status == TBS_ST_STALE_ID && ++tries < tries_max);
    rvzd_free_handle(handle);
    if (status != TBS_ST_OK)
        imsg_print(IMSG_ERROR, "The entry was not added: %s\n", IMSG_FORMAT, tbs_strerror(status));
    return status;
}

int add(const Addition &addition, const Settings &settings) {
    const std::string host = registry_host(addition.host);
    if (host.empty())
        return exit_failed;
    const std::string text = flex_text_of(addition.items);
    const auto status =
        addition.is_dry_run ? tbs_status_t{TBS_ST_OK} : send_addition(host, *db_of_name(addition.db), text);
    if (status != TBS_ST_OK)
        return exit_status_of(status);
    Results results({"action", "db", "registry", "entry"});
    results.add({addition.is_dry_run ? "would add" : "added", addition.db, host, text});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

struct Removal {
    Search search;
    bool is_dry_run = false;
};

int remove(const Removal &removal, const Settings &settings) {
    const rgy_db_t db = *db_of_name(removal.search.db);
    Results results({"action", "db", "id", "registry"});
    const auto status = each_entry(removal.search, [&](rgy_entry_t *entry) -> tbs_status_t {
        const auto removed = removal.is_dry_run ? tbs_status_t{TBS_ST_OK} : rgy_remove_entry(db, entry);
        if (removed == TBS_ST_OK)
            results.add(
                {removal.is_dry_run ? "would remove" : "removed", removal.search.db, entry->entry_id, entry->host});
        return removed;
    });
    // What was removed before a failure is gone, and told.
    results.print(settings.format, settings.with_headers, std::cout);
    if (status != TBS_ST_OK)
        return exit_status_of(status);
    if (results.empty())
        imsg_print(IMSG_ERROR, "No such entry\n", IMSG_FORMAT);
    return results.empty() ? exit_failed : exit_done;
}

void add_db_argument(CLI::App &command, std::string &db) {
    command.add_option("DB", db, "database, by name or number")
        ->type_name("")
        ->required()
        ->check(offering(db_names(), check_db));
}

} // namespace

void add_registry_updates(CLI::App &group, Settings &settings, Command &chosen) {
    auto addition = std::make_shared<Addition>();
    CLI::App *adding = group.add_subcommand("add", "Add an entry");
    add_db_argument(*adding, addition->db);
    adding->add_option("ITEM=VALUE", addition->items, "items of the entry")
        ->type_name("")
        ->required()
        ->check(CLI::Validator(check_item_value, ""));
    add_registry_host(*adding, addition->host);
    adding->add_flag("--dry-run", addition->is_dry_run, "tell what would be done, and do nothing");
    add_common_options(*adding, settings);
    adding->footer(std::string(add_footer) + "\n" + exit_status_help);
    adding->callback(
        [addition, &chosen] { chosen = [addition](const Settings &given) { return add(*addition, given); }; });

    auto removal = std::make_shared<Removal>();
    CLI::App *removing = group.add_subcommand("remove", "Remove the entries that a search finds");
    add_db_argument(*removing, removal->search.db);
    add_search_options(*removing, removal->search);
    removing->add_option("--region", removal->search.region, "entries of this region and of none")->type_name("REGION");
    add_registry_host(*removing, removal->search.host);
    removing->add_flag("--dry-run", removal->is_dry_run, "tell what would be done, and do nothing");
    add_common_options(*removing, settings);
    removing->footer(std::string(remove_footer) + "\n" + exit_status_help);
    removing->callback(
        [removal, &chosen] { chosen = [removal](const Settings &given) { return remove(*removal, given); }; });
}

} // namespace velia::cli
