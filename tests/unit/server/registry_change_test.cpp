// Many changes of a database as one: all of them, or none.
#include <tests/unit/server/registry_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct RegistryChange : RegistryFixture {
    static constexpr rgy_db_t db = RGY_DB_REGIONS;

    struct Change {
        uint64_t id;
        std::string text;
    };

    Registry::Outcome change(std::vector<Change> changes, uint32_t flags = 0, const rgy_dtm_pair_t &pair = {}) {
        return send(std::move(changes), {{}, db, RGY_PROTOCOL_VERSION, pair, flags, {}, 0, 0, nullptr});
    }
    Registry::Outcome send(std::vector<Change> changes, rvzd_registry_change_req_t request) {
        std::vector<rgy_change_t> sent;
        for (auto &[id, text] : changes)
            sent.push_back({id, text.data()});
        request.count = static_cast<int64_t>(sent.size());
        request.changes = sent.data();
        return registry->change(request, user);
    }
    Registry::Outcome piece(uint8_t set, uint32_t before, std::vector<Change> changes, bool is_last = false) {
        return send(std::move(changes), {{},
                                         db,
                                         RGY_PROTOCOL_VERSION,
                                         {},
                                         is_last ? 0u : uint32_t{RGY_CHANGE_MORE_TO_COME},
                                         {{set}},
                                         before,
                                         0,
                                         nullptr});
    }
    std::vector<std::string> texts() { return texts_of(all_of(db)); }
    rgy_dtm_pair_t stamps() { return registry->stamps(db).pair; }
};

} // namespace

TEST_F(RegistryChange, AddsChangesAndRemovesAtOnce) {
    ASSERT_EQ(change({{0, "-name=a;"}, {0, "-name=b;"}}).status, TBS_ST_OK);
    const auto before = stamps();
    const auto outcome = change({{1, "-name=a;-title=A;"}, {2, ""}, {0, "-name=c;"}});
    EXPECT_EQ(outcome.status, TBS_ST_OK);
    EXPECT_EQ(outcome.done.added, 1u);
    EXPECT_EQ(outcome.done.changed, 1u);
    EXPECT_EQ(outcome.done.removed, 1u);
    EXPECT_THAT(texts(), ElementsAre("-name=a;-title=A;", "-name=c;"));
    EXPECT_EQ(registry->fetch(all_of(db), 0, {10, 1000}).records.at(0).id, 1u)
        << "the entry that was changed keeps its number";
    EXPECT_FALSE(is_same(stamps(), before));
    EXPECT_EQ(registry->count(db), 2u);
}

TEST_F(RegistryChange, OfWhichOneIsRefusedChangesNothing) {
    ASSERT_EQ(change({{0, "-name=a;"}, {0, "-name=b;"}}).status, TBS_ST_OK);
    const auto before = stamps();
    const struct {
        Change bad;
        tbs_status_t status;
    } cases[] = {
        {{0, "-name=b;"}, TBS_ST_ALREADY_EXISTS},
        {{1, "-name=b;"}, TBS_ST_ALREADY_EXISTS},
        {{99, "-name=z;"}, TBS_ST_NOT_FOUND},
        {{99, ""}, TBS_ST_NOT_FOUND},
        {{0, "no entry"}, TBS_ST_INVALID_ARG},
        {{1, "-name=a;\n"}, TBS_ST_INVALID_ARG},
        {{0, ""}, TBS_ST_INVALID_ARG},
    };
    for (const auto &[bad, status] : cases) {
        const auto outcome = change({{0, "-name=new;"}, {2, "-name=b;-title=B;"}, bad, {0, "-name=newer;"}});
        EXPECT_EQ(outcome.status, status) << bad.id << bad.text;
        EXPECT_EQ(outcome.failed, 2u) << bad.id << bad.text;
        EXPECT_EQ(outcome.done.added, 0u);
        EXPECT_THAT(texts(), ElementsAre("-name=a;", "-name=b;"));
        EXPECT_TRUE(is_same(stamps(), before));
    }
}

TEST_F(RegistryChange, WhatOneRemovesALaterOneMayAdd) {
    ASSERT_EQ(change({{0, "-name=a;"}}).status, TBS_ST_OK);
    EXPECT_EQ(change({{1, ""}, {0, "-name=a;"}}).status, TBS_ST_OK);
    EXPECT_EQ(change({{0, "-name=b;"}, {0, "-name=b;"}}).status, TBS_ST_ALREADY_EXISTS);
    EXPECT_THAT(texts(), ElementsAre("-name=a;"));
}

TEST_F(RegistryChange, AnEntryMayKeepItsOwnName) {
    ASSERT_EQ(change({{0, "-name=a;"}}).status, TBS_ST_OK);
    EXPECT_EQ(change({{1, "-name=a;-title=again;"}}).status, TBS_ST_OK);
    EXPECT_EQ(change({{1, "-name=b;"}}).status, TBS_ST_OK);
    EXPECT_EQ(change({{0, "-name=a;"}}).status, TBS_ST_OK) << "a name that was given up is free";
    const auto found = registry->fetch({db, "", "-title", "again"}, 0, {10, 1000});
    EXPECT_THAT(found.records, IsEmpty()) << "items of before are not found";
}

TEST_F(RegistryChange, WithTheStampsOfBeforeIsStale) {
    const auto before = stamps();
    ASSERT_EQ(change({{0, "-name=a;"}}, RGY_CHANGE_IF_UNCHANGED, before).status, TBS_ST_OK);
    EXPECT_EQ(change({{0, "-name=b;"}}, RGY_CHANGE_IF_UNCHANGED, before).status, TBS_ST_STALE_ID);
    EXPECT_EQ(change({{0, "-name=b;"}}, 0, before).status, TBS_ST_OK);
    EXPECT_THAT(texts(), ElementsAre("-name=a;", "-name=b;"));
}

