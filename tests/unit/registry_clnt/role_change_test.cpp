// Promotion and demotion of registry servers, and the change of a client's hosts.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <fstream>
#include <optional>

#include <veliaxdr/rgy_manage.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_site.h>

extern "C" tbs_status_t take_over(void);

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RoleChange : public RegistryTest {
protected:
    RoleChange() {
        std::filesystem::create_directories(path_of(""));
        world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, refusal(TBS_ST_OK));
    }

    std::string path_of(const std::string &name) const { return world.root() + "/host/config/" + name; }
    void write(const std::string &name, const std::string &text) { world.write_file("host/config/" + name, text); }
    // The contents of a file; "no file" if there is none.
    std::string contents(const std::string &name) const {
        std::ifstream file(path_of(name), std::ios::binary);
        return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "no file";
    }
    // Of the registry's own table; the others tell of the contact.
    std::vector<sim::Message> take_told() {
        auto messages = world.take_messages();
        std::erase_if(messages, [](const sim::Message &one) { return one.table != &_registry_rvzd_msg_table; });
        return messages;
    }
    static sim::Message error(int position, const char *first = nullptr, const char *second = nullptr) {
        return message_of(IMSG_ERROR, _registry_rvzd_msg_table, position, first, second);
    }
    static sim::Message type_is(int32_t type) {
        return message_of(IMSG_PLAIN, _registry_rvzd_msg_table, REGISTRY_MSG_SERVER_TYPE, rgy_svrtype_table[type].text);
    }
    // A raise in a call also costs the broker's idle record of the host.
    void expect_no_more_than(const sim::Holdings &before, int number) const {
        const auto now = sim::Holdings::now(world);
        EXPECT_LE(now.blocks, before.blocks) << number;
        EXPECT_LE(now.descriptors, before.descriptors) << number;
        EXPECT_LE(now.clients, before.clients) << number;
    }
    size_t asked() const { return world.peer.count(RVZD_PROC_RGY_SVR_CONF_CHANGE); }
    // The operation and text of the last request to a server.
    std::pair<int64_t, std::string> last_change() const {
        auto request = world.peer.last().decode(xdr_rvzd_registry_svr_conf_req_t);
        const std::pair<int64_t, std::string> change = {request.op, request.text};
        stg_free(request.text);
        return change;
    }
    static std::string host_in_use() {
        char *text = nullptr;
        EXPECT_EQ(rgy_get_server_host(1, 0, &text), TBS_ST_OK);
        const std::string copy = text;
        stg_free(text);
        return copy;
    }
    void set_type(int32_t type) { write("rgy_svr.conf", type == RGY_SVR_NONE ? "" : rgy_svrtype_table[type].text); }
};

using ServerChange = RoleChange;

TEST_F(ServerChange, SendsTheOperationAndNeverTheText) {
    EXPECT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, "a text"), TBS_ST_OK);
    EXPECT_EQ(last_change(), std::pair(int64_t{12}, std::string()));
    EXPECT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_DEMOTE, nullptr), TBS_ST_OK);
    EXPECT_EQ(last_change(), std::pair(int64_t{13}, std::string()));
    EXPECT_EQ(world.peer.last().address.ipv4.sin_addr.s_addr, htonl(0x7f000002));
}

TEST_F(ServerChange, WhatTheServerSaysIsTheResult) {
    world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""), TBS_ST_NO_ACCESS);
    world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, sim::silence());
    EXPECT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""), TBS_ST_RPC_FAILED);
}

TEST_F(ServerChange, AHostThatCannotBeReachedIsNotFoundWhateverTheReason) {
    EXPECT_EQ(rgy_svr_conf_change("nowhere", RGY_CONF_PROMOTE, ""), TBS_ST_NOT_FOUND);
    world.resolver_errors["later"] = EAI_AGAIN;
    EXPECT_EQ(rgy_svr_conf_change("later", RGY_CONF_PROMOTE, ""), TBS_ST_NOT_FOUND);
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    EXPECT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""), TBS_ST_NOT_FOUND);
    EXPECT_EQ(asked(), 0u);
}

TEST_F(ServerChange, DoesWithoutTheRegistrysLockAndBindings) {
    uint32_t depth = 77;
    world.peer.on(RVZD_PROC_RGY_SVR_CONF_CHANGE, [&](const sim::Call &) {
        depth = registry_cache_lock.depth;
        return refusal(TBS_ST_OK);
    });
    EXPECT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""), TBS_ST_OK);
    EXPECT_EQ(depth, 0u);
    EXPECT_EQ(rpc_binding_count, 0);
}

