// The examples of the headers, run.
#include <tests/unit/registry_clnt/entry_fixture.h>

extern "C" tbs_status_t rename_owner(rgy_entry_t *entry, const char *owner);

namespace {

TEST_F(EntryTest, TheHeadersExampleRenamesAnOwner) {
    use("-owner=me;");
    EXPECT_EQ(rename_owner(entry, "me"), TBS_ST_OK);
    EXPECT_EQ(rename_owner(entry, "you"), TBS_ST_OK);
    given_up = 1;
    EXPECT_STREQ(entry->flex.items[0].value, "you");
}

} // namespace
