#include <server/registry/role.h>
#include <tests/unit/server/registry_fixture.h>

#include <fstream>

#include <support/imsg.h>
#include <veliaxdr/rgy_local.h>

using namespace velia::server;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct RoleTest : RegistryFixture {
    RoleTest() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-role-XXXXXX").string();
        root = mkdtemp(name.data());
        std::filesystem::create_directories(root / "host/config");
        setenv("VELIA_ROOT", root.c_str(), 1);
        imsg_set_sink([](void *context, int, const char *, const imsg_table_t *, int,
                         const char *text) { static_cast<RoleTest *>(context)->messages.emplace_back(text); },
                      this);
    }
    ~RoleTest() override {
        imsg_set_sink(nullptr, nullptr);
        std::filesystem::remove_all(root);
    }

    std::string role_path() const { return root / "host/config/rgy_svr.conf"; }
    void write_role(const std::string &text) const { std::ofstream(role_path()) << text; }

    std::filesystem::path root;
    std::vector<std::string> messages;
};

TEST_F(RoleTest, FileSaysItInItsFirstWord) {
    const std::pair<const char *, int32_t> files[] = {{"master", RGY_SVR_MASTER},
                                                      {"slave\n", RGY_SVR_SLAVE},
                                                      {" backup\n", RGY_SVR_BACKUP},
                                                      {"standby", RGY_SVR_STANDBY},
                                                      {"not a server", RGY_SVR_NONE}};
    for (const auto &[text, role] : files) {
        write_role(text);
        EXPECT_EQ(role_in_file(), role) << text;
    }
    EXPECT_THAT(messages, IsEmpty());
}

TEST_F(RoleTest, NoFileIsNoRoleButAnEmptyOrCutOneSaysNothing) {
    EXPECT_EQ(role_in_file(), RGY_SVR_NONE);
    for (const char *text : {"", "\n", "m", "maste", "standb", "masters", "no"}) {
        write_role(text);
        EXPECT_EQ(role_in_file(), std::nullopt) << text;
    }
}

TEST_F(RoleTest, OfAFileThatSaysNothingIsTheOneRemembered) {
    write_role("stan");
    for (const int32_t role : {RGY_SVR_STANDBY, RGY_SVR_MASTER, RGY_SVR_NONE, RGY_SVR_SLAVE, RGY_SVR_BACKUP}) {
        remember_role(*store, role);
        reopen();
        messages.clear();
        EXPECT_EQ(last_role(store.get()), role);
        EXPECT_THAT(messages,
                    ElementsAre("There is no registry server type in \"" + role_path() +
                                "\"; this host goes on as the last one: " + rgy_svrtype_table[role].text + ".\n"));
    }
}

TEST_F(RoleTest, NeverHadIsNoneAndMakesNoRegistry) {
    write_role("");
    EXPECT_EQ(last_role(store.get()), RGY_SVR_NONE);
    EXPECT_EQ(existing_store(file_name() + ".absent"), nullptr);
    EXPECT_EQ(last_role(nullptr), RGY_SVR_NONE);
    EXPECT_FALSE(std::filesystem::exists(file_name() + ".absent"));
    EXPECT_THAT(messages, Each(HasSubstr("goes on as the last one: not a server.")));
}

} // namespace
