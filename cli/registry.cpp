// veliactl registry: finding and listing entries.
#include <cli/registry.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>

#include <fmt/format.h>
#include <unistd.h>

#include <cli/choices.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

constexpr int64_t batch_max = 1000;
constexpr uint64_t progress_entries = 1000; // a scan that is longer shows how far it is

constexpr const char *find_footer = R"(Examples:
  veliactl registry find vault_tag --string tag=/vaults/src --region east
  veliactl registry find view_object --uuid view_uuid=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f
  veliactl registry find vault_tag --attr attributes:poolmap=/x
  veliactl registry find vault_tag --pattern '/vaults/*' --pattern '-owner=alice' --output json

A pattern is -ITEM=GLOB, or a GLOB for what names an entry, its tag or its name; one that matches is enough.
)";
constexpr const char *list_footer = R"(Examples:
  veliactl registry list regions
  veliactl registry list vault_tag --batch 500 --output json
)";

// A line on the terminal that is written over as the scan goes on.
class Progress {
public:
    Progress() : is_shown_(isatty(STDERR_FILENO) != 0) {}
    ~Progress() {
        if (is_begun_)
            std::cerr << '\r' << std::string(40, ' ') << '\r' << std::flush;
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void step() {
        if (!is_shown_ || ++entries_ % progress_entries != 0)
            return;
        is_begun_ = true;
        std::cerr << '\r' << entries_ << " entries" << std::flush;
    }

private:
    bool is_shown_;
    bool is_begun_ = false;
    uint64_t entries_ = 0;
};

template <class NameOf>
std::optional<uint32_t> index_of_name(const std::string &name, uint32_t count, NameOf &&name_of) {
    for (uint32_t i = 0; i < count; ++i)
        if (name == name_of(i))
            return i;
    return std::nullopt;
}

// "item:name=value" or "item:name".
struct Attribute {
    uint32_t item = 0;
    std::string name;
    std::string value;
};

std::optional<Attribute> attribute_of(const std::string &word) {
    const auto colon = word.find(':');
    const auto item = colon != std::string::npos ? item_of_name(word.substr(0, colon)) : std::nullopt;
    if (!item)
        return std::nullopt;
    const std::string rest = word.substr(colon + 1);
    const auto equals = rest.find('=');
    return Attribute{*item, rest.substr(0, equals), equals != std::string::npos ? rest.substr(equals + 1) : ""};
}

std::string check_attribute(const std::string &word) {
    return attribute_of(word) ? "" : "'" + word + "' is not ITEM:NAME or ITEM:NAME=VALUE";
}

// One call of the fetch that the search asks for.
tbs_status_t fetch(const Search &search, rgy_cursor_t **cursor, std::vector<rgy_entry_t *> &entries, int64_t *count) {
    const rgy_db_t db = *db_of_name(search.db); // checked with the command line
    const char *host = search.host.empty() ? nullptr : search.host.c_str();
    const char *region = search.region.empty() ? nullptr : search.region.c_str();
    const int64_t batch = search.batch;
    if (const auto key = item_value_of(search.string))
        return rgy_findbystring_entry(db, host, region, key->item, key->value.c_str(), cursor, batch, entries.data(),
                                      count);
    if (const auto key = item_value_of(search.uuid)) {
        tbs_uuid_t uuid = {};
        tbs_str_to_uuid(key->value.c_str(), &uuid);
        return rgy_findbyuuid_entry(db, host, region, key->item, &uuid, cursor, batch, entries.data(), count);
    }
    if (const auto attribute = attribute_of(search.attribute))
        return rgy_findbyattr_entry(db, host, region, attribute->item, attribute->name.c_str(),
                                    attribute->value.c_str(), cursor, batch, entries.data(), count);
    if (search.patterns.empty())
        return rgy_get_entry(db, host, region, cursor, batch, entries.data(), count);
    std::vector<const char *> patterns;
    for (const auto &pattern : search.patterns)
        patterns.push_back(pattern.c_str());
    return rgy_get_pattern_entry(db, host, region, patterns.data(), static_cast<int32_t>(patterns.size()), cursor,
                                 batch, entries.data(), count);
}

tbs_status_t take_batch(std::vector<rgy_entry_t *> &entries, int64_t count, Progress &progress,
                        const std::function<tbs_status_t(rgy_entry_t *)> &take) {
    tbs_status_t status = TBS_ST_OK;
    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
        if (status == TBS_ST_OK)
            status = take(entries[i]);
        rgy_delete_entry(&entries[i]);
        progress.step();
    }
    return status;
}

int print_entries(const Search &search, const Settings &settings) {
    Results results = new_entry_results();
    const auto status = each_entry(search, [&](rgy_entry_t *entry) {
        add_entry(*entry, results);
        return TBS_ST_OK;
    });
    if (status != TBS_ST_OK)
        return exit_status_of(status);
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

struct Verb {
    const char *name;
    const char *help;
    const char *footer;
    bool searches;
};

constexpr std::array verbs = {
    Verb{"find", "Find entries by a string, a uuid, an attribute or patterns", find_footer, true},
    Verb{"list", "List all entries of a database", list_footer, false},
};

void add_verb(CLI::App &group, const Verb &verb, Settings &settings, Command &chosen) {
    auto search = std::make_shared<Search>();
    CLI::App *command = group.add_subcommand(verb.name, verb.help);
    command->add_option("DB", search->db, "database, by name or number")
        ->type_name("")
        ->required()
        ->check(offering(db_names(), check_db));
    if (verb.searches)
        add_search_options(*command, *search);
    command->add_option("--region", search->region, "entries of this region and of none")->type_name("REGION");
    add_registry_host(*command, search->host);
    command->add_option("--batch", search->batch, "entries fetched at a time")
        ->type_name("COUNT")
        ->capture_default_str()
        ->check(CLI::Range(int64_t{1}, batch_max).description(""));
    add_common_options(*command, settings);
    command->footer(std::string(verb.footer) + "\n" + exit_status_help);
    command->callback(
        [search, &chosen] { chosen = [search](const Settings &given) { return print_entries(*search, given); }; });
}

} // namespace