TEST_F(ServerChange, GivesItsHandleBackOnEveryWay) {
    ASSERT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""), TBS_ST_OK);
    const auto before = sim::Holdings::now(world);
    world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, refusal(TBS_ST_NO_ACCESS));
    ASSERT_EQ(rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""), TBS_ST_NO_ACCESS);
    EXPECT_EQ(sim::Holdings::now(world), before);
    sim::sweep_allocations(
        world, [&] { rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""); },
        [&](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
    auto operation = [&] { rgy_svr_conf_change("alpha", RGY_CONF_PROMOTE, ""); };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        expect_no_more_than(before, number);
    });
    EXPECT_GE(raises, 1);
}

using ClientChange = RoleChange;

TEST_F(ClientChange, ReplacesOneNameAndKeepsTheOther) {
    write("rgy_hosts.conf", "alpha beta");
    EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_HOST, "gamma"), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "gamma\nbeta\n");
    EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_BACKUP, "delta"), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "gamma\ndelta\n");
    EXPECT_EQ(contents("rgy_hosts.conf.old"), "gamma\nbeta\n");
    EXPECT_THAT(world.take_messages(), IsEmpty());
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(ClientChange, TakesAFileThatCannotBeReadForTwoEmptyNames) {
    EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_HOST, "gamma"), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "gamma\n\n");
    write("rgy_hosts.conf", "beta " + std::string(64, 'x'));
    EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_BACKUP, "gamma"), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "\ngamma\n");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ClientChange, ANullNameIsWrittenAsEmpty) {
    write("rgy_hosts.conf", "alpha beta");
    EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_HOST, nullptr), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "\nbeta\n");
    write("rgy_hosts.conf", "alpha beta");
    EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_BACKUP, ""), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "alpha\n\n");
}

TEST_F(ClientChange, ANameOfEveryLengthUpToSixtyThreeIsAccepted) {
    for (const size_t length : {1u, 31u, 32u, 62u, 63u}) {
        const std::string name(length, 'h');
        EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_HOST, name.c_str()), TBS_ST_OK) << length;
        EXPECT_EQ(contents("rgy_hosts.conf"), name + "\n\n") << length;
    }
    for (const size_t length : {64u, 65u, 4096u}) {
        write("rgy_hosts.conf", "alpha beta");
        const std::string name(length, 'h');
        EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_HOST, name.c_str()), TBS_ST_ERROR) << length;
        EXPECT_THAT(world.take_messages(), ElementsAre(error(REGISTRY_MSG_BAD_REQUEST, name.c_str()))) << length;
        EXPECT_EQ(contents("rgy_hosts.conf"), "alpha beta") << length;
    }
}

TEST_F(ClientChange, ANameThatWouldBeReadAsTwoIsRefused) {
    write("rgy_hosts.conf", "alpha beta");
    for (const char *name : {"a b", "a\nb", " a", "a\t", "\n"}) {
        EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_BACKUP, name), TBS_ST_ERROR);
        EXPECT_THAT(world.take_messages(), ElementsAre(error(REGISTRY_MSG_BAD_REQUEST, name)));
    }
    EXPECT_EQ(contents("rgy_hosts.conf"), "alpha beta");
}

TEST_F(ClientChange, AnyOtherOperationIsRefused) {
    write("rgy_hosts.conf", "alpha beta");
    for (const int64_t op : {int64_t{0}, int64_t{9}, int64_t{12}, int64_t{13}, int64_t{-1}, INT64_MAX}) {
        EXPECT_EQ(rgy_clnt_conf_change(op, "gamma"), TBS_ST_ERROR);
        EXPECT_THAT(world.take_messages(), ElementsAre(error(REGISTRY_MSG_BAD_REQUEST, "gamma")));
    }
    EXPECT_EQ(contents("rgy_hosts.conf"), "alpha beta");
}

