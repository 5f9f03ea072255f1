// JSON as tests look at it. json.cpp alone knows the library that reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace velia::system_test {

struct Json {
    enum class Kind { none, null, boolean, number, text, list, object };

    // A value of Kind::none for what is no JSON. So is a member that is not there; it equals nothing.
    static Json parse(const std::string &line);
    static Json list(std::vector<Json> items);
    static Json object(std::initializer_list<std::pair<const char *, Json>> members);

    Json();
    Json(std::nullptr_t);
    Json(const char *value);
    Json(std::string value);
    Json(int32_t value);
    Json(uint32_t value);

    bool operator==(const Json &other) const;
    const Json &operator[](int index) const;
    const Json &operator[](const char *name) const;

    bool is_valid() const { return kind != Kind::none; }
    bool is_object() const { return kind == Kind::object; }
    size_t size() const { return items.size(); }

    // Of another kind they are 0 and empty, and a failure of the test.
    double number() const;
    std::string text() const;

    std::string dump() const;

    Kind kind = Kind::none;
    std::string scalar;             // of a text its characters, of a boolean and a number how JSON writes it
    std::vector<Json> items;        // of a list and an object
    std::vector<std::string> names; // of an object's items
};

void PrintTo(const Json &value, std::ostream *out);

} // namespace velia::system_test
