// The user's configuration file: lines of "key = value" as TOML has them, with a value that is a text in quotes, a
// number, true or false, or a list of those on one line; "[registry]" heads those of all commands of a group,
// "[registry.list]" those of one. It is read within bounds, and the first fault in it ends the reading.
#include <cli/given.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include <cli/parser.h>
#include <common/text_cursor.h>
#include <common/text_file.h>

namespace velia::cli {

namespace {

using Values = std::vector<std::string>;

struct Entry {
    std::string section; // the path of a group or a command; empty for all
    std::string key;
    Values values;
    size_t line;
};

[[noreturn]] void fail(const std::string &place, const std::string &fault) {
    throw SourceFault(place + ": " + fault);
}

bool is_name_letter(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
}

// One line, of which every fault is told with its place.
class LineReader {
public:
    LineReader(std::string_view text, std::string place) : cursor_(text), place_(std::move(place)) { skip_blanks(); }

    bool at_end() const { return cursor_.at_end() || cursor_.rest().front() == '#'; }
    bool consume(std::string_view text) {
        const bool is_there = cursor_.consume(text);
        if (is_there)
            skip_blanks();
        return is_there;
    }
    void want(std::string_view text) {
        if (!consume(text))
            fail(place_, "'" + std::string(text) + "' is missing at '" + std::string(cursor_.rest()) + "'");
    }
    void want_end() {
        if (!at_end())
            fail(place_, "'" + std::string(cursor_.rest()) + "' is too much");
    }
    std::string take_name() {
        std::string name = take_while(is_name_letter);
        if (name.empty())
            fail(place_, "a name is missing at '" + std::string(cursor_.rest()) + "'");
        skip_blanks();
        return name;
    }
    Values take_values() {
        if (!consume("["))
            return {take_value()};
        Values values;
        while (!consume("]")) {
            values.push_back(take_value());
            if (cursor_.rest().empty() || cursor_.rest().front() != ']')
                want(",");
        }
        return values;
    }

private:
    std::string take_value() {
        std::string value;
        if (cursor_.consume("'"))
            value = take_literal();
        else if (cursor_.consume("\""))
            value = take_text();
        else
            value = take_word();
        skip_blanks();
        return value;
    }
    std::string take_literal() {
        std::string text(cursor_.take_until('\''));
        if (!cursor_.consume("'"))
            fail(place_, "a text is not closed");
        return text;
    }
    std::string take_text() {
        std::string text;
        while (!cursor_.consume("\"")) {
            if (cursor_.at_end())
                fail(place_, "a text is not closed");
            text += cursor_.consume("\\") ? take_escaped() : take_letter();
        }
        return text;
    }
    char take_escaped() {
        constexpr std::string_view escapes = "\"\\ntr";
        constexpr std::string_view meanings = "\"\\\n\t\r";
        const auto which = cursor_.at_end() ? std::string_view::npos : escapes.find(cursor_.rest().front());
        if (which == std::string_view::npos)
            fail(place_, "an escape is \\\", \\\\, \\n, \\t or \\r, not '\\" + std::string(cursor_.rest()) + "'");
        take_letter();
        return meanings[which];
    }
    std::string take_word() {
        std::string word = take_while([](char c) { return is_name_letter(c) || c == '.' || c == '+'; });
        const bool is_number =
            !word.empty() && (isdigit(static_cast<unsigned char>(word[0])) != 0 || word.find_first_of("+-.") == 0);
        if (word != "true" && word != "false" && !is_number)
            fail(place_, "a value is a text in quotes, a number, true or false; not '" + word +
                             std::string(cursor_.rest()) + "'");
        return word;
    }
    template <class Belongs>
    std::string take_while(Belongs &&belongs) {
        std::string taken;
        while (!cursor_.at_end() && belongs(cursor_.rest().front()))
            taken += take_letter();
        return taken;
    }
    char take_letter() {
        const char letter = cursor_.rest().front();
        cursor_.consume(cursor_.rest().substr(0, 1));
        return letter;
    }
    void skip_blanks() {
        while (cursor_.consume(" ") || cursor_.consume("\t"))
            ;
    }

    TextCursor cursor_;
    std::string place_;
};

// The whole file, in its order.
class Entries {
public:
    explicit Entries(std::string path) : path_(std::move(path)) {}

