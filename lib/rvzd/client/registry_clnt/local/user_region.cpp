// The map of users to regions. The first block that names the user decides at once; groups and the default are
// remembered on the way, the last of each, for a map that does not name him.
#include <veliaxdr/rgy_local.h>

#include <common/refused_file.h>
#include <rvzd/client/registry_clnt/local/local_files.h>
#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/credutl.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::registry_clnt;

namespace {

constexpr size_t region_size = 33;
constexpr size_t name_size = 256;
constexpr FileBounds map_bounds = {list_file.file_bytes, 1022};
constexpr char separators[] = "= \t{\n";
constexpr char unknown_domain[] = "<unknown>";

bool begins_with(const char *text, const char *prefix) {
    return strutl_match_prefix(text, prefix, nullptr) == 0;
}

enum class Found { nothing_yet, user, malformed };

struct MapReader {
    const credutl_string_credentials_t &process;
    bool in_block;
    char region[region_size]; // of the block
    char user_region[region_size];
    char group_region[region_size];
    char default_region[region_size];

    static void keep(char (&kept)[region_size], const char (&found)[region_size]) { memcpy(kept, found, region_size); }

    Found open_block(const char *name) {
        in_block = true;
        return strutl_cpy_buf(region, name, sizeof region) == 0 ? Found::nothing_yet : Found::malformed;
    }

    Found take_member(const char *member) {
        const char *group = strstr(member, "group:");
        if (group != nullptr) {
            if (is_user_of(process.group, group + strlen("group:")))
                keep(group_region, region);
        } else if (strcmp(member, "%DEFAULT%") == 0) {
            keep(default_region, region);
        } else if (is_user_of(process.user, member)) {
            keep(user_region, region);
            return Found::user;
        }
        return Found::nothing_yet;
    }

    // What follows the end of a block on its line is dropped.
    Found take_line(char *line) {
        line[strcspn(line, "#")] = '\0';
        for (char *token = strutl_tokenize(line, separators); token != nullptr;
             token = strutl_tokenize(nullptr, separators)) {
            if (*token == '}') {
                if (!in_block)
                    return Found::malformed;
                in_block = false;
                return Found::nothing_yet;
            }
            const Found found = in_block ? take_member(token) : open_block(token);
            if (found != Found::nothing_yet)
                return found;
        }
        return Found::nothing_yet;
    }
};

Found read_map(TextFile &file, MapReader &reader, FileOutcome &outcome) {
    TextLine line;
    while ((outcome = file.next_line(line)) == FileOutcome::ok) {
        const Found found = reader.take_line(line.text);
        if (found != Found::nothing_yet)
            return found;
    }
    return outcome == FileOutcome::end ? Found::nothing_yet : Found::malformed;
}

// The region that counts; null if there is none for this user. No region has an empty name.
const char *region_of(const MapReader &reader, Found found) {
    if (found == Found::malformed)
        return nullptr;
    if (found == Found::user)
        return reader.user_region;
    const char *region = *reader.group_region != '\0' ? reader.group_region : reader.default_region;
    return *region != '\0' ? region : nullptr;
}

bool get_process_names(credutl_string_credentials_t &names) {
    credutl_sid_credentials_t sids;
    return credutl_get_sid_credentials(&sids) == 0 && credutl_sid_credentials_to_string_credentials(&sids, &names) == 0;
}

} // namespace

bool velia::registry_clnt::is_user_of(const char *user, const char *pattern) {
    if (begins_with(user, pattern))
        return true;
    char user_domain[name_size];
    char user_name[name_size];
    char pattern_domain[name_size];
    char pattern_name[name_size];
    if (credutl_crack_fq_name(user, user_domain, name_size, user_name, name_size) != 0 ||
        credutl_crack_fq_name(pattern, pattern_domain, name_size, pattern_name, name_size) != 0)
        return false;
    if (!begins_with(pattern_domain, unknown_domain) && !begins_with(pattern_domain, user_domain))
        return false;
    return begins_with(pattern_name, user_name);
}

int32_t username_match(const char *user, const char *pattern) {
    return user != nullptr && pattern != nullptr && is_user_of(user, pattern) ? 1 : 0;
}

tbs_status_t registry_prop_get_user_region(const char *map_path, size_t size, char *buffer) {
    credutl_string_credentials_t names;
    if (map_path == nullptr || buffer == nullptr || !get_process_names(names))
        return TBS_ST_ERROR;
    return with_inhibit([&]() -> tbs_status_t {
        TextFile file;
        FileOutcome outcome = file.open(map_path, map_bounds);
        MapReader reader = {names, false, "", "", "", ""};
        Found found = Found::malformed;
        if (outcome == FileOutcome::ok) {
            found = read_map(file, reader, outcome);
            file.close();
        }
        if (is_refused(outcome))
            print_refused_file(subsystem, map_path, file, outcome);
        const char *region = region_of(reader, found);
        if (region == nullptr || strlen(region) >= size)
            return TBS_ST_ERROR;
        return strutl_cpy_buf(buffer, region, size) == 0 ? TBS_ST_OK : TBS_ST_ERROR;
    });
}
