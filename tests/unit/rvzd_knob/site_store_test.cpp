// Values of the site: which entry counts, what is passed over, and how a value is replaced while others write, too.
#include <tests/unit/rvzd_knob/knob_fixture.h>

namespace {

class SiteValues : public KnobTest {
protected:
    tbs_status_t read(uint32_t id, std::string &value, tbs_boolean_t *is_found = nullptr,
                      int32_t kind = KNOBLET_SYNC_SITE) {
        char buffer[2048] = "";
        tbs_boolean_t found = 99;
        const auto status = rvzd_knoblet_get_value_spelling(id, kind, nullptr, &found, sizeof buffer, buffer);
        if (is_found != nullptr)
            *is_found = found;
        value = buffer;
        return status;
    }
    std::string value_of(uint32_t id, int32_t kind = KNOBLET_SYNC_SITE) {
        std::string value;
        tbs_boolean_t found;
        EXPECT_EQ(read(id, value, &found, kind), TBS_ST_OK);
        return found != 0 ? value : "(none)";
    }
    tbs_status_t status_of_read(uint32_t id, int32_t kind = KNOBLET_SYNC_SITE) {
        std::string value;
        tbs_boolean_t found = 99;
        const auto status = read(id, value, &found, kind);
        EXPECT_EQ(found, 0);
        return status;
    }
    static tbs_status_t write(const char *value) {
        return rvzd_knoblet_set_string(site_name, KNOBLET_SYNC_SITE, nullptr, value);
    }
    static tbs_status_t write_size(int32_t value, const char *host = nullptr) {
        return rvzd_knoblet_set_integer(view_cache_size, KNOBLET_SITE, host, value);
    }
    static sim::Message duplicates(const char *name) {
        return message_of(IMSG_WARNING, _rvzd_knob_rvzd_msg_table, 131, name);
    }
};

TEST_F(SiteValues, AnEmptySiteHasNone) {
    EXPECT_EQ(value_of(site_name), "(none)");
    EXPECT_EQ(value_of(view_cache_size, KNOBLET_SITE), "(none)");
}

TEST_F(SiteValues, TheEntryOfTheNameHoldsTheValue) {
    site.put("other", "1");
    site.put("fl_site_name", "two words");
    site.put("another", "2");
    EXPECT_EQ(value_of(site_name), "two words");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, NamesOfEntriesAreComparedWithCase) {
    site.put("FL_SITE_NAME", "x");
    EXPECT_EQ(value_of(site_name), "(none)");
}

TEST_F(SiteValues, AnEmptyValueIsAValue) {
    site.put("fl_site_name", "");
    EXPECT_EQ(value_of(site_name), "");
}

TEST_F(SiteValues, OfTwoEntriesTheFirstCountsWithAWarning) {
    site.put("fl_site_name", "first");
    site.put("other", "x");
    site.put("fl_site_name", "second");
    EXPECT_EQ(value_of(site_name), "first");
    EXPECT_THAT(world.take_messages(), ElementsAre(duplicates("fl_site_name")));
    site.put("fl_site_name", "third");
    EXPECT_EQ(value_of(site_name), "first");
    EXPECT_THAT(world.take_messages(), ElementsAre(duplicates("fl_site_name")));
}

TEST_F(SiteValues, TheOldFormAloneDeliversTheViewCacheSize) {
    site.put("-default_viewsize=2048000;");
    EXPECT_EQ(value_of(view_cache_size, KNOBLET_SITE), "2048000");
    EXPECT_EQ(value_of(site_name), "(none)");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, TheOldFormBesideTheOtherIsNoDuplicateButAThirdIs) {
    site.put("-default_viewsize=2048000;");
    site.put("view_cache_size", "2048001");
    EXPECT_EQ(value_of(view_cache_size, KNOBLET_SITE), "2048000");
    EXPECT_THAT(world.take_messages(), IsEmpty());
    site.put("view_cache_size", "2048002");
    EXPECT_EQ(value_of(view_cache_size, KNOBLET_SITE), "2048000");
    EXPECT_THAT(world.take_messages(), ElementsAre(duplicates("view_cache_size")));
}

TEST_F(SiteValues, ViewCacheSizeWrittenOnceLeavesTwoEntriesAndReadsWithoutAWarning) {
    EXPECT_EQ(write_size(2048000), TBS_ST_OK);
    EXPECT_THAT(site.texts(), ElementsAre("-default_viewsize=2048000;", "-name=view_cache_size;-value=2048000;"));
    EXPECT_EQ(value_of(view_cache_size, KNOBLET_SITE), "2048000");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, AForeignEntryWithoutAValueIsPassedOver) {
    site.put("-name=stranger;");
    site.put("-title=neither name nor value;");
    site.put("fl_site_name", "mine");
    EXPECT_EQ(value_of(site_name), "mine");
    site.put("view_cache_size", "2048001");
    EXPECT_EQ(value_of(view_cache_size, KNOBLET_SITE), "2048001");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, AnOwnEntryWithoutAValueIsAsNone) {
    site.put("-name=fl_site_name;");
    EXPECT_EQ(value_of(site_name), "(none)");
}

TEST_F(SiteValues, ATextOfTheLimitIsAFailureAndOneBelowIsNot) {
    const std::string longest(1023, 'v');
    site.put("-name=fl_site_name;-value=" + longest + ";");
    EXPECT_EQ(value_of(site_name), longest);
    site.entries.clear();
    site.put("-name=fl_site_name;-value=" + longest + "v;");
    EXPECT_EQ(status_of_read(site_name), TBS_ST_INVALID_ARG);
    site.entries.clear();
    site.put("-default_viewsize=" + longest + "v;");
    EXPECT_EQ(status_of_read(view_cache_size, KNOBLET_SITE), TBS_ST_INVALID_ARG);
}

TEST_F(SiteValues, AnyEntrysOverlongNameIsAFailureAndAForeignOverlongValueIsNone) {
    site.put("-name=other;-value=" + std::string(1024, 'v') + ";");
    site.put("fl_site_name", "mine");
    EXPECT_EQ(value_of(site_name), "mine");
    site.entries.clear();
    site.put("-name=" + std::string(1024, 'n') + ";-value=1;");
    site.put("fl_site_name", "mine");
    EXPECT_EQ(status_of_read(site_name), TBS_ST_INVALID_ARG);
    EXPECT_EQ(write("new"), TBS_ST_INVALID_ARG);
}

TEST_F(SiteValues, TroubleBehindTheFirstMatchEndsTheScanWithoutAWord) {
    site.put("fl_site_name", "mine");
    site.put("-name=" + std::string(1024, 'n') + ";-value=1;");
    site.put("fl_site_name", "second");
    EXPECT_EQ(value_of(site_name), "mine");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, ARegistryThatIsDownIsAnErrorAndNeverTheDefault) {
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, sim::silence());
    char buffer[64];
    EXPECT_EQ(rvzd_knob_get_string(site_name, nullptr, sizeof buffer, buffer), TBS_ST_ERROR);
    int32_t value = 0;
    EXPECT_EQ(rvzd_knob_get_integer(vault_imports, nullptr, &value), TBS_ST_ERROR);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(status_of_read(site_name), TBS_ST_ERROR);
}