    // Of a file that is not there none.
    std::vector<Entry> read() {
        TextFile file;
        FileOutcome outcome = file.open(path_.c_str(), velia::configuration_file);
        if (outcome == FileOutcome::absent)
            return {};
        if (outcome != FileOutcome::ok)
            fail_to_read(file, outcome);
        try {
            take_lines(file);
        } catch (...) {
            file.close();
            throw;
        }
        file.close();
        return std::move(entries_);
    }

private:
    void take_lines(TextFile &file) {
        FileOutcome outcome = FileOutcome::ok;
        for (TextLine line; (outcome = file.next_line(line)) == FileOutcome::ok;) {
            ++line_;
            take_line(std::string_view(line.text, line.length));
        }
        if (outcome != FileOutcome::end)
            fail_to_read(file, outcome);
    }
    void take_line(std::string_view text) {
        LineReader reader(text.ends_with('\r') ? text.substr(0, text.size() - 1) : text, place());
        if (reader.at_end())
            return;
        if (reader.consume("["))
            take_section(reader);
        else
            take_entry(reader);
        reader.want_end();
    }
    void take_section(LineReader &reader) {
        section_ = reader.take_name();
        while (reader.consume("."))
            section_ += " " + reader.take_name();
        reader.want("]");
    }
    void take_entry(LineReader &reader) {
        const std::string key = reader.take_name();
        reader.want("=");
        for (const auto &entry : entries_)
            if (entry.section == section_ && entry.key == key)
                fail(place(), key + " stands in line " + std::to_string(entry.line) + " already");
        entries_.push_back({section_, key, reader.take_values(), line_});
    }
    std::string place() const { return path_ + ":" + std::to_string(line_); }
    [[noreturn]] void fail_to_read(const TextFile &file, FileOutcome outcome) const {
        char words[file_words_size];
        fail(outcome == FileOutcome::line_too_long ? path_ + ":" + std::to_string(line_ + 1) : path_,
             file.why(outcome, words));
    }

    std::string path_;
    std::string section_;
    size_t line_ = 0;
    std::vector<Entry> entries_;
};

bool is_of_section(const std::string &path, const std::string &section) {
    return section.empty() || path == section || path.starts_with(section + " ");
}

// What may stand in a file, as "path key" of each command.
struct Known {
    std::string path;
    std::string key;
};

std::vector<Known> all_known(const std::vector<Command> &commands, const Options &common, const MoreOptions &more) {
    std::vector<Known> known;
    for (const auto &command : commands) {
        if (command.make == nullptr)
            continue;
        const auto call = command.make();
        const Options own = call->options();
        for (const auto &option : joined({own, common_options_of(command, own, common, more)}))
            if (!option.is_place())
                known.push_back({command.path, key_of(option)});
    }
    return known;
}

void check(const std::string &path, const std::vector<Entry> &entries, const std::vector<Known> &known) {
    for (const auto &entry : entries) {
        const std::string place = path + ":" + std::to_string(entry.line);
        const auto is_in_section = [&](const Known &one) { return is_of_section(one.path, entry.section); };
        if (std::none_of(known.begin(), known.end(), is_in_section))
            fail(place, "there is no command '" + entry.section + "'");
        if (std::none_of(known.begin(), known.end(),
                         [&](const Known &one) { return is_in_section(one) && one.key == entry.key; }))
            fail(place,
                 "there is no option --" + entry.key + (entry.section.empty() ? "" : " of '" + entry.section + "'"));
    }
}

// The one whose section is nearest to the command.
const Entry *find(const std::vector<Entry> &entries, const std::string &path, const std::string &key) {
    const Entry *nearest = nullptr;
    for (const auto &entry : entries)
        if (entry.key == key && is_of_section(path, entry.section) &&
            (nearest == nullptr || entry.section.size() > nearest->section.size()))
            nearest = &entry;
    return nearest;
}

} // namespace

Source configuration_file(const std::string &path, const std::vector<Command> &commands, const Options &common,
                          const MoreOptions &more) {
    const auto entries = std::make_shared<std::optional<std::vector<Entry>>>();
    const auto known = std::make_shared<const std::vector<Known>>(all_known(commands, common, more));
    return [=](const std::string &command, const Option &option) -> std::optional<Given> {
        if (path.empty())
            return std::nullopt;
        if (!*entries) {
            *entries = Entries(path).read();
            check(path, **entries, *known);
        }
        const Entry *entry = find(**entries, command, key_of(option));
        if (entry == nullptr)
            return std::nullopt;
        return Given{entry->values, path + ":" + std::to_string(entry->line) + ": " + entry->key};
    };
}

} // namespace velia::cli
