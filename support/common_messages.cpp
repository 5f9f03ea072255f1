// The support layer's own message table. Only the positions listed hold a text; the others are empty rows.
#include <support/tbs.h>

namespace {

constexpr int row_count = 101;

struct Row {
    int position;
    const char *text;
};

constexpr Row rows[] = {
    {0, "%s"},
    {1, "%s\n"},
    {2, "%s"},
    {18, "Unable to open file \"%s\": %s.\n"},
    {20, "Unable to access \"%s\": %s.\n"},
    {45, "Internal error: %s\n"},
    {46, "Operation \"%s\" failed: %s.\n"},
    {47, "Operation \"%s\" failed for host \"%s\": %s.\n"},
    {100, "An option was recognized that has no handler.\n"},
};

struct Table {
    const char *texts[row_count];
    uint16_t numbers[row_count];
};

constexpr Table make_table() {
    Table table = {};
    for (int position = 0; position < row_count; ++position) {
        table.texts[position] = "";
        table.numbers[position] = static_cast<uint16_t>(position + 1);
    }
    for (const Row &row : rows)
        table.texts[row.position] = row.text;
    return table;
}

constexpr Table table = make_table();

} // namespace

const imsg_table_t _tbs_cmsg_tbs_msg_table = {"tbs_cmsg", "tbs_cmsg", 1, row_count, table.texts, table.numbers};
