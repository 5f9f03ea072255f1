// The registry's names on a command line: databases, items, and the options that several commands have.
#include <cli/registry.h>

#include <algorithm>
#include <array>

#include <veliaxdr/rgy_site.h>

namespace velia::cli {

namespace {

constexpr const char *attribute_beginnings[] = {"attributes:"}; // the item that has some

template <class NameOf>
std::optional<uint32_t> index_of_name(const std::string &name, uint32_t count, NameOf &&name_of) {
    for (uint32_t i = 0; i < count; ++i)
        if (name == name_of(i))
            return i;
    return std::nullopt;
}

std::string fault_of_attribute(const std::string &word) {
    return attribute_of(word) ? "" : "'" + word + "' is not ITEM:NAME or ITEM:NAME=VALUE";
}

std::string fault_of_item_uuid(const std::string &word) {
    const auto key = item_value_of(word);
    tbs_uuid_t uuid;
    return key && tbs_str_to_uuid(key->value.c_str(), &uuid) == TBS_ST_OK
               ? ""
               : "'" + word + "' is not ITEM=UUID with a known item";
}

Choices db_names() {
    static const auto names = [] {
        std::array<const char *, RGY_DB_ALL> all = {};
        for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
            all[db] = registry_db_name(db);
        return all;
    }();
    return names;
}

} // namespace

std::optional<Attribute> attribute_of(const std::string &word) {
    const auto colon = word.find(':');
    const auto item = colon != std::string::npos ? item_of_name(word.substr(0, colon)) : std::nullopt;
    if (!item)
        return std::nullopt;
    const std::string rest = word.substr(colon + 1);
    const auto equals = rest.find('=');
    return Attribute{*item, rest.substr(0, equals), equals != std::string::npos ? rest.substr(equals + 1) : ""};
}

std::optional<rgy_db_t> db_of_name(const std::string &name) {
    if (const auto db = index_of_name(name, RGY_DB_ALL, registry_db_name))
        return db;
    return index_of_name(name, RGY_DB_ALL, [](uint32_t db) { return std::to_string(db); });
}

std::optional<uint32_t> item_of_name(const std::string &name) {
    return index_of_name(name.starts_with('-') ? name : "-" + name, RGY_ITEM_COUNT, registry_item_name);
}

std::string fault_of_db(const std::string &name) {
    return db_of_name(name)
               ? ""
               : "'" + name + "' is no database; there are " + joined({db_names().begin(), db_names().end()}, ", ");
}

std::optional<ItemValue> item_value_of(const std::string &word) {
    const auto equals = word.find('=');
    const auto item = equals != std::string::npos ? item_of_name(word.substr(0, equals)) : std::nullopt;
    return item ? std::optional(ItemValue{*item, word.substr(equals + 1)}) : std::nullopt;
}

std::string fault_of_item_value(const std::string &word) {
    const auto key = item_value_of(word);
    if (!key)
        return "'" + word + "' is not ITEM=VALUE with a known item";
    return rgy_validate_string(key->value.c_str()) == TBS_ST_OK ? ""
                                                                : "a value holds neither a semicolon nor a line feed";
}

Option db_place(std::string &db) {
    return {.name = "DB",
            .help = "database, by name or number",
            .target = &db,
            .words = db_names(),
            .fault = fault_of_db,
            .is_required = true};
}

Option registry_host_option(std::string &host) {
    return {.name = "--host", .type = "HOST", .help = "registry host (default: the configured one)", .target = &host};
}

Option region_option(std::string &region) {
    return {.name = "--region", .type = "REGION", .help = "entries of this region and of none", .target = &region};
}

Option dry_run_option(bool &is_dry_run) {
    return {.name = "--dry-run", .help = "tell what would be done, and do nothing", .target = &is_dry_run};
}

Choices item_beginnings() {
    static const auto texts = [] {
        std::vector<std::string> all;
        for (uint32_t item = 0; item < RGY_ITEM_COUNT; ++item)
            all.push_back(std::string(registry_item_name(item)).substr(1) + "=");
        return all;
    }();
    static const auto beginnings = [] {
        std::vector<const char *> all(texts.size());
        std::transform(texts.begin(), texts.end(), all.begin(), [](const auto &text) { return text.c_str(); });
        return all;
    }();
    return beginnings;
}

Options ways_to_search(Search &search) {
    constexpr const char *group = "Search";
    return {
        {.name = "--string",
         .type = "ITEM=VALUE",
         .help = "entries whose item is this",
         .target = &search.string,
         .beginnings = item_beginnings(),
         .fault = fault_of_item_value,
         .one_of = group},
        {.name = "--uuid",
         .type = "ITEM=UUID",
         .help = "entries whose item is this uuid",
         .target = &search.uuid,
         .beginnings = item_beginnings(),
         .fault = fault_of_item_uuid,
         .one_of = group},
        {.name = "--attr",
         .type = "ITEM:NAME[=VALUE]",
         .help = "entries whose item has this attribute",
         .target = &search.attribute,
         .beginnings = attribute_beginnings,
         .fault = fault_of_attribute,
         .one_of = group},
        {.name = "--pattern",
         .type = "PATTERN",
         .help = "entries that match; may be repeated",
         .target = &search.patterns,
         .one_of = group},
    };
}

} // namespace velia::cli
