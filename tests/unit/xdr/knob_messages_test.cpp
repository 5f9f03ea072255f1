// The settings' message table, against an independent list of its rows.
#include <set>

#include <gtest/gtest.h>

#include <tests/unit/xdr/expected_knob_messages.h>
#include <veliaxdr/rvzd_knob.h>

namespace {

TEST(KnobMessages, TableSaysWhatItIs) {
    EXPECT_STREQ(_rvzd_knob_rvzd_msg_table.catalog_name, "rvzd_lib");
    EXPECT_STREQ(_rvzd_knob_rvzd_msg_table.subsystem_name, "rvzd/knob");
    EXPECT_EQ(_rvzd_knob_rvzd_msg_table.set, 83);
    EXPECT_EQ(_rvzd_knob_rvzd_msg_table.count, 138);
}

TEST(KnobMessages, EveryPositionHasItsNumberAndTextAndTheThirdIsEmpty) {
    std::set<int> left;
    for (int position = 0; position < _rvzd_knob_rvzd_msg_table.count; ++position)
        left.insert(position);
    for (const auto &row : expected_knob_messages) {
        EXPECT_STREQ(_rvzd_knob_rvzd_msg_table.texts[row.position], row.text);
        EXPECT_EQ(_rvzd_knob_rvzd_msg_table.numbers[row.position], row.position + 1);
        left.erase(row.position);
    }
    EXPECT_EQ(left, std::set<int>{3});
    EXPECT_STREQ(_rvzd_knob_rvzd_msg_table.texts[3], "");
    EXPECT_EQ(_rvzd_knob_rvzd_msg_table.numbers[3], 0);
}

} // namespace
