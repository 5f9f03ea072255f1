#include <tests/system/support/json_schema.h>

#include <algorithm>
#include <regex>
#include <set>

namespace velia::system_test {

namespace {

using Kind = Json::Kind;

bool is_of_type(const Json &value, const std::string &type) {
    switch (value.kind) {
    case Kind::null:
        return type == "null";
    case Kind::boolean:
        return type == "boolean";
    case Kind::number:
        return type == "number" || (type == "integer" && value.scalar.find_first_of(".eE") == std::string::npos);
    case Kind::text:
        return type == "string";
    case Kind::list:
        return type == "array";
    case Kind::object:
        return type == "object";
    default:
        return false;
    }
}

std::string fault_of_type(const Json &value, const Json &type) {
    const auto fits = [&](const Json &name) { return is_of_type(value, name.scalar); };
    const bool is_good = type.kind == Kind::text ? fits(type) : std::any_of(type.items.begin(), type.items.end(), fits);
    return is_good ? "" : value.dump() + " is not of type " + type.dump();
}

std::string fault_of_format(const Json &value, const Json &format) {
    static const std::regex date_time(
        R"(\d{4}-(0\d|1[0-2])-([0-2]\d|3[01])T([01]\d|2[0-4]):[0-5]\d:[0-6]\d(Z|[+-]\d\d:\d\d))");
    if (format.scalar != "date-time")
        return "unknown format " + format.dump();
    return value.kind != Kind::text || std::regex_match(value.scalar, date_time) ? "" : value.dump() + " is no time";
}

std::string fault_of_members(const Json &value, const Json &schema, const std::string &place) {
    for (const auto &name : schema["required"].items)
        if (!value[name.scalar.c_str()].is_valid())
            return name.dump() + " is missing";
    for (size_t i = 0; i < value.items.size(); ++i) {
        const char *name = value.names[i].c_str();
        const Json &known = schema["properties"][name];
        const Json &wanted = known.is_valid() ? known : schema["additionalProperties"];
        if (wanted.kind == Kind::boolean && wanted.scalar == "false")
            return std::string("nothing is told of ") + name;
        if (wanted.is_object())
            if (const auto fault = fault_by_schema(value.items[i], wanted, place + "." + name); !fault.empty())
                return fault;
    }
    return "";
}

std::string fault_of_items(const Json &value, const Json &schema, const std::string &place) {
    for (size_t i = 0; i < value.items.size(); ++i)
        if (const auto fault = fault_by_schema(value.items[i], schema, place + "[" + std::to_string(i) + "]");
            !fault.empty())
            return fault;
    return "";
}

std::string fault_of_words(const Json &schema) {
    static const std::set<std::string> known = {
        "$schema", "title", "description", "type", "properties", "required", "additionalProperties", "items", "format"};
    for (const auto &name : schema.names)
        if (!known.contains(name))
            return "unknown word " + name;
    return schema["type"].is_valid() ? "" : "no type";
}

} // namespace

std::string fault_by_schema(const Json &value, const Json &schema, const std::string &place) {
    std::string fault = fault_of_words(schema);
    if (fault.empty())
        fault = fault_of_type(value, schema["type"]);
    if (fault.empty() && schema["format"].is_valid())
        fault = fault_of_format(value, schema["format"]);
    if (fault.empty() && value.is_object())
        fault = fault_of_members(value, schema, place);
    if (fault.empty() && value.kind == Kind::list && schema["items"].is_object())
        fault = fault_of_items(value, schema["items"], place);
    return fault.empty() || fault.starts_with("$") ? fault : place + ": " + fault;
}

} // namespace velia::system_test