TEST_F(SiteValues, AnUnknownRegistryHostIsAnErrorAndNeverTheDefault) {
    int32_t value = 0;
    tbs_boolean_t found = 99;
    EXPECT_EQ(rvzd_knob_get_integer(vault_imports, "nowhere", &value), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_get_integer(vault_imports, KNOBLET_SYNC_SITE, "nowhere", &found, &value), TBS_ST_ERROR);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(rvzd_knoblet_set_integer(vault_imports, KNOBLET_SYNC_SITE, "nowhere", 2), TBS_ST_ERROR);
}

TEST_F(SiteValues, WithoutAConfiguredRegistryThereIsAnError) {
    world.write_file("host/config/rgy_hosts.conf", "");
    int32_t value = 0;
    EXPECT_NE(rvzd_knob_get_integer(vault_imports, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 0);
}

TEST_F(SiteValues, AFetchThatFailsOnTheWayIsItsStatus) {
    world.peer.on(RVZD_PROC_RGY_GET_ENTRY, [n = 0](const sim::Call &) mutable {
        return n++ == 0 ? batch({"-name=other;-value=1;"}, 1) : refusal(4711);
    });
    EXPECT_EQ(status_of_read(site_name), TBS_ST_ERROR);
}

TEST_F(SiteValues, AGivenHostIsAskedForReadsAndWrites) {
    EXPECT_EQ(write_size(2048000, "beta"), TBS_ST_OK);
    int32_t value = 0;
    EXPECT_EQ(rvzd_knob_get_integer(view_cache_size, "beta", &value), TBS_ST_OK);
    EXPECT_EQ(value, 2048000);
    for (const auto &call : world.peer.calls)
        EXPECT_EQ(call.address.ipv4.sin_addr.s_addr, htonl(0x7f000003)) << call.procedure;
}

TEST_F(SiteValues, AWriteReplacesEveryEntryOfTheNameAndNoOther) {
    site.put("fl_site_name", "first");
    site.put("other", "x");
    site.put("fl_site_name", "second");
    site.put("-default_viewsize=2048000;");
    EXPECT_EQ(write("new"), TBS_ST_OK);
    EXPECT_THAT(site.texts(),
                ElementsAre("-name=other;-value=x;", "-default_viewsize=2048000;", "-name=fl_site_name;-value=new;"));
}

TEST_F(SiteValues, AnUnsetRemovesTheOldFormAndThePairAlike) {
    site.put("-title=nobody's;");
    EXPECT_EQ(write_size(2048000), TBS_ST_OK);
    EXPECT_EQ(rvzd_knoblet_unset_value(view_cache_size, KNOBLET_SITE, nullptr), TBS_ST_OK);
    EXPECT_THAT(site.texts(), ElementsAre("-title=nobody's;"));
    int32_t value = 0;
    EXPECT_EQ(rvzd_knob_get_integer(view_cache_size, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 4096000);
}

TEST_F(SiteValues, AnUnsetOfNothingIsNoFailureAndAddsNothing) {
    EXPECT_EQ(rvzd_knoblet_unset_value(site_name, KNOBLET_SYNC_SITE, nullptr), TBS_ST_OK);
    EXPECT_EQ(site.adds, 0u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, AStaleAddBeginsAnewWithTheRemoval) {
    int others = 0;
    site.before_add = [&] {
        if (others++ == 0)
            site.put("fl_site_name", "somebody's");
    };
    EXPECT_EQ(write("mine"), TBS_ST_OK);
    EXPECT_EQ(site.adds, 2u);
    EXPECT_THAT(site.texts(), ElementsAre("-name=fl_site_name;-value=mine;"));
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, AStaleAddOfTheOldFormSpendsThePassToo) {
    int others = 0;
    site.before_add = [&] {
        if (others++ == 0)
            site.put("other", "x");
    };
    EXPECT_EQ(write_size(2048000), TBS_ST_OK);
    EXPECT_EQ(site.adds, 3u);
    EXPECT_THAT(site.texts(), ElementsAre("-name=other;-value=x;", "-default_viewsize=2048000;",
                                          "-name=view_cache_size;-value=2048000;"));
}

TEST_F(SiteValues, TheTenthPassMayStillSucceed) {
    site.add_status = [&](const std::string &) {
        return site.adds < 10 ? std::optional<tbs_status_t>(TBS_ST_STALE_ID) : std::nullopt;
    };
    EXPECT_EQ(write("mine"), TBS_ST_OK);
    EXPECT_EQ(site.adds, 10u);
}

TEST_F(SiteValues, AfterTenPassesItGivesUp) {
    site.add_status = [](const std::string &) { return std::optional<tbs_status_t>(TBS_ST_STALE_ID); };
    EXPECT_EQ(write("mine"), TBS_ST_STALE_ID);
    EXPECT_EQ(site.adds, 10u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(SiteValues, AStaleStatusOfAnythingButTheAddIsNoFurtherPass) {
    world.peer.speak(RVZD_PROTOCOL_CURRENT, TBS_ST_STALE_ID);
    EXPECT_EQ(write("mine"), TBS_ST_STALE_ID);
    EXPECT_EQ(world.peer.count(RVZD_PROC_CONTACT), 1u);
}

TEST_F(SiteValues, ARefusedAddIsTheStatus) {
    site.add_status = [](const std::string &) { return std::optional<tbs_status_t>(TBS_ST_NO_ACCESS); };
    EXPECT_EQ(write("mine"), TBS_ST_NO_ACCESS);
    EXPECT_EQ(write_size(2048000), TBS_ST_NO_ACCESS);
    EXPECT_EQ(site.adds, 2u);
}

TEST_F(SiteValues, AFailedRemovalIsTheStatus) {
    site.put("fl_site_name", "old");
    site.remove_status = TBS_ST_NO_ACCESS;
    EXPECT_EQ(write("mine"), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_unset_value(site_name, KNOBLET_SYNC_SITE, nullptr), TBS_ST_ERROR);
    EXPECT_EQ(site.adds, 0u);
    EXPECT_EQ(value_of(site_name), "old");
}

TEST_F(SiteValues, AScanThatFailsEndsTheWrite) {
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, refusal(4711));
    EXPECT_EQ(write("mine"), TBS_ST_ERROR);
    EXPECT_EQ(site.adds, 0u);
}

TEST_F(SiteValues, AValueThatNoEntryHoldsIsRefusedAfterTheOldOnesAreGone) {
    for (const std::string &value : {std::string(1024, 'v'), std::string("a;b"), std::string("a\nb")}) {
        site.entries.clear();
        site.put("fl_site_name", "old");
        EXPECT_EQ(write(value.c_str()), TBS_ST_INVALID_ARG);
        EXPECT_THAT(site.texts(), IsEmpty());
    }
    EXPECT_EQ(write(std::string(1023, 'v').c_str()), TBS_ST_OK);
    EXPECT_EQ(value_of(site_name), std::string(1023, 'v'));
}

TEST_F(SiteValues, BetweenRemovalAndAddAReaderFindsTheDefault) {
    site.put("fl_site_name", "old");
    std::string meanwhile = "?";
    site.before_add = [&] { meanwhile = site.texts().empty() ? "none" : site.texts()[0]; };
    EXPECT_EQ(write("new"), TBS_ST_OK);
    EXPECT_EQ(meanwhile, "none");
}

TEST_F(SiteValues, TheOriginIsTheNumberOfTheEntryThatCounts) {
    site.put("other", "x");
    site.put("fl_site_name", "first");
    site.put("fl_site_name", "second");
    char buffer[64];
    EXPECT_EQ(rvzd_knoblet_origin(site_name, KNOBLET_SYNC_SITE, nullptr, sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "2");
    EXPECT_EQ(rvzd_knoblet_origin(vault_imports, KNOBLET_SYNC_SITE, nullptr, sizeof buffer, buffer), TBS_ST_NOT_FOUND);
}

// What a first call takes for good.
void warm_up() {
    char buffer[64];
    rvzd_knob_get_string(site_name, nullptr, sizeof buffer, buffer);
    rvzd_knoblet_set_integer(view_cache_size, KNOBLET_SITE, nullptr, 2048000);
    rvzd_knoblet_set_string(site_name, KNOBLET_SYNC_SITE, nullptr, "old");
}

TEST_F(SiteValues, NoFailedAllocationLeaksOrDelivers) {
    warm_up();
    // Answers that take no storage of the world's.
    world.peer.answer(RVZD_PROC_RGY_GET_ENTRY, batch({"-name=fl_site_name;-value=old;"}));
    world.peer.answer(RVZD_PROC_RGY_ADD_ENTRY, refusal(TBS_ST_OK));
    world.peer.answer(RVZD_PROC_RGY_REMOVE_ENTRY, refusal(TBS_ST_OK));
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    char buffer[64];
    sim::sweep_allocations(
        world, [&] { status = rvzd_knob_get_string(site_name, nullptr, sizeof buffer, buffer); },
        [&](int number) {
            if (status == TBS_ST_OK) { // only the look for duplicates was cut short
                EXPECT_STREQ(buffer, "old") << number;
            }
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_EQ(status, TBS_ST_OK);
    EXPECT_STREQ(buffer, "old");
    size_t adds = world.peer.count(RVZD_PROC_RGY_ADD_ENTRY);
    sim::sweep_allocations(
        world, [&] { status = rvzd_knoblet_set_string(site_name, KNOBLET_SYNC_SITE, nullptr, "new"); },
        [&](int number) {
            EXPECT_NE(status, TBS_ST_STALE_ID) << number; // and where it is good, the write was made
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_EQ(world.peer.count(RVZD_PROC_RGY_ADD_ENTRY) > adds, status == TBS_ST_OK) << number;
            adds = world.peer.count(RVZD_PROC_RGY_ADD_ENTRY);
        });
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_F(SiteValues, NoRaiseLeaksOrKeepsTheLocks) {
    warm_up();
    const auto before = sim::Holdings::now(world);
    const auto check = [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(velia::rvzd_knob::rvzd_knob_lock.depth, 0u) << number;
        EXPECT_EQ(registry_cache_lock.depth, 0u) << number;
        EXPECT_EQ(sim::Holdings::now(world).blocks, before.blocks) << number;
    };
    sim::sweep_raises(
        world,
        [] {
            char buffer[64];
            rvzd_knob_get_string(site_name, nullptr, sizeof buffer, buffer);
        },
        check);
    sim::sweep_raises(
        world, [] { rvzd_knoblet_set_integer(view_cache_size, KNOBLET_SITE, nullptr, 2048002); }, check);
}

} // namespace
