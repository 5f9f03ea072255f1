// veliactl knob export and import: all values of a level as a file, and back.
//
// The file has a line "level = LEVEL", for a site a line "stamp = UUID" by which an import knows whether somebody has
// changed the site meanwhile, and a line "NAME = VALUE" for each setting that is set. A NAME with nothing behind it is
// unset by an import; what the file does not name stays as it is.
#include <cli/knobs.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/registry.h>
#include <cli/results.h>
#include <common/text_file.h>
#include <support/imsg.h>
#include <veliaxdr/rgy_manage.h>

namespace velia::cli {

namespace {

constexpr FileBounds transfer_bounds = {velia::configuration_file.file_bytes, text_line_bytes_max};

struct Transfer {
    std::string file;
    std::string level;
    std::string host;
    bool is_dry_run = false;
};

Options export_options(Transfer &transfer) {
    return {{.name = "FILE", .help = "to be written", .target = &transfer.file, .is_required = true},
            level_option(transfer.level, true),
            registry_host_option(transfer.host)};
}

Options import_options(Transfer &transfer) {
    return {{.name = "FILE",
             .help = "written by an export, and edited perhaps",
             .target = &transfer.file,
             .is_required = true},
            registry_host_option(transfer.host),
            dry_run_option(transfer.is_dry_run)};
}

int export_level(const Transfer &transfer, const Settings &settings);
int import_level(const Transfer &transfer, const Settings &settings);

constexpr Column export_columns[] = {{"action", Type::text, "exported"},
                                     {"level", Type::text, "whose values these are"},
                                     {"file", Type::text, "that was written"},
                                     {"values", Type::integer, "how many it has"}};
constexpr Output export_output = {Output::Shape::one, export_columns};

constexpr Column import_columns[] = {{"action", Type::text, "set or unset; with --dry-run would set or would unset"},
                                     {"name", Type::text, "the setting"},
                                     {"level", Type::text, "where"},
                                     {"before", Type::text, "what stood there; null for nothing", true},
                                     {"value", Type::text, "what the file says; null for nothing", true}};
constexpr Output import_output = {Output::Shape::list, import_columns};

constexpr const char *import_notes =
    R"(The file is taken whole or not at all: nothing is changed unless every line is good, and what was changed is put back
when a later change fails. It is refused when the site's settings have changed since the export, or change while it is
looked through.
)";

constexpr Command commands[] = {
    {.path = "knob export",
     .help = "Write the values of a level to a file",
     .examples = {"veliactl knob export settings.txt --level site"},
     .make = call_of<export_level, export_options>,
     .output = &export_output},
    {.path = "knob import",
     .help = "Make the values of a level those of a file",
     .examples = {"veliactl knob import settings.txt --dry-run", "veliactl knob import settings.txt --host build8"},
     .notes = import_notes,
     .make = call_of<import_level, import_options>,
     .output = &import_output},
};

// The stamp of the site's settings as it is now; nothing, and told, if the registry cannot be asked.
std::optional<std::string> stamp_of_site(const std::string &host) {
    rgy_timestamp_t *stamp = nullptr;
    const auto status = rgy_create_timestamp(RGY_DB_SITE_CONFIG, null_if_empty(host), &stamp);
    if (status != TBS_ST_OK || stamp == nullptr) {
        tell_failure(status, registry_of(host), "The site's settings cannot be asked for: %s\n", tbs_strerror(status));
        return std::nullopt;
    }
    std::array<char, TBS_UUID_STR_SIZE> text;
    std::string spelled = tbs_uuid_to_str(&stamp->dtm.dtm, text.data());
    rgy_destroy_timestamp(&stamp);
    return spelled;
}

struct NamedValue {
    std::string name;
    std::optional<std::string> value;
};

// What a file says.
struct Contents {
    std::string level;
    std::string stamp;
    std::vector<NamedValue> values;
};

int tell_bad_file(const std::string &file, const std::string &why) {
    tell_failure(TBS_ST_INVALID_ARG, "", "'%s' cannot be used: %s\n", file.c_str(), why.c_str());
    return exit_failed;
}

std::string stripped(const std::string &text) {
    const auto begin = text.find_first_not_of(" \t\r");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
}

// A value keeps its blanks but for the one that separates it.
NamedValue taken_apart(const std::string &line) {
    const auto equals = line.find('=');
    if (equals == std::string::npos)
        return {stripped(line), std::nullopt};
    const std::string behind = line.substr(equals + 1);
    return {stripped(line.substr(0, equals)), behind.starts_with(' ') ? behind.substr(1) : behind};
}

void take_line(const std::string &line, Contents &contents) {
    if (stripped(line).empty() || line.starts_with('#'))
        return;
    NamedValue named = taken_apart(line);
    if (named.name == "level")
        contents.level = named.value.value_or("");
    else if (named.name == "stamp")
        contents.stamp = named.value.value_or("");
    else
        contents.values.push_back(std::move(named));
}

// Nothing, and told, for a file that cannot be read.
std::optional<Contents> contents_of(const std::string &path) {
    Contents contents;
    TextFile file;
    FileOutcome outcome = file.open(path.c_str(), transfer_bounds);
    const bool is_open = outcome == FileOutcome::ok;
    for (TextLine line; outcome == FileOutcome::ok && (outcome = file.next_line(line)) == FileOutcome::ok;)
        take_line(line.text, contents);
    if (is_open)
        file.close();
    if (outcome == FileOutcome::end)
        return contents;
    char words[file_words_size];
    tell_bad_file(path, outcome == FileOutcome::absent ? "No such file" : file.why(outcome, words));
    return std::nullopt;
}

bool is_level(const std::string &name) {
    const auto levels = Choices(level_names).first(own_levels);
    return std::any_of(levels.begin(), levels.end(), [&](const char *level) { return name == level; });
}

// A change that is to be made: what stands there now, and what shall.
struct Change {
    Knob knob;
    std::optional<std::string> before;
    std::optional<std::string> value;
};

bool is_good_line(const std::string &file, const std::string &level, const NamedValue &line) {
    uint32_t id;
    if (rvzd_knob_id_by_name(line.name.c_str(), &id) != TBS_ST_OK) {
        tell_bad_file(file, "'" + line.name + "' is no setting");
        return false;
    }
    const Knob knob = knob_of_name(line.name);
    if (!kind_at(knob, level)) {
        tell_no_level(knob, level);
        return false;
    }
    return !line.value || is_good_value(knob, *line.value);
}

bool are_names_unique(const std::string &file, const Contents &contents) {
    std::vector<std::string> names;
    for (const auto &line : contents.values)
        names.push_back(knob_of_name(line.name).name);
    std::sort(names.begin(), names.end());
    const auto twice = std::adjacent_find(names.begin(), names.end());
    if (twice != names.end())
        tell_bad_file(file, "'" + *twice + "' stands in it twice");
    return twice == names.end();
}

// Every line is looked at, so that all faults are told at once.
bool is_good_file(const std::string &file, const Contents &contents) {
    if (!is_level(contents.level)) {
        tell_bad_file(file, "it does not say 'level = site', host or user");
        return false;
    }
    bool is_good = true;
    for (const auto &line : contents.values)
        is_good = is_good_line(file, contents.level, line) && is_good;
    return is_good && are_names_unique(file, contents);
}

// Nothing, and told, if a value cannot be read.
std::optional<std::vector<Change>> changes_of(const Contents &contents, const std::string &host, int &exit_status) {
    std::vector<Change> changes;
    for (const auto &line : contents.values) {
        const Knob knob = knob_of_name(line.name);
        const auto before = value_at(knob, *kind_at(knob, contents.level), host);
        if (before.status != TBS_ST_OK) {
            exit_status = tell_unread(knob, contents.level, before.status, host);
            return std::nullopt;
        }
        if (before.spelling != line.value)
            changes.push_back({knob, before.spelling, line.value});
    }
    return changes;
}

// The last change first.
void put_back(const std::vector<Change> &changes, size_t count, const std::string &level, const std::string &host) {
    while (count-- > 0)
        if (change_value(changes[count].knob, level, changes[count].before, host) != TBS_ST_OK)
            tell_failure(TBS_ST_ERROR, "", "%s could not be put back\n", changes[count].knob.name.c_str());
}

tbs_status_t apply(const std::vector<Change> &changes, const std::string &level, const std::string &host) {
    for (size_t i = 0; i < changes.size(); ++i) {
        const auto status = change_value(changes[i].knob, level, changes[i].value, host);
        if (status == TBS_ST_OK)
            continue;
        // The failed one, too, may have lost what stood there. What cannot be taken away because it is not there is
        // fine.
        const auto left = value_at(changes[i].knob, *kind_at(changes[i].knob, level), host);
        put_back(changes, left.status == TBS_ST_OK && left.spelling == changes[i].before ? i : i + 1, level, host);
        return status;
    }
    return TBS_ST_OK;
}

// False, and told, when the site is not as it was when `stamp` was taken.
bool is_unchanged(const std::string &stamp, const std::string &host, int &exit_status) {
    const auto now = stamp_of_site(host);
    exit_status = now ? exit_failed : exit_unreachable;
    if (now && *now != stamp)
        tell_failure(TBS_ST_STALE_ID, registry_of(host), "The site's settings have changed since they were read\n");
    return now == stamp;
}

void show(const std::vector<Change> &changes, const Contents &contents, bool is_dry_run, Results &results) {
    for (const auto &[knob, before, value] : changes)
        results.add({std::string(is_dry_run ? "would " : "") + (value ? "set" : "unset"), knob.name, contents.level,
                     before ? Cell(*before) : Cell(), value ? Cell(*value) : Cell()});
    results.finish();
}

int import_contents(const Transfer &transfer, const Contents &contents, const Settings &settings) {
    int exit_status = exit_failed;
    const bool is_site = contents.level == "site";
    const auto stamp = is_site ? stamp_of_site(transfer.host) : std::optional<std::string>("");
    if (!stamp)
        return exit_unreachable;
    if (is_site && !contents.stamp.empty() && !is_unchanged(contents.stamp, transfer.host, exit_status))
        return exit_status;
    const auto changes = changes_of(contents, transfer.host, exit_status);
    if (!changes)
        return exit_status;
    if (!transfer.is_dry_run && !changes->empty()) {
        if (is_site && !is_unchanged(*stamp, transfer.host, exit_status))
            return exit_status;
        const auto status = apply(*changes, contents.level, transfer.host);
        if (status != TBS_ST_OK)
            return exit_status_of_request(status);
    }
    Results results(import_output, settings, transfer.is_dry_run ? Results::Of::look : Results::Of::change);
    show(*changes, contents, transfer.is_dry_run, results);
    return exit_done;
}

int import_level(const Transfer &transfer, const Settings &settings) {
    const auto contents = contents_of(transfer.file);
    if (!contents || !is_good_file(transfer.file, *contents))
        return exit_failed;
    return import_contents(transfer, *contents, settings);
}

// All that is set at the level; nothing, and told, if something cannot be read.
std::optional<std::vector<NamedValue>> values_of_level(const Transfer &transfer, int &exit_status) {
    std::vector<NamedValue> values;
    for (const Knob &knob : all_knobs()) {
        const auto kind = kind_at(knob, transfer.level);
        const auto value = kind ? value_at(knob, *kind, transfer.host) : LevelValue();
        if (value.status != TBS_ST_OK) {
            exit_status = tell_unread(knob, transfer.level, value.status, transfer.host);
            return std::nullopt;
        }
        if (value.spelling)
            values.push_back({knob.name, value.spelling});
    }
    return values;
}

bool write_file(const Transfer &transfer, const std::string &stamp, const std::vector<NamedValue> &values) {
    std::ofstream file(transfer.file, std::ios::binary);
    file << "level = " << transfer.level << '\n';
    if (!stamp.empty())
        file << "stamp = " << stamp << '\n';
    for (const auto &[name, value] : values)
        file << name << " = " << *value << '\n';
    file.close();
    return file.good();
}

// The stamp is asked for first: a change while the values are read makes the file stale, and no file wrong.
int export_level(const Transfer &transfer, const Settings &settings) {
    const auto stamp = transfer.level == "site" ? stamp_of_site(transfer.host) : std::optional<std::string>("");
    if (!stamp)
        return exit_unreachable;
    int exit_status = exit_failed;
    const auto values = values_of_level(transfer, exit_status);
    if (!values)
        return exit_status;
    if (!write_file(transfer, *stamp, *values)) {
        tell_failure(TBS_ST_ERROR, "", "'%s' could not be written: %s\n", transfer.file.c_str(), imsg_strerror(errno));
        return exit_failed;
    }
    Results results(export_output, settings, Results::Of::change);
    results.add({"exported", transfer.level, transfer.file, uint64_t{values->size()}});
    results.finish();
    return exit_done;
}

} // namespace

const Commands knob_transfer_commands = commands;

} // namespace velia::cli
