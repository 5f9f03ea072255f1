// What the registry reads out of a flex text, by the library's own readers.
#include <server/registry/record.h>

#include <array>
#include <fnmatch.h>
#include <string_view>
#include <vector>

#include <veliaxdr/rgy_identity.h>

namespace velia::server {

namespace {

#define IDENTITY(DB, FIRST, SECOND) std::array<uint32_t, 2>{FIRST, SECOND},
constexpr std::array identities = {RGY_ENTRY_IDENTITIES(IDENTITY)};
#undef IDENTITY
static_assert(identities.size() == RGY_DB_ALL);

// The first of the site's settings has, beside the entry of its name, one in an old form without a name: there may be
// one of each. No name begins with a semicolon.
constexpr const char *old_form_identity = ";default_viewsize;";

bool is_old_form(rgy_db_t db, const Items &items) {
    return db == RGY_DB_SITE_CONFIG && value_of(items, registry_item_name(RGY_ITEM_NAME)).empty() &&
           items.contains(registry_item_name(RGY_ITEM_DEFAULT_VIEWSIZE));
}

} // namespace

std::optional<Items> items_of(const std::string &flex_text) {
    rgy_flex_entry_t flex = {};
    if (rgy_expand_flex_entry(flex_text.c_str(), &flex) != TBS_ST_OK)
        return std::nullopt;
    Items items;
    for (int32_t i = 0; i < flex.count; ++i)
        items[flex.items[i].name] = flex.items[i].value;
    rgy_destroy_flex_entry(&flex);
    return items;
}

std::string value_of(const Items &items, const std::string &key) {
    const auto item = items.find(key);
    return item != items.end() ? item->second : "";
}

std::optional<std::string> spelled_uuid(const std::string &text) {
    tbs_uuid_t uuid;
    std::array<char, TBS_UUID_STR_SIZE> spelled;
    if (tbs_str_to_uuid(text.c_str(), &uuid) != TBS_ST_OK || tbs_uuid_to_str(&uuid, spelled.data()) == nullptr)
        return std::nullopt;
    return spelled.data();
}

std::string identity_of(rgy_db_t db, const Items &items) {
    if (db >= identities.size())
        return "";
    if (is_old_form(db, items))
        return old_form_identity;
    std::string identity;
    for (const uint32_t item : identities[db]) {
        const std::string value = item < RGY_ITEM_COUNT ? value_of(items, registry_item_name(item)) : "";
        if (identity.empty() && value.empty())
            return "";
        identity += spelled_uuid(value).value_or(value) + ";"; // no value that is added holds a semicolon
    }
    return identity;
}

bool has_attribute(std::string attributes, const std::string &name, const std::string &value) {
    char *found = nullptr;
    if (rgy_find_attrval(attributes.data(), name.c_str(), &found) != TBS_ST_OK)
        return false;
    return value.empty() || (found != nullptr && value == found);
}

bool matches_pattern(const Items &items, const std::string &pattern) {
    const auto matches = [&](const std::string &key, const std::string &glob) {
        const auto item = items.find(key);
        return item != items.end() && fnmatch(glob.c_str(), item->second.c_str(), 0) == 0;
    };
    const auto equals = pattern.find('=');
    if (pattern.starts_with('-') && equals != std::string::npos)
        return matches(pattern.substr(0, equals), pattern.substr(equals + 1));
    return matches(registry_item_name(RGY_ITEM_TAG), pattern) || matches(registry_item_name(RGY_ITEM_NAME), pattern);
}

} // namespace velia::server