TEST_F(ClientChange, AFileThatCannotBeWrittenIsTold) {
    std::filesystem::remove_all(path_of(""));
    EXPECT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_HOST, "gamma"), TBS_ST_ERROR);
    const std::string why =
        "Unable to write file \"" + path_of("rgy_hosts.conf.new") + "\": " + strerror(ENOENT) + ".\n";
    EXPECT_THAT(world.take_messages(), ElementsAre(sim::Message{IMSG_ERROR, nullptr, IMSG_FORMAT, why},
                                                   error(REGISTRY_MSG_BAD_REQUEST, "gamma")));
}

TEST_F(ClientChange, LeavesTheHostInUseUntilItsCacheIsInvalidated) {
    write("rgy_hosts.conf", "alpha beta");
    EXPECT_EQ(host_in_use(), "alpha");
    ASSERT_EQ(rgy_clnt_conf_change(RGY_CONF_SET_HOST, "gamma"), TBS_ST_OK);
    EXPECT_EQ(host_in_use(), "alpha");
    rgy_hostname_cache_inval();
    EXPECT_EQ(host_in_use(), "gamma");
}

using Promotion = RoleChange;

TEST_F(Promotion, StartsTheServiceAndPointsThisHostAtIt) {
    write("rgy_hosts.conf", "alpha beta");
    EXPECT_EQ(rgy_promote_standby_svr("beta"), TBS_ST_OK);
    EXPECT_EQ(last_change(), std::pair(int64_t{12}, std::string()));
    EXPECT_EQ(contents("rgy_hosts.conf"), "beta\nbeta\n");
    EXPECT_EQ(contents("rgy_hosts.conf.old"), "alpha beta");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Promotion, LeavesTheHostInUseUntilItsCacheIsInvalidated) {
    write("rgy_hosts.conf", "alpha beta");
    EXPECT_EQ(host_in_use(), "alpha");
    ASSERT_EQ(rgy_promote_standby_svr("beta"), TBS_ST_OK);
    EXPECT_EQ(host_in_use(), "alpha");
    rgy_hostname_cache_inval();
    EXPECT_EQ(host_in_use(), "beta");
}

TEST_F(Promotion, AServerThatRefusesChangesNothingHere) {
    write("rgy_hosts.conf", "alpha beta");
    world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_promote_standby_svr("beta"), TBS_ST_NO_ACCESS);
    EXPECT_THAT(take_told(),
                ElementsAre(error(REGISTRY_MSG_CANNOT_START_SERVICE, "beta", tbs_strerror(TBS_ST_NO_ACCESS))));
    EXPECT_EQ(rgy_promote_standby_svr("nowhere"), TBS_ST_NOT_FOUND);
    EXPECT_THAT(take_told(),
                ElementsAre(error(REGISTRY_MSG_CANNOT_START_SERVICE, "nowhere", tbs_strerror(TBS_ST_NOT_FOUND))));
    EXPECT_EQ(contents("rgy_hosts.conf"), "alpha beta");
}

TEST_F(Promotion, AFileThatCannotBeWrittenIsTheResult) {
    std::filesystem::remove_all(path_of(""));
    EXPECT_EQ(rgy_promote_standby_svr("beta"), TBS_ST_ERROR);
    EXPECT_THAT(take_told(), ElementsAre(error(REGISTRY_MSG_BAD_REQUEST, "beta")));
}

