// veliactl registry plan and apply: databases made what a file says.
#include <cli/registry.h>

#include <algorithm>
#include <array>
#include <unordered_map>

#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/entry_file.h>
#include <cli/messages.h>
#include <cli/registry_bulk.h>
#include <cli/results.h>
#include <cli/waits.h>
#include <veliaxdr/rgy_identity.h>
#include <veliaxdr/rgy_site.h>

namespace velia::cli {

namespace {

struct Wanted {
    std::string file;
    std::string host;
    bool is_whole = false;
};

Options wanted_options(Wanted &wanted) {
    return {{.name = "-f,--file",
             .type = "FILE",
             .help = "entries, one a line as export writes them; - for standard input",
             .target = &wanted.file,
             .is_required = true},
            {.name = "--prune",
             .help = "remove entries that the file does not have, of the databases that it has some of",
             .target = &wanted.is_whole},
            registry_host_option(wanted.host)};
}

int plan_entries(const Wanted &wanted, const Settings &settings);
int apply_entries(const Wanted &wanted, const Settings &settings);

constexpr Column columns[] = {
    {"action", Type::text, "add, change or remove"},   {"db", Type::text, "the database"},
    {"id", Type::integer, "the entry's number", true}, {"entry", Type::text, "what it is known by"},
    {"item", Type::text, "that changes", true},        {"before", Type::text, "its value", true},
    {"after", Type::text, "what it is to be", true},   {"line", Type::integer, "of the file", true}};
constexpr Output output = {Output::Shape::list, columns};

constexpr Command commands[] = {
    {.path = "registry plan",
     .help = "Tell what has to be done so that the registry is as a file says",
     .examples = {"veliactl registry plan -f site.jsonl", "veliactl registry plan -f site.jsonl --prune --output json"},
     .notes = "Exit status 0: there is nothing to do; 4: there is.\n",
     .make = call_of<plan_entries, wanted_options>,
     .output = &output},
    {.path = "registry apply",
     .help = "Make the registry as a file says: each database whole or not at all",
     .examples = {"veliactl registry apply -f site.jsonl", "veliactl registry apply -f site.jsonl --prune"},
     .notes =
         R"(An entry is known by its uuid, or by its name, as the registry knows it. What registry plan tells is done in one step
for each database, unless that has changed meanwhile.
)",
     .make = call_of<apply_entries, wanted_options>,
     .output = &output},
};

#define IDENTITY(DB, FIRST, SECOND) std::array<uint32_t, 2>{FIRST, SECOND},
constexpr std::array identities = {RGY_ENTRY_IDENTITIES(IDENTITY)};
#undef IDENTITY
static_assert(identities.size() == RGY_DB_ALL);

struct PlannedEntry {
    EntryLine before; // no text: it is added
    EntryLine after;  // no text: it is removed
    uint64_t line = 0;
};

struct PlannedDb {
    rgy_db_t db = 0;
    rgy_dtm_pair_t stamps = {};
    std::vector<PlannedEntry> entries;
};

std::string value_of(const std::vector<EntryItem> &items, const std::string &name) {
    for (const auto &item : items)
        if (item.name == name)
            return item.values.back();
    return "";
}

// One spelling for a uuid.
std::string spelled(const std::string &value) {
    tbs_uuid_t uuid;
    std::array<char, TBS_UUID_STR_SIZE> text;
    return tbs_str_to_uuid(value.c_str(), &uuid) == TBS_ST_OK ? tbs_uuid_to_str(&uuid, text.data()) : value;
}

// What an entry is known by: "name=east"; the whole text of one without a name.
std::string key_of(const EntryLine &entry) {
    const auto items = entry_items(entry.flex_text).value_or(std::vector<EntryItem>());
    std::string key;
    for (const uint32_t item : identities[entry.db]) {
        const std::string name = item < RGY_ITEM_COUNT ? registry_item_name(item) + 1 : "";
        const std::string value = name.empty() ? "" : spelled(value_of(items, name));
        if (key.empty() && value.empty())
            return entry.flex_text;
        if (!value.empty())
            key.append(key.empty() ? "" : " ").append(name).append("=").append(value);
    }
    return key;
}

// False, and told, for an entry that the file has twice.
bool plan_db(const Wanted &wanted, const Database &there, const std::vector<NumberedEntry> &entries, PlannedDb &plan) {
    std::unordered_map<std::string, const EntryLine *> standing;
    for (const auto &entry : there.entries)
        standing[key_of(entry)] = &entry;
    std::unordered_map<std::string, uint64_t> lines;
    bool is_good = true;
    for (const auto &[entry, line] : entries) {
        const std::string key = key_of(entry);
        const auto [first, is_new] = lines.try_emplace(key, line);
        const auto found = standing.find(key);
        if (!is_new) {
            tell_failure(TBS_ST_ALREADY_EXISTS, "", "%s:%llu: '%s' stands in line %llu, too\n", wanted.file.c_str(),
                         static_cast<unsigned long long>(line), key.c_str(),
                         static_cast<unsigned long long>(first->second));
            is_good = false;
        } else if (found == standing.end()) {
            plan.entries.push_back({{}, entry, line});
        } else if (found->second->flex_text != entry.flex_text) {
            plan.entries.push_back({*found->second, entry, line});
        }
    }
    for (const auto &entry : there.entries)
        if (wanted.is_whole && !lines.contains(key_of(entry)))
            plan.entries.push_back({entry, {}, 0});
    return is_good;
}

int plan_all(const Wanted &wanted, rvzd_handle_t *registry, const std::string &host, const EntriesOfDbs &entries,
             std::vector<PlannedDb> &plans) {
    bool is_good = true;
    for (const auto &[db, of_db] : entries) {
        Database there;
        const auto status = read_database(registry, db, there);
        if (status != TBS_ST_OK) {
            tell_failure(status, host, "The registry could not be read: %s\n", tbs_strerror(status));
            return exit_status_of_request(status);
        }
        plans.push_back({db, there.stamps, {}});
        is_good = plan_db(wanted, there, of_db, plans.back()) && is_good;
    }
    return is_good ? exit_done : exit_failed;
}

std::string joined_values(const std::vector<EntryItem> &items, const std::string &name) {
    for (const auto &item : items)
        if (item.name == name)
            return joined(item.values, ",");
    return "";
}

void show_change(const PlannedEntry &planned, Results &results) {
    const auto before = entry_items(planned.before.flex_text).value_or(std::vector<EntryItem>());
    const auto after = entry_items(planned.after.flex_text).value_or(std::vector<EntryItem>());
    const auto show = [&](const std::string &name, Cell was, Cell is) {
        results.add({"change", registry_db_name(planned.after.db), planned.before.id, key_of(planned.after), name,
                     std::move(was), std::move(is), planned.line});
    };
    bool is_shown = false;
    const auto has = [](const std::vector<EntryItem> &items, const std::string &name) {
        return std::any_of(items.begin(), items.end(), [&](const auto &item) { return item.name == name; });
    };
    for (const auto &item : before)
        if (const auto value = joined_values(after, item.name);
            value != joined(item.values, ",") || !has(after, item.name)) {
            show(item.name, joined(item.values, ","), has(after, item.name) ? Cell(value) : Cell());
            is_shown = true;
        }
    for (const auto &item : after)
        if (!has(before, item.name)) {
            show(item.name, Cell(), joined(item.values, ","));
            is_shown = true;
        }
    if (!is_shown) // their order
        show("", planned.before.flex_text, planned.after.flex_text);
}

void show(const PlannedEntry &planned, Results &results) {
    if (planned.before.flex_text.empty())
        results.add({"add", registry_db_name(planned.after.db), Cell(), key_of(planned.after), Cell(), Cell(), Cell(),
                     planned.line});
    else if (planned.after.flex_text.empty())
        results.add({"remove", registry_db_name(planned.before.db), planned.before.id, key_of(planned.before), Cell(),
                     Cell(), Cell(), Cell()});
    else
        show_change(planned, results);
}

// Removals first, so that what they leave is free.
tbs_status_t carry_out(const PlannedDb &plan, rvzd_handle_t *registry, const Settings &settings) {
    Changes changes(registry, plan.db, Changes::As::one_or_steps, RGY_CHANGE_IF_UNCHANGED, settings.timeout,
                    plan.stamps);
    tbs_status_t status = TBS_ST_OK;
    for (const bool is_removal : {true, false})
        for (const auto &planned : plan.entries)
            if (status == TBS_ST_OK && planned.after.flex_text.empty() == is_removal) {
                begin_wait(settings.timeout);
                status = changes.add(planned.before.id, planned.after.flex_text);
            }
    status = status == TBS_ST_OK ? changes.finish() : status;
    if (status != TBS_ST_OK && changes.are_steps() && changes.sent() > 0)
        imsg_print(
            IMSG_WARNING,
            "This registry makes one change after the other: %llu of %zu are made. See \"registry plan\" for the "
            "others.\n",
            IMSG_FORMAT, static_cast<unsigned long long>(changes.sent()), plan.entries.size());
    return status;
}

// The registry, and the plans; the body says how the command ends.
template <class Body>
int with_plans(const Wanted &wanted, const Settings &settings, Body &&body) {
    EntriesOfDbs entries;
    if (const int status = read_entry_file(wanted.file, entries); status != exit_done)
        return status;
    const auto host = settled_host(wanted.host);
    if (!host)
        return exit_failed;
    const Broker registry = reach_broker(*host, RVZD_PROTOCOL_TCP, settings.timeout, As::caller);
    if (registry == nullptr)
        return exit_unreachable; // and told
    std::vector<PlannedDb> plans;
    const int status = plan_all(wanted, registry.get(), *host, entries, plans);
    return status == exit_done ? body(registry.get(), *host, plans) : status;
}

int plan_entries(const Wanted &wanted, const Settings &settings) {
    return with_plans(wanted, settings, [&](rvzd_handle_t *, const std::string &, const std::vector<PlannedDb> &plans) {
        Results results(output, settings);
        for (const auto &plan : plans)
            for (const auto &planned : plan.entries)
                show(planned, results);
        const bool is_done = results.empty();
        results.finish();
        return is_done ? int{exit_done} : int{exit_changes};
    });
}

int apply_entries(const Wanted &wanted, const Settings &settings) {
    return with_plans(wanted, settings,
                      [&](rvzd_handle_t *registry, const std::string &host, const std::vector<PlannedDb> &plans) {
                          Results results(output, settings, Results::Of::change);
                          for (const auto &plan : plans) {
                              const auto status = carry_out(plan, registry, settings);
                              if (status != TBS_ST_OK) {
                                  tell_failure(status, host, "%s was not changed: %s\n", registry_db_name(plan.db),
                                               tbs_strerror(status));
                                  return exit_status_of(status);
                              }
                              for (const auto &planned : plan.entries)
                                  show(planned, results);
                          }
                          results.finish();
                          return int{exit_done};
                      });
}

} // namespace

const Commands registry_apply_commands = commands;

} // namespace velia::cli
