// Everything here comes from the rows of columns, so that a result and what is told of it cannot differ.
#include <cli/schema.h>

#include <fmt/core.h>

namespace velia::cli {

namespace {

constexpr size_t name_width = 28; // as the help has it for options

struct TypeWords {
    const char *words;
    const char *json_type;
    const char *further; // members of its schema
};

constexpr const char *quoting_rule =
    "In plain and table a value with a blank or a double quote stands in double quotes; in a list also one with a "
    "comma, as an item (name=value) also one with an equal sign.\n";

constexpr const char *attribute_schema = R"("additionalProperties":{"type":["string","boolean","array"]})";
constexpr const char *item_schema = R"("additionalProperties":{"type":["string","object","array"]})";

TypeWords words_of(Type type) {
    switch (type) {
    case Type::integer:
        return {"integer", "integer", ""};
    case Type::number:
        return {"number", "number", ""};
    case Type::time:
        return {"time", "string", R"("format":"date-time")"};
    case Type::texts:
        return {"list", "array", R"("items":{"type":"string"})"};
    case Type::items:
        return {"object", "object", item_schema};
    case Type::attributes:
        return {"object", "object", attribute_schema};
    default:
        return {"text", "string", ""};
    }
}

std::string schema_of_column(const Column &column) {
    const auto type = words_of(column.type);
    const std::string name = json_text(type.json_type);
    return fmt::format(R"({}:{{"type":{}{}{},"description":{}}})", json_text(column.name),
                       column.may_be_null ? "[" + name + R"(,"null"])" : name, *type.further != '\0' ? "," : "",
                       type.further, json_text(column.help));
}

std::string schema_of_row(const Output &output) {
    std::vector<std::string> properties;
    std::vector<std::string> required;
    for (const auto &column : output.columns) {
        properties.push_back(schema_of_column(column));
        if (column.needs == nullptr)
            required.push_back(json_text(column.name));
    }
    return fmt::format(R"({{"type":"object","properties":{{{}}},"required":[{}],"additionalProperties":false}})",
                       joined(properties, ","), joined(required, ","));
}

} // namespace

std::string words_of_type(const Column &column) {
    return std::string(words_of(column.type).words) + (column.may_be_null ? " or null" : "");
}

std::string help_of_results(const Command &command) {
    if (command.output == nullptr)
        return "";
    const bool is_list = command.output->shape == Output::Shape::list;
    std::string help = is_list ? "Results, any number of:\n" : "Result:\n";
    for (const auto &column : command.output->columns) {
        const std::string head = std::string(column.name) + " " + words_of_type(column);
        help +=
            fmt::format("  {:<{}}{}{}{}\n", head, head.size() < name_width ? name_width : head.size() + 2, column.help,
                        column.needs != nullptr ? "; with " : "", column.needs != nullptr ? column.needs : "");
    }
    return help + "\n" + quoting_rule + "\n";
}

std::string schema_of(const Command &command) {
    const std::string row = schema_of_row(*command.output);
    const bool is_list = command.output->shape == Output::Shape::list;
    return fmt::format(R"({{"$schema":"https://json-schema.org/draft/2020-12/schema","title":{},"description":{},{}}})",
                       json_text(std::string("veliactl ") + command.path), json_text(command.help),
                       is_list ? R"("type":"array","items":)" + row : row.substr(1, row.size() - 2));
}

std::string schemas_of(const Program &program) {
    std::vector<std::string> members;
    for (const auto &command : program.commands)
        if (command.output != nullptr)
            members.push_back(json_text(command.path) + ":" + schema_of(command));
    return "{" + joined(members, ",\n") + "}";
}

} // namespace velia::cli