TEST_F(Promotion, WithoutANameIsRefused) {
    EXPECT_EQ(rgy_promote_standby_svr(nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_promote_standby_svr(""), TBS_ST_INVALID_ARG);
    EXPECT_EQ(asked(), 0u);
}

using TypeChange = RoleChange;

TEST_F(TypeChange, ToThePresentTypeDoesNothing) {
    for (int32_t type = RGY_SVR_NONE; type <= RGY_SVR_STANDBY; ++type) {
        set_type(type);
        world.take_messages(); // an empty file is told
        const auto before = contents("rgy_svr.conf");
        EXPECT_EQ(rgy_change_server_type(type), TBS_ST_OK) << type;
        EXPECT_EQ(contents("rgy_svr.conf"), before);
    }
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(TypeChange, OfAStandbyToMasterPromotesThisHost) {
    write("rgy_hosts.conf", "alpha beta");
    set_type(RGY_SVR_STANDBY);
    EXPECT_EQ(rgy_change_server_type(RGY_SVR_MASTER), TBS_ST_OK);
    EXPECT_EQ(last_change(), std::pair(int64_t{12}, std::string()));
    EXPECT_EQ(contents("rgy_hosts.conf"), "thishost\nbeta\n");
    EXPECT_EQ(contents("rgy_svr.conf"), "standby"); // the daemon writes it when it starts the service
    EXPECT_THAT(take_told(), ElementsAre(type_is(RGY_SVR_MASTER)));
}

TEST_F(TypeChange, OfAStandbyThatIsNotPromotedIsThatFailure) {
    set_type(RGY_SVR_STANDBY);
    world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_change_server_type(RGY_SVR_MASTER), TBS_ST_NO_ACCESS);
    EXPECT_THAT(take_told(),
                ElementsAre(error(REGISTRY_MSG_CANNOT_START_SERVICE, "thishost", tbs_strerror(TBS_ST_NO_ACCESS))));
}

TEST_F(TypeChange, OfAnythingElseToMasterIsRefused) {
    for (const int32_t type : {RGY_SVR_SLAVE, RGY_SVR_BACKUP}) {
        set_type(type);
        EXPECT_EQ(rgy_change_server_type(RGY_SVR_MASTER), TBS_ST_ERROR);
        EXPECT_THAT(world.take_messages(), ElementsAre(error(REGISTRY_MSG_NOT_STANDBY, "thishost")));
    }
    std::filesystem::remove(path_of("rgy_svr.conf"));
    EXPECT_EQ(rgy_change_server_type(RGY_SVR_MASTER), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(error(REGISTRY_MSG_NOT_STANDBY, "thishost")));
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(TypeChange, AmongTheOthersWritesTheType) {
    for (const int32_t from : {RGY_SVR_SLAVE, RGY_SVR_BACKUP, RGY_SVR_STANDBY})
        for (const int32_t to : {RGY_SVR_SLAVE, RGY_SVR_BACKUP, RGY_SVR_STANDBY}) {
            set_type(from);
            EXPECT_EQ(rgy_change_server_type(to), TBS_ST_OK);
            EXPECT_EQ(contents("rgy_svr.conf"), rgy_svrtype_table[to].text);
        }
    std::filesystem::remove(path_of("rgy_svr.conf"));
    EXPECT_EQ(rgy_change_server_type(RGY_SVR_SLAVE), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_svr.conf"), "slave");
    EXPECT_THAT(world.peer.calls, IsEmpty());
}

TEST_F(TypeChange, WhoseFileCannotBeWrittenIsThatStatus) {
    std::filesystem::remove_all(path_of(""));
    EXPECT_EQ(rgy_change_server_type(RGY_SVR_SLAVE), TBS_ST_NOT_SET);
}

TEST_F(TypeChange, ToNoTypeIsRefused) {
    for (const int32_t from : {RGY_SVR_MASTER, RGY_SVR_SLAVE, RGY_SVR_BACKUP, RGY_SVR_STANDBY})
        for (const int32_t to : {-1, 0, 5, INT32_MAX, INT32_MIN}) {
            set_type(from);
            EXPECT_EQ(rgy_change_server_type(to), TBS_ST_ERROR);
            EXPECT_THAT(world.take_messages(), ElementsAre(error(REGISTRY_MSG_UNRECOGNIZED_SERVER_TYPE)));
            EXPECT_EQ(contents("rgy_svr.conf"), rgy_svrtype_table[from].text);
        }
}

TEST_F(TypeChange, OfAMasterThatWasPromotedDemotesIt) {
    for (const int32_t type : {RGY_SVR_SLAVE, RGY_SVR_BACKUP, RGY_SVR_STANDBY}) {
        set_type(RGY_SVR_MASTER);
        write("rgy_hosts.conf", "thishost\nbeta\n");
        write("rgy_hosts.conf.old", "alpha beta");
        EXPECT_EQ(rgy_change_server_type(type), TBS_ST_OK);
        EXPECT_EQ(last_change(), std::pair(int64_t{13}, std::string()));
        EXPECT_EQ(contents("rgy_svr.conf"), rgy_svrtype_table[type].text);
        EXPECT_EQ(contents("rgy_hosts.conf"), "alpha beta");
        EXPECT_EQ(contents("rgy_hosts.conf.old"), "no file");
        EXPECT_THAT(take_told(), ElementsAre(type_is(type)));
    }
}

TEST_F(TypeChange, OfAMasterThatWasNeverPromotedIsRefused) {
    set_type(RGY_SVR_MASTER);
    const auto cannot = error(REGISTRY_MSG_CANNOT_DEMOTE_MASTER, "thishost");
    EXPECT_EQ(rgy_change_server_type(RGY_SVR_STANDBY), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(cannot, error(REGISTRY_MSG_NOT_PROMOTED), cannot));
    EXPECT_EQ(contents("rgy_svr.conf"), "master");
    EXPECT_EQ(asked(), 0u);
}

using Demotion = RoleChange;

TEST_F(Demotion, WithoutAFormerHostsFileIsNotSet) {
    EXPECT_EQ(rgy_demote_master_svr("thishost", RGY_SVR_STANDBY), TBS_ST_NOT_SET);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(error(REGISTRY_MSG_CANNOT_DEMOTE_MASTER, "thishost"), error(REGISTRY_MSG_NOT_PROMOTED)));
}

TEST_F(Demotion, OfAMasterThatDoesNotStepDownGoesOn) {
    write("rgy_hosts.conf.old", "alpha beta");
    world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_demote_master_svr("thishost", RGY_SVR_STANDBY), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_svr.conf"), "standby");
    EXPECT_EQ(contents("rgy_hosts.conf"), "alpha beta");
}

TEST_F(Demotion, WhoseTypeCannotBeWrittenNeedsAnAdministrator) {
    write("rgy_hosts.conf.old", "alpha beta");
    EXPECT_EQ(rgy_demote_master_svr("thishost", 5), TBS_ST_ERROR);
    EXPECT_THAT(take_told(),
                ElementsAre(error(REGISTRY_MSG_CANNOT_DEMOTE_MASTER, "thishost"), error(REGISTRY_MSG_UNRECOVERABLE)));
    std::filesystem::create_directory(path_of("rgy_svr.conf"));
    EXPECT_EQ(rgy_demote_master_svr("thishost", RGY_SVR_STANDBY), TBS_ST_ERROR);
    EXPECT_EQ(contents("rgy_hosts.conf.old"), "alpha beta");
    EXPECT_EQ(contents("rgy_hosts.conf"), "no file");
}

TEST_F(Demotion, WhoseHostsFileCannotBePutBackIsDone) {
    write("rgy_hosts.conf.old", "alpha beta");
    std::filesystem::create_directory(path_of("rgy_hosts.conf"));
    EXPECT_EQ(rgy_demote_master_svr("thishost", RGY_SVR_STANDBY), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_svr.conf"), "standby");
}

TEST_F(RoleChange, APromotedStandbyIsDemotedBackToWhatItWas) {
    write("rgy_hosts.conf", "alpha\nthishost\n");
    set_type(RGY_SVR_STANDBY);
    world.peer.on(RVZD_PROC_RGY_SVR_CONF_CHANGE, [this](const sim::Call &) {
        set_type(RGY_SVR_MASTER);
        return refusal(TBS_ST_OK);
    });
    ASSERT_EQ(take_over(), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "thishost\nthishost\n");
    world.peer.answer(RVZD_PROC_RGY_SVR_CONF_CHANGE, refusal(TBS_ST_OK));
    ASSERT_EQ(rgy_change_server_type(RGY_SVR_STANDBY), TBS_ST_OK);
    EXPECT_EQ(contents("rgy_hosts.conf"), "alpha\nthishost\n");
    EXPECT_EQ(contents("rgy_svr.conf"), "standby");
}

TEST_F(RoleChange, EachFailingAllocationAndRaiseLeaksNothing) {
    write("rgy_hosts.conf", "alpha\nthishost\n");
    set_type(RGY_SVR_STANDBY);
    ASSERT_EQ(rgy_change_server_type(RGY_SVR_MASTER), TBS_ST_OK);
    const auto before = sim::Holdings::now(world);
    auto operation = [] { rgy_change_server_type(RGY_SVR_MASTER); };
    sim::sweep_allocations(world, operation,
                           [&](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        expect_no_more_than(before, number);
    });
    EXPECT_GE(raises, 2);
}

TEST_F(RoleChange, NoRegionIsOfTheReducedKind) {
    for (const char *region : {"r1", "", static_cast<const char *>(nullptr)}) {
        int32_t is_slim = 77;
        EXPECT_EQ(rgy_is_slim_region(region, &is_slim), TBS_ST_OK);
        EXPECT_EQ(is_slim, 0);
    }
    EXPECT_EQ(rgy_is_slim_region("r1", nullptr), TBS_ST_OK);
}

} // namespace
