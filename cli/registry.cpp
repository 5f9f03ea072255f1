// veliactl registry: finding and listing entries.
#include <cli/registry.h>

#include <array>
#include <sstream>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/progress_line.h>
#include <cli/results.h>
#include <cli/streams.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/rgy_site.h>

namespace velia::cli {

namespace {

Option batch_option(Search &search) {
    return {.name = "--batch",
            .type = "COUNT",
            .help = "entries fetched at a time",
            .target = &search.batch,
            .range = Range{1, 1000},
            .shows_default = true};
}

Options list_options(Search &search) {
    return {db_place(search.db), region_option(search.region), registry_host_option(search.host), batch_option(search)};
}

Options find_options(Search &search) {
    return joined({list_options(search), ways_to_search(search)});
}

int print_entries(const Search &search, const Settings &settings);

constexpr Column columns[] = {{"id", Type::integer, "the entry's number, which no other one gets"},
                              {"registry", Type::text, "host of the registry that has it"},
                              {"items", Type::items, "its items by name; attributes are an object of their own"}};
constexpr Output output = {Output::Shape::list, columns};

constexpr const char *patterns_note =
    R"(A pattern is -ITEM=GLOB, or a GLOB for what names an entry, its tag or its name; one that matches is enough.
)";

constexpr Command commands[] = {
    {.path = "registry", .help = "The tag registry"},
    {.path = "registry find",
     .help = "Find entries by a string, a uuid, an attribute or patterns",
     .examples = {"veliactl registry find vault_tag --string tag=/vaults/src --region east",
                  "veliactl registry find view_object --uuid view_uuid=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f",
                  "veliactl registry find vault_tag --attr attributes:poolmap=/x",
                  "veliactl registry find vault_tag --pattern '/vaults/*' --pattern '-owner=alice' --output json"},
     .notes = patterns_note,
     .make = call_of<print_entries, find_options>,
     .output = &output},
    {.path = "registry list",
     .help = "List all entries of a database",
     .examples = {"veliactl registry list regions", "veliactl registry list vault_tag --batch 500 --output json"},
     .make = call_of<print_entries, list_options>,
     .output = &output},
};

// Not where the results show how far the scan is themselves.
class ScanProgress {
public:
    void step() { line_.count("read:", ++entries_); }

private:
    ProgressLine line_{!is_terminal_for_results()};
    uint64_t entries_ = 0;
};

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

tbs_status_t take_batch(std::vector<rgy_entry_t *> &entries, int64_t count, ScanProgress &progress,
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
    Results results(output, settings);
    const auto take = [&](rgy_entry_t *entry) {
        results.add({entry->entry_id, entry->host, items_cell(entry->flex)});
        return TBS_ST_OK;
    };
    const auto status = each_entry(search, take, [&] { return results.pause(); });
    if (status != TBS_ST_OK)
        return exit_status_of_request(status);
    results.finish();
    return exit_done;
}

} // namespace

Cell attributes_cell(const std::string &text) {
    std::vector<std::string> names;
    Cells values;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');) {
        const auto equals = word.find('=');
        names.push_back(word.substr(0, equals));
        values.push_back(equals == std::string::npos ? Cell(true) : Cell(word.substr(equals + 1)));
    }
    return Cell::object(std::move(names), std::move(values), text);
}

Cell item_cell(const std::string &name, const std::string &value) {
    return item_of_name(name) == RGY_ITEM_ATTRIBUTES ? attributes_cell(value) : Cell(value);
}

Cell items_cell(const rgy_flex_entry_t &flex) {
    std::vector<std::string> names;
    Cells values;
    for (int32_t i = 0; i < flex.count; ++i) {
        names.emplace_back(flex.items[i].name);
        values.push_back(item_cell(names.back(), flex.items[i].value));
    }
    return Cell::object(std::move(names), std::move(values));
}

std::optional<std::string> settled_host(const std::string &given) {
    if (!given.empty())
        return given;
    char *host = nullptr;
    const auto status = rgy_get_server_host(1, 0, &host);
    if (status != TBS_ST_OK) {
        tell_failure(status, "", "No registry host is configured: %s\n", tbs_strerror(status));
        return std::nullopt;
    }
    const std::string configured = host;
    stg_free(host);
    return configured;
}

std::string registry_of(const std::string &given) {
    char *host = nullptr;
    if (!given.empty() || rgy_get_server_host_sil(1, 0, &host) != TBS_ST_OK)
        return given;
    std::string configured = host;
    stg_free(host);
    return configured;
}

tbs_status_t each_entry(const Search &search, const std::function<tbs_status_t(rgy_entry_t *)> &take,
                        const std::function<bool()> &goes_on) {
    std::vector<rgy_entry_t *> entries(static_cast<size_t>(search.batch));
    ScanProgress progress;
    rgy_cursor_t *cursor = nullptr;
    tbs_status_t status = TBS_ST_OK;
    do {
        int64_t count = 0;
        status = fetch(search, &cursor, entries, &count);
        if (status == TBS_ST_OK && cursor != nullptr)
            status = take_batch(entries, count, progress, take);
    } while (status == TBS_ST_OK && cursor != nullptr && goes_on());
    if (cursor != nullptr)
        rgy_close_cursor(&cursor);
    if (status != TBS_ST_OK)
        tell_failure(status, registry_of(search.host), "The registry could not be read: %s\n", tbs_strerror(status));
    return status;
}

int exit_status_of_request(tbs_status_t status) {
    return status == TBS_ST_NOT_FOUND ? exit_unreachable : exit_status_of(status);
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

const Commands registry_commands = commands;

} // namespace velia::cli
