// One entry as the registry sees it: its flex text taken apart, and what makes it unlike the others of its database.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <veliaxdr/rgy_entry.h>

namespace velia::server {

struct Record {
    uint64_t id = 0; // 0: not stored yet
    std::string flex_text;
};

// Keys with their hyphen; of a key that stands twice the later value counts.
using Items = std::map<std::string, std::string>;

// Nothing when the text is malformed.
std::optional<Items> items_of(const std::string &flex_text);

// The value, or the empty text.
std::string value_of(const Items &items, const std::string &key);

// The one spelling of a uuid; nothing for what is none.
std::optional<std::string> spelled_uuid(const std::string &text);

// What no two entries of the database may share, or the empty text where the entry has no such items.
std::string identity_of(rgy_db_t db, const Items &items);

// True when the attribute text ("name=value,name") holds the name, and, unless `value` is empty, with that value.
bool has_attribute(std::string attributes, const std::string &name, const std::string &value);

// "-key=glob" looks at that item; a glob alone at what names the entry, its -tag or its -name.
bool matches_pattern(const Items &items, const std::string &pattern);

} // namespace velia::server
