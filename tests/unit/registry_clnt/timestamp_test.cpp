// Snapshots of a database's stamps.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <veliaxdr/rgy_manage.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Timestamp : public RegistryTest {
protected:
    Timestamp() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        answer(1);
        flushes_at_start = rgy_rpc_stats[tsflush];
    }
    ~Timestamp() override {
        if (stamp != nullptr)
            rgy_destroy_timestamp(&stamp);
    }

    // Each of the four uuids can change by itself.
    void answer(uint8_t dtm, uint8_t svr_dtm = 2, uint8_t aux1 = 3, uint8_t aux2 = 4) {
        const rvzd_registry_get_dtm_reply_t reply = {{}, 3, stamps_of(dtm, svr_dtm), uuid_from(aux1), uuid_from(aux2)};
        world.peer.answer(RVZD_PROC_RGY_GET_DTM, sim::reply(xdr_rvzd_registry_get_dtm_reply_t, reply));
    }
    // 1 or 0 for changed; the status, negated, on failure.
    int check(rgy_db_t db = 3, const char *host = nullptr) {
        int32_t changed = 77;
        const auto status = rgy_check_timestamp(db, host, stamp, &changed);
        return status == TBS_ST_OK ? changed : -status;
    }
    void fill_caches(const char *host) {
        Binding binding;
        ASSERT_EQ(rgy_bind_handle(host, binding, anonymous, 0), TBS_ST_OK);
        for (rgy_db_t db : {3u, 4u})
            ASSERT_NE(rgy_rpc_get_cache(binding, db), nullptr);
        release_binding(binding);
    }
    uint64_t flushes() const { return rgy_rpc_stats[tsflush] - flushes_at_start; }
    sim::Message trouble(const char *host, tbs_status_t status) const {
        return message_of(IMSG_ERROR, _registry_rvzd_msg_table, REGISTRY_MSG_TROUBLE_CONTACTING, host,
                          tbs_strerror(status));
    }

    rgy_timestamp_t *stamp = nullptr;
    uint64_t flushes_at_start;
};

TEST_F(Timestamp, HoldsWhatTheHostThatAnsweredSays) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    EXPECT_STREQ(stamp->host, "alpha");
    const rgy_dtm_pair_t stamps = stamps_of(1, 2);
    const tbs_uuid_t aux[] = {uuid_from(3), uuid_from(4)};
    EXPECT_EQ(memcmp(&stamp->dtm, &stamps, sizeof stamps), 0);
    EXPECT_TRUE(tbs_uuid_eq(&stamp->aux_uuid1, &aux[0]));
    EXPECT_TRUE(tbs_uuid_eq(&stamp->aux_uuid2, &aux[1]));
    EXPECT_EQ(rpc_binding[0].authenticated, 0u);
    EXPECT_EQ(rpc_binding[0].ref_count, 0);
}

TEST_F(Timestamp, WithoutAChangeNothingIsFlushed) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    fill_caches("alpha");
    EXPECT_EQ(check(), 0);
    EXPECT_NE(rpc_binding[0].cache[3], nullptr);
    EXPECT_EQ(flushes(), 0u);
}

TEST_F(Timestamp, AChangeFlushesItsDatabaseAndIsToldOnce) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    fill_caches("alpha");
    fill_caches("beta");
    answer(9);
    EXPECT_EQ(check(), 1);
    EXPECT_EQ(rpc_binding[0].cache[3], nullptr);
    EXPECT_NE(rpc_binding[0].cache[4], nullptr);
    EXPECT_NE(rpc_binding[1].cache[3], nullptr);
    EXPECT_EQ(flushes(), 1u);
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(flushes(), 1u);
}

TEST_F(Timestamp, AChangeFlushesInAllSlotsOfTheHost) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    Binding writer;
    ASSERT_EQ(rgy_bind_handle("alpha", writer, real, RGY_DB_ALL + 1), TBS_ST_OK);
    ASSERT_EQ(writer.index, 1);
    fill_caches("alpha"); // in the first slot
    for (rgy_db_t db : {3u, 4u})
        ASSERT_NE(rgy_rpc_get_cache(writer, db), nullptr);
    answer(9);
    EXPECT_EQ(check(), 1);
    for (int64_t slot : {0, 1}) {
        EXPECT_EQ(rpc_binding[slot].cache[3], nullptr) << slot;
        EXPECT_NE(rpc_binding[slot].cache[4], nullptr) << slot;
    }
    EXPECT_EQ(flushes(), 1u);
    release_binding(writer);
}

TEST_F(Timestamp, AnyOfTheFourUuidsIsAChange) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    answer(1, 9);
    EXPECT_EQ(check(), 1);
    answer(1, 9, 9);
    EXPECT_EQ(check(), 1);
    answer(1, 9, 9, 9);
    EXPECT_EQ(check(), 1);
    EXPECT_EQ(check(), 0);
}

