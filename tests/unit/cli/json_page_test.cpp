// doc/json.md is what the rows of the commands say. Where it is not, the test leaves the page as it should be in
// json.md of the folder that it runs in.
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include <cli/commands.h>
#include <cli/schema.h>

using namespace velia::cli;

namespace {

constexpr const char *page_head =
    R"(# JSON that veliactl prints

`--output json` prints one document: an object for a command that has one result, a list of objects for one that may have
any number of them, `[]` if there is none. `--output jsonl` prints the same objects, one a line, for streams: `server list
--watch`, and lists that are too long to be read at once. Both are written as the results come. A list that breaks off in
the middle is not closed, so that no reader takes it for a whole one, and the exit status is not 0.

`veliactl COMMAND --schema` prints the JSON Schema of a command's document, `veliactl --schema` an object with all of
them. What follows is made from the same rows.

| Type | In JSON |
|---|---|
| text | a string |
| integer, number | a number |
| time | a string, ISO 8601 with the offset from UTC: `2026-11-21T23:01:05+01:00` |
| list | an array of strings |
| object | an object: of items, a string by each name, or an array of them for a name that comes again; `attributes` are an object themselves, whose members are strings, or `true` for one without a value |

Errors and warnings are objects, too, one a line on standard error, with the members `severity` (error, warning, progress or
trace), `message`, `status` (an object with `name` and `number`, as `{"name":"NOT_FOUND","number":1002}`, or null) and `host`
(whose failure it is, or null). What the library tells of the steps on the way has neither.
)";

std::string section_of(const Command &command) {
    const bool is_list = command.output->shape == Output::Shape::list;
    std::string section = std::string("\n## veliactl ") + command.path + "\n\n" + command.help + ": " +
                          (is_list ? "a list of objects." : "one object.") +
                          "\n\n| Member | Type | What |\n|---|---|---|\n";
    for (const auto &column : command.output->columns)
        section += std::string("| `") + column.name + "` | " + words_of_type(column) + " | " + column.help +
                   (column.needs != nullptr ? std::string("; with `") + column.needs + "` only" : "") + " |\n";
    return section;
}

std::string page() {
    CommonArguments common;
    std::string text = page_head;
    for (const auto &command : whole_program(common).commands)
        if (command.output != nullptr)
            text += section_of(command);
    return text;
}

} // namespace

TEST(JsonPage, TellsWhatTheRowsOfTheCommandsSay) {
    std::ostringstream text;
    text << std::ifstream(JSON_PAGE).rdbuf();
    const std::string wanted = page();
    if (text.str() != wanted)
        std::ofstream("json.md") << wanted;
    EXPECT_EQ(text.str(), wanted);
}
