// What the registry's commands share: names of databases and items, and a scan as rows.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <cli/commands.h>
#include <veliaxdr/rgy_fetch.h>

namespace velia::cli {

// By its name or number; by its key with or without the hyphen.
std::optional<rgy_db_t> db_of_name(const std::string &name);
std::optional<uint32_t> item_of_name(const std::string &name);

std::vector<std::string> db_names();
std::string check_db(const std::string &name);

// "item=value" taken apart; nothing for an unknown item or a missing "=".
struct ItemValue {
    uint32_t item = 0;
    std::string value;
};
std::optional<ItemValue> item_value_of(const std::string &word);
std::string check_item_value(const std::string &word);
std::string check_item_uuid(const std::string &word);

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

void add_registry_host(CLI::App &command, std::string &host);
void add_search_options(CLI::App &command, Search &search);

// Calls `take` for each entry found, batch by batch; the entry is deleted afterwards. The first status that is not
// TBS_ST_OK ends it, and is told.
tbs_status_t each_entry(const Search &search, const std::function<tbs_status_t(rgy_entry_t *)> &take);

// Rows of entries: number, and the items as they came.
Results new_entry_results();
void add_entry(const rgy_entry_t &entry, Results &results);

// The exit status that goes with a library status.
int exit_status_of(tbs_status_t status);

void add_registry_updates(CLI::App &group, Settings &settings, Command &chosen);
void add_registry_admin(CLI::App &group, Settings &settings, Command &chosen);
void add_registry_role(CLI::App &group, Settings &settings, Command &chosen);
void add_registry_site(CLI::App &group, Settings &settings, Command &chosen);

} // namespace velia::cli