TEST_F(Timestamp, OfNoSingleDatabaseFlushesNothing) {
    ASSERT_EQ(rgy_create_timestamp(12, nullptr, &stamp), TBS_ST_OK);
    fill_caches("alpha");
    answer(9);
    EXPECT_EQ(check(12), 1);
    EXPECT_NE(rpc_binding[0].cache[3], nullptr);
    EXPECT_EQ(flushes(), 0u);
}

TEST_F(Timestamp, IsComparedWithTheHostThatItIsFrom) {
    ASSERT_EQ(rgy_create_timestamp(3, "beta", &stamp), TBS_ST_OK);
    EXPECT_STREQ(stamp->host, "beta");
    EXPECT_EQ(check(3, "alpha"), -TBS_ST_INVALID_ARG);
    EXPECT_EQ(check(3, "beta"), 0);
    EXPECT_EQ(check(3), 0);
    for (const auto &call : world.peer.calls)
        EXPECT_EQ(call.address.ipv4.sin_addr.s_addr, htonl(0x7f000003));
}

TEST_F(Timestamp, AFailedCheckIsToldAndLeavesTheSnapshot) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    world.peer.answer(RVZD_PROC_RGY_GET_DTM, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(check(), -TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(trouble("alpha", TBS_ST_NO_ACCESS)));
    uint32_t depth = 77;
    world.on_message = [&](const sim::Message &) { depth = registry_cache_lock.depth; };
    EXPECT_EQ(check(), -TBS_ST_ERROR);
    EXPECT_EQ(depth, 0u);
    answer(1);
    EXPECT_EQ(check(), 0);
}

TEST_F(Timestamp, EveryFailureOfMakingOneIsToldAndAnError) {
    world.peer.answer(RVZD_PROC_RGY_GET_DTM, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(trouble("alpha", TBS_ST_NO_ACCESS)));
    EXPECT_EQ(rgy_create_timestamp(3, "nowhere", &stamp), TBS_ST_ERROR);
    EXPECT_EQ(world.take_errors().back(), trouble("nowhere", TBS_ST_NOT_FOUND));
    std::filesystem::remove(world.root() + "/host/config/rgy_hosts.conf");
    rgy_hostname_cache_inval();
    EXPECT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_ERROR);
    EXPECT_THAT(world.take_errors(), ElementsAre(trouble("", TBS_ST_ERROR)));
    EXPECT_EQ(stamp, nullptr);
}

TEST_F(Timestamp, NullsAreRefused) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    int32_t changed;
    EXPECT_EQ(rgy_create_timestamp(3, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_check_timestamp(3, nullptr, nullptr, &changed), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_check_timestamp(3, nullptr, stamp, nullptr), TBS_ST_INVALID_ARG);
    rgy_timestamp_t without_host = {};
    EXPECT_EQ(rgy_check_timestamp(3, "h1", &without_host, &changed), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_destroy_timestamp(&stamp), TBS_ST_OK);
    EXPECT_EQ(rgy_destroy_timestamp(&stamp), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_destroy_timestamp(nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(Timestamp, WithoutStorageForTheHostItSucceedsWithNone) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    rgy_destroy_timestamp(&stamp);
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    std::vector<tbs_status_t> statuses;
    sim::sweep_allocations(
        world, [&] { status = rgy_create_timestamp(3, nullptr, &stamp); },
        [&](int) {
            EXPECT_EQ(stamp, nullptr);
            EXPECT_EQ(sim::Holdings::now(world), before);
            statuses.push_back(status);
        });
    EXPECT_EQ(status, TBS_ST_OK);
    // Two runs each without storage for the record, and for the host of it.
    ASSERT_GE(statuses.size(), 4u);
    EXPECT_THAT(std::vector(statuses.end() - 4, statuses.end()),
                ElementsAre(TBS_ST_NO_MEMORY, TBS_ST_NO_MEMORY, TBS_ST_OK, TBS_ST_OK));
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(Timestamp, ARaiseLeaksNothing) {
    ASSERT_EQ(rgy_create_timestamp(3, nullptr, &stamp), TBS_ST_OK);
    rgy_timestamp_t *other = nullptr;
    const auto before = sim::Holdings::now(world);
    const auto check_holdings = [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(registry_cache_lock.depth, 0u);
        EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
        EXPECT_EQ(other, nullptr);
        EXPECT_EQ(rpc_binding[0].ref_count, 0);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    };
    auto create = [&] { rgy_create_timestamp(3, nullptr, &other); };
    EXPECT_GE(sim::sweep_raises(world, create, check_holdings), 2);
    rgy_destroy_timestamp(&other);
    auto check_stamp = [&] { check(); };
    EXPECT_GE(sim::sweep_raises(world, check_stamp, check_holdings), 1);
}

} // namespace
