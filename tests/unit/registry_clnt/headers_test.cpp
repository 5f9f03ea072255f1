// The examples of the headers, run.
#include <tests/unit/registry_clnt/entry_fixture.h>
#include <tests/unit/registry_clnt/registry_fixture.h>

extern "C" {
tbs_status_t rename_owner(rgy_entry_t *entry, const char *owner);
tbs_status_t first_entry(rvzd_handle_t *handle, rgy_svr_entry_t *out);
void print_registry_host(void);
tbs_status_t default_region_of(char region[RGY_REGION_SIZE]);
int64_t count_regions(void);
}

namespace {

class RegistryHeaders : public RegistryTest {
protected:
    RegistryHeaders() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        world.write_file("host/config/rgy_region.conf", "r1 r2");
        world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, batch({"-region=r1;", "-region=r2;"}));
    }
};

TEST_F(EntryTest, TheHeadersExampleRenamesAnOwner) {
    use("-owner=me;");
    EXPECT_EQ(rename_owner(entry, "me"), TBS_ST_OK);
    EXPECT_EQ(rename_owner(entry, "you"), TBS_ST_OK);
    given_up = 1;
    EXPECT_STREQ(entry->flex.items[0].value, "you");
}

TEST_F(RegistryHeaders, TheExampleOfTheProxiesTakesTheFirstEntry) {
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, batch({"-region=r1;"}, 2));
    rvzd_handle_t *handle = handle_to("alpha");
    rgy_svr_entry_t entry = {};
    EXPECT_EQ(first_entry(handle, &entry), TBS_ST_OK);
    EXPECT_STREQ(entry.flex_text, "-region=r1;");
    stg_free(entry.flex_text);
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, batch({}));
    EXPECT_EQ(first_entry(handle, &entry), TBS_ST_NOT_FOUND);
    rvzd_free_handle(handle);
}

TEST_F(RegistryHeaders, TheExampleOfTheLocalFilesPrintsBothHosts) {
    testing::internal::CaptureStdout();
    print_registry_host();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "alpha, then beta\n");
}

TEST_F(RegistryHeaders, TheExampleOfTheSiteSetsAndReadsTheRegion) {
    char region[RGY_REGION_SIZE];
    ASSERT_EQ(default_region_of(region), TBS_ST_OK);
    EXPECT_STREQ(region, "lab");
    rgy_set_process_default_region(nullptr);
}

TEST_F(RegistryHeaders, TheExampleOfTheFetchesCountsTheRegions) {
    EXPECT_EQ(count_regions(), 2);
}

} // namespace
