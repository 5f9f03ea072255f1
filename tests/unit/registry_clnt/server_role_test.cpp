// The role of this host as a registry server.
#include <tests/unit/registry_clnt/local_fixture.h>

#include <tests/unit/rvzd_clnt/broker_fixture.h>

namespace {

class ServerRole : public LocalFilesTest {
protected:
    std::string role_path() const { return path_of("rgy_svr.conf"); }

    sim::Message told(int position) const {
        return message_of(IMSG_ERROR, _registry_rvzd_msg_table, position, role_path().c_str());
    }

    // The text that the file is read as.
    static std::string type_text() {
        char *text = rgy_get_svr_type_str();
        const std::string copy = text != nullptr ? text : "null";
        stg_free(text);
        return copy;
    }
};

TEST_F(ServerRole, TheTypesAreFiveRowsAndANullOne) {
    const char *texts[] = {"not a server", "master", "slave", "backup", "standby"};
    for (int32_t type = 0; type < 5; ++type) {
        EXPECT_STREQ(rgy_svrtype_table[type].text, texts[type]);
        EXPECT_EQ(rgy_svrtype_table[type].value, type);
    }
    EXPECT_EQ(rgy_svrtype_table[5].text, nullptr);
}

TEST_F(ServerRole, AMissingFileIsNoServerAndNoMessage) {
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
    EXPECT_EQ(type_text(), "");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerRole, AFileThatCannotBeOpenedIsToldAndNoServer) {
    std::filesystem::create_directory(role_path());
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
    EXPECT_THAT(world.take_messages(), testing::ElementsAre(told(REGISTRY_MSG_TROUBLE_LOADING_SERVER_FILE)));
}

TEST_F(ServerRole, WhatIsNoFileIsNotWaitedForAndNoServer) {
    bad_files::for_each(role_path(), 1 << 20, [&](const std::string &words) {
        EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
        const auto messages = world.take_messages();
        ASSERT_FALSE(messages.empty());
        EXPECT_EQ(messages[0], told(REGISTRY_MSG_TROUBLE_LOADING_SERVER_FILE));
        if (std::filesystem::is_directory(role_path())) {
            EXPECT_EQ(messages.size(), 1u);
            return;
        }
        ASSERT_EQ(messages.size(), 2u);
        sim::Message why = refusal(role_path(), words);
        why.severity = IMSG_CONTINUATION;
        EXPECT_EQ(messages[1], why);
    });
}

TEST_F(ServerRole, APipeIsNotWaitedForWhenItIsWritten) {
    const bad_files::BadFile file(bad_files::Kind::pipe, role_path());
    EXPECT_EQ(rgy_set_svr_type(RGY_SVR_MASTER), tbs_errno2status(ENXIO));
}

TEST_F(ServerRole, AFileThatMayBeReadButNotWrittenIsToldAndNoServer) {
    write("rgy_svr.conf", "master");
    constexpr auto for_all = std::filesystem::perms::owner_read | std::filesystem::perms::others_read;
    const bad_files::WithoutRight guard(role_path(), for_all);
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
    EXPECT_THAT(world.take_messages(), testing::ElementsAre(told(REGISTRY_MSG_TROUBLE_LOADING_SERVER_FILE)));
}

TEST_F(ServerRole, TheWordMayStandAnywhereBehindWhiteSpace) {
    write("rgy_svr.conf", std::string(20000, ' ') + "\n\t\v\f\r\n\n standby\n");
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_STANDBY);
    write("rgy_svr.conf", std::string(20000, '\n') + "standby");
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_STANDBY);
    write("rgy_svr.conf", std::string(3, '\0') + "\n");
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
    EXPECT_THAT(world.take_messages(), testing::ElementsAre(told(REGISTRY_MSG_INVALID_CONFIG_FILE)));
}

TEST_F(ServerRole, AnEmptyFileIsToldAndNoServer) {
    write("rgy_svr.conf", " \n");
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
    EXPECT_THAT(world.take_messages(), testing::ElementsAre(told(REGISTRY_MSG_INVALID_CONFIG_FILE)));
}

TEST_F(ServerRole, EveryTypeIsReadAsItIsWritten) {
    for (int32_t type = RGY_SVR_MASTER; type <= RGY_SVR_STANDBY; ++type) {
        ASSERT_EQ(rgy_set_svr_type(type), TBS_ST_OK);
        EXPECT_EQ(contents(role_path()), rgy_svrtype_table[type].text);
        EXPECT_THAT(world.take_messages(),
                    testing::ElementsAre(message_of(IMSG_PLAIN, _registry_rvzd_msg_table, REGISTRY_MSG_SERVER_TYPE,
                                                    rgy_svrtype_table[type].text)));
        EXPECT_EQ(rgy_get_svr_type(), type);
        EXPECT_EQ(type_text(), rgy_svrtype_table[type].text);
    }
}

TEST_F(ServerRole, NotAServerIsTwoWordsAndReadsAsTheSame) {
    ASSERT_EQ(rgy_set_svr_type(RGY_SVR_NONE), TBS_ST_OK);
    EXPECT_EQ(contents(role_path()), "not a server");
    EXPECT_EQ(type_text(), "not");
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
}

TEST_F(ServerRole, AWordThatIsNoTypeReadsAsNone) {
    for (const char *word : {"emperor", "Master", "masterly", "mast"}) {
        write("rgy_svr.conf", word);
        EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE) << word;
        EXPECT_EQ(type_text(), word);
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerRole, AnOverlongWordIsReadInPart) {
    write("rgy_svr.conf", std::string(5000, 'm'));
    EXPECT_EQ(type_text(), std::string(31, 'm'));
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
}

TEST_F(ServerRole, WhatIsNoTypeIsNotFoundAndNotWritten) {
    for (int32_t type : {-1, 5, INT32_MAX, INT32_MIN})
        EXPECT_EQ(rgy_set_svr_type(type), TBS_ST_NOT_FOUND);
    EXPECT_EQ(contents(role_path()), std::nullopt);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ServerRole, AFileThatCannotBeWrittenIsToldByBothRoutinesAndGivesTheSystemsStatus) {
    std::filesystem::create_directory(role_path());
    EXPECT_EQ(rgy_set_svr_type(RGY_SVR_MASTER), tbs_errno2status(EISDIR));
    EXPECT_THAT(world.take_messages(),
                testing::ElementsAre(told(REGISTRY_MSG_INVALID_CONFIG_FILE), told(REGISTRY_MSG_INVALID_CONFIG_FILE)));
}

TEST_F(ServerRole, WithoutStorageThereIsNoText) {
    write("rgy_svr.conf", "master");
    world.fail_allocation(1);
    EXPECT_EQ(rgy_get_svr_type_str(), nullptr);
    world.fail_allocation(1);
    EXPECT_EQ(rgy_get_svr_type(), RGY_SVR_NONE);
    world.fail_allocation(0);
}

TEST_F(ServerRole, ARaiseLeaksNothing) {
    write("rgy_svr.conf", "master");
    const int raises = sim::sweep_raises(
        world, [] { rgy_get_svr_type(); }, [&](int) { EXPECT_EQ(world.live_blocks(), 0u); });
    EXPECT_EQ(raises, 1);
}

} // namespace
