// A message table is written as rows of position, catalogue number and text; the two parallel arrays that the printer
// wants are made from them at compile time. A position without a row is an empty text with number 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include <support/imsg.h>

namespace velia {

struct MessageRow {
    uint16_t position;
    uint16_t number;
    const char *text;
};

template <size_t Count>
struct MessageTable {
    const char *texts[Count];
    uint16_t numbers[Count];
};

// Not constexpr: a table that reaches one of these does not compile.
void last_row_is_not_at_the_last_position();
void rows_do_not_rise();

// Positions and numbers rise from row to row, and the last row is the table's last position.
template <size_t Count, size_t Rows>
consteval MessageTable<Count> make_message_table(const MessageRow (&rows)[Rows]) {
    if (rows[Rows - 1].position != Count - 1)
        last_row_is_not_at_the_last_position();
    MessageTable<Count> table = {};
    for (const char *&text : table.texts)
        text = "";
    for (size_t i = 0; i < Rows; ++i) {
        if (i > 0 && (rows[i].position <= rows[i - 1].position || rows[i].number <= rows[i - 1].number))
            rows_do_not_rise();
        table.texts[rows[i].position] = rows[i].text;
        table.numbers[rows[i].position] = rows[i].number;
    }
    return table;
}

template <size_t Count>
constexpr imsg_table_t describe(const char *subsystem, uint16_t set, const MessageTable<Count> &table) {
    return {"rvzd_lib", subsystem, set, static_cast<uint16_t>(Count), table.texts, table.numbers};
}

} // namespace velia
