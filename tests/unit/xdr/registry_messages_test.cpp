// The registry's message table, against an independent list of its rows.
#include <set>

#include <gtest/gtest.h>

#include <tests/unit/xdr/expected_registry_messages.h>
#include <veliaxdr/rgy_messages.h>

namespace {

TEST(RegistryMessages, TableSaysWhatItIs) {
    EXPECT_STREQ(_registry_rvzd_msg_table.catalog_name, "rvzd_lib");
    EXPECT_STREQ(_registry_rvzd_msg_table.subsystem_name, "registry");
    EXPECT_EQ(_registry_rvzd_msg_table.set, 51);
    EXPECT_EQ(_registry_rvzd_msg_table.count, 100);
}

TEST(RegistryMessages, EveryPositionHasItsNumberAndText) {
    ASSERT_EQ(std::size(expected_registry_rows), _registry_rvzd_msg_table.count);
    for (size_t position = 0; position < _registry_rvzd_msg_table.count; ++position) {
        EXPECT_EQ(expected_registry_rows[position].position, position);
        EXPECT_EQ(_registry_rvzd_msg_table.numbers[position], expected_registry_rows[position].number) << position;
        EXPECT_STREQ(_registry_rvzd_msg_table.texts[position], expected_registry_rows[position].text) << position;
    }
}

TEST(RegistryMessages, NumbersGoFromOneToAHundredAndOneWithoutSeventyEight) {
    std::set<int> missing;
    for (int number = 1; number <= 101; ++number)
        missing.insert(number);
    for (size_t position = 0; position < _registry_rvzd_msg_table.count; ++position)
        EXPECT_EQ(missing.erase(_registry_rvzd_msg_table.numbers[position]), 1u) << position;
    EXPECT_EQ(missing, std::set<int>{78});
}

TEST(RegistryMessages, NamedPositionsAreThoseThatTheLibraryPrints) {
    const std::set<int> named = {REGISTRY_MSG_TROUBLE_LOADING_SERVER_FILE,
                                 REGISTRY_MSG_INVALID_CONFIG_FILE,
                                 REGISTRY_MSG_SERVER_TYPE,
                                 REGISTRY_MSG_TROUBLE_CONTACTING,
                                 REGISTRY_MSG_PASSWORD_PROMPT,
                                 REGISTRY_MSG_ACCESS_FOR_MODIFICATION,
                                 REGISTRY_MSG_ACCESS_DENIED,
                                 REGISTRY_MSG_NO_PASSWORD_CONFIGURED,
                                 REGISTRY_MSG_BAD_REQUEST,
                                 REGISTRY_MSG_CACHE_STATISTICS,
                                 REGISTRY_MSG_CACHE_STALE,
                                 REGISTRY_MSG_CACHE_FOUND,
                                 REGISTRY_MSG_CACHE_MISSING,
                                 REGISTRY_MSG_NOT_STANDBY,
                                 REGISTRY_MSG_CANNOT_DEMOTE_MASTER,
                                 REGISTRY_MSG_UNRECOGNIZED_SERVER_TYPE,
                                 REGISTRY_MSG_UNRECOVERABLE,
                                 REGISTRY_MSG_NOT_PROMOTED,
                                 REGISTRY_MSG_CANNOT_START_SERVICE};
    std::set<int> printed;
    for (const auto &row : expected_registry_rows)
        if (row.printed_by_library)
            printed.insert(row.position);
    EXPECT_EQ(named, printed);
}

} // namespace
