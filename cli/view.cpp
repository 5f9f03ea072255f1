#include <cli/view.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace velia::cli {

namespace {

constexpr Range limits = {1, INT64_MAX};

// Names with commas between.
std::vector<std::string> names_in(const std::string &list) {
    std::vector<std::string> names;
    for (size_t begin = 0; begin <= list.size() && !list.empty();) {
        const size_t end = std::min(list.find(',', begin), list.size());
        names.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return names;
}

bool is_reversed(const std::string &sort) {
    return sort.starts_with('-');
}

// As the table shows it, too: headers have hyphens, and no help says that letters count.
bool is_name_of(const std::string &word, const char *name) {
    return name != nullptr && word.size() == strlen(name) &&
           std::equal(word.begin(), word.end(), name, [](char left, char right) {
               return (left == '-' ? '_' : std::tolower(static_cast<unsigned char>(left))) == right;
           });
}

// Beyond the last: there is none of that name.
size_t column_of(const std::string &word, const Output &output, bool is_to_sort) {
    const auto found = std::find_if(output.columns.begin(), output.columns.end(), [&](const Column &column) {
        return is_name_of(word, column.name) || (is_to_sort && is_name_of(word, column.sorts_as));
    });
    return static_cast<size_t>(found - output.columns.begin());
}

size_t sort_column_of(const View &view, const Output &output) {
    return view.sort.empty() ? output.columns.size()
                             : column_of(view.sort.substr(is_reversed(view.sort) ? 1 : 0), output, true);
}

std::string fault_of_name(const std::string &word, const Output &output) {
    std::vector<std::string> names;
    for (const auto &column : output.columns)
        names.emplace_back(column.name);
    return "'" + word + "' is no column; there are " + joined(names, ", ");
}

// One order for what a column holds; what is not there has none.
struct Key {
    bool is_none = true;
    long double number = 0;
    std::string text;
};

// Two moments that are told with different offsets are one.
long double seconds_of(const std::string &iso) {
    tm parts = {};
    char sign = '+';
    int hours = 0;
    int minutes = 0;
    if (sscanf(iso.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c%2d:%2d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
               &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &sign, &hours, &minutes) != 9)
        return 0;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    const long double east_s = (hours * 60 + minutes) * 60;
    return static_cast<long double>(timegm(&parts)) - (sign == '-' ? -east_s : east_s);
}

void add_text(const Cell &cell, std::string &text) {
    text += cell.text() + '\0';
    for (size_t i = 0; i < cell.list().size(); ++i) {
        text += i < cell.names().size() ? cell.names()[i] + '\0' : "";
        add_text(cell.list()[i], text);
    }
}

Key key_of(const Cell &cell, Type type) {
    Key key;
    key.is_none = cell.kind() == Cell::Kind::null;
    if (type == Type::integer || type == Type::number)
        key.number = strtold(cell.text().c_str(), nullptr);
    else if (type == Type::time)
        key.number = seconds_of(cell.text());
    else
        add_text(cell, key.text);
    return key;
}

bool is_before(const Key &left, const Key &right, bool largest_first) {
    if (left.is_none || right.is_none)
        return !left.is_none && right.is_none;
    const Key &less = largest_first ? right : left;
    const Key &more = largest_first ? left : right;
    return less.number != more.number ? less.number < more.number : less.text < more.text;
}

} // namespace

Options view_options(View &view, const Command &row, const Options &own) {
    if (row.output == nullptr || row.output->shape != Output::Shape::list || !row.has_common_options)
        return {};
    Options options = {
        {.name = "--columns",
         .type = "NAMES",
         .help = "only these columns, in this order: names as in the list of results below, with commas between",
         .target = &view.columns},
        {.name = "--sort",
         .type = "COLUMN",
         .help = "in the order of a column, when all rows are there; the other way round behind a hyphen, as "
                 "--sort=-COLUMN",
         .target = &view.sort},
        {.name = "--limit", .type = "N", .help = "the first N rows only", .target = &view.limit, .range = limits},
        {.name = "--wide", .help = "also the columns that are there with an option only", .target = &view.is_wide}};
    std::erase_if(options, [&](const Option &option) {
        return std::any_of(own.begin(), own.end(),
                           [&](const Option &other) { return strcmp(option.name, other.name) == 0; });
    });
    return options;
}

std::string fault_of_view(const View &view, const Output &output) {
    if (output.shape != Output::Shape::list)
        return "";
    const auto names = names_in(view.columns);
    for (size_t i = 0; i < names.size(); ++i) {
        const size_t column = column_of(names[i], output, false);
        if (column == output.columns.size())
            return fault_of_name(names[i], output);
        for (size_t k = 0; k < i; ++k)
            if (column_of(names[k], output, false) == column)
                return "column '" + names[i] + "' is given twice";
    }
    if (!view.sort.empty() && sort_column_of(view, output) == output.columns.size())
        return fault_of_name(view.sort, output);
    return "";
}

void give_options_for(View &view, const Output &output, const Options &options) {
    const auto names = names_in(view.columns);
    const size_t sorted = sort_column_of(view, output);
    for (size_t i = 0; i < output.columns.size(); ++i) {
        const char *needed = output.columns[i].needs;
        const bool is_chosen = std::any_of(
            names.begin(), names.end(), [&](const std::string &name) { return column_of(name, output, false) == i; });
        for (const auto &option : options) {
            if (needed == nullptr || strcmp(option.name, needed) != 0 || !is_switch(option))
                continue;
            bool &is_given = *std::get<bool *>(option.target);
            if (!is_given && i == sorted && !is_chosen && !view.is_wide)
                view.hidden_need = needed;
            is_given = is_given || is_chosen || view.is_wide || i == sorted;
        }
    }
}

ViewedRows::ViewedRows(const Output &output, const View &view)
    : all_(output), shown_(output), sort_(sort_of(view, output)) {
    const bool is_list = output.shape == Output::Shape::list;
    for (const auto &name : names_in(is_list ? view.columns : ""))
        chosen_.push_back(column_of(name, output, false));
    // A command may have left columns out that it could have shown.
    std::erase_if(chosen_, [&](size_t column) { return column >= output.columns.size(); });
    if (chosen_.empty())
        for (size_t i = 0; i < output.columns.size(); ++i)
            if (!is_list || view.hidden_need.empty() || output.columns[i].needs == nullptr ||
                view.hidden_need != output.columns[i].needs)
                chosen_.push_back(i);
    for (const size_t column : chosen_)
        columns_.push_back(output.columns[column]);
    shown_.columns = columns_;
}

ViewedRows::Sort ViewedRows::sort_of(const View &view, const Output &output) {
    const size_t column = output.shape == Output::Shape::list ? sort_column_of(view, output) : output.columns.size();
    const bool largest_first = column < output.columns.size() && output.columns[column].largest_first;
    return {column, largest_first != is_reversed(view.sort)};
}

Cells ViewedRows::chosen(const Cells &cells) const {
    Cells chosen;
    for (const size_t column : chosen_)
        chosen.push_back(cells.at(column));
    return chosen;
}

void ViewedRows::sort(std::vector<Cells> &rows) const {
    std::vector<std::pair<Key, size_t>> keys;
    for (size_t i = 0; i < rows.size(); ++i)
        keys.emplace_back(key_of(rows[i].at(sort_.column), all_.columns[sort_.column].type), i);
    std::stable_sort(keys.begin(), keys.end(), [&](const auto &left, const auto &right) {
        return is_before(left.first, right.first, sort_.largest_first);
    });
    std::vector<Cells> sorted;
    sorted.reserve(rows.size());
    for (const auto &[key, index] : keys)
        sorted.push_back(std::move(rows[index]));
    rows = std::move(sorted);
}

} // namespace velia::cli
