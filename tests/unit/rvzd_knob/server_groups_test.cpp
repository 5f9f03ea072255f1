// Group lists that a server looks up itself, as the setting wants it.
#include <tests/unit/rvzd_knob/knob_fixture.h>

#include <support/credutl.h>
#include <veliaxdr/rvzd_svr.h>

namespace {

class ServerGroups : public KnobTest {
protected:
    void set_lifetime(const char *text) { write_host("server_group_lifetime", text); }
    static sim::Message enabled_for(int seconds) { return message_of(IMSG_PLAIN, _rvzd_rvzd_msg_table, 127, seconds); }
};

TEST_F(ServerGroups, NothingIsDoneWithoutALifetime) {
    for (const char *text : {"0\n", "-1\n"}) {
        set_lifetime(text);
        tbs_boolean_t enabled = 99;
        EXPECT_EQ(rvzd_enable_server_group_substitution(0, &enabled), TBS_ST_OK);
        EXPECT_EQ(enabled, 0);
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
    EXPECT_EQ(credutl_get_server_group_lifetime(), -1);
}

TEST_F(ServerGroups, ALifetimeEnablesItAndIsTold) {
    set_lifetime("1\n");
    tbs_boolean_t enabled = 99;
    EXPECT_EQ(rvzd_enable_server_group_substitution(0, &enabled), TBS_ST_OK);
    EXPECT_EQ(enabled, 1);
    EXPECT_EQ(credutl_get_server_group_lifetime(), 1);
    EXPECT_THAT(world.take_messages(), ElementsAre(enabled_for(1)));
}

TEST_F(ServerGroups, QuietHoldsTheSuccessBackAlone) {
    set_lifetime("30\n");
    EXPECT_EQ(rvzd_enable_server_group_substitution(1, nullptr), TBS_ST_OK);
    EXPECT_EQ(credutl_get_server_group_lifetime(), 30);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    set_lifetime("");
    tbs_boolean_t enabled = 99;
    EXPECT_EQ(rvzd_enable_server_group_substitution(1, &enabled), TBS_ST_ERROR);
    EXPECT_EQ(enabled, 0);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46,
                                                                "rvzd_knob_get_integer(server_group_cache_lifetime)",
                                                                tbs_strerror(TBS_ST_ERROR)))));
}

TEST_F(ServerGroups, AMalformedLifetimeIsAFailure) {
    set_lifetime("soon\n");
    EXPECT_EQ(rvzd_enable_server_group_substitution(0, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.take_messages().size(), 2u);
}

TEST_F(ServerGroups, ASupportLayerWithoutItIsTold) {
    set_lifetime("30\n");
    world.faults.server_groups = 0;
    tbs_boolean_t enabled = 99;
    EXPECT_EQ(rvzd_enable_server_group_substitution(1, &enabled), TBS_ST_OK);
    EXPECT_EQ(enabled, 0);
    EXPECT_THAT(world.take_messages(), ElementsAre(message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 128)));
}

} // namespace
