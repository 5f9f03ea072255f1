// What the registry's commands share: names of databases and items, and a scan as rows.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <cli/command.h>
#include <cli/output.h>
#include <veliaxdr/rgy_fetch.h>

namespace velia::cli {

// By its name or number; by its key with or without the hyphen.
std::optional<rgy_db_t> db_of_name(const std::string &name);
std::optional<uint32_t> item_of_name(const std::string &name);

// What is wrong with the name of a database.
std::string fault_of_db(const std::string &name);

// "item=value" taken apart; nothing for an unknown item or a missing "=".
struct ItemValue {
    uint32_t item = 0;
    std::string value;
};
std::optional<ItemValue> item_value_of(const std::string &word);
std::string fault_of_item_value(const std::string &word);

// "item:name=value" or "item:name" taken apart.
struct Attribute {
    uint32_t item = 0;
    std::string name;
    std::string value;
};
std::optional<Attribute> attribute_of(const std::string &word);

// What a command looks for; all of a database if nothing is given.
struct Search {
    std::string db;
    std::string host; // empty: the configured registry
    std::string region;
    std::string string;
    std::string uuid;
    std::string attribute;
    std::vector<std::string> patterns;
    int64_t batch = 100;
};

// The options that several commands have.
Option db_place(std::string &db);
Option registry_host_option(std::string &host);
Option region_option(std::string &region);
Option dry_run_option(bool &is_dry_run);
Options ways_to_search(Search &search); // of which one is chosen
Choices item_beginnings();              // "tag=" and the others

// The host that was given, or the configured one; nothing, and told, when there is none.
std::optional<std::string> settled_host(const std::string &given);

// The same for a message: empty, and nothing told, when there is none.
std::string registry_of(const std::string &given);

// Calls `take` for each entry found, batch by batch; the entry is deleted afterwards. The first status that is not
// TBS_ST_OK ends it, and is told. Behind each batch it goes on if `goes_on` says so.
tbs_status_t each_entry(
    const Search &search, const std::function<tbs_status_t(rgy_entry_t *)> &take,
    const std::function<bool()> &goes_on = [] { return true; });

// "name=value,name" as an object; a name without a value is true.
Cell attributes_cell(const std::string &text);

// The value of an item, which may be attributes.
Cell item_cell(const std::string &name, const std::string &value);

// The items of an entry as they came.
Cell items_cell(const rgy_flex_entry_t &flex);

// The exit status that goes with a library status.
int exit_status_of(tbs_status_t status);

// The same for a request in which nothing but the registry's host can be not found; so is a search, since one that
// finds nothing does not fail.
int exit_status_of_request(tbs_status_t status);

} // namespace velia::cli