TEST_F(RegistryChange, PassesOverWhatStandsInTheSameWords) {
    ASSERT_EQ(change({{0, "-name=a;"}, {0, "-title=nameless;"}}).status, TBS_ST_OK);
    const auto outcome = change({{0, "-name=a;"}, {0, "-title=nameless;"}, {0, "-name=b;"}}, RGY_CHANGE_PASS_STANDING);
    EXPECT_EQ(outcome.status, TBS_ST_OK);
    EXPECT_EQ(outcome.passed, 2u);
    EXPECT_EQ(outcome.done.added, 1u);
    EXPECT_EQ(change({{0, "-name=a;-title=other;"}}, RGY_CHANGE_PASS_STANDING).status, TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(change({{0, "-title=nameless;"}}).status, TBS_ST_OK) << "and without that it stands there twice";
    EXPECT_THAT(texts(), ElementsAre("-name=a;", "-title=nameless;", "-name=b;", "-title=nameless;"));
}

TEST_F(RegistryChange, IsNotForNobody) {
    user = Caller();
    EXPECT_EQ(change({{0, "-name=a;"}}).status, TBS_ST_NO_ACCESS);
    EXPECT_EQ(piece(1, 0, {{0, "-name=a;"}}).status, TBS_ST_NO_ACCESS);
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(RegistryChange, OfManyRequestsIsMadeWithTheLast) {
    ASSERT_EQ(piece(1, 0, {{0, "-name=a;"}, {0, "-name=b;"}}).status, TBS_ST_OK);
    ASSERT_EQ(piece(1, 2, {{0, "-name=c;"}}).status, TBS_ST_OK);
    EXPECT_THAT(texts(), IsEmpty());
    const auto outcome = piece(1, 3, {{0, "-name=d;"}}, true);
    EXPECT_EQ(outcome.status, TBS_ST_OK);
    EXPECT_EQ(outcome.done.added, 4u);
    EXPECT_THAT(texts(), ElementsAre("-name=a;", "-name=b;", "-name=c;", "-name=d;"));
    EXPECT_EQ(piece(1, 4, {{0, "-name=e;"}}, true).status, TBS_ST_TRY_AGAIN) << "the set is at its end";
}

TEST_F(RegistryChange, OfManyRequestsIsNotMadeIfOneIsRefused) {
    ASSERT_EQ(piece(1, 0, {{0, "-name=a;"}, {0, "-name=a;"}}).status, TBS_ST_OK);
    const auto outcome = piece(1, 2, {{0, "-name=b;"}}, true);
    EXPECT_EQ(outcome.status, TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(outcome.failed, 1u);
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_EQ(piece(1, 0, {{0, "-name=b;"}}, true).status, TBS_ST_OK) << "and can be sent anew";
    EXPECT_THAT(texts(), ElementsAre("-name=b;"));
}

TEST_F(RegistryChange, OfManyRequestsLacksNone) {
    ASSERT_EQ(piece(1, 0, {{0, "-name=a;"}}).status, TBS_ST_OK);
    EXPECT_EQ(piece(1, 2, {{0, "-name=c;"}}).status, TBS_ST_TRY_AGAIN);
    EXPECT_EQ(piece(1, 2, {{0, "-name=c;"}}, true).status, TBS_ST_TRY_AGAIN);
    ASSERT_EQ(piece(2, 0, {{0, "-name=a;"}}).status, TBS_ST_OK);
    reopen();
    EXPECT_EQ(piece(2, 1, {{0, "-name=b;"}}, true).status, TBS_ST_TRY_AGAIN);
    EXPECT_EQ(piece(0, 0, {{0, "-name=b;"}}).status, TBS_ST_INVALID_ARG) << "a set has a name";
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(RegistryChange, OfManyRequestsIsForgottenForEightNewerOnes) {
    for (uint8_t set = 1; set <= 9; ++set)
        ASSERT_EQ(piece(set, 0, {{0, "-name=" + std::to_string(set) + ";"}}).status, TBS_ST_OK);
    EXPECT_EQ(piece(1, 1, {}, true).status, TBS_ST_TRY_AGAIN);
    EXPECT_EQ(piece(2, 1, {}, true).status, TBS_ST_OK);
    EXPECT_EQ(piece(9, 1, {}, true).status, TBS_ST_OK);
    EXPECT_THAT(texts(), ElementsAre("-name=2;", "-name=9;"));
}

// Long texts of many sets would fill a disk.
TEST_F(RegistryChange, OfManyRequestsHasAnEndInBytes) {
    const std::string text = "-title=" + std::string(4000, 't') + ";";
    const std::vector<Change> piece_of_texts(1000, Change{0, text});
    uint32_t before = 0;
    auto outcome = piece(1, 0, piece_of_texts);
    while (outcome.status == TBS_ST_OK && before < 100000)
        outcome = piece(1, before += 1000, piece_of_texts);
    EXPECT_EQ(outcome.status, TBS_ST_NO_MEMORY);
    EXPECT_GT(before, 10000u);
    EXPECT_LT(before, 20000u);
    EXPECT_EQ(piece(1, before, {}, true).status, TBS_ST_TRY_AGAIN) << "the set is gone";
}

TEST_F(RegistryChange, OfManyRequestsHasAnEnd) {
    ASSERT_EQ(piece(1, 0, {{0, "-name=a;"}}).status, TBS_ST_OK);
    EXPECT_EQ(piece(1, RGY_CHANGES_MAX, {{0, "-name=b;"}}).status, TBS_ST_NO_MEMORY);
    EXPECT_EQ(piece(1, 1, {{0, "-name=b;"}}, true).status, TBS_ST_TRY_AGAIN) << "the set is gone";
}
