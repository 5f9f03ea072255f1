// Pool maps: cracked into an area of the caller's, which owns all that was taken from it even when a later pair turns
// out to be wrong, and walked in the order in which they were written.
#include <veliaxdr/poolmap.h>

#include <algorithm>
#include <cstring>

#include <common/with.h>
#include <support/fileutl.h>
#include <support/strutl.h>
#include <veliaxdr/rgy_entry.h>

using namespace velia;

namespace {

constexpr char subsystem[] = "poolmap";
constexpr char option_name[] = "poolmap";
constexpr char pair_separator[] = "|";
constexpr char separator = '/';
// The place by which a target that does not fit is known in logs, wherever the code moves to.
constexpr char source_name[] = "poolmap";
constexpr int source_line = 302;

struct CrackedMap {
    size_t count;
    poolmap_elem_t *prefixes;
    poolmap_elem_t *targets;
};

struct MapInUse {
    size_t count;
    const poolmap_elem_t *prefixes;
    const poolmap_elem_t *targets;
};

bool ends_in_separator(const char *text) {
    const size_t length = strlen(text);
    return length > 0 && text[length - 1] == separator;
}

tbs_status_t refuse(int message, const char *text) {
    imsg_print(IMSG_ERROR, &_poolmap_rvzd_msg_table, message, text);
    return TBS_ST_INVALID_ARG;
}

size_t count_tokens(char *text) {
    size_t count = 0;
    for (const char *token = strutl_tokenize(text, pair_separator); token != nullptr;
         token = strutl_tokenize(nullptr, pair_separator))
        ++count;
    return count;
}

// Counting cuts the text up, so it is done on a copy. False without storage.
bool count_pairs(const char *map_text, size_t &count) {
    char *copy = nullptr;
    // The variable is cleared before a raise that waits can land, so that the copy is freed once.
    const auto free_copy = [&] {
        with_inhibit([&] {
            stg_free(copy);
            copy = nullptr;
        });
    };
    return with_release(
        [&] {
            with_inhibit([&] { copy = stg_strdup(map_text); });
            if (copy == nullptr)
                return false;
            count = count_tokens(copy);
            return true;
        },
        free_copy);
}

poolmap_elem_t *take_elements(stg_area_t area, size_t count) {
    return static_cast<poolmap_elem_t *>(stg_alloc(area, count * sizeof(poolmap_elem_t)));
}

bool take_text(stg_area_t area, const char *text, poolmap_elem_t &element) {
    element.text = stg_area_strdup(area, text);
    element.length = strlen(text);
    element.size = element.length + 1;
    return element.text != nullptr;
}

tbs_status_t check_pair(const char *prefix, const char *target, bool check_slashes) {
    const auto is_bad = [&](const char *text) { return check_slashes ? !ends_in_separator(text) : *text == '\0'; };
    if (is_bad(prefix))
        return refuse(POOLMAP_MSG_INVALID_PREFIX, prefix);
    if (is_bad(target))
        return refuse(POOLMAP_MSG_INVALID_TARGET, target);
    return TBS_ST_OK;
}

tbs_status_t crack_pair(char *token, stg_area_t area, bool check_slashes, poolmap_elem_t &prefix,
                        poolmap_elem_t &target) {
    char *equals = strchr(token, '=');
    if (equals == nullptr)
        return refuse(POOLMAP_MSG_INVALID_OPTION, token);
    *equals = '\0';
    const char *target_text = equals + 1;
    const auto status = check_pair(token, target_text, check_slashes);
    if (status != TBS_ST_OK)
        return status;
    return take_text(area, token, prefix) && take_text(area, target_text, target) ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

tbs_status_t crack(char *map_text, stg_area_t area, bool check_slashes, CrackedMap &map) {
    if (!count_pairs(map_text, map.count))
        return TBS_ST_NO_MEMORY;
    map.prefixes = take_elements(area, map.count);
    map.targets = take_elements(area, map.count);
    if (map.prefixes == nullptr || map.targets == nullptr)
        return TBS_ST_NO_MEMORY;
    char *token = strutl_tokenize(map_text, pair_separator);
    for (size_t i = 0; i < map.count && token != nullptr; ++i) {
        const auto status = crack_pair(token, area, check_slashes, map.prefixes[i], map.targets[i]);
        if (status != TBS_ST_OK)
            return status;
        token = strutl_tokenize(nullptr, pair_separator);
    }
    return TBS_ST_OK;
}

// The beginning of a path, cut to the length of one prefix after another. Prefixes of one length, as they often are,
// are compared with what is cut already: a byte written just before it is read back with its neighbours is slow.
class Beginning {
public:
    explicit Beginning(const char *path) : length_(std::min(strlen(path), sizeof text_ - 1)), cut_at_(length_) {
        memcpy(text_, path, length_);
        text_[length_] = '\0';
    }

    // A prefix that is longer than what is kept here matches nothing, whatever the platform takes for equal.
    bool equals(const poolmap_elem_t &prefix) {
        if (prefix.length >= sizeof text_)
            return false;
        cut(std::min(static_cast<size_t>(prefix.length), length_));
        return fileutl_pname_equal(text_, prefix.text) != 0;
    }

private:
    void cut(size_t place) {
        if (place == cut_at_)
            return;
        text_[cut_at_] = cut_off_;
        cut_off_ = text_[place];
        text_[place] = '\0';
        cut_at_ = place;
    }

    char text_[POOLMAP_PREFIX_MAX];
    size_t length_;
    size_t cut_at_;
    char cut_off_ = '\0';
};

// Replaces the name by the target of each prefix that it is; true if it was one. `status` is that of the last of them.
bool walk_pairs(const MapInUse &map, size_t size, char *name, tbs_status_t &status) {
    bool is_matched = false;
    for (size_t i = 0; i < map.count; ++i) {
        if (!fileutl_pname_equal(map.prefixes[i].text, name))
            continue;
        is_matched = true;
        status = TBS_ST_OK;
        if (strutl_cpy_buf(name, map.targets[i].text, size) == 0)
            continue;
        status = TBS_ST_NAME_TOO_LONG;
        tbs_log_int_error(subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_INTERNAL_ERROR, source_name, source_line, 0);
    }
    return is_matched;
}

tbs_status_t cut_separator_off(char *name) {
    size_t position = 0;
    if (!strutl_find_last_char(name, 0, STRUTL_PATH_SEPARATOR, &position)) {
        imsg_print(IMSG_ERROR, &_poolmap_rvzd_msg_table, POOLMAP_MSG_INVALID_TRANSLATION, name);
        imsg_print(IMSG_CONTINUATION, &_poolmap_rvzd_msg_table, POOLMAP_MSG_TRANSLATION_MUST_END);
        return TBS_ST_ERROR;
    }
    name[position] = '\0';
    return TBS_ST_OK;
}

} // namespace

tbs_status_t poolmap_crack_mapstring_and_check(char *map_text, stg_area_t area, tbs_boolean_t check_slashes,
                                               size_t *count, poolmap_elem_t **prefixes, poolmap_elem_t **targets) {
    char no_text[] = "";
    CrackedMap map = {};
    const auto status = crack(map_text != nullptr ? map_text : no_text, area, check_slashes != 0, map);
    if (status != TBS_ST_OK)
        return status;
    *count = map.count;
    *prefixes = map.prefixes;
    *targets = map.targets;
    return TBS_ST_OK;
}

tbs_status_t poolmap_crack_mapstring(char *map_text, stg_area_t area, size_t *count, poolmap_elem_t **prefixes,
                                     poolmap_elem_t **targets) {
    return poolmap_crack_mapstring_and_check(map_text, area, 1, count, prefixes, targets);
}

tbs_status_t poolmap_crack_mntopts(char *mount_options, stg_area_t area, size_t *count, poolmap_elem_t **prefixes,
                                   poolmap_elem_t **targets) {
    char *map_text = nullptr;
    if (rgy_find_attrval(mount_options, option_name, &map_text) == TBS_ST_OK && map_text != nullptr)
        return poolmap_crack_mapstring(map_text, area, count, prefixes, targets);
    *count = 0;
    *prefixes = nullptr;
    *targets = nullptr;
    return TBS_ST_OK;
}

tbs_status_t poolmap_translate_pathname(const char *path, size_t count, const poolmap_elem_t *prefixes,
                                        const poolmap_elem_t *targets, size_t size, char *buffer) {
    if (path == nullptr || buffer == nullptr)
        return TBS_ST_INVALID_ARG;
    if (size == 0)
        return TBS_ST_NAME_TOO_LONG;
    Beginning beginning(path);
    for (size_t i = 0; i < count; ++i) {
        if (!beginning.equals(prefixes[i]))
            continue;
        // A platform may take a path for equal to a prefix that is longer; nothing follows then.
        const char *rest = path + strnlen(path, prefixes[i].length);
        return strutl_concat(buffer, size, 2, targets[i].text, rest) == 0 ? TBS_ST_OK : TBS_ST_NAME_TOO_LONG;
    }
    buffer[0] = '\0';
    return TBS_ST_OK;
}

tbs_status_t poolmap_translate_poolname(const char *pool_name, size_t count, const poolmap_elem_t *prefixes,
                                        const poolmap_elem_t *targets, size_t size, char *buffer) {
    if (pool_name == nullptr || buffer == nullptr)
        return TBS_ST_INVALID_ARG;
    if (size == 0)
        return TBS_ST_NAME_TOO_LONG;
    tbs_status_t status = TBS_ST_OK;
    if (count > 0 && strutl_concat(buffer, size, 2, pool_name, "/") != 0) {
        buffer[0] = '\0';
        return TBS_ST_NAME_TOO_LONG;
    }
    if (!walk_pairs({count, prefixes, targets}, size, buffer, status))
        buffer[0] = '\0';
    else if (status == TBS_ST_OK)
        status = cut_separator_off(buffer);
    return status;
}
