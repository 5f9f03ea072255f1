// Single values by their names.
#include <tests/unit/store/store_fixture.h>

using namespace velia::server;

namespace {

using StoreSettings = StoreTest;
VELIA_FOR_EACH_STORE(StoreSettings);

} // namespace

TEST_P(StoreSettings, OneThatThereIsNotIsEmpty) {
    EXPECT_EQ(store->setting("s"), "");
}

TEST_P(StoreSettings, OneThatWasSetIsThere) {
    store->set_setting("s", "v");
    EXPECT_EQ(store->setting("s"), "v");
}

TEST_P(StoreSettings, OneThatWasSetIsThereAfterReopening) {
    store->set_setting("s", "v");
    reopen();
    EXPECT_EQ(store->setting("s"), "v");
}

TEST_P(StoreSettings, TheLastValueCounts) {
    store->set_setting("s", "v");
    store->set_setting("s", "w");
    EXPECT_EQ(store->setting("s"), "w");
}

TEST_P(StoreSettings, OneMayBeEmptied) {
    store->set_setting("s", "v");
    store->set_setting("s", "");
    EXPECT_EQ(store->setting("s"), "");
    reopen();
    EXPECT_EQ(store->setting("s"), "");
}

TEST_P(StoreSettings, NamesAreWholeAndTheirCaseCounts) {
    store->set_setting("name", "v");
    EXPECT_EQ(store->setting("nam"), "");
    EXPECT_EQ(store->setting("names"), "");
    EXPECT_EQ(store->setting("NAME"), "");
}

TEST_P(StoreSettings, TheyAreApartFromEachOther) {
    store->set_setting("s", "1");
    store->set_setting("t", "2");
    EXPECT_EQ(store->setting("s"), "1");
    EXPECT_EQ(store->setting("t"), "2");
}

TEST_P(StoreSettings, LongOnesAreKeptWhole) {
    const std::string value(100'000, 'x');
    store->set_setting("s", value);
    EXPECT_EQ(store->setting("s"), value);
}

TEST_P(StoreSettings, TheyRenewNoStamps) {
    EXPECT_FALSE(renews_stamps(0, [&] { store->set_setting("s", "v"); }));
}
