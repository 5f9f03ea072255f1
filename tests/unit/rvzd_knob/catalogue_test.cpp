// The catalogue: its rows in their order, the texts that are filled at the first need, and looking settings up.
#include <tests/unit/rvzd_knob/knob_fixture.h>

#include <cstring>
#include <thread>

#include <sys/wait.h>

#include <tests/unit/rvzd_knob/expected_knobs.h>

namespace {

using namespace velia::rvzd_knob;

constexpr char kind_letters[] = "dsyhu";

class Catalogue : public KnobTest {};

std::string letters_of(const Knob &knob) {
    std::string letters;
    for (int32_t kind = 0; kind < KNOBLET_KIND_COUNT; ++kind) {
        const Knoblet &slot = knob.knoblets[kind];
        if (slot.present != 0)
            letters += static_cast<char>(toupper(kind_letters[kind]));
        else if (slot.kind == kind && kind != KNOBLET_DEFAULT)
            letters += kind_letters[kind];
    }
    return letters;
}

std::string range_of(const Knob &knob) {
    switch (knob.int_range_kind) {
    case IntegerRange::nonnegative:
        return ">= 0";
    case IntegerRange::minimum:
        return ">= " + std::to_string(knob.int_min);
    case IntegerRange::between:
        return std::to_string(knob.int_min) + " to " + std::to_string(knob.int_max);
    case IntegerRange::none:
        return knob.str_range_kind == StringRange::list ? "list" : "";
    default:
        return "a kind that no row has";
    }
}

TEST_F(Catalogue, EveryRowIsWhatTheListSaysInItsOrder) {
    ASSERT_EQ(std::size(expected_knobs), knob_count);
    for (size_t i = 0; i < knob_count; ++i) {
        const Knob &knob = rvzd_knobs[i];
        const ExpectedKnob &expected = expected_knobs[i];
        SCOPED_TRACE(expected.name);
        EXPECT_EQ(knob.id, expected.id);
        EXPECT_STREQ(name_of(knob), expected.name);
        EXPECT_STREQ(description_of(knob), expected.description);
        EXPECT_EQ(knob.type, expected.type);
        EXPECT_EQ(letters_of(knob), expected.knoblets);
        EXPECT_EQ(range_of(knob), expected.range);
        EXPECT_EQ(knob.has_range, expected.range[0] != '\0');
        EXPECT_STREQ(knob.knoblets[KNOBLET_DEFAULT].default_spelling, expected.spelled_default);
        EXPECT_EQ(knob.is_file_system_tuning, expected.id >= 30 && expected.id <= 54);
    }
    EXPECT_EQ(rvzd_knobs[knob_count].id, 0u);
}

TEST_F(Catalogue, EveryIdFromOneToTheLastHasOneRow) {
    for (uint32_t id = 1; id <= RVZD_KNOB_ID_MAX; ++id)
        EXPECT_EQ(std::count_if(std::begin(rvzd_knobs), std::end(rvzd_knobs),
                                [&](const Knob &knob) { return knob.id == id; }),
                  1)
            << id;
}

TEST_F(Catalogue, ListsTemplatesAndDirectoriesAreThoseOfTheRows) {
    EXPECT_STREQ(row(3).str_range_list, "-reserved,-unreserved,-reserved -unreserved,-unreserved -reserved");
    EXPECT_STREQ(row(55).str_range_list, "-nmaster");
    EXPECT_STREQ(row(56).str_range_list, "-master");
    EXPECT_STREQ(row(3).knoblets[KNOBLET_USER].detail, "checkout -reserved < & checkout -unreserved <");
    EXPECT_STREQ(row(55).knoblets[KNOBLET_USER].detail, "checkout -nmaster <");
    EXPECT_STREQ(row(56).knoblets[KNOBLET_USER].detail, "mkelem -master <");
    for (const uint32_t id : {4u, 6u, 7u})
        EXPECT_STREQ(row(id).knoblets[KNOBLET_USER].detail,
                     "JIVE DUMMY ENTRY TO AVOID FAILING PROFILE TEMPLATE SEARCH");
    for (uint32_t id = 1; id <= RVZD_KNOB_ID_MAX; ++id)
        EXPECT_STREQ(row(id).knoblets[KNOBLET_HOST].detail, id >= 30 && id <= 54 ? "lyfsconfig" : nullptr) << id;
}

TEST_F(Catalogue, NoSettingHasBothKindsOfSite) {
    for (uint32_t id = 1; id <= RVZD_KNOB_ID_MAX; ++id)
        EXPECT_FALSE(row(id).knoblets[KNOBLET_SITE].present && row(id).knoblets[KNOBLET_SYNC_SITE].present) << id;
}

TEST_F(Catalogue, EnumerationYieldsTheOrderOfTheRows) {
    std::vector<uint32_t> ids;
    uint32_t id = 99;
    for (int32_t cursor = rvzd_knob_next(0, &id); cursor != 0; cursor = rvzd_knob_next(cursor, &id))
        ids.push_back(id);
    EXPECT_EQ(id, 0u);
    std::vector<uint32_t> expected;
    for (const auto &knob : expected_knobs)
        expected.push_back(knob.id);
    EXPECT_EQ(ids, expected);
    EXPECT_EQ(ids[9], 10u);
    EXPECT_EQ(ids[10], 15u);
    EXPECT_EQ(ids[12], 11u);
}

TEST_F(Catalogue, ACursorBeyondTheTableIsTheEnd) {
    for (const int32_t cursor : {-1, 57, 58, INT32_MAX, INT32_MIN}) {
        uint32_t id = 99;
        EXPECT_EQ(rvzd_knob_next(cursor, &id), 0) << cursor;
        EXPECT_EQ(id, 0u);
    }
}

TEST_F(Catalogue, EnumerationByKnobletSkipsRowsWithoutIt) {
    for (int32_t kind = 0; kind < KNOBLET_KIND_COUNT; ++kind) {
        std::vector<uint32_t> ids, expected;
        uint32_t id;
        for (int32_t cursor = rvzd_knob_next_with_knoblet(kind, 0, &id); cursor != 0;
             cursor = rvzd_knob_next_with_knoblet(kind, cursor, &id))
            ids.push_back(id);
        for (const auto &knob : expected_knobs)
            if (strchr(knob.knoblets, toupper(kind_letters[kind])) != nullptr)
                expected.push_back(knob.id);
        EXPECT_EQ(ids, expected) << kind;
        EXPECT_EQ(id, 0u);
    }
    for (const int32_t kind : {-1, 5, INT32_MAX}) {
        uint32_t id = 99;
        EXPECT_EQ(rvzd_knob_next_with_knoblet(kind, 0, &id), 0) << kind;
        EXPECT_EQ(id, 0u);
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Catalogue, EnumerationByKnobletEndsAtAnInconsistentRow) {
    row(2).knoblets[KNOBLET_SITE].kind = KNOBLET_HOST;
    uint32_t id = 99;
    EXPECT_EQ(rvzd_knob_next_with_knoblet(KNOBLET_SITE, 1, &id), 0);
    EXPECT_EQ(id, 0u);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(4, "view_shareable_dos", KNOBLET_SITE)));
    rvzd_knobs[1].id = 99;
    id = 99;
    EXPECT_EQ(rvzd_knob_next_with_knoblet(KNOBLET_SITE, 1, &id), 0);
    EXPECT_EQ(id, 0u);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(1, 99)));
}

