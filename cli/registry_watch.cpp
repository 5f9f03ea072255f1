// veliactl registry watch: what is added to a database, changed and removed.
#include <cli/registry.h>

#include <cstring>
#include <map>

#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/registry_bulk.h>
#include <cli/results.h>
#include <cli/streams.h>
#include <cli/waits.h>
#include <support/date.h>

namespace velia::cli {

namespace {

struct Watch {
    std::string db;
    std::string host;
    Duration interval = std::chrono::seconds(2);
    int64_t looks = 0;
    bool leaves_present_out = false;
};

Options watch_options(Watch &watch) {
    return {db_place(watch.db),
            registry_host_option(watch.host),
            {.name = "--interval",
             .type = "SECONDS",
             .help = "time between two looks",
             .target = &watch.interval,
             .range = Range{1, 3600 * 1000},
             .shows_default = true},
            {.name = "--looks",
             .type = "COUNT",
             .help = "end after so many looks (default: when interrupted)",
             .target = &watch.looks,
             .range = Range{1, INT32_MAX}},
            {.name = "--changes-only",
             .help = "do not show what is there at the beginning",
             .target = &watch.leaves_present_out}};
}

int watch_database(const Watch &watch, const Settings &settings);

constexpr Column columns[] = {{"time", Type::time, "when it was seen"},
                              {"change", Type::text, "present, added, changed or removed"},
                              {"id", Type::integer, "the entry's number"},
                              {"items", Type::items, "its items by name; of one that was removed the last ones"}};
constexpr Output output = {Output::Shape::list, columns};

constexpr const char *notes =
    R"(The registry is asked for the stamps of the database alone, and for its entries when these have changed. What comes
and goes between two looks is not seen. A registry that does not answer for a while is told, and asked again. An
interrupt (Ctrl-C) ends it.
)";

constexpr Command commands[] = {
    {.path = "registry watch",
     .help = "Show what changes in a database",
     .examples = {"veliactl registry watch vault_tag --interval 1",
                  "veliactl registry watch regions --changes-only --output jsonl"},
     .notes = notes,
     .make = call_of<watch_database, watch_options>,
     .output = &output},
};

using Texts = std::map<uint64_t, std::string>;

// What was seen last.
struct Seen {
    rgy_dtm_pair_t stamps = {};
    Texts texts;
};

Cell items_of(const std::string &flex_text) {
    rgy_flex_entry_t flex = {};
    if (rgy_expand_flex_entry(flex_text.c_str(), &flex) != TBS_ST_OK)
        return {flex_text};
    Cell items = items_cell(flex);
    rgy_destroy_flex_entry(&flex);
    return items;
}

void show(const char *change, uint64_t id, const std::string &text, Results &results) {
    const time_t now = time(nullptr);
    results.add({time_cell(now, date_fmt_token_date_time(now)), change, id, items_of(text)});
}

void show_changes(const Texts &before, const Texts &now, const char *word_for_new, Results &results) {
    for (const auto &[id, text] : before)
        if (!now.contains(id))
            show("removed", id, text, results);
    for (const auto &[id, text] : now) {
        const auto found = before.find(id);
        if (found == before.end())
            show(word_for_new, id, text, results);
        else if (found->second != text)
            show("changed", id, text, results);
    }
}

// The entries as they are now, if they are not as they were seen; told if they cannot be read.
int look(const Watch &watch, const std::string &host, const Settings &settings, Seen &seen) {
    const rgy_db_t db = *db_of_name(watch.db);
    const Broker registry = reach_broker(host, RVZD_PROTOCOL_TCP, settings.timeout);
    if (registry == nullptr)
        return exit_unreachable;
    rgy_dtm_pair_t stamps = {};
    auto status = rvzd_rgy_get_id(registry.get(), db, RGY_PROTOCOL_VERSION, &stamps);
    if (status == TBS_ST_OK && memcmp(&stamps, &seen.stamps, sizeof stamps) == 0)
        return exit_done;
    Database database;
    if (status == TBS_ST_OK)
        status = read_database(registry.get(), db, database);
    if (status == TBS_ST_STALE_ID) // it changes too fast to be read as a whole: the next look may be luckier
        return exit_done;
    if (status != TBS_ST_OK) {
        tell_failure(status, host, "The registry could not be read: %s\n", tbs_strerror(status));
        return exit_status_of_request(status);
    }
    seen = {database.stamps, {}};
    for (auto &entry : database.entries)
        seen.texts.emplace(entry.id, std::move(entry.flex_text));
    return exit_done;
}

int watch_database(const Watch &watch, const Settings &settings) {
    const auto host = settled_host(watch.host);
    if (!host)
        return exit_failed;
    Results results(output, settings);
    Seen seen;
    const int status = look(watch, *host, settings, seen);
    if (status != exit_done)
        return status;
    if (!watch.leaves_present_out)
        show_changes({}, seen.texts, "present", results);
    Seen before = seen;
    // A watch of a database in which nothing happens writes nothing by which it would notice that its reader has gone.
    int64_t looks = 1;
    for (; !are_waits_over() && results.show() && looks != watch.looks && wait_while_read(watch.interval); ++looks)
        if (look(watch, *host, settings, seen) == exit_done) {
            show_changes(before.texts, seen.texts, "added", results);
            before = seen;
        }
    const bool is_done = looks == watch.looks;
    if (is_done || are_waits_over())
        results.finish();
    return is_done ? exit_done : exit_failed;
}

} // namespace

const Commands registry_watch_commands = commands;

} // namespace velia::cli
