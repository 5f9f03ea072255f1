// The broker's and the build service's message tables, against an independent list of their rows.
#include <algorithm>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <tests/unit/xdr/expected_messages.h>
#include <veliaxdr/rvzd_messages.h>

namespace {

struct Row {
    uint16_t number;
    std::string text;

    bool operator==(const Row &) const = default;
    friend void PrintTo(const Row &row, std::ostream *out) { *out << row.number << " \"" << row.text << '"'; }
};

const Row empty_row = {0, ""};

template <size_t Count>
std::map<size_t, Row> by_position(const ExpectedRow (&rows)[Count]) {
    std::map<size_t, Row> result;
    for (const auto &row : rows)
        result[row.position] = {row.number, row.text};
    return result;
}

// Every position of the table is what the list says of it, and empty where the list says nothing.
void expect_rows(const imsg_table_t &table, const std::map<size_t, Row> &expected) {
    for (size_t position = 0; position < table.count; ++position) {
        const Row actual = {table.numbers[position], table.texts[position]};
        const auto found = expected.find(position);
        EXPECT_EQ(actual, found != expected.end() ? found->second : empty_row) << "position " << position;
    }
    EXPECT_EQ(expected.rbegin()->first, table.count - 1U);
}

void expect_numbers_rise(const imsg_table_t &table) {
    uint16_t last = 0;
    for (size_t position = 0; position < table.count; ++position) {
        if (table.texts[position][0] == '\0')
            continue;
        EXPECT_GT(table.numbers[position], last) << "position " << position;
        last = table.numbers[position];
    }
}

// The length of the placeholder that `text` begins with behind its percent sign; 0 if the printer knows none such.
size_t placeholder_length(std::string_view text) {
    if (text.starts_with("%"))
        return 1;
    size_t length = std::min(text.find_first_not_of("-.0123456789"), text.size());
    if (text.substr(length).starts_with("l"))
        ++length;
    const std::string_view conversion = text.substr(length, 1);
    return !conversion.empty() && std::string_view("sdxXuf").find(conversion) != std::string_view::npos ? length + 1
                                                                                                        : 0;
}

bool has_odd_placeholder(std::string_view text) {
    for (size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%')) {
        const size_t length = placeholder_length(text.substr(at + 1));
        if (length == 0)
            return true;
        text.remove_prefix(at + 1 + length);
    }
    return false;
}

std::vector<std::string> odd_placeholders(const imsg_table_t &table) {
    std::vector<std::string> odd;
    for (size_t position = 0; position < table.count; ++position)
        if (has_odd_placeholder(table.texts[position]))
            odd.push_back(std::to_string(position) + ":" + table.texts[position]);
    return odd;
}

} // namespace

TEST(BrokerMessages, TableSaysWhatItIs) {
    EXPECT_STREQ(_rvzd_rvzd_msg_table.catalog_name, "rvzd_lib");
    EXPECT_STREQ(_rvzd_rvzd_msg_table.subsystem_name, "xdr/rvzd");
    EXPECT_EQ(_rvzd_rvzd_msg_table.set, 64);
    EXPECT_EQ(_rvzd_rvzd_msg_table.count, 134);
}

TEST(BrokerMessages, EveryPositionHasItsNumberAndText) {
    expect_rows(_rvzd_rvzd_msg_table, by_position(expected_rvzd_rows));
}

TEST(BrokerMessages, Positions34And35AreTheOnlyEmptyOnes) {
    std::set<size_t> empty;
    for (size_t position = 0; position < _rvzd_rvzd_msg_table.count; ++position)
        if (_rvzd_rvzd_msg_table.texts[position][0] == '\0')
            empty.insert(position);
    EXPECT_EQ(empty, (std::set<size_t>{34, 35}));
}

TEST(BrokerMessages, NumbersRiseWithThePosition) {
    expect_numbers_rise(_rvzd_rvzd_msg_table);
}

TEST(BrokerMessages, EveryPlaceholderIsOneThatThePrinterKnows) {
    EXPECT_EQ(odd_placeholders(_rvzd_rvzd_msg_table), std::vector<std::string>{});
}

TEST(BrokerMessages, NamedPositionsAreThoseThatTheLibraryPrints) {
    const std::set<int> named = {
        RVZD_MSG_NO_SOCKET,          RVZD_MSG_GETSOCKNAME,      RVZD_MSG_NO_SERVICE_PORT,   RVZD_MSG_UNKNOWN_HOST,
        RVZD_MSG_CANNOT_FIND_BROKER, RVZD_MSG_CANNOT_CONTACT,   RVZD_MSG_BAD_SWITCH,        RVZD_MSG_CONNECT_FAILED,
        RVZD_MSG_RANGE_EXHAUSTED,    RVZD_MSG_CLIENT_ONLY_HOST, RVZD_MSG_NO_OPTION_HANDLER, RVZD_MSG_GENERIC_HANDLE,
        RVZD_MSG_SERVER_NOT_FOUND,   RVZD_MSG_NOT_PRIVILEGED,   RVZD_MSG_NO_CONNECTION,     RVZD_MSG_NO_IPV6_SOCKET,
        RVZD_MSG_SOCKET_ALLOCATED,   RVZD_MSG_IPV4_ONLY,        RVZD_MSG_IPV6_ONLY,         RVZD_MSG_GROUPS_SUBSTITUTED,
        RVZD_MSG_GROUPS_UNSUPPORTED, RVZD_MSG_SOCKET_INFO};
    std::set<int> printed;
    for (const auto &row : expected_rvzd_rows)
        if (row.printed_by_library)
            printed.insert(row.position);
    EXPECT_EQ(named, printed);
}

TEST(BuildServiceMessages, TableSaysWhatItIs) {
    EXPECT_STREQ(_bldsvr_rvzd_msg_table.catalog_name, "rvzd_lib");
    EXPECT_STREQ(_bldsvr_rvzd_msg_table.subsystem_name, "BLDSVR");
    EXPECT_EQ(_bldsvr_rvzd_msg_table.set, 68);
    EXPECT_EQ(_bldsvr_rvzd_msg_table.count, 36);
}

TEST(BuildServiceMessages, EveryPositionHasItsNumberAndText) {
    expect_rows(_bldsvr_rvzd_msg_table, by_position(expected_bldsvr_rows));
}

TEST(BuildServiceMessages, NumbersRiseWithThePosition) {
    expect_numbers_rise(_bldsvr_rvzd_msg_table);
}

// The fragment of a rule ends in a lone percent sign: the sign behind the number, which no one ever doubled.
TEST(BuildServiceMessages, OnlyTheIdleFragmentHasALonePercentSign) {
    EXPECT_EQ(odd_placeholders(_bldsvr_rvzd_msg_table), std::vector<std::string>{"17:%d%"});
}