TEST_F(Catalogue, NamesAreFoundInAnyCase) {
    uint32_t id = 99;
    EXPECT_EQ(rvzd_knob_id_by_name("VIEW_CACHE_SIZE", &id), TBS_ST_OK);
    EXPECT_EQ(id, 1u);
    for (const auto &knob : expected_knobs) {
        EXPECT_EQ(rvzd_knob_id_by_name(knob.name, &id), TBS_ST_OK);
        EXPECT_EQ(id, knob.id);
    }
}

TEST_F(Catalogue, ANameThatIsNoneStoresZero) {
    for (const char *name : {"view_cache_siz", "view_cache_sizes", "", "???"}) {
        uint32_t id = 99;
        EXPECT_EQ(rvzd_knob_id_by_name(name, &id), TBS_ST_NOT_FOUND) << name;
        EXPECT_EQ(id, 0u);
    }
    uint32_t id = 99;
    EXPECT_EQ(rvzd_knob_id_by_name(nullptr, &id), TBS_ST_NOT_FOUND);
    EXPECT_EQ(id, 0u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Catalogue, ANameWithoutTheKnobletIsNotFoundAndStoresNothing) {
    uint32_t id = 99;
    EXPECT_EQ(rvzd_knob_id_by_name_and_knoblet("View_Cache_Size", KNOBLET_HOST, &id), TBS_ST_OK);
    EXPECT_EQ(id, 1u);
    id = 99;
    EXPECT_EQ(rvzd_knob_id_by_name_and_knoblet("view_cache_size", KNOBLET_SYNC_SITE, &id), TBS_ST_NOT_FOUND);
    EXPECT_EQ(rvzd_knob_id_by_name_and_knoblet("view_cache_size", KNOBLET_USER, &id), TBS_ST_NOT_FOUND);
    EXPECT_EQ(rvzd_knob_id_by_name_and_knoblet("view_cache_size", 5, &id), TBS_ST_NOT_FOUND);
    EXPECT_EQ(rvzd_knob_id_by_name_and_knoblet("view_cache_size", -1, &id), TBS_ST_NOT_FOUND);
    EXPECT_EQ(rvzd_knob_id_by_name_and_knoblet("no_such", KNOBLET_HOST, &id), TBS_ST_NOT_FOUND);
    EXPECT_EQ(id, 99u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Catalogue, AnIdOutsideIsToldByEveryOperation) {
    for (const uint32_t id : {0u, 58u, UINT32_MAX}) {
        const char *text;
        int32_t number;
        char buffer[8];
        rvzd_knob_range_t range;
        const std::vector<std::function<tbs_status_t()>> operations = {
            [&] { return rvzd_knob_name(id, &text); },
            [&] { return rvzd_knob_description(id, &text); },
            [&] { return rvzd_knob_type(id, &number); },
            [&] { return rvzd_knob_range(id, &range); },
            [&] { return rvzd_knob_get_boolean(id, nullptr, &number); },
            [&] { return rvzd_knob_get_integer(id, nullptr, &number); },
            [&] { return rvzd_knob_get_string(id, nullptr, sizeof buffer, buffer); },
            [&] { return rvzd_knob_get_value_spelling(id, nullptr, sizeof buffer, buffer); },
            [&] { return rvzd_knoblet_get_boolean(id, 0, nullptr, &number, &number); },
            [&] { return rvzd_knoblet_get_integer(id, 0, nullptr, &number, &number); },
            [&] { return rvzd_knoblet_get_string(id, 0, nullptr, &number, sizeof buffer, buffer); },
            [&] { return rvzd_knoblet_get_value_spelling(id, 0, nullptr, &number, sizeof buffer, buffer); },
            [&] { return rvzd_knoblet_set_boolean(id, 3, nullptr, 1); },
            [&] { return rvzd_knoblet_set_integer(id, 3, nullptr, 1); },
            [&] { return rvzd_knoblet_set_string(id, 3, nullptr, "x"); },
            [&] { return rvzd_knoblet_set_value_from_spelling(id, 3, nullptr, "x"); },
            [&] { return rvzd_knoblet_unset_value(id, 3, nullptr); },
            [&] { return rvzd_knoblet_origin(id, 3, nullptr, sizeof buffer, buffer); },
            [&] { return rvzd_knob_range_check_boolean(id, 1); },
            [&] { return rvzd_knob_range_check_integer(id, 1); },
            [&] { return rvzd_knob_range_check_string(id, "x"); },
            [&] { return adm_host_knoblet_set_install_default(id, nullptr); },
        };
        for (size_t i = 0; i < operations.size(); ++i) {
            EXPECT_EQ(operations[i](), TBS_ST_ERROR) << i;
            EXPECT_THAT(world.take_messages(), ElementsAre(told(1, id))) << i;
        }
    }
}

TEST_F(Catalogue, AnIdInsideThatHasNoRowIsTold) {
    row(5).id = 99;
    const char *name;
    EXPECT_EQ(rvzd_knob_name(5, &name), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(2, 5)));
}

TEST_F(Catalogue, TypeNeedsNoTexts) {
    int32_t type = 99;
    EXPECT_EQ(rvzd_knob_type(3, &type), TBS_ST_OK);
    EXPECT_EQ(type, KNOB_STRING);
    EXPECT_EQ(row(3).name_ready, 0u);
}

TEST_F(Catalogue, AllTextsAreFilledAtTheFirstNeedAndStay) {
    const char *first, *again, *text;
    EXPECT_EQ(rvzd_knob_name(7, &first), TBS_ST_OK);
    for (const auto &knob : expected_knobs) {
        EXPECT_EQ(row(knob.id).name_ready, 1u);
        EXPECT_EQ(row(knob.id).description_ready, 1u);
    }
    const auto blocks = world.live_blocks();
    EXPECT_EQ(rvzd_knob_name(7, &again), TBS_ST_OK);
    EXPECT_EQ(first, again);
    EXPECT_EQ(rvzd_knob_description(19, &text), TBS_ST_OK);
    EXPECT_EQ(text, row(19).description);
    EXPECT_EQ(world.live_blocks(), blocks);
}

// The names have 64 bytes, and the descriptions room to begin with that only some of them exceed.
TEST_F(Catalogue, EveryNameFitsItsBuffer) {
    for (const auto &knob : expected_knobs)
        EXPECT_LT(strlen(_rvzd_knob_rvzd_msg_table.texts[row(knob.id).name_message]), name_size);
}

TEST_F(Catalogue, ARowThatCannotBeFilledIsLoggedAndFilledLater) {
    world.verbosity = 1;
    world.traced.insert("rvzd/knob:1");
    world.fail_allocation(2); // the second row's description
    const char *text = nullptr;
    EXPECT_EQ(rvzd_knob_description(2, &text), TBS_ST_NO_MEMORY);
    world.fail_allocation(0);
    const auto messages = world.take_messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], text_message(IMSG_TRACE, "imsg_dynamic_len_snprintf failure while scanning the description "
                                                    "of the property \"view_shareable_dos\".\n"));
    EXPECT_EQ(messages[1].text, "rvzd_knob_initialize_all_strings(#1)");
    EXPECT_EQ(messages[1].subsystem, "rvzd/knob");
    EXPECT_EQ(row(2).name_ready, 1u);
    EXPECT_EQ(row(2).description_ready, 0u);
    EXPECT_EQ(row(57).description_ready, 1u);
    EXPECT_EQ(rvzd_knob_description(2, &text), TBS_ST_OK);
    EXPECT_STREQ(text, expected_knobs[1].description);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Catalogue, WithoutTracingAFailureIsOnlyLogged) {
    world.verbosity = 1;
    world.fail_allocation(1);
    const char *text = nullptr;
    EXPECT_EQ(rvzd_knob_description(1, &text), TBS_ST_NO_MEMORY);
    EXPECT_EQ(world.take_messages().size(), 1u);
}

