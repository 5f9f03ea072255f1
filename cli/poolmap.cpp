// veliactl poolmap: what a pool map says, and what becomes of a path by it.
#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>

#include <memory>
#include <optional>
#include <vector>

#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/poolmap.h>
#include <veliaxdr/rgy_entry.h>

namespace velia::cli {

namespace {

constexpr size_t first_block_size = 4096;
constexpr int option_size_max = 1024; // of a name or a value

struct Arguments {
    std::string text;
    std::string path;
    bool is_mount_options = false;
};

Options options_of(Arguments &arguments) {
    return {
        {.name = "TEXT",
         .help = "the map: prefix=target|prefix=target...",
         .target = &arguments.text,
         .is_required = true},
        {.name = "PATH", .help = "a path to translate", .target = &arguments.path},
        {.name = "--mount-options",
         .help = "TEXT is mount options that hold the map",
         .target = &arguments.is_mount_options},
    };
}

int explain(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {{"pair", Type::integer, "its number, from 1"},
                              {"prefix", Type::text, "what a path begins with"},
                              {"target", Type::text, "what takes the prefix's place"},
                              {"pathname", Type::text, "what the pair makes of PATH as a pathname", true},
                              {"poolname", Type::text, "what it makes of PATH as the name of a pool", true}};
constexpr Output output = {Output::Shape::list, columns};

constexpr const char *notes =
    R"(PATH is translated as a pathname, by the first prefix that it begins with, and as the name of a pool, by every pair
that has all of it as its prefix, one after the other. What a pair made of it stands beside the pair. With a PATH that
no prefix matches the command fails.
)";

constexpr Command commands[] = {
    {.path = "poolmap", .help = "Pool maps: where the storage pools of a vault are reached"},
    {.path = "poolmap explain",
     .help = "Take a pool map apart, and translate a path by it",
     .examples = {"veliactl poolmap explain '/vaults/=/net/pluto/vaults/|/old/=/net/moon/old/'",
                  "veliactl poolmap explain '/vaults/=/net/pluto/vaults/' /vaults/src",
                  "veliactl poolmap explain --mount-options 'ro,poolmap=/a/=/b/' /a/x --output json"},
     .notes = notes,
     .make = call_of<explain, options_of>,
     .output = &output},
};

struct DeleteArea {
    void operator()(stg_area_t area) const { stg_delete_area(&area); }
};
using Area = std::unique_ptr<std::remove_pointer_t<stg_area_t>, DeleteArea>;

struct Map {
    Area area = Area(stg_create_area(first_block_size));
    size_t count = 0;
    poolmap_elem_t *prefixes = nullptr;
    poolmap_elem_t *targets = nullptr;
};

// The library takes options that it cannot read for options without a map. Who asks what a map says wants to know.
bool can_be_read(std::string mount_options) { // is cut up
    char *map_text = nullptr;
    return rgy_find_attrval(mount_options.data(), "poolmap", &map_text) != TBS_ST_INVALID_ARG;
}

tbs_status_t crack(const Arguments &arguments, Map &map) {
    std::string text = arguments.text; // is cut up
    if (map.area == nullptr)
        return TBS_ST_NO_MEMORY;
    if (arguments.is_mount_options && !can_be_read(text)) {
        imsg_print(IMSG_ERROR, "Mount options with a name or a value of %d characters or more cannot be read\n",
                   IMSG_FORMAT, option_size_max);
        return TBS_ST_INVALID_ARG;
    }
    if (arguments.is_mount_options)
        return poolmap_crack_mntopts(text.data(), map.area.get(), &map.count, &map.prefixes, &map.targets);
    return poolmap_crack_mapstring(text.data(), map.area.get(), &map.count, &map.prefixes, &map.targets);
}

using Translation = tbs_status_t (*)(const char *, size_t, const poolmap_elem_t *, const poolmap_elem_t *, size_t,
                                     char *);

// What the first pairs of a map make of a path; nothing if none of them matches.
std::optional<std::string> translated(Translation operation, const Arguments &arguments, const Map &map,
                                      size_t pair_count) {
    if (arguments.path.empty())
        return std::nullopt;
    std::vector<char> buffer(arguments.text.size() + arguments.path.size() + 2); // enough for any target and the rest
    const auto status =
        operation(arguments.path.c_str(), pair_count, map.prefixes, map.targets, buffer.size(), buffer.data());
    return status == TBS_ST_OK && buffer[0] != '\0' ? std::optional<std::string>(buffer.data()) : std::nullopt;
}

// Beside each pair what it changed, seen from the maps that end before it and with it.
class Changes {
public:
    explicit Changes(Translation operation) : operation_(operation) {}

    Cell of_pair(const Arguments &arguments, const Map &map, size_t index) {
        const auto after = translated(operation_, arguments, map, index + 1);
        const bool is_changed = after != before_;
        before_ = after;
        return is_changed && after ? Cell(*after) : Cell();
    }
    bool is_translated() const { return before_.has_value(); }

private:
    Translation operation_;
    std::optional<std::string> before_;
};

void warn_of_long_prefixes(const Map &map) {
    for (size_t i = 0; i < map.count; ++i)
        if (map.prefixes[i].length >= POOLMAP_PREFIX_MAX)
            imsg_print(IMSG_WARNING,
                       "The prefix of pair %lu has %lu characters; one of %d or more matches no pathname\n",
                       IMSG_FORMAT, i + 1, map.prefixes[i].length, int{POOLMAP_PREFIX_MAX});
}

int explain(const Arguments &arguments, const Settings &settings) {
    Map map;
    const auto status = crack(arguments, map);
    if (status != TBS_ST_OK) {
        tell_failure(status, "", "The pool map cannot be used: %s\n", tbs_strerror(status));
        return exit_failed;
    }
    warn_of_long_prefixes(map);
    Results results(output, settings);
    Changes pathname(poolmap_translate_pathname);
    Changes poolname(poolmap_translate_poolname);
    for (size_t i = 0; i < map.count; ++i)
        results.add({i + 1, map.prefixes[i].text, map.targets[i].text, pathname.of_pair(arguments, map, i),
                     poolname.of_pair(arguments, map, i)});
    results.finish();
    if (arguments.path.empty() || pathname.is_translated() || poolname.is_translated())
        return exit_done;
    tell_failure(TBS_ST_NOT_FOUND, "", "No prefix of the map matches '%s'\n", arguments.path.c_str());
    return exit_failed;
}

} // namespace

const Commands pool_map_commands = commands;

} // namespace velia::cli
