#include <cli/json_lines.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include <nlohmann/json.hpp>

#include <cli/output.h>
#include <cli/registry.h>
#include <veliaxdr/rgy_site.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

namespace {

using Json = nlohmann::ordered_json; // the items keep their order

struct Flaw : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bool are_known(const std::vector<EntryItem> &items) {
    return std::all_of(items.begin(), items.end(),
                       [](const EntryItem &item) { return item_of_name(item.name).has_value(); });
}

std::string text_of_items(const std::vector<EntryItem> &items) {
    std::string text;
    for (const auto &[name, values] : items)
        for (const auto &value : values)
            text.append("-").append(name).append("=").append(value).append(";");
    return text;
}

std::string hexadecimal(const std::string &bytes) {
    constexpr const char *digits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += digits[static_cast<unsigned char>(byte) >> 4];
        text += digits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

std::string bytes_of(const std::string &digits) {
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdef") != std::string::npos)
        throw Flaw("\"bytes\" are no pairs of hexadecimal digits");
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

bool is_utf8(const std::string &text) {
    try {
        Json(text).dump();
        return true;
    } catch (const Json::type_error &) {
        return false;
    }
}

const Json &member(const Json &object, const char *name, Json::value_t type) {
    const auto found = object.find(name);
    if (found == object.end())
        throw Flaw("it has no \"" + std::string(name) + "\"");
    if (found->type() != type)
        throw Flaw("\"" + std::string(name) + "\" is not what it has to be");
    return *found;
}

std::string value_of(const std::string &name, const Json &value) {
    if (!value.is_string())
        throw Flaw("\"" + name + "\" is no text");
    auto text = value.get<std::string>();
    if (text.find('\0') != std::string::npos || rgy_validate_string(text.c_str()) != TBS_ST_OK)
        throw Flaw("the value of \"" + name + "\" holds a semicolon, a line feed or a null");
    return text;
}

EntryItem item_of(const std::string &name, const Json &value) {
    if (!item_of_name(name))
        throw Flaw("\"" + name + "\" is no item");
    EntryItem item = {name, {}};
    if (!value.is_array())
        item.values.push_back(value_of(name, value));
    else
        for (const auto &one : value)
            item.values.push_back(value_of(name, one));
    return item;
}

std::string text_of(const Json &object) {
    if (object.contains("bytes"))
        return bytes_of(member(object, "bytes", Json::value_t::string).get<std::string>());
    std::vector<EntryItem> items;
    for (const auto &[name, value] : member(object, "items", Json::value_t::object).items())
        items.push_back(item_of(name, value));
    return text_of_items(items);
}

EntryLine entry_of(const Json &object) {
    if (!object.is_object())
        throw Flaw("it is no JSON object");
    EntryLine entry;
    const auto db = db_of_name(member(object, "db", Json::value_t::string).get<std::string>());
    if (!db)
        throw Flaw("\"db\" names no database");
    entry.db = *db;
    if (object.contains("id"))
        entry.id = member(object, "id", Json::value_t::number_unsigned).get<uint64_t>();
    entry.flex_text = text_of(object);
    if (entry.flex_text.empty())
        throw Flaw("it has no items");
    if (entry.flex_text.size() > RGY_WIRE_FLEX_MAX)
        throw Flaw("it is longer than an entry may be");
    return entry;
}

} // namespace

std::optional<std::vector<EntryItem>> entry_items(const std::string &flex_text) {
    rgy_flex_entry_t flex = {};
    if (rgy_expand_flex_entry(flex_text.c_str(), &flex) != TBS_ST_OK)
        return std::nullopt;
    std::vector<EntryItem> items;
    for (int32_t i = 0; i < flex.count; ++i) {
        const std::string name = std::string(flex.items[i].name).substr(1);
        auto item =
            std::find_if(items.begin(), items.end(), [&](const EntryItem &known) { return known.name == name; });
        if (item == items.end())
            item = items.insert(items.end(), {name, {}});
        item->values.emplace_back(flex.items[i].value);
    }
    rgy_destroy_flex_entry(&flex);
    return items;
}

std::string line_of(const EntryLine &entry) {
    std::string line = "{\"db\":" + json_text(registry_db_name(entry.db));
    if (entry.id != 0)
        line += ",\"id\":" + std::to_string(entry.id);
    const auto items = entry_items(entry.flex_text);
    if (!items || !are_known(*items) || !is_utf8(entry.flex_text) || text_of_items(*items) != entry.flex_text)
        return line + R"(,"bytes":")" + hexadecimal(entry.flex_text) + "\"}";
    line += ",\"items\":{";
    const char *separator = "";
    for (const auto &[name, values] : *items) {
        line += separator + json_text(name) + ":";
        line += values.size() == 1 ? json_text(values[0]) : Json(values).dump();
        separator = ",";
    }
    return line + "}}";
}

std::optional<EntryLine> entry_of_line(const std::string &line, std::string &why) {
    try {
        return entry_of(Json::parse(line));
    } catch (const Flaw &flaw) {
        why = flaw.what();
    } catch (const Json::exception &) {
        why = "it is no JSON";
    }
    return std::nullopt;
}

} // namespace velia::cli