TEST_F(Catalogue, ANameThatCannotBeHadIsNoName) {
    row(2).name_message = 138;
    const char *text = nullptr;
    EXPECT_EQ(rvzd_knob_name(2, &text), TBS_ST_ERROR);
    EXPECT_EQ(row(2).description_ready, 0u);
    EXPECT_EQ(row(3).description_ready, 1u);
    uint32_t id = 99;
    EXPECT_EQ(rvzd_knob_id_by_name("", &id), TBS_ST_NOT_FOUND);
    EXPECT_EQ(id, 0u);
}

TEST_F(Catalogue, RangesAreToldAsBounds) {
    rvzd_knob_range_t range = {};
    const auto expect = [&](uint32_t id, int32_t least, int32_t most, const char *list) {
        EXPECT_EQ(rvzd_knob_range(id, &range), TBS_ST_OK);
        EXPECT_EQ(range.minimum, least) << id;
        EXPECT_EQ(range.maximum, most) << id;
        EXPECT_STREQ(range.list, list) << id;
    };
    expect(1, 1024000, INT32_MAX, nullptr);
    expect(2, INT32_MIN, INT32_MAX, nullptr);
    expect(12, 0, 1440, nullptr);
    expect(30, 0, INT32_MAX, nullptr);
    expect(56, INT32_MIN, INT32_MAX, "-master");
    row(1).int_range_kind = IntegerRange::maximum;
    expect(1, INT32_MIN, 1024000, nullptr);
}

