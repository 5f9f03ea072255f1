// Pool maps: a path or the name of a pool, a newline, and the text of a map, cracked by itself and as mount options.
// The pairs, and what becomes of the name, are those of a plain reading of the text.
#include <fuzz/harness.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include <veliaxdr/poolmap.h>
#include <veliaxdr/rgy_entry.h>

namespace {

struct Pair {
    std::string prefix;
    std::string target;

    bool is_good(bool check_slashes) const {
        return check_slashes ? prefix.ends_with('/') && target.ends_with('/') : !prefix.empty() && !target.empty();
    }
};
using Pairs = std::vector<Pair>;

// Nothing for a text that is to be refused.
std::optional<Pairs> expected_pairs(const std::string &text, bool check_slashes) {
    Pairs pairs;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find('|', at), text.size());
        const std::string token = text.substr(at, end - at);
        at = end + 1;
        if (token.empty())
            continue;
        const size_t equals = token.find('=');
        if (equals == std::string::npos)
            return std::nullopt;
        pairs.push_back({token.substr(0, equals), token.substr(equals + 1)});
        if (!pairs.back().is_good(check_slashes))
            return std::nullopt;
    }
    return pairs;
}

std::string expected_pathname(const Pairs &pairs, const std::string &path) {
    for (const auto &[prefix, target] : pairs)
        if (prefix.size() < POOLMAP_PREFIX_MAX && path.starts_with(prefix))
            return target + path.substr(prefix.size());
    return "";
}

// In a buffer that is large enough for all.
std::string expected_poolname(const Pairs &pairs, std::string name) {
    bool is_matched = false;
    name += '/';
    for (const auto &[prefix, target] : pairs) {
        if (prefix != name)
            continue;
        is_matched = true;
        name = target;
    }
    const size_t separator = name.rfind('/');
    return !is_matched ? "" : separator != std::string::npos ? name.substr(0, separator) : name;
}

class Map {
public:
    Map() = default;
    ~Map() { stg_delete_area(&area); }
    Map(const Map &) = delete;
    Map &operator=(const Map &) = delete;

    stg_area_t area = stg_create_area(64);
    size_t count = 0;
    poolmap_elem_t *prefixes = nullptr;
    poolmap_elem_t *targets = nullptr;

    void require(const Pairs &pairs) const {
        FUZZ_REQUIRE(count == pairs.size());
        for (size_t i = 0; i < count; ++i) {
            require(prefixes[i], pairs[i].prefix);
            require(targets[i], pairs[i].target);
        }
    }

private:
    static void require(const poolmap_elem_t &element, const std::string &text) {
        FUZZ_REQUIRE(element.length == text.size() && element.size == text.size() + 1 && element.text == text);
    }
};

using Translation = tbs_status_t (*)(const char *, size_t, const poolmap_elem_t *, const poolmap_elem_t *, size_t,
                                     char *);

void translate(Translation operation, const Map &map, const std::string &name, const std::string &expected,
               size_t roomy) {
    for (const size_t size : {roomy, size_t{1}, name.size() + 2, expected.size() + 1}) {
        std::vector<char> buffer(size);
        const auto status = operation(name.c_str(), map.count, map.prefixes, map.targets, size, buffer.data());
        FUZZ_REQUIRE(status == TBS_ST_OK || status == TBS_ST_NAME_TOO_LONG || status == TBS_ST_ERROR);
        FUZZ_REQUIRE(strnlen(buffer.data(), size) < size);
        FUZZ_REQUIRE(size < roomy || (status != TBS_ST_NAME_TOO_LONG && expected == buffer.data()));
    }
}

void crack_and_translate(const std::string &name, const std::string &text, bool check_slashes) {
    Map map;
    std::string copy = text;
    const auto pairs = expected_pairs(text, check_slashes);
    const auto status = poolmap_crack_mapstring_and_check(copy.data(), map.area, check_slashes, &map.count,
                                                          &map.prefixes, &map.targets);
    FUZZ_REQUIRE(status == (pairs ? TBS_ST_OK : TBS_ST_INVALID_ARG));
    if (!pairs)
        return;
    map.require(*pairs);
    const size_t roomy = name.size() + text.size() + 2;
    translate(poolmap_translate_pathname, map, name, expected_pathname(*pairs, name), roomy);
    translate(poolmap_translate_poolname, map, name, expected_poolname(*pairs, name), roomy);
}

void crack_options(const std::string &text) {
    Map map;
    std::string copy = text;
    std::string again = text;
    const auto status = poolmap_crack_mntopts(copy.data(), map.area, &map.count, &map.prefixes, &map.targets);
    char *value = nullptr;
    rgy_find_attrval(again.data(), "poolmap", &value);
    const auto pairs = value != nullptr ? expected_pairs(value, true) : Pairs();
    FUZZ_REQUIRE(status == (pairs ? TBS_ST_OK : TBS_ST_INVALID_ARG));
    if (pairs)
        map.require(*pairs);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Messages messages;
    std::string input(reinterpret_cast<const char *>(data), size);
    input = input.substr(0, input.find('\0'));
    const size_t line_end = input.find('\n');
    const std::string name = input.substr(0, line_end);
    const std::string text = line_end != std::string::npos ? input.substr(line_end + 1) : "";
    crack_and_translate(name, text, true);
    crack_and_translate(name, text, false);
    crack_options(text);
    crack_options("ro,poolmap=" + text + ",rw");
    return 0;
}
