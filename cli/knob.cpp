// veliactl knob list, get, explain, check and diff: what is set where, and what comes of it.
#include <cli/knobs.h>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/registry.h>
#include <cli/results.h>

namespace velia::cli {

namespace {

struct Listing {
    std::string level;
    std::string host;
    bool shows_origin = false;
};

struct Question {
    std::string name;
    std::string level;
    std::string host;
    std::string value;
};

struct Comparison {
    std::string first;
    std::string second;
    bool shows_all = false;
};

Options listing_options(Listing &listing) {
    return {
        level_option(listing.level, false),
        {.name = "--show-origin",
         .help = "tell the file, the entry or the template that the value is from",
         .target = &listing.shows_origin},
        registry_host_option(listing.host),
    };
}

Options get_options(Question &question) {
    return {knob_place(question.name), level_option(question.level, false), registry_host_option(question.host)};
}

Options explain_options(Question &question) {
    return {knob_place(question.name), registry_host_option(question.host)};
}

Options check_options(Question &question) {
    return {knob_place(question.name), value_place(question.value)};
}

Options comparison_options(Comparison &comparison) {
    constexpr const char *help = "a registry host";
    return {{.name = "HOST", .help = help, .target = &comparison.first, .is_required = true},
            {.name = "OTHER_HOST", .help = help, .target = &comparison.second, .is_required = true},
            {.name = "--all", .help = "show those that do not differ, too", .target = &comparison.shows_all}};
}

int list(const Listing &listing, const Settings &settings);
int get(const Question &question, const Settings &settings);
int explain(const Question &question, const Settings &settings);
int check(const Question &question, const Settings &settings);
int diff(const Comparison &comparison, const Settings &settings);

constexpr Column list_columns[] = {{"name", Type::text, "the setting"},
                                   {"type", Type::text, "boolean, integer or string"},
                                   {"value", Type::text, "in force, or with --level what stands there"},
                                   {"level", Type::text, "where it comes from: user, host, site or default"},
                                   {"origin", Type::text, "file, entry or template", true, "--show-origin"}};
constexpr Output list_output = {Output::Shape::list, list_columns};

constexpr Column get_columns[] = {{"name", Type::text, "the setting"},
                                  {"value", Type::text, "its spelling"},
                                  {"level", Type::text, "where it comes from: user, host, site or default"}};
constexpr Output get_output = {Output::Shape::one, get_columns};

constexpr Column explain_columns[] = {
    {"what", Type::text, "user, host, site or default; and range, type and description"},
    {"value", Type::text, "at that level; a word about the setting", true},
    {"state", Type::text, "in force, overridden, not set, unreadable, or no such for a level that it does not have",
     true},
    {"origin", Type::text, "file, entry or template", true}};
constexpr Output explain_output = {Output::Shape::list, explain_columns};

constexpr Column check_columns[] = {{"name", Type::text, "the setting"}, {"value", Type::text, "that it takes"}};
constexpr Output check_output = {Output::Shape::one, check_columns};

constexpr Column diff_columns[] = {{"name", Type::text, "the setting"},
                                   {"first", Type::text, "of the first host's site; null if not set", true},
                                   {"second", Type::text, "of the other's", true}};
constexpr Output diff_output = {Output::Shape::list, diff_columns};

constexpr Command commands[] = {
    {.path = "knob", .help = "Settings: their values at the site, on this host and of the user"},
    {.path = "knob list",
     .help = "List the settings with the values in force",
     .examples = {"veliactl knob list", "veliactl knob list --level host --show-origin --output table"},
     .make = call_of<list, listing_options>,
     .output = &list_output},
    {.path = "knob get",
     .help = "Tell the value in force, or that of one level",
     .examples = {"veliactl knob get view_cache_size", "veliactl knob get fl_site_name --level site --output json"},
     .make = call_of<get, get_options>,
     .output = &get_output},
    {.path = "knob explain",
     .help = "Tell the value at each level and which one wins, the range and what the setting is for",
     .examples = {"veliactl knob explain checkout_reserve_policy"},
     .make = call_of<explain, explain_options>,
     .output = &explain_output},
    {.path = "knob check",
     .help = "Tell whether a setting takes a value, and change nothing",
     .examples = {"veliactl knob check view_cache_size 4096k",
                  "veliactl knob check checkout_reserve_policy -- -reserved"},
     .make = call_of<check, check_options>,
     .output = &check_output},
    {.path = "knob diff",
     .help = "Compare the site's values as the registries of two hosts have them",
     .examples = {"veliactl knob diff build7 build8"},
     .make = call_of<diff, comparison_options>,
     .output = &diff_output},
};

const char *word_of_type(rvzd_knob_type_t type) {
    return type == KNOB_BOOLEAN ? "boolean" : type == KNOB_INTEGER ? "integer" : "string";
}

// What a list shows of a setting: at the level that was asked for, or in force. Nothing for one that has none there.
std::optional<ValueInForce> listed_value(const Knob &knob, const Listing &listing) {
    if (listing.level.empty())
        return value_in_force(knob, listing.host);
    const auto kind = kind_at(knob, listing.level);
    if (!kind)
        return std::nullopt;
    const auto value = value_at(knob, *kind, listing.host);
    if (value.status == TBS_ST_OK && !value.spelling)
        return std::nullopt;
    return ValueInForce{value.status, value.spelling.value_or(""), listing.level, *kind};
}

// A registry that does not answer would be waited for at each setting, so the first failure ends it.
int list(const Listing &listing, const Settings &settings) {
    Results results(list_output, settings);
    for (const Knob &knob : all_knobs()) {
        const auto value = listed_value(knob, listing);
        if (!value)
            continue;
        if (value->status != TBS_ST_OK)
            return tell_unread(knob, value->level, value->status, listing.host);
        const std::string origin = listing.shows_origin ? origin_of(knob, value->kind, listing.host) : "";
        results.add({knob.name, word_of_type(knob.type), value->spelling, value->level,
                     origin.empty() ? Cell() : Cell(origin)});
        if (!results.pause())
            return exit_failed;
    }
    results.finish();
    return exit_done;
}

// What no program could read is no value.
bool is_readable_in_force(const Knob &knob, const std::string &host) {
    int32_t number = 0;
    std::vector<char> text(RVZD_KNOB_TEXT_SIZE);
    switch (knob.type) {
    case KNOB_BOOLEAN:
        return rvzd_knob_get_boolean(knob.id, null_if_empty(host), &number) == TBS_ST_OK;
    case KNOB_INTEGER:
        return rvzd_knob_get_integer(knob.id, null_if_empty(host), &number) == TBS_ST_OK;
    default:
        return rvzd_knob_get_string(knob.id, null_if_empty(host), text.size(), text.data()) == TBS_ST_OK;
    }
}

int print_value(const Knob &knob, const std::string &spelling, const std::string &level, const Settings &settings) {
    Results results(get_output, settings);
    results.add({knob.name, spelling, level});
    results.finish();
    return exit_done;
}

int get_at_level(const Knob &knob, const Question &question, const Settings &settings) {
    const auto kind = kind_at(knob, question.level);
    if (!kind)
        return tell_no_level(knob, question.level);
    const auto value = value_at(knob, *kind, question.host);
    if (value.status != TBS_ST_OK)
        return tell_unread(knob, question.level, value.status, question.host);
    if (value.spelling)
        return print_value(knob, *value.spelling, question.level, settings);
    tell_failure(TBS_ST_NOT_FOUND, "", "%s is not set there\n", knob.name.c_str());
    return exit_failed;
}

int get(const Question &question, const Settings &settings) {
    const Knob knob = knob_of_name(question.name);
    if (!question.level.empty())
        return get_at_level(knob, question, settings);
    const auto value = value_in_force(knob, question.host);
    if (value.status != TBS_ST_OK)
        return tell_unread(knob, value.level, value.status, question.host);
    if (!is_readable_in_force(knob, question.host))
        return exit_failed; // told by the library
    return print_value(knob, value.spelling, value.level, settings);
}

Cell or_null(const std::string &text) {
    return text.empty() ? Cell() : Cell(text);
}

// Adds the row of a level. True if its value is the one in force, or would be if it could be read.
bool explain_level(const Knob &knob, const std::string &level, const std::string &host, bool is_decided,
                   Results &results) {
    const auto kind = kind_at(knob, level);
    if (!kind) {
        results.add({level, Cell(), "no such", Cell()});
        return false;
    }
    const auto value = value_at(knob, *kind, host);
    const bool is_site = level == "site";
    const std::string origin = is_site && !value.spelling ? "" : origin_of(knob, *kind, host);
    if (value.status != TBS_ST_OK) {
        results.add({level, Cell(), "unreadable", or_null(origin)});
        return true;
    }
    const char *state = !value.spelling ? "not set" : is_decided ? "overridden" : "in force";
    results.add({level, value.spelling ? Cell(*value.spelling) : Cell(), state, or_null(origin)});
    return value.spelling.has_value();
}

int explain(const Question &question, const Settings &settings) {
    const Knob knob = knob_of_name(question.name);
    const char *description = "";
    rvzd_knob_description(knob.id, &description);
    Results results(explain_output, settings);
    bool is_decided = false;
    for (const char *level : level_names)
        is_decided = explain_level(knob, level, question.host, is_decided, results) || is_decided;
    results.add({"range", or_null(range_of(knob)), Cell(), Cell()});
    results.add({"type", word_of_type(knob.type), Cell(), Cell()});
    results.add({"description", description, Cell(), Cell()});
    results.finish();
    return exit_done;
}

int check(const Question &question, const Settings &settings) {
    const Knob knob = knob_of_name(question.name);
    if (!is_good_value(knob, question.value))
        return exit_failed;
    Results results(check_output, settings);
    results.add({knob.name, question.value});
    results.finish();
    return exit_done;
}

int diff(const Comparison &comparison, const Settings &settings) {
    Results results(diff_output, settings);
    for (const Knob &knob : all_knobs()) {
        const auto kind = kind_at(knob, "site");
        if (!kind)
            continue;
        const auto first = value_at(knob, *kind, comparison.first);
        if (first.status != TBS_ST_OK)
            return tell_unread(knob, "site", first.status, comparison.first);
        const auto second = value_at(knob, *kind, comparison.second);
        if (second.status != TBS_ST_OK)
            return tell_unread(knob, "site", second.status, comparison.second);
        if (comparison.shows_all || first.spelling != second.spelling)
            results.add({knob.name, first.spelling ? Cell(*first.spelling) : Cell(),
                         second.spelling ? Cell(*second.spelling) : Cell()});
    }
    results.finish();
    return exit_done;
}

} // namespace

const Commands knob_commands = commands;

} // namespace velia::cli
