// veliactl registry add and remove. A write tells what it would do with --dry-run, and does nothing then.
#include <cli/registry.h>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/imsg.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

namespace {

constexpr int tries_max = 10; // an add by somebody else makes the stamps of this one stale

struct Addition {
    std::string db;
    std::string host;
    std::vector<std::string> items;
    bool is_dry_run = false;
};

Options addition_options(Addition &addition) {
    return {
        db_place(addition.db),
        {.name = "ITEM=VALUE",
         .help = "items of the entry",
         .target = &addition.items,
         .beginnings = item_beginnings(),
         .fault = fault_of_item_value,
         .is_required = true},
        registry_host_option(addition.host),
        dry_run_option(addition.is_dry_run),
    };
}

struct Removal {
    Search search;
    bool is_dry_run = false;
};

Options removal_options(Removal &removal) {
    Search &search = removal.search;
    return joined(
        {{db_place(search.db)},
         ways_to_search(search),
         {region_option(search.region), registry_host_option(search.host), dry_run_option(removal.is_dry_run)}});
}

int add(const Addition &addition, const Settings &settings);
int remove(const Removal &removal, const Settings &settings);

constexpr Column add_columns[] = {{"action", Type::text, "added, or would add"},
                                  {"db", Type::text, "the database"},
                                  {"registry", Type::text, "host of the registry"},
                                  {"entry", Type::items, "its items by name"}};
constexpr Output add_output = {Output::Shape::one, add_columns};

constexpr Column remove_columns[] = {{"action", Type::text, "removed, or would remove"},
                                     {"db", Type::text, "the database"},
                                     {"id", Type::integer, "the entry's number"},
                                     {"registry", Type::text, "host of the registry"}};
constexpr Output remove_output = {Output::Shape::list, remove_columns};

constexpr Command commands[] = {
    {.path = "registry add",
     .help = "Add an entry",
     .examples = {"veliactl registry add regions name=east title='The eastern lab'",
                  "veliactl registry add vault_tag tag=/vaults/src region=east hostname=build7 --dry-run"},
     .make = call_of<add, addition_options>,
     .output = &add_output},
    {.path = "registry remove",
     .help = "Remove the entries that a search finds",
     .examples = {"veliactl registry remove regions --string name=east --dry-run",
                  "veliactl registry remove vault_object --uuid vault_replica=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f"},
     .make = call_of<remove, removal_options>,
     .output = &remove_output},
};

std::string flex_text_of(const std::vector<std::string> &items) {
    std::string text;
    for (const auto &word : items) {
        const auto item = item_value_of(word);
        text += std::string(registry_item_name(item->item)) + "=" + item->value + ";";
    }
    return text;
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
        tell_failure(status, host, "The entry was not added: %s\n", tbs_strerror(status));
    return status;
}

Cell items_of(const std::vector<std::string> &items, const std::string &text) {
    std::vector<std::string> names;
    Cells values;
    for (const auto &word : items) {
        const auto item = item_value_of(word);
        names.emplace_back(registry_item_name(item->item));
        values.push_back(item_cell(names.back(), item->value));
    }
    return Cell::object(std::move(names), std::move(values), text);
}

int add(const Addition &addition, const Settings &settings) {
    const auto host = settled_host(addition.host);
    if (!host)
        return exit_failed;
    const std::string text = flex_text_of(addition.items);
    const auto status =
        addition.is_dry_run ? tbs_status_t{TBS_ST_OK} : send_addition(*host, *db_of_name(addition.db), text);
    if (status != TBS_ST_OK)
        return exit_status_of(status);
    Results results(add_output, settings, addition.is_dry_run ? Results::Of::look : Results::Of::change);
    results.add({addition.is_dry_run ? "would add" : "added", addition.db, *host, items_of(addition.items, text)});
    results.finish();
    return exit_done;
}

int remove(const Removal &removal, const Settings &settings) {
    const rgy_db_t db = *db_of_name(removal.search.db);
    Results results(remove_output, settings, removal.is_dry_run ? Results::Of::look : Results::Of::change);
    bool is_found = false; // an entry, so that a later "not found" means one that somebody else has removed
    const auto take = [&](rgy_entry_t *entry) -> tbs_status_t {
        is_found = true;
        const auto removed = removal.is_dry_run ? tbs_status_t{TBS_ST_OK} : rgy_remove_entry(db, entry);
        if (removed == TBS_ST_OK)
            results.add(
                {removal.is_dry_run ? "would remove" : "removed", removal.search.db, entry->entry_id, entry->host});
        return removed;
    };
    const auto status = each_entry(removal.search, take, [&] { return results.pause(); });
    if (status != TBS_ST_OK)
        return is_found ? exit_status_of(status) : exit_status_of_request(status);
    if (results.empty()) {
        tell_failure(TBS_ST_NOT_FOUND, registry_of(removal.search.host), "No such entry\n");
        return exit_failed;
    }
    results.finish();
    return exit_done;
}

} // namespace

const Commands registry_update_commands = commands;

} // namespace velia::cli
