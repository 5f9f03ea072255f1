// veliactl knob set and unset. A write tells what it would do with --dry-run, and does nothing then.
#include <cli/commands.h>
#include <cli/knobs.h>
#include <cli/messages.h>
#include <cli/registry.h>
#include <cli/results.h>

namespace velia::cli {

namespace {

struct Change {
    std::string name;
    std::string value;
    std::string level;
    std::string host;
    bool is_dry_run = false;
};

Options unset_options(Change &change) {
    return {knob_place(change.name), level_option(change.level, true), registry_host_option(change.host),
            dry_run_option(change.is_dry_run)};
}

Options set_options(Change &change) {
    return {knob_place(change.name), value_place(change.value), level_option(change.level, true),
            registry_host_option(change.host), dry_run_option(change.is_dry_run)};
}

int set(const Change &change, const Settings &settings);
int unset(const Change &change, const Settings &settings);

constexpr Column columns[] = {{"action", Type::text, "set or unset; with --dry-run would set or would unset"},
                              {"name", Type::text, "the setting"},
                              {"level", Type::text, "where"},
                              {"before", Type::text, "what stood there; null for nothing, or nothing readable", true},
                              {"value", Type::text, "what stands there now; null for nothing", true}};
constexpr Output output = {Output::Shape::one, columns};

constexpr Command commands[] = {
    {.path = "knob set",
     .help = "Set the value of a level",
     .examples = {"veliactl knob set view_cache_size 8192k --level host",
                  "veliactl knob set fl_site_name lab --level site --dry-run"},
     .make = call_of<set, set_options>,
     .output = &output},
    {.path = "knob unset",
     .help = "Take the value of a level away, so that the next level's is in force",
     .examples = {"veliactl knob unset view_cache_size --level host"},
     .make = call_of<unset, unset_options>,
     .output = &output},
};

// A value that cannot be read may still be replaced: that is how it is put right. A registry that cannot be asked tells
// so at the write.
int change_level(const Change &change, const std::optional<std::string> &value, const Settings &settings) {
    const Knob knob = knob_of_name(change.name);
    const auto kind = kind_at(knob, change.level);
    if (!kind)
        return tell_no_level(knob, change.level);
    const auto before = value_at(knob, *kind, change.host);
    const std::string action = value ? "set" : "unset";
    if (!value && before.status == TBS_ST_OK && !before.spelling) {
        tell_failure(TBS_ST_NOT_SET, "", "%s is not set there\n", knob.name.c_str());
        return exit_failed;
    }
    const auto status = change.is_dry_run ? before.status : change_value(knob, change.level, value, change.host);
    if (status != TBS_ST_OK)
        return change.is_dry_run ? tell_unread(knob, change.level, status, change.host)
                                 : exit_status_of_request(status);
    Results results(output, settings, change.is_dry_run ? Results::Of::look : Results::Of::change);
    results.add({change.is_dry_run ? "would " + action : action, knob.name, change.level,
                 before.spelling ? Cell(*before.spelling) : Cell(), value ? Cell(*value) : Cell()});
    results.finish();
    return exit_done;
}

int set(const Change &change, const Settings &settings) {
    return is_good_value(knob_of_name(change.name), change.value) ? change_level(change, change.value, settings)
                                                                  : int{exit_failed};
}

int unset(const Change &change, const Settings &settings) {
    return change_level(change, std::nullopt, settings);
}

} // namespace

const Commands knob_update_commands = commands;

} // namespace velia::cli