std::optional<rgy_db_t> db_of_name(const std::string &name) {
    if (const auto db = index_of_name(name, RGY_DB_ALL, registry_db_name))
        return db;
    return index_of_name(name, RGY_DB_ALL, [](uint32_t db) { return std::to_string(db); });
}

std::optional<uint32_t> item_of_name(const std::string &name) {
    return index_of_name(name.starts_with('-') ? name : "-" + name, RGY_ITEM_COUNT, registry_item_name);
}

std::vector<std::string> db_names() {
    std::vector<std::string> names;
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        names.emplace_back(registry_db_name(db));
    return names;
}

std::string check_db(const std::string &name) {
    return db_of_name(name) ? "" : fmt::format("'{}' is no database; there are {}", name, fmt::join(db_names(), ", "));
}

std::optional<ItemValue> item_value_of(const std::string &word) {
    const auto equals = word.find('=');
    const auto item = equals != std::string::npos ? item_of_name(word.substr(0, equals)) : std::nullopt;
    return item ? std::optional(ItemValue{*item, word.substr(equals + 1)}) : std::nullopt;
}

std::string check_item_value(const std::string &word) {
    const auto key = item_value_of(word);
    if (!key)
        return "'" + word + "' is not ITEM=VALUE with a known item";
    return rgy_validate_string(key->value.c_str()) == TBS_ST_OK ? ""
                                                                : "a value holds neither a semicolon nor a line feed";
}

std::string check_item_uuid(const std::string &word) {
    const auto key = item_value_of(word);
    tbs_uuid_t uuid;
    return key && tbs_str_to_uuid(key->value.c_str(), &uuid) == TBS_ST_OK
               ? ""
               : "'" + word + "' is not ITEM=UUID with a known item";
}

void add_registry_host(CLI::App &command, std::string &host) {
    command.add_option("--host", host, "registry host (default: the configured one)")->type_name("HOST");
}

void add_search_options(CLI::App &command, Search &search) {
    CLI::App *ways = command.add_option_group("Search", "one of");
    ways->require_option(1);
    ways->add_option("--string", search.string, "entries whose item is this")
        ->type_name("ITEM=VALUE")
        ->check(CLI::Validator(check_item_value, ""));
    ways->add_option("--uuid", search.uuid, "entries whose item is this uuid")
        ->type_name("ITEM=UUID")
        ->check(CLI::Validator(check_item_uuid, ""));
    ways->add_option("--attr", search.attribute, "entries whose item has this attribute")
        ->type_name("ITEM:NAME[=VALUE]")
        ->check(CLI::Validator(check_attribute, ""));
    ways->add_option("--pattern", search.patterns, "entries that match; may be repeated")
        ->type_name("PATTERN")
        ->allow_extra_args(false);
}

tbs_status_t each_entry(const Search &search, const std::function<tbs_status_t(rgy_entry_t *)> &take) {
    std::vector<rgy_entry_t *> entries(static_cast<size_t>(search.batch));
    Progress progress;
    rgy_cursor_t *cursor = nullptr;
    tbs_status_t status = TBS_ST_OK;
    do {
        int64_t count = 0;
        status = fetch(search, &cursor, entries, &count);
        if (status == TBS_ST_OK && cursor != nullptr)
            status = take_batch(entries, count, progress, take);
    } while (status == TBS_ST_OK && cursor != nullptr);
    if (cursor != nullptr)
        rgy_close_cursor(&cursor);
    if (status != TBS_ST_OK)
        imsg_print(IMSG_ERROR, "The registry could not be read: %s\n", IMSG_FORMAT, tbs_strerror(status));
    return status;
}

Results new_entry_results() {
    return Results({"id", "registry", "items"});
}

void add_entry(const rgy_entry_t &entry, Results &results) {
    Cells items;
    for (int32_t i = 0; i < entry.flex.count; ++i)
        items.emplace_back(std::string(entry.flex.items[i].name) + "=" + entry.flex.items[i].value);
    results.add({entry.entry_id, entry.host, items});
}

int exit_status_of(tbs_status_t status) {
    switch (status) {
    case TBS_ST_OK:
        return exit_done;
    case TBS_ST_RPC_FAILED:
    case TBS_ST_NO_SERVER:
    case TBS_ST_TRY_AGAIN:
        return exit_unreachable;
    default:
        return exit_failed;
    }
}

void add_registry_commands(CLI::App &app, Settings &settings, Command &chosen) {
    CLI::App *group = app.add_subcommand("registry", "The tag registry");
    group->require_subcommand(1);
    group->footer(exit_status_help);
    for (const Verb &verb : verbs)
        add_verb(*group, verb, settings, chosen);
    add_registry_updates(*group, settings, chosen);
    add_registry_admin(*group, settings, chosen);
    add_registry_role(*group, settings, chosen);
    add_registry_site(*group, settings, chosen);
}

} // namespace velia::cli
