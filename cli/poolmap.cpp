// veliactl poolmap: what a pool map says, and what becomes of a path by it.
#include <cli/commands.h>

#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#include <support/imsg.h>
#include <support/stg.h>
#include <veliaxdr/poolmap.h>

namespace velia::cli {

namespace {

constexpr const char *footer = R"(Examples:
  veliactl poolmap explain '/vaults/=/net/pluto/vaults/|/old/=/net/moon/old/'
  veliactl poolmap explain '/vaults/=/net/pluto/vaults/' /vaults/src
  veliactl poolmap explain --mount-options 'ro,poolmap=/a/=/b/' /a/x --output json

PATH is translated as a pathname, by the first prefix that it begins with, and as the name of a pool, by every pair
that has all of it as its prefix, one after the other. What a pair made of it stands beside the pair. With a PATH that
no prefix matches the command fails.
)";

constexpr size_t first_block_size = 4096;

struct Arguments {
    std::string text;
    std::string path;
    bool is_mount_options = false;
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

tbs_status_t crack(const Arguments &arguments, Map &map) {
    std::string text = arguments.text; // is cut up
    if (map.area == nullptr)
        return TBS_ST_NO_MEMORY;
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
        imsg_print(IMSG_ERROR, "The pool map cannot be used: %s\n", IMSG_FORMAT, tbs_strerror(status));
        return exit_failed;
    }
    warn_of_long_prefixes(map);
    Results results({"pair", "prefix", "target", "pathname", "poolname"});
    Changes pathname(poolmap_translate_pathname);
    Changes poolname(poolmap_translate_poolname);
    for (size_t i = 0; i < map.count; ++i)
        results.add({i + 1, map.prefixes[i].text, map.targets[i].text, pathname.of_pair(arguments, map, i),
                     poolname.of_pair(arguments, map, i)});
    results.print(settings.format, settings.with_headers, std::cout);
    if (arguments.path.empty() || pathname.is_translated() || poolname.is_translated())
        return exit_done;
    imsg_print(IMSG_ERROR, "No prefix of the map matches '%s'\n", IMSG_FORMAT, arguments.path.c_str());
    return exit_failed;
}

} // namespace

void add_pool_map_commands(CLI::App &app, Settings &settings, Command &chosen) {
    CLI::App *group = app.add_subcommand("poolmap", "Pool maps: where the storage pools of a vault are reached");
    group->require_subcommand(1);
    group->footer(exit_status_help);
    auto arguments = std::make_shared<Arguments>();
    CLI::App *command = group->add_subcommand("explain", "Take a pool map apart, and translate a path by it");
    command->add_option("TEXT", arguments->text, "the map: prefix=target|prefix=target...")->type_name("")->required();
    command->add_option("PATH", arguments->path, "a path to translate")->type_name("");
    command->add_flag("--mount-options", arguments->is_mount_options, "TEXT is mount options that hold the map");
    add_common_options(*command, settings);
    command->footer(std::string(footer) + "\n" + exit_status_help);
    command->callback(
        [arguments, &chosen] { chosen = [arguments](const Settings &given) { return explain(*arguments, given); }; });
}

} // namespace velia::cli