// The order of locks: the settings' is the outermost.
TEST_F(Catalogue, TheLockOfTheSettingsIsNeverTakenUnderTheRegistrys) {
    const char *name;
    EXPECT_EQ(rvzd_knob_name(1, &name), TBS_ST_OK);
    velia::with_lock(velia::rvzd_knob::knob_lock,
                     [] { return velia::with_lock(velia::registry_clnt::cache_lock, [] { return 0; }); });
    EXPECT_DEATH(run_to_death([] {
                     velia::with_lock(velia::registry_clnt::cache_lock, [] {
                         const char *text;
                         return rvzd_knob_name(1, &text);
                     });
                 }),
                 "lock_order.cpp");
}

TEST_F(Catalogue, AChildBeginsAnewWithTextsThatWereBeingFilled) {
    const char *name;
    EXPECT_EQ(rvzd_knob_name(1, &name), TBS_ST_OK);
    row(4).description_ready = 0;
    std::atomic<bool> is_taken = false, may_end = false;
    std::thread other([&] {
        velia::take(knob_lock);
        is_taken = true;
        while (!may_end)
            std::this_thread::yield();
        velia::give_back(knob_lock);
    });
    while (!is_taken)
        std::this_thread::yield();
    const pid_t child = fork();
    if (child == 0) {
        const char *text = nullptr;
        const bool is_good = row(4).description == nullptr && row(5).description != nullptr &&
                             rvzd_knob_description(4, &text) == TBS_ST_OK &&
                             strcmp(text, expected_knobs[3].description) == 0;
        _exit(is_good ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    may_end = true;
    other.join();
    EXPECT_EQ(status, 0);
}

} // namespace
