#include <tests/system/support/json.h>

#include <algorithm>
#include <cstdlib>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace velia::system_test {

namespace {

using Kind = Json::Kind;
using Library = nlohmann::json;

const Json nothing;

Kind kind_of(const Library &value) {
    if (value.is_number())
        return Kind::number;
    switch (value.type()) {
    case Library::value_t::null:
        return Kind::null;
    case Library::value_t::boolean:
        return Kind::boolean;
    case Library::value_t::string:
        return Kind::text;
    case Library::value_t::array:
        return Kind::list;
    case Library::value_t::object:
        return Kind::object;
    default:
        return Kind::none;
    }
}

Json of_library(const Library &value) {
    Json result;
    result.kind = kind_of(value);
    if (value.is_structured()) {
        for (const auto &[name, item] : value.items()) {
            result.items.push_back(of_library(item));
            if (value.is_object())
                result.names.push_back(name);
        }
    } else if (result.is_valid()) {
        result.scalar = value.is_string() ? value.get<std::string>() : value.dump();
    }
    return result;
}

Json made(Kind kind, std::string scalar) {
    Json result;
    result.kind = kind;
    result.scalar = std::move(scalar);
    return result;
}

std::string quoted(const std::string &text) {
    return Library(text).dump(-1, ' ', false, Library::error_handler_t::replace);
}

} // namespace

Json Json::parse(const std::string &line) {
    return of_library(Library::parse(line, nullptr, false));
}

Json Json::list(std::vector<Json> items) {
    Json result = made(Kind::list, "");
    result.items = std::move(items);
    return result;
}

Json Json::object(std::initializer_list<std::pair<const char *, Json>> members) {
    Json result = made(Kind::object, "");
    for (const auto &[name, item] : members) {
        result.names.emplace_back(name);
        result.items.push_back(item);
    }
    return result;
}

Json::Json() = default;
Json::Json(std::nullptr_t) : Json(made(Kind::null, "null")) {}
Json::Json(const char *value) : Json(made(Kind::text, value)) {}
Json::Json(std::string value) : Json(made(Kind::text, std::move(value))) {}
Json::Json(int32_t value) : Json(made(Kind::number, std::to_string(value))) {}
Json::Json(uint32_t value) : Json(made(Kind::number, std::to_string(value))) {}

// The members of an object have no order.
bool Json::operator==(const Json &other) const {
    if (!is_valid() || kind != other.kind || scalar != other.scalar || items.size() != other.items.size())
        return false;
    if (!is_object())
        return items == other.items;
    return std::all_of(names.begin(), names.end(),
                       [&](const std::string &name) { return (*this)[name.c_str()] == other[name.c_str()]; });
}

const Json &Json::operator[](int index) const {
    const auto place = static_cast<size_t>(index);
    return index >= 0 && place < items.size() ? items[place] : nothing;
}

const Json &Json::operator[](const char *name) const {
    const auto found = std::find(names.begin(), names.end(), name);
    return found != names.end() ? items[static_cast<size_t>(found - names.begin())] : nothing;
}

double Json::number() const {
    EXPECT_EQ(kind, Kind::number) << dump();
    return kind == Kind::number ? std::strtod(scalar.c_str(), nullptr) : 0;
}

std::string Json::text() const {
    EXPECT_EQ(kind, Kind::text) << dump();
    return kind == Kind::text ? scalar : "";
}

std::string Json::dump() const {
    if (kind != Kind::list && !is_object())
        return kind == Kind::text ? quoted(scalar) : is_valid() ? scalar : "nothing";
    std::string all;
    for (size_t i = 0; i < items.size(); ++i)
        all += (i == 0 ? "" : ",") + (is_object() ? quoted(names[i]) + ":" : "") + items[i].dump();
    return is_object() ? "{" + all + "}" : "[" + all + "]";
}

void PrintTo(const Json &value, std::ostream *out) {
    *out << value.dump();
}

} // namespace velia::system_test
