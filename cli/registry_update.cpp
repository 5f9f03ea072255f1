// veliactl registry add, update and remove. A write tells what it would do with --dry-run, and does nothing then.
#include <cli/registry.h>

#include <algorithm>

#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/registry_bulk.h>
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

struct Update {
    Search search;
    std::vector<std::string> set;
    std::vector<std::string> unset;
    bool is_dry_run = false;
};

std::string fault_of_item(const std::string &name) {
    return item_of_name(name) ? "" : "'" + name + "' is no item";
}

Options update_options(Update &update) {
    Search &search = update.search;
    return joined({{db_place(search.db)},
                   ways_to_search(search),
                   {{.name = "--set",
                     .type = "ITEM=VALUE",
                     .help = "what the item is from now on; may be repeated",
                     .target = &update.set,
                     .beginnings = item_beginnings(),
                     .fault = fault_of_item_value},
                    {.name = "--unset",
                     .type = "ITEM",
                     .help = "an item that goes; may be repeated",
                     .target = &update.unset,
                     .fault = fault_of_item},
                    region_option(search.region),
                    registry_host_option(search.host),
                    dry_run_option(update.is_dry_run)}});
}

int add(const Addition &addition, const Settings &settings);
int update_entry(const Update &update, const Settings &settings);
int remove(const Removal &removal, const Settings &settings);

constexpr Column add_columns[] = {{"action", Type::text, "added, or would add"},
                                  {"db", Type::text, "the database"},
                                  {"registry", Type::text, "host of the registry"},
                                  {"entry", Type::items, "its items by name"}};
constexpr Output add_output = {Output::Shape::one, add_columns};

constexpr Column update_columns[] = {{"action", Type::text, "updated, or would update"},
                                     {"db", Type::text, "the database"},
                                     {"id", Type::integer, "the entry's number, which it keeps"},
                                     {"registry", Type::text, "host of the registry"},
                                     {"items", Type::items, "its items as they are then"}};
constexpr Output update_output = {Output::Shape::one, update_columns};

constexpr const char *update_notes =
    R"(The search has to find one entry. It is changed in one step, and not at all if somebody else has changed the database
since it was found; then it is looked for again.
)";

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
    {.path = "registry update",
     .help = "Change items of one entry",
     .examples = {"veliactl registry update regions --string name=east --set title='The eastern lab' --dry-run",
                  "veliactl registry update vault_tag --string tag=/vaults/src --region east --unset title"},
     .notes = update_notes,
     .make = call_of<update_entry, update_options>,
     .output = &update_output},
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

// An entry as it is to be.
struct Updated {
    uint64_t id = 0;
    std::string host;
    rgy_dtm_pair_t stamps = {};
    std::vector<std::string> items; // "-name=value"
};

bool has_name(const std::string &item, const std::string &name) {
    return item.starts_with(name + "=");
}

std::string name_of_item(const std::string &word) {
    return registry_item_name(*item_of_name(word.substr(0, word.find('='))));
}

// The first of that name is changed where it stands, and others of it go.
void put_item(std::vector<std::string> &items, const std::string &name, const std::optional<std::string> &value) {
    const auto first = std::find_if(items.begin(), items.end(), [&](const auto &item) { return has_name(item, name); });
    auto rest = first;
    if (value && first == items.end()) {
        items.push_back(name + "=" + *value);
        return;
    }
    if (value)
        *rest++ = name + "=" + *value;
    items.erase(std::remove_if(rest, items.end(), [&](const auto &item) { return has_name(item, name); }), items.end());
}

Updated updated(const rgy_entry_t &entry, const Update &update) {
    Updated result = {entry.entry_id, entry.host, entry.dtm, {}};
    for (int32_t i = 0; i < entry.flex.count; ++i)
        result.items.push_back(std::string(entry.flex.items[i].name) + "=" + entry.flex.items[i].value);
    for (const auto &word : update.unset)
        put_item(result.items, name_of_item(word), std::nullopt);
    for (const auto &word : update.set)
        put_item(result.items, name_of_item(word), item_value_of(word)->value);
    return result;
}

// Nothing, and told, unless it is one.
std::optional<Updated> find_one(const Update &update, int &exit_status) {
    std::vector<Updated> found;
    const auto status = each_entry(update.search, [&](rgy_entry_t *entry) {
        found.push_back(updated(*entry, update));
        return TBS_ST_OK;
    });
    exit_status = status == TBS_ST_OK ? exit_failed : exit_status_of_request(status);
    if (status != TBS_ST_OK)
        return std::nullopt;
    if (found.size() == 1)
        return found[0];
    if (found.empty())
        tell_failure(TBS_ST_NOT_FOUND, registry_of(update.search.host), "No such entry\n");
    else
        tell_failure(TBS_ST_INVALID_ARG, registry_of(update.search.host), "There are %zu such entries, not one\n",
                     found.size());
    return std::nullopt;
}

tbs_status_t send_update(const Updated &entry, rgy_db_t db, const Settings &settings) {
    const Broker registry = reach_broker(entry.host, RVZD_PROTOCOL_TCP, settings.timeout, As::caller);
    if (registry == nullptr)
        return TBS_ST_NO_SERVER;
    std::string text;
    for (const auto &item : entry.items)
        text += item + ";";
    Changes changes(registry.get(), db, Changes::As::pieces, RGY_CHANGE_IF_UNCHANGED, settings.timeout, entry.stamps);
    const auto status = changes.add(entry.id, text);
    return status == TBS_ST_OK ? changes.finish() : status;
}

Cell items_of(const Updated &entry) {
    std::vector<std::string> names;
    Cells values;
    for (const auto &item : entry.items) {
        names.push_back(item.substr(0, item.find('=')));
        values.push_back(item_cell(names.back(), item.substr(item.find('=') + 1)));
    }
    return Cell::object(std::move(names), std::move(values));
}

int update_entry(const Update &update, const Settings &settings) {
    tbs_status_t status = TBS_ST_STALE_ID;
    std::optional<Updated> entry;
    for (int tries = 0; status == TBS_ST_STALE_ID && tries < tries_max; ++tries) {
        int exit_status = exit_failed;
        entry = find_one(update, exit_status);
        if (!entry)
            return exit_status;
        status =
            update.is_dry_run ? tbs_status_t{TBS_ST_OK} : send_update(*entry, *db_of_name(update.search.db), settings);
    }
    if (status != TBS_ST_OK) {
        tell_failure(status, entry->host, "The entry was not changed: %s\n", tbs_strerror(status));
        return exit_status_of(status);
    }
    Results results(update_output, settings, update.is_dry_run ? Results::Of::look : Results::Of::change);
    results.add(
        {update.is_dry_run ? "would update" : "updated", update.search.db, entry->id, entry->host, items_of(*entry)});
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
