#include <cli/knobs.h>

#include <algorithm>
#include <array>
#include <climits>

#include <cli/messages.h>
#include <cli/registry.h>
#include <support/strutl.h>

namespace velia::cli {

namespace {

// The words of every setting that takes one of a few.
std::vector<std::string> few_values() {
    std::vector<std::string> values = {"TRUE", "FALSE"};
    for (const Knob &knob : all_knobs()) {
        rvzd_knob_range_t range;
        if (rvzd_knob_range(knob.id, &range) != TBS_ST_OK || range.list == nullptr)
            continue;
        const std::string list = range.list;
        for (size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
            end = list.find(',', at);
            values.push_back(list.substr(at, end - at));
        }
    }
    return values;
}

std::vector<const char *> pointers_to(const std::vector<std::string> &texts) {
    std::vector<const char *> pointers(texts.size());
    std::transform(texts.begin(), texts.end(), pointers.begin(), [](const auto &text) { return text.c_str(); });
    return pointers;
}

Choices knob_names() {
    static const auto names = [] {
        std::vector<std::string> all;
        for (const Knob &knob : all_knobs())
            all.push_back(knob.name);
        return all;
    }();
    static const auto choices = pointers_to(names);
    return choices;
}

Choices few_value_choices() {
    static const auto values = few_values();
    static const auto choices = pointers_to(values);
    return choices;
}

std::string fault_of_name(const std::string &name) {
    uint32_t id;
    return rvzd_knob_id_by_name(name.c_str(), &id) == TBS_ST_OK ? "" : "'" + name + "' is no setting";
}

std::string no_fault(const std::string & /*value*/) {
    return "";
}

const char *place_of(const std::string &level) {
    return level == "site" ? "the site's registry" : level == "host" ? "this host" : "the user's profile";
}

bool is_good_integer(const Knob &knob, const std::string &spelling) {
    int64_t number = 0;
    const bool is_number = strutl_kstr_or_str_to_long(spelling.c_str(), &number, 1) == 0;
    if (is_number && number >= INT32_MIN && number <= INT32_MAX)
        return rvzd_knob_range_check_integer(knob.id, static_cast<int32_t>(number)) == TBS_ST_OK;
    tell_failure(TBS_ST_INVALID_ARG, "", "'%s' is no integer of 32 bits, as %s wants one\n", spelling.c_str(),
                 knob.name.c_str());
    return false;
}

bool is_good_boolean(const Knob &knob, const std::string &spelling) {
    if (strutl_stricoll(spelling.c_str(), "TRUE") == 0 || strutl_stricoll(spelling.c_str(), "FALSE") == 0)
        return true;
    tell_failure(TBS_ST_INVALID_ARG, "", "'%s' is neither TRUE nor FALSE, as %s wants it\n", spelling.c_str(),
                 knob.name.c_str());
    return false;
}

Knob knob_of_id(uint32_t id) {
    const char *name = "";
    Knob knob;
    knob.id = id;
    if (rvzd_knob_name(id, &name) == TBS_ST_OK)
        knob.name = name;
    rvzd_knob_type(id, &knob.type);
    return knob;
}

} // namespace

const char *null_if_empty(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

const std::vector<Knob> &all_knobs() {
    static const auto knobs = [] {
        std::vector<Knob> all;
        uint32_t id = 0;
        for (int32_t cursor = rvzd_knob_next(0, &id); cursor != 0; cursor = rvzd_knob_next(cursor, &id))
            all.push_back(knob_of_id(id));
        return all;
    }();
    return knobs;
}

Knob knob_of_name(const std::string &name) {
    uint32_t id = 0;
    rvzd_knob_id_by_name(name.c_str(), &id);
    return knob_of_id(id);
}

std::optional<rvzd_knoblet_kind_t> kind_at(const Knob &knob, const std::string &level) {
    struct KindOfLevel {
        const char *level;
        rvzd_knoblet_kind_t kind;
    };
    constexpr KindOfLevel kinds[] = {{"user", KNOBLET_USER},
                                     {"host", KNOBLET_HOST},
                                     {"site", KNOBLET_SYNC_SITE},
                                     {"site", KNOBLET_SITE},
                                     {"default", KNOBLET_DEFAULT}};
    uint32_t id;
    for (const auto &[name, kind] : kinds)
        if (level == name && rvzd_knob_id_by_name_and_knoblet(knob.name.c_str(), kind, &id) == TBS_ST_OK)
            return kind;
    return std::nullopt;
}

LevelValue value_at(const Knob &knob, rvzd_knoblet_kind_t kind, const std::string &host) {
    std::array<char, RVZD_KNOB_TEXT_SIZE> buffer = {};
    tbs_boolean_t found = 0;
    const auto status =
        rvzd_knoblet_get_value_spelling(knob.id, kind, null_if_empty(host), &found, buffer.size(), buffer.data());
    return {status, found != 0 ? std::optional<std::string>(buffer.data()) : std::nullopt};
}

ValueInForce value_in_force(const Knob &knob, const std::string &host) {
    for (const char *level : level_names) {
        const auto kind = kind_at(knob, level);
        if (!kind)
            continue;
        const auto value = value_at(knob, *kind, host);
        if (value.status != TBS_ST_OK || value.spelling)
            return {value.status, value.spelling.value_or(""), level, *kind};
    }
    return {TBS_ST_ERROR, "", "default", KNOBLET_DEFAULT};
}

std::string origin_of(const Knob &knob, rvzd_knoblet_kind_t kind, const std::string &host) {
    std::array<char, RVZD_KNOB_TEXT_SIZE> buffer = {};
    if (rvzd_knoblet_origin(knob.id, kind, null_if_empty(host), buffer.size(), buffer.data()) != TBS_ST_OK)
        return "";
    const bool is_site = kind == KNOBLET_SITE || kind == KNOBLET_SYNC_SITE;
    return is_site ? "entry " + std::string(buffer.data()) : buffer.data();
}

bool is_good_value(const Knob &knob, const std::string &spelling) {
    switch (knob.type) {
    case KNOB_BOOLEAN:
        return is_good_boolean(knob, spelling);
    case KNOB_INTEGER:
        return is_good_integer(knob, spelling);
    default:
        return rvzd_knob_range_check_string(knob.id, spelling.c_str()) == TBS_ST_OK;
    }
}

std::string range_of(const Knob &knob) {
    rvzd_knob_range_t range = {};
    if (rvzd_knob_range(knob.id, &range) != TBS_ST_OK)
        return "";
    if (range.list != nullptr)
        return range.list;
    if (knob.type == KNOB_BOOLEAN)
        return "TRUE,FALSE";
    const bool has_least = range.minimum != INT32_MIN;
    const bool has_most = range.maximum != INT32_MAX;
    if (has_least && has_most)
        return std::to_string(range.minimum) + " to " + std::to_string(range.maximum);
    if (has_least)
        return ">= " + std::to_string(range.minimum);
    return has_most ? "<= " + std::to_string(range.maximum) : "";
}

int tell_unread(const Knob &knob, const std::string &level, tbs_status_t status, const std::string &host) {
    tell_failure(status, level == "site" ? registry_of(host) : "", "The value of %s in %s cannot be read: %s\n",
                 knob.name.c_str(), place_of(level), tbs_strerror(status));
    return exit_status_of_request(status);
}

int tell_no_level(const Knob &knob, const std::string &level) {
    tell_failure(TBS_ST_INVALID_ARG, "", "%s has no value in %s\n", knob.name.c_str(), place_of(level));
    return exit_failed;
}

tbs_status_t change_value(const Knob &knob, const std::string &level, const std::optional<std::string> &value,
                          const std::string &host) {
    const auto kind = kind_at(knob, level);
    if (!kind) {
        tell_no_level(knob, level);
        return TBS_ST_INVALID_ARG;
    }
    const auto status = value
                            ? rvzd_knoblet_set_value_from_spelling(knob.id, *kind, null_if_empty(host), value->c_str())
                            : rvzd_knoblet_unset_value(knob.id, *kind, null_if_empty(host));
    if (status != TBS_ST_OK)
        tell_failure(status, level == "site" ? registry_of(host) : "", "The value of %s in %s was not changed: %s\n",
                     knob.name.c_str(), place_of(level),
                     level == "user" ? "a profile is its user's to edit" : tbs_strerror(status));
    return status;
}

Option knob_place(std::string &name) {
    return {.name = "NAME",
            .help = "the setting",
            .target = &name,
            .words = knob_names(),
            .fault = fault_of_name,
            .is_required = true};
}

Option value_place(std::string &value) {
    return {.name = "VALUE",
            .help = "its spelling; behind -- if it begins with a hyphen",
            .target = &value,
            .words = few_value_choices(),
            .fault = no_fault,
            .is_required = true};
}

Option level_option(std::string &level, bool is_required) {
    return {.name = "--level",
            .type = "LEVEL",
            .help = "site, host or user",
            .target = &level,
            .words = Choices(level_names).first(own_levels),
            .is_required = is_required};
}

} // namespace velia::cli
