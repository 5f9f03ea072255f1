// The administrator's tool on a registry: what is added is found, changed and removed, and how a host is turned to one.
#include <tests/system/support/veliactl.h>

#include <gmock/gmock.h>

using namespace velia::system_test;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

struct VeliactlRegistry : VeliactlTest {
    void SetUp() override { serve_registry(); }

    void add(const Words &items) const {
        Words words = {"registry", "add"};
        words.insert(words.end(), items.begin(), items.end());
        const auto outcome = veliactl(words);
        ASSERT_EQ(outcome.status, DONE) << outcome.errors;
    }
};

TEST_F(VeliactlRegistry, WhatIsAddedIsFoundByEachWay) {
    add({"vault_tag", "tag=/vaults/src", "region=east", "hostname=build7", "attributes=poolmap=/x,ro",
         "vault_replica=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f"});
    for (const Words &way :
         {Words{"--string", "tag=/vaults/src"}, Words{"--uuid", "vault_replica=0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f"},
          Words{"--attr", "attributes:poolmap=/x"}, Words{"--pattern", "/vaults/[rst]*"}}) {
        Words words = {"registry", "find", "vault_tag"};
        words.insert(words.end(), way.begin(), way.end());
        const auto found = objects(words);
        ASSERT_EQ(found.size(), 1u) << way[0];
        EXPECT_THAT(found[0].dump(), HasSubstr("build7"));
    }
    EXPECT_THAT(objects({"registry", "find", "vault_tag", "--string", "tag=/vaults/doc"}), IsEmpty());
}

TEST_F(VeliactlRegistry, AListingGoesThroughAllItsBatches) {
    for (int i = 0; i < 5; ++i)
        add({"regions", "name=r" + std::to_string(i)});
    EXPECT_EQ(objects({"registry", "list", "regions", "--batch", "2"}).size(), 5u);
}

TEST_F(VeliactlRegistry, ADryRunChangesNothing) {
    EXPECT_EQ(veliactl({"registry", "add", "regions", "name=east", "--dry-run"}).status, DONE);
    EXPECT_THAT(objects({"registry", "list", "regions"}), IsEmpty());
    add({"regions", "name=east"});
    EXPECT_EQ(veliactl({"registry", "remove", "regions", "--string", "name=east", "--dry-run"}).status, DONE);
    EXPECT_EQ(objects({"registry", "list", "regions"}).size(), 1u);
}

TEST_F(VeliactlRegistry, WhatStandsThereIsNotAddedAgainAndWhatIsRemovedIsGone) {
    add({"regions", "name=east"});
    const auto again = veliactl({"registry", "add", "regions", "name=east"});
    EXPECT_EQ(again.status, FAILED);
    EXPECT_NE(again.errors, "");
    EXPECT_EQ(veliactl({"registry", "remove", "regions", "--string", "name=east"}).status, DONE);
    EXPECT_THAT(objects({"registry", "list", "regions"}), IsEmpty());
}

TEST_F(VeliactlRegistry, WrongItemsAndDatabasesAreWrongUse) {
    EXPECT_EQ(veliactl({"registry", "list", "no_such_db"}).status, WRONG_USE);
    EXPECT_EQ(veliactl({"registry", "add", "regions", "without-a-value"}).status, WRONG_USE);
    EXPECT_EQ(veliactl({"registry", "find", "regions"}).status, WRONG_USE);
}

TEST_F(VeliactlRegistry, ARegistryThatDoesNotAnswerIsTold) {
    const auto outcome = veliactl({"registry", "list", "regions", "--host", "beta"});
    EXPECT_EQ(outcome.status, DONE) << "the daemon listens on all addresses";
    daemon->signal(SIGKILL);
    daemon->wait();
    const auto dead = veliactl({"registry", "list", "regions"});
    EXPECT_NE(dead.status, DONE);
    EXPECT_THAT(dead.errors, HasSubstr("alpha"));
    EXPECT_THAT(dead.output, IsEmpty());
}

TEST_F(VeliactlRegistry, ThisHostIsTurnedToAnotherMasterAndBackup) {
    auto hosts = objects({"registry", "hosts", "--master", "beta"});
    EXPECT_EQ(hosts[0], Json::object({{"master", "beta"}, {"backup", ""}}));
    hosts = objects({"registry", "hosts", "--backup", "six", "--master", "alpha"});
    EXPECT_EQ(hosts[0], Json::object({{"master", "alpha"}, {"backup", "six"}}));
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\nsix\n");
    const auto refused = veliactl({"registry", "hosts", "--master", std::string(64, 'h')});
    EXPECT_EQ(refused.status, FAILED);
    EXPECT_THAT(refused.errors, HasSubstr("Bad registry configuration request with \"hhh"));
    EXPECT_EQ(site.read("host/config/rgy_hosts.conf"), "alpha\nsix\n");
}

TEST_F(VeliactlRegistry, RoleAndDatabasesAreTold) {
    add({"regions", "name=east"});
    EXPECT_EQ(objects({"registry", "role"})[0]["role"], "master");
    const auto dbs = objects({"registry", "dbs"});
    ASSERT_EQ(dbs.size(), 12u);
    EXPECT_THAT(dbs[4].dump(), HasSubstr("regions"));
}

} // namespace
