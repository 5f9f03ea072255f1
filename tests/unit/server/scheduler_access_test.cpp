// The access control list of the scheduler, and that each of its procedures has a permission.
#include <server/scheduler/access.h>

#include <set>
#include <unistd.h>

#include <gtest/gtest.h>

#include <server/scheduler/procedures.h>
#include <server/scheduler/xdr_bytes.h>
#include <support/xdr_prims.h>

using namespace velia::server;

namespace {

Caller known(uint32_t uid, uint32_t gid) {
    Caller caller;
    caller.known = KnownCaller{500, uid, gid};
    return caller;
}

Caller stranger(uint32_t uid) {
    Caller caller;
    caller.credentials = Credentials{uid, uid};
    return caller;
}

std::string list_of(std::vector<tbs_acl_entry_t> entries) {
    tbs_acl_t list = {static_cast<uint32_t>(entries.size()), entries.data()};
    tbs_acl_h_t handle = &list;
    return xdr_bytes(xdr_tbs_acl_h_t, handle);
}

tbs_acl_entry_t entry(uint32_t kind, const char *identity, uint32_t permissions) {
    return {kind, const_cast<char *>(identity), permissions};
}

} // namespace

TEST(SchedulerAccess, LetsEveryoneReadWhereNothingIsSet) {
    const AccessList list;
    EXPECT_EQ(list.permissions_of(known(7, 7)), 1U);
    EXPECT_EQ(list.permissions_of(stranger(7)), 1U);
}

TEST(SchedulerAccess, EntriesAddUp) {
    AccessList list;
    ASSERT_TRUE(list.take(
        list_of({entry(TBS_ACL_EVERYONE, "", 1), entry(TBS_ACL_USER, "7", 2), entry(TBS_ACL_GROUP, "9", 4)})));
    EXPECT_EQ(list.permissions_of(known(7, 9)), 7U);
    EXPECT_EQ(list.permissions_of(known(7, 8)), 3U);
    EXPECT_EQ(list.permissions_of(known(8, 9)), 5U);
}

TEST(SchedulerAccess, EachGroupOfACallerCounts) {
    AccessList list;
    ASSERT_TRUE(list.take(list_of({entry(TBS_ACL_GROUP, "9", 4), entry(TBS_ACL_GROUP, "10", 2)})));
    Caller caller = known(7, 8);
    EXPECT_EQ(list.permissions_of(caller), 0U);
    caller.known->groups = std::make_shared<const std::vector<gid_t>>(std::vector<gid_t>{5, 9});
    EXPECT_EQ(list.permissions_of(caller), 4U);
}

// Whoever was left a connection, or writes over it as somebody else, has none of its maker's groups.
TEST(SchedulerAccess, GroupsAreThoseOfTheProcessThatMadeTheConnection) {
    const KnownCaller maker = {500, 7, 8, std::make_shared<const std::vector<gid_t>>(std::vector<gid_t>{9})};
    EXPECT_TRUE(known_by_both(maker, {500, 7, 8}).is_in(9));
    EXPECT_TRUE(known_by_both(maker, {500, 7, 8}).is_in(8));
    EXPECT_FALSE(known_by_both(maker, {501, 7, 8}).is_in(9));
    EXPECT_FALSE(known_by_both(maker, {500, 6, 8}).is_in(9));
    EXPECT_FALSE(known_by_both({500, 7, 8}, maker).is_in(9));
}

TEST(SchedulerAccess, AClaimIsNobodys) {
    AccessList list;
    ASSERT_TRUE(list.take(list_of({entry(TBS_ACL_USER, "7", 7)})));
    EXPECT_EQ(list.permissions_of(stranger(7)), 0U);
}

TEST(SchedulerAccess, NamesAreThoseOfTheSystem) {
    AccessList list;
    ASSERT_TRUE(list.take(list_of({entry(TBS_ACL_USER, "root", 2), entry(TBS_ACL_GROUP, "root", 4)})));
    EXPECT_EQ(list.permissions_of(known(0, 0)), 6U);
}

TEST(SchedulerAccess, AListThatMeansNothingIsRefused) {
    AccessList list;
    EXPECT_FALSE(list.take(list_of({entry(3, "7", 1)})));
    EXPECT_FALSE(list.take(list_of({entry(TBS_ACL_USER, "no such user at all", 1)})));
    EXPECT_FALSE(list.take(list_of({entry(TBS_ACL_GROUP, "no such group at all", 1)})));
    EXPECT_FALSE(list.take("cut"));
    EXPECT_TRUE(list.take(list_of({})));
    EXPECT_EQ(list.permissions_of(known(0, 0)), 0U);
}

TEST(SchedulerAccess, EachProcedureHasAPermission) {
    std::set<uint32_t> rows;
    for (const auto &row : permission_rows)
        EXPECT_TRUE(rows.insert(row.procedure).second) << row.procedure;
    std::set<uint32_t> procedures;
    velia::for_each_scheduler_procedure([&](const auto &procedure) { procedures.insert(procedure.number); });
    velia::for_each_run_procedure([&](const auto &procedure) { procedures.insert(procedure.number); });
    velia::for_each_set_procedure([&](const auto &procedure) { procedures.insert(procedure.number); });
    EXPECT_EQ(rows, procedures);
}
