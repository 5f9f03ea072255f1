// The table of bindings, the fail-over and the read cache's place in it.
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <thread>

#include <common/with.h>

namespace {

using testing::IsEmpty;

class Bindings : public RegistryTest {
protected:
    Bindings() {
        for (int i = 0; i < 20; ++i)
            world.add_host("host" + std::to_string(i), {"127.0.1." + std::to_string(i + 1)});
    }

    Binding bind(const std::string &host, uint32_t authenticated = anonymous, rgy_db_t db = RGY_DB_ALL + 1) {
        Binding binding;
        EXPECT_EQ(rgy_bind_handle(host.c_str(), binding, authenticated, db), TBS_ST_OK) << host;
        return binding;
    }
    Binding rest(const std::string &host, uint32_t authenticated = anonymous) {
        Binding binding = bind(host, authenticated);
        const Binding was = binding;
        release_binding(binding);
        EXPECT_EQ(binding.index, -1);
        return was;
    }

    // A cache of this database in the binding's slot, as a lookup makes it.
    void fill_cache(Binding binding, rgy_db_t db) { ASSERT_NE(rgy_rpc_get_cache(binding, db), nullptr); }
};

TEST_F(Bindings, TheSecondBindToAHostSharesTheSlotAndSendsNothing) {
    const Binding first = bind("alpha");
    const size_t calls = world.peer.calls.size();
    const Binding second = bind("alpha");
    EXPECT_EQ(second.index, first.index);
    EXPECT_EQ(slot_of(first).ref_count, 2);
    EXPECT_EQ(world.peer.calls.size(), calls);
    EXPECT_EQ(rpc_binding_count, 8);
}

TEST_F(Bindings, AReaderUsesAWritersSlotButNotTheReverse) {
    const Binding writer = bind("alpha", real);
    EXPECT_EQ(bind("alpha", anonymous).index, writer.index);
    const Binding reader = bind("beta", anonymous);
    const Binding second_writer = bind("beta", real);
    EXPECT_NE(second_writer.index, reader.index);
    EXPECT_STREQ(slot_of(second_writer).host, "beta");
    EXPECT_EQ(slot_of(reader).authenticated, 0u);
    EXPECT_EQ(slot_of(second_writer).authenticated, 1u);
    EXPECT_NE(rgy_rvzd_handle(reader), rgy_rvzd_handle(second_writer));
}

TEST_F(Bindings, ARealBindFlushesTheDatabasesCachesInAllSlotsOfTheHost) {
    const Binding reader = bind("alpha");
    const Binding writer = bind("alpha", real);
    const Binding other = bind("beta");
    for (const Binding binding : {reader, writer, other})
        for (rgy_db_t db : {3u, 4u})
            fill_cache(binding, db);
    bind("alpha", real, 3);
    EXPECT_EQ(slot_of(reader).cache[3], nullptr);
    EXPECT_EQ(slot_of(writer).cache[3], nullptr);
    EXPECT_NE(slot_of(reader).cache[4], nullptr);
    EXPECT_NE(slot_of(other).cache[3], nullptr);
}

TEST_F(Bindings, ARealBindFlushesBeforeItLooksForASlotAndSoAlsoWhereItFails) {
    const Binding reader = bind("alpha");
    fill_cache(reader, 3);
    world.peer.answer(RVZD_PROC_CONTACT, sim::silence());
    world.advance_s(5);
    Binding writer;
    EXPECT_EQ(rgy_bind_handle("alpha", writer, real, 3), TBS_ST_RPC_FAILED);
    EXPECT_EQ(slot_of(reader).cache[3], nullptr);
}

TEST_F(Bindings, ARealBindWithDatabaseTwelveFlushesAllTwelveAndOneAboveItNone) {
    const Binding reader = bind("alpha");
    for (rgy_db_t db = 0; db < 12; ++db)
        fill_cache(reader, db);
    bind("alpha", real, 13);
    for (rgy_db_t db = 0; db < 12; ++db)
        EXPECT_NE(slot_of(reader).cache[db], nullptr) << db;
    bind("alpha", real, RGY_DB_ALL);
    for (rgy_db_t db = 0; db < 12; ++db)
        EXPECT_EQ(slot_of(reader).cache[db], nullptr) << db;
}

TEST_F(Bindings, AnAnonymousBindTakesNoNoticeOfTheDatabase) {
    const Binding reader = bind("alpha");
    fill_cache(reader, 3);
    bind("alpha", anonymous, 3);
    bind("alpha", anonymous, RGY_DB_ALL);
    EXPECT_NE(slot_of(reader).cache[3], nullptr);
}

TEST_F(Bindings, NoCacheExistsForAllDatabasesTogether) {
    const Binding binding = bind("alpha");
    EXPECT_EQ(rgy_rpc_get_cache(binding, RGY_DB_ALL), nullptr);
    EXPECT_EQ(rgy_rpc_get_cache(binding, UINT32_MAX), nullptr);
}

TEST_F(Bindings, NoHostIsRefused) {
    Binding binding = {5};
    EXPECT_EQ(rgy_bind_handle(nullptr, binding, anonymous, 0), TBS_ST_INVALID_ARG);
    EXPECT_EQ(binding.index, -1);
    EXPECT_EQ(rgy_bind_handle("", binding, anonymous, 0), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rpc_binding_count, 0);
}

TEST_F(Bindings, AHostNameOf64CharactersIsRefusedAndTheSlotStaysFree) {
    const std::string longest(63, 'h');
    world.add_host(longest, {"127.0.0.9"});
    Binding binding;
    EXPECT_EQ(rgy_bind_handle((longest + "h").c_str(), binding, anonymous, 0), TBS_ST_INVALID_ARG);
    EXPECT_EQ(binding.index, -1);
    EXPECT_EQ(rpc_binding[0].handle, nullptr);
    EXPECT_STREQ(rpc_binding[0].host, "");
    EXPECT_EQ(bind(longest).index, 0);
}

TEST_F(Bindings, OnANinthHostWithEightIdleSlotsTheFirstSlotIsGivenUp) {
    for (int i = 0; i < 8; ++i)
        rest("host" + std::to_string(i));
    fill_cache({0}, 3);
    rvzd_handle_t *kept = rpc_binding[1].handle;
    const Binding ninth = bind("host8");
    EXPECT_EQ(ninth.index, 0);
    EXPECT_STREQ(rpc_binding[0].host, "host8");
    EXPECT_EQ(rpc_binding[0].cache[3], nullptr);
    EXPECT_EQ(rpc_binding[1].handle, kept);
    EXPECT_EQ(rpc_binding_count, 8);
}

TEST_F(Bindings, TheLowestIdleSlotIsGivenUpAndNoneInUse) {
    for (int i = 0; i < 8; ++i)
        i == 2 || i == 5 ? rest("host" + std::to_string(i)) : bind("host" + std::to_string(i));
    EXPECT_EQ(bind("host8").index, 2);
    EXPECT_EQ(bind("host9").index, 5);
    EXPECT_EQ(rpc_binding_count, 8);
}

TEST_F(Bindings, ABindingThatIsGivenBackTwiceCountsOnce) {
    Binding binding = bind("alpha");
    Binding same = binding;
    const int64_t index = binding.index;
    release_binding(binding);
    release_binding(same);
    EXPECT_EQ(rpc_binding[index].ref_count, 0);
}

TEST_F(Bindings, WithEightSlotsInUseTheTableGoesToSixteen) {
    for (int i = 0; i < 8; ++i)
        bind("host" + std::to_string(i));
    fill_cache({3}, 7);
    rvzd_handle_t *handle = rpc_binding[3].handle;
    rgy_rpc_cache_t *cache = rpc_binding[3].cache[7];
    EXPECT_EQ(bind("host8").index, 8);
    EXPECT_EQ(rpc_binding_count, 16);
    EXPECT_EQ(rpc_binding[3].handle, handle);
    EXPECT_EQ(rpc_binding[3].cache[7], cache);
    EXPECT_STREQ(rpc_binding[3].host, "host3");
    EXPECT_EQ(rpc_binding[9].handle, nullptr);
}

TEST_F(Bindings, ASlotWhoseHandleCannotBeHadIsLeftCleared) {
    Binding binding;
    EXPECT_EQ(rgy_bind_handle("nowhere", binding, anonymous, 0), TBS_ST_NOT_FOUND);
    EXPECT_EQ(rpc_binding[0].handle, nullptr);
    EXPECT_STREQ(rpc_binding[0].host, "");
    EXPECT_EQ(rpc_binding[0].ref_count, 0);
    EXPECT_EQ(bind("alpha").index, 0);
}

TEST_F(Bindings, ReleasingKeepsHandleAndCachesForTheNextBind) {
    Binding binding = bind("alpha");
    fill_cache(binding, 3);
    rvzd_handle_t *handle = rgy_rvzd_handle(binding);
    release_binding(binding);
    release_binding(binding);
    const Binding again = bind("alpha");
    EXPECT_EQ(rgy_rvzd_handle(again), handle);
    EXPECT_NE(slot_of(again).cache[3], nullptr);
    EXPECT_EQ(slot_of(again).ref_count, 1);
}

TEST_F(Bindings, WithoutStorageForMoreSlotsTheOldTableStands) {
    for (int i = 0; i < 8; ++i)
        bind("host" + std::to_string(i));
    const auto *table = rpc_binding;
    Binding binding;
    world.fail_allocation(1);
    EXPECT_EQ(rgy_bind_handle("host8", binding, anonymous, 0), TBS_ST_NO_MEMORY);
    world.fail_allocation(0);
    EXPECT_EQ(rpc_binding, table);
    EXPECT_EQ(rpc_binding_count, 8);
    EXPECT_EQ(binding.index, -1);
}

TEST_F(Bindings, EachFailingAllocationLeavesNoHalfBoundSlot) {
    rest("beta");
    const auto before = sim::Holdings::now(world);
    Binding binding;
    tbs_status_t status = TBS_ST_OK;
    sim::sweep_allocations(
        world, [&] { status = rgy_bind_handle("alpha", binding, anonymous, 0); },
        [&](int number) {
            EXPECT_NE(status, TBS_ST_OK);
            EXPECT_EQ(binding.index, -1);
            EXPECT_EQ(rpc_binding[1].handle, nullptr);
            EXPECT_STREQ(rpc_binding[1].host, "");
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_F(Bindings, ARaiseLeavesNoHalfBoundSlot) {
    rest("beta");
    const auto before = sim::Holdings::now(world);
    auto operation = [&] {
        Binding binding;
        rgy_bind_handle("alpha", binding, anonymous, 0);
    };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        EXPECT_EQ(rpc_binding[1].handle, nullptr);
        EXPECT_EQ(rpc_binding[1].ref_count, 0);
        EXPECT_STREQ(rpc_binding[1].host, "");
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
        sim::release_lock(rvzd_call_lock);
    });
    EXPECT_GE(raises, 5);
}

TEST_F(Bindings, ABadIndexIsAFailedAssertion) {
    const char *expression = "rpc_binding != NULL && h.index >= 0 && h.index < rpc_binding_count";
    EXPECT_DEATH(run_to_death([] { rgy_rvzd_handle({0}); }), expression);
    bind("alpha");
    EXPECT_DEATH(run_to_death([] { rgy_rvzd_handle({-1}); }), expression);
    EXPECT_DEATH(run_to_death([] { rgy_rpc_get_cache({8}, 0); }), expression);
}

TEST_F(Bindings, TheFirstTableRegistersTheReleaseAtTheEndOfTheProcessOnce) {
    for (int i = 0; i < 9; ++i)
        bind("host" + std::to_string(i));
    ASSERT_EQ(world.exit_actions.size(), 1u);
    fill_cache({0}, 3);
    world.exit_actions[0].function(world.exit_actions[0].argument);
    EXPECT_EQ(rpc_binding, nullptr);
    EXPECT_EQ(rpc_binding_count, 0);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Bindings, TheEndOfTheProcessLeavesNothingOfThem) {
    const auto before = sim::Holdings::now(world);
    for (int i = 0; i < 9; ++i) // one more than the first table has room for
        bind("host" + std::to_string(i));
    fill_cache({0}, 3);
    rgy_deallocate_bindings(nullptr);
    world.advance_s(61);
    rvzd_free_cached_handles();
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(Bindings, AProcessThatEndsUnderTheLockOfCallsReleasesThem) {
    bind("alpha");
    velia::with_lock(velia::rvzd_clnt::call_lock, [] { rgy_deallocate_bindings(nullptr); });
    EXPECT_EQ(rpc_binding, nullptr);
}

class FailOver : public Bindings {
protected:
    void hosts_are(const std::string &text) { world.write_file("host/config/rgy_hosts.conf", text); }
    void silence_broker() { world.peer.answer(RVZD_PROC_CONTACT, sim::silence()); }
    tbs_status_t bind_site(const char *host) { return bind_with_fail_over(host, binding, anonymous, 0); }

    Binding binding;
};

TEST_F(FailOver, AnExplicitHostIsTheOnlyOne) {
    EXPECT_EQ(bind_site("beta"), TBS_ST_OK);
    EXPECT_STREQ(slot_of(binding).host, "beta");
    silence_broker();
    EXPECT_EQ(bind_site("alpha"), TBS_ST_RPC_FAILED);
    EXPECT_EQ(world.lookups.back(), "alpha");
}

TEST_F(FailOver, WithoutAHostItIsTheMaster) {
    hosts_are("alpha\nbeta\n");
    ASSERT_EQ(bind_site(nullptr), TBS_ST_OK);
    EXPECT_STREQ(slot_of(binding).host, "alpha");
}

TEST_F(FailOver, AnUnreadableConfigurationIsItsStatus) {
    EXPECT_EQ(bind_site(nullptr), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    EXPECT_THAT(world.lookups, IsEmpty());
}

TEST_F(FailOver, WithTheMasterUnreachableNoOtherHostIsTriedAndItIsAnError) {
    hosts_are("alpha\nbeta\n");
    silence_broker();
    EXPECT_EQ(bind_site(nullptr), TBS_ST_ERROR);
    EXPECT_EQ(binding.index, -1);
    EXPECT_THAT(world.lookups, testing::Not(testing::Contains("beta")));
}

TEST_F(FailOver, OfTheListOfOtherHostsNothingIsLeft) {
    hosts_are("alpha beta");
    silence_broker();
    EXPECT_EQ(bind_site(nullptr), TBS_ST_ERROR);
    const auto before = sim::Holdings::now(world);
    EXPECT_EQ(bind_site(nullptr), TBS_ST_ERROR);
    EXPECT_EQ(sim::Holdings::now(world), before);
}

TEST_F(FailOver, AMasterThatKnowsOfNoServerIsFallenOverFromToo) {
    hosts_are("alpha\nbeta\n");
    world.peer.speak(RVZD_PROTOCOL_CURRENT, TBS_ST_NO_SERVER);
    EXPECT_EQ(bind_site(nullptr), TBS_ST_ERROR); // of the list of backups, which is empty
    EXPECT_EQ(bind_site("alpha"), TBS_ST_NO_SERVER);
}

TEST_F(FailOver, AnotherFailureOfTheMasterIsItsStatus) {
    hosts_are("nowhere\nbeta\n");
    EXPECT_EQ(bind_site(nullptr), TBS_ST_NOT_FOUND);
}

TEST_F(FailOver, EachFailingAllocationIsAFailureAndLeaksNothing) {
    hosts_are("alpha\nbeta\n");
    silence_broker();
    EXPECT_EQ(bind_site(nullptr), TBS_ST_ERROR);
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    sim::sweep_allocations(
        world, [&] { status = bind_site(nullptr); },
        [&](int number) {
            EXPECT_NE(status, TBS_ST_OK);
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_EQ(status, TBS_ST_ERROR);
}

TEST_F(FailOver, ARaiseLeaksNothing) {
    hosts_are("alpha\nbeta\n");
    silence_broker();
    EXPECT_EQ(bind_site(nullptr), TBS_ST_ERROR);
    const auto before = sim::Holdings::now(world);
    auto operation = [&] { bind_site(nullptr); };
    sim::sweep_raises(world, operation, [&](int number) {
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
        sim::release_lock(rvzd_call_lock);
    });
}

class Site : public FailOver {
protected:
    ~Site() override {
        registry_prop_set_process_default_region_local(nullptr);
        unsetenv("VELIA_WEB_GUI");
        unsetenv("IVLWEB_USER_REGION_MAPFILE");
    }
    static std::string text_of(tbs_status_t (*get)(int32_t, int32_t, char **)) {
        char *text = nullptr;
        const auto status = get(1, 0, &text);
        const std::string copy = text != nullptr ? text : std::to_string(status);
        stg_free(text);
        return copy;
    }
    static std::string region() {
        const char *text = nullptr;
        const auto status = rgy_get_default_region(&text);
        return status == TBS_ST_OK ? text : std::to_string(status);
    }
};

TEST_F(Site, TheMasterIsReadOnceAProcessUntilItIsForgotten) {
    hosts_are("alpha beta");
    EXPECT_EQ(text_of(rgy_get_server_host), "alpha");
    hosts_are("gamma delta");
    EXPECT_EQ(text_of(rgy_get_server_host), "alpha");
    EXPECT_EQ(text_of(rgy_get_server_host_sil), "alpha");
    EXPECT_EQ(rgy_hostname_cache_inval(), TBS_ST_OK);
    EXPECT_EQ(text_of(rgy_get_server_host), "gamma");
}

// As in a child whose parent had another thread under the lock: what that had in hand may be half made.
TEST_F(Site, AfterAForkUnderItsLockTheMasterIsReadAgain) {
    hosts_are("alpha beta");
    EXPECT_EQ(text_of(rgy_get_server_host), "alpha");
    hosts_are("gamma delta");
    hostname_watch.begin_anew();
    EXPECT_EQ(text_of(rgy_get_server_host), "gamma");
}

TEST_F(Site, AfterAForkUnderTheirLockThePathsAreMadeAgain) {
    const std::string before = registry_configuration_pathname();
    hosts_are("alpha");
    const std::string root = world.root() + "/other";
    const std::string usual = getenv("VELIA_ROOT");
    setenv("VELIA_ROOT", root.c_str(), 1);
    EXPECT_EQ(registry_configuration_pathname(), before);
    prop_local_watch.begin_anew();
    EXPECT_EQ(std::string(registry_configuration_pathname()).find(root), 0u);
    setenv("VELIA_ROOT", usual.c_str(), 1);
}

TEST_F(Site, AfterAForkUnderTheirLockBindingsAreMadeAgain) {
    bind("alpha");
    rgy_rpc_binding_t *const of_the_parent = rpc_binding;
    const int64_t count = rpc_binding_count;
    cache_lock_watch.begin_anew();
    EXPECT_EQ(rpc_binding, nullptr);
    EXPECT_EQ(rpc_binding_count, 0);
    bind("alpha");
    EXPECT_NE(rpc_binding, of_the_parent);
    rgy_deallocate_bindings(nullptr);
    rpc_binding = of_the_parent; // and so nothing is lost here
    rpc_binding_count = count;
}

TEST_F(Site, EachThreadKeepsTheMasterThatItWasTold) {
    hosts_are("alpha");
    const char *mine = nullptr;
    ASSERT_EQ(rgy_load_svrloc(mine), TBS_ST_OK);
    hosts_are("gamma");
    rgy_hostname_cache_inval();
    std::string theirs;
    std::thread([&] {
        const char *host = "";
        EXPECT_EQ(rgy_load_svrloc(host), TBS_ST_OK);
        EXPECT_NE(host, mine);
        theirs = host;
    }).join();
    EXPECT_EQ(theirs, "gamma");
    EXPECT_STREQ(mine, "alpha");
}

TEST_F(Site, AFailedReadIsTriedAgain) {
    EXPECT_EQ(text_of(rgy_get_server_host), "1001");
    hosts_are("alpha");
    EXPECT_EQ(text_of(rgy_get_server_host), "alpha");
    hosts_are(std::string(64, 'a'));
    rgy_hostname_cache_inval();
    EXPECT_EQ(text_of(rgy_get_server_host), "1001");
}

TEST_F(Site, WithoutStorageThereIsNoHost) {
    hosts_are("alpha");
    ASSERT_EQ(text_of(rgy_get_server_host), "alpha");
    world.fail_allocation(1);
    EXPECT_EQ(text_of(rgy_get_server_host), "1062");
    world.fail_allocation(0);
    EXPECT_EQ(rgy_get_server_host(1, 0, nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(Site, TheBackupListIsEmptyWhateverTheFileHolds) {
    const auto backup_list = [](int32_t, int32_t, char **out) { return rgy_get_cached_backup_list(out); };
    EXPECT_EQ(text_of(backup_list), "1001");
    hosts_are("alpha beta");
    EXPECT_EQ(text_of(backup_list), "");
    EXPECT_EQ(rgy_get_cached_backup_list(nullptr), TBS_ST_INVALID_ARG);
    bool seen = false;
    std::string text;
    sim::sweep_allocations(
        world, [&] { text = text_of(backup_list); }, [&](int) { seen = seen || text == "1062"; });
    EXPECT_TRUE(seen);
}

TEST_F(Site, TheDefaultRegionIsTheFirstWordOfItsFile) {
    EXPECT_EQ(region(), "1001");
    world.write_file("host/config/rgy_region.conf", "r1\nr2\n");
    EXPECT_EQ(region(), "r1");
    ASSERT_EQ(rgy_set_process_default_region("mine"), TBS_ST_OK);
    EXPECT_EQ(region(), "mine");
    ASSERT_EQ(rgy_set_process_default_region(nullptr), TBS_ST_OK);
    EXPECT_EQ(region(), "r1");
    EXPECT_EQ(rgy_get_default_region(nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(Site, ADefaultRegionHas32CharactersAtMost) {
    const std::string longest(32, 'r');
    world.write_file("host/config/rgy_region.conf", longest + " r2");
    EXPECT_EQ(region(), longest);
    world.write_file("host/config/rgy_region.conf", longest + "r r2");
    EXPECT_EQ(region(), "1001");
    world.write_file("host/config/rgy_region.conf", "r1 " + longest + "r");
    EXPECT_EQ(region(), "1001");
}

TEST_F(Site, AFetchedRegionMustFitWithItsTerminator) {
    world.write_file("host/config/rgy_region.conf", "r12 r2");
    char buffer[8] = "before";
    EXPECT_EQ(rgy_fetch_default_region(3, buffer), TBS_ST_INVALID_ARG);
    EXPECT_STREQ(buffer, "before");
    EXPECT_EQ(rgy_fetch_default_region(4, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "r12");
    EXPECT_EQ(rgy_fetch_default_region(4, nullptr), TBS_ST_INVALID_ARG);
    std::filesystem::remove(world.root() + "/host/config/rgy_region.conf");
    EXPECT_EQ(rgy_fetch_default_region(4, buffer), TBS_ST_ERROR);
}

TEST_F(Site, TheWebInterfaceTakesItsUsersRegionByTheMapIfThereIsOne) {
    world.write_file("host/config/rgy_region.conf", "r1 r2");
    world.write_file("map", "r9 { %DEFAULT% }\n");
    setenv("IVLWEB_USER_REGION_MAPFILE", (world.root() + "/map").c_str(), 1);
    EXPECT_EQ(region(), "r1");
    setenv("VELIA_WEB_GUI", "1", 1);
    EXPECT_EQ(region(), "r9");
    world.write_file("map", "}\n");
    EXPECT_EQ(region(), "1001");
    setenv("IVLWEB_USER_REGION_MAPFILE", "", 1);
    EXPECT_EQ(region(), "r1");
    unsetenv("IVLWEB_USER_REGION_MAPFILE");
    EXPECT_EQ(region(), "r1");
}

} // namespace
