// veliactl knob monitor: each change of a value in force as it happens. What has not changed is not read again: for the
// site the registry's stamp tells, for the host and the user the times of the files.
#include <cli/knobs.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>

#include <sys/stat.h>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/registry.h>
#include <cli/results.h>
#include <cli/streams.h>
#include <cli/waits.h>
#include <support/date.h>
#include <veliaxdr/rgy_manage.h>

namespace velia::cli {

namespace {

struct Watch {
    std::string host;
    Duration interval = std::chrono::seconds(1);
    int64_t looks = 0;
};

constexpr Range interval_range = {10, 3600 * 1000};
constexpr Range looks_range = {1, INT32_MAX};

Options watch_options(Watch &watch) {
    return {{.name = "--interval",
             .type = "SECONDS",
             .help = "seconds between two looks",
             .target = &watch.interval,
             .range = interval_range,
             .shows_default = true},
            {.name = "--looks",
             .type = "COUNT",
             .help = "end after so many looks (default: when interrupted)",
             .target = &watch.looks,
             .range = looks_range},
            registry_host_option(watch.host)};
}

int monitor(const Watch &watch, const Settings &settings);

constexpr Column columns[] = {{"time", Type::time, "when it was seen"},
                              {"change", Type::text, "present at the beginning, then changed"},
                              {"name", Type::text, "the setting"},
                              {"before", Type::text, "in force until then; null at the beginning", true},
                              {"value", Type::text, "in force"},
                              {"level", Type::text, "where it comes from: user, host, site or default"}};
constexpr Output output = {Output::Shape::list, columns};

constexpr Command commands[] = {
    {.path = "knob monitor",
     .help = "Tell each change of a value in force as it happens, until interrupted",
     .examples = {"veliactl knob monitor", "veliactl knob monitor --interval 0.2 --output jsonl"},
     .make = call_of<monitor, watch_options>,
     .output = &output},
};

// What a file looks like from outside.
struct FileLook {
    bool is_there = false;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed = {};

    bool operator==(const FileLook &other) const {
        return is_there == other.is_there && inode == other.inode && size == other.size &&
               changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
    }
    // A further change within the clock's tick would look the same.
    bool is_fresh() const { return is_there && time(nullptr) - changed.tv_sec <= 1; }
};

FileLook look_at(const std::string &path) {
    struct stat status;
    if (path.empty() || stat(path.c_str(), &status) != 0)
        return {};
    return {true, status.st_ino, status.st_size, status.st_ctim};
}

std::string profile_path() {
    const char *named = getenv("VELIA_PROFILE");
    if (named != nullptr && *named != '\0')
        return named;
    const char *home = getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.velia_profile" : "";
}

// One file, and whether it may be another than at the last look.
class WatchedFile {
public:
    explicit WatchedFile(std::string path) : path_(std::move(path)) {}

    bool may_have_changed() {
        const FileLook now = look_at(path_);
        const bool may_have = !is_known_ || !(now == last_) || last_.is_fresh();
        is_known_ = true;
        last_ = now;
        return may_have;
    }

private:
    std::string path_;
    FileLook last_;
    bool is_known_ = false;
};

// The site's settings as a whole.
class WatchedSite {
public:
    explicit WatchedSite(const std::string &host) : host_(host) {}
    ~WatchedSite() {
        if (stamp_ != nullptr)
            rgy_destroy_timestamp(&stamp_);
    }
    WatchedSite(const WatchedSite &) = delete;
    WatchedSite &operator=(const WatchedSite &) = delete;

    // Where it cannot be asked, nothing is known to have changed.
    bool may_have_changed() {
        if (stamp_ == nullptr)
            return rgy_create_timestamp(RGY_DB_SITE_CONFIG, null_if_empty(host_), &stamp_) == TBS_ST_OK;
        int32_t changed = 0;
        return rgy_check_timestamp(RGY_DB_SITE_CONFIG, null_if_empty(host_), stamp_, &changed) == TBS_ST_OK &&
               changed != 0;
    }

private:
    std::string host_;
    rgy_timestamp_t *stamp_ = nullptr;
};

struct WatchedKnob {
    Knob knob;
    WatchedFile file;
    bool has_user = false;
    bool has_site = false;
    bool is_unread = true; // its last reading failed, or there was none
    std::optional<ValueInForce> value = std::nullopt;
};

WatchedKnob watched(const Knob &knob) {
    const auto host_kind = kind_at(knob, "host");
    return {knob, WatchedFile(host_kind ? origin_of(knob, *host_kind, "") : ""), kind_at(knob, "user").has_value(),
            kind_at(knob, "site").has_value()};
}

bool is_same(const std::optional<ValueInForce> &before, const ValueInForce &now) {
    return before && before->spelling == now.spelling && before->level == now.level;
}

// Reads the value anew, and adds a row if it is another one. A reading that fails is made again at the next look:
// whoever rewrites a file in place leaves it empty for a moment.
void look_again(WatchedKnob &watched, const std::string &host, Results &results) {
    const auto now = value_in_force(watched.knob, host);
    watched.is_unread = now.status != TBS_ST_OK;
    if (watched.is_unread || is_same(watched.value, now))
        return;
    const time_t seen = time(nullptr);
    results.add({time_cell(seen, date_fmt_token_date_time(seen)), watched.value ? "changed" : "present",
                 watched.knob.name, watched.value ? Cell(watched.value->spelling) : Cell(), now.spelling, now.level});
    watched.value = now;
}

void look_at_all(std::vector<WatchedKnob> &knobs, WatchedFile &profile, WatchedSite &site, const std::string &host,
                 Results &results) {
    const bool is_site_changed = site.may_have_changed();
    const bool is_profile_changed = profile.may_have_changed();
    for (auto &watched : knobs) {
        const bool is_file_changed = watched.file.may_have_changed();
        if (watched.is_unread || is_file_changed || (is_site_changed && watched.has_site) ||
            (is_profile_changed && watched.has_user))
            look_again(watched, host, results);
        if (are_waits_over())
            return;
    }
}

int monitor(const Watch &watch, const Settings &settings) {
    std::vector<WatchedKnob> knobs;
    for (const Knob &knob : all_knobs())
        knobs.push_back(watched(knob));
    WatchedFile profile(profile_path());
    WatchedSite site(watch.host);
    Results results(output, settings);
    if (!site.may_have_changed()) // told by the library
        return exit_unreachable;
    int64_t looks = 0;
    do {
        begin_wait(settings.timeout);
        look_at_all(knobs, profile, site, watch.host, results);
        ++looks;
    } while (!are_waits_over() && results.show() && looks != watch.looks && wait_while_read(watch.interval));
    const bool is_done = looks == watch.looks;
    if (is_done || are_waits_over())
        results.finish();
    return is_done ? exit_done : exit_failed;
}

} // namespace

const Commands knob_monitor_commands = commands;

} // namespace velia::cli
