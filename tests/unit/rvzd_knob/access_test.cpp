// Typed access: types, slots, precedence, spellings and ranges, with every word about them.
#include <tests/unit/rvzd_knob/knob_fixture.h>

#include <cstring>

#include <tests/unit/rvzd_knob/expected_knobs.h>

namespace {

using namespace velia::rvzd_knob;

class KnobAccess : public KnobTest {
protected:
    static constexpr char size_name[] = "view_cache_size";

    tbs_status_t integer_in_force(uint32_t id, int32_t &value) { return rvzd_knob_get_integer(id, nullptr, &value); }

    tbs_status_t read_host_integer(const char *text, int32_t &value) {
        write_host(size_name, text);
        return integer_in_force(view_cache_size, value);
    }
};

TEST_F(KnobAccess, WithoutAValueAnywhereTheDefaultIsInForce) {
    for (const auto &knob : expected_knobs) {
        SCOPED_TRACE(knob.name);
        int32_t number = 99;
        char text[64] = "?";
        if (knob.type == KNOB_BOOLEAN) {
            EXPECT_EQ(rvzd_knob_get_boolean(knob.id, nullptr, &number), TBS_ST_OK);
            EXPECT_EQ(number, strcmp(knob.spelled_default, "TRUE") == 0 ? 1 : 0);
        } else if (knob.type == KNOB_INTEGER) {
            EXPECT_EQ(rvzd_knob_get_integer(knob.id, nullptr, &number), TBS_ST_OK);
            EXPECT_EQ(number, atoi(knob.spelled_default));
        } else {
            EXPECT_EQ(rvzd_knob_get_string(knob.id, nullptr, sizeof text, text), TBS_ST_OK);
            EXPECT_STREQ(text, knob.spelled_default);
        }
    }
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(KnobAccess, AnOperationForAnotherTypeIsRefused) {
    int32_t number = 99;
    tbs_boolean_t found = 99;
    char text[64] = "?";
    const std::pair<uint32_t, std::vector<std::function<tbs_status_t(uint32_t)>>> wrong[] = {
        {view_cache_size,
         {[&](uint32_t id) { return rvzd_knob_get_boolean(id, nullptr, &number); },
          [&](uint32_t id) { return rvzd_knob_get_string(id, nullptr, sizeof text, text); },
          [&](uint32_t id) { return rvzd_knob_get_value_spelling(id, nullptr, sizeof text, text); },
          [&](uint32_t id) { return rvzd_knoblet_get_boolean(id, 0, nullptr, &found, &number); },
          [&](uint32_t id) { return rvzd_knoblet_get_string(id, 0, nullptr, &found, sizeof text, text); },
          [&](uint32_t id) { return rvzd_knoblet_set_boolean(id, KNOBLET_HOST, nullptr, 1); },
          [&](uint32_t id) { return rvzd_knoblet_set_string(id, KNOBLET_HOST, nullptr, "1"); },
          [&](uint32_t id) { return rvzd_knob_range_check_boolean(id, 1); },
          [&](uint32_t id) { return rvzd_knob_range_check_string(id, "1"); }}},
        {view_shareable_dos,
         {[&](uint32_t id) { return rvzd_knob_get_integer(id, nullptr, &number); },
          [&](uint32_t id) { return rvzd_knob_get_value_spelling(id, nullptr, sizeof text, text); },
          [&](uint32_t id) { return rvzd_knoblet_get_integer(id, 0, nullptr, &found, &number); },
          [&](uint32_t id) { return rvzd_knoblet_set_integer(id, KNOBLET_SITE, nullptr, 1); }}},
        {checkout_reserve_policy,
         {[&](uint32_t id) { return rvzd_knob_get_integer(id, nullptr, &number); },
          [&](uint32_t id) { return rvzd_knob_range_check_integer(id, 1); },
          [&](uint32_t id) { return rvzd_knob_range_check_boolean(id, 1); }}},
    };
    for (const auto &[id, operations] : wrong)
        for (size_t i = 0; i < operations.size(); ++i) {
            EXPECT_EQ(operations[i](id), TBS_ST_ERROR) << id << " " << i;
            const char *name;
            rvzd_knob_name(id, &name);
            EXPECT_THAT(world.take_messages(), ElementsAre(told(5, name))) << id << " " << i;
        }
    EXPECT_EQ(number, 99);
    EXPECT_EQ(world.peer.calls.size(), 0u);
}

TEST_F(KnobAccess, ASpellingOfWhatIsInForceClearsTheBufferInAnyCase) {
    char text[4] = "abc";
    EXPECT_EQ(rvzd_knob_get_value_spelling(0, nullptr, sizeof text, text), TBS_ST_ERROR);
    EXPECT_STREQ(text, "");
    char untouched = 'x';
    EXPECT_EQ(rvzd_knob_get_value_spelling(0, nullptr, 0, &untouched), TBS_ST_ERROR);
    EXPECT_EQ(untouched, 'x');
    EXPECT_EQ(rvzd_knob_get_value_spelling(checkout_reserve_policy, nullptr, sizeof text, text), TBS_ST_INVALID_ARG);
    char enough[16];
    EXPECT_EQ(rvzd_knob_get_value_spelling(checkout_reserve_policy, nullptr, sizeof enough, enough), TBS_ST_OK);
    EXPECT_STREQ(enough, "-reserved");
}

TEST_F(KnobAccess, AStringThatDoesNotFitIsInvalid) {
    char text[10];
    EXPECT_EQ(rvzd_knob_get_string(checkout_reserve_policy, nullptr, 10, text), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_get_string(checkout_reserve_policy, nullptr, 9, text), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(8, "-reserved", "checkout_reserve_policy", "string")));
    tbs_boolean_t found = 99;
    EXPECT_EQ(rvzd_knoblet_get_string(checkout_reserve_policy, 0, nullptr, &found, 9, text), TBS_ST_INVALID_ARG);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(rvzd_knoblet_get_value_spelling(view_cache_size, 0, nullptr, &found, 3, text), TBS_ST_INVALID_ARG);
    EXPECT_EQ(found, 0);
}

TEST_F(KnobAccess, IntegersAreDecimalWithSuffixesAnd32Bits) {
    const std::pair<const char *, int32_t> good[] = {{"0\n", 0},
                                                     {"-1\n", -1},
                                                     {" 7 \n", 7},
                                                     {"+8\n", 8},
                                                     {"4k\n", 4096},
                                                     {"4K\n", 4096},
                                                     {"2m\n", 2097152},
                                                     {"1g\n", 1073741824},
                                                     {"2147483647", INT32_MAX},
                                                     {"-2147483648\n", INT32_MIN}};
    for (const auto &[text, expected] : good) {
        int32_t value = 99;
        EXPECT_EQ(read_host_integer(text, value), TBS_ST_OK) << text;
        EXPECT_EQ(value, expected) << text;
    }
    for (const char *bad : {"\n", "x\n", "1x\n", "0x10\n", "1 2\n", "1.5\n", "99999999999999999999\n", "k\n"}) {
        int32_t value = 99;
        EXPECT_EQ(read_host_integer(bad, value), TBS_ST_INVALID_ARG) << bad;
        EXPECT_EQ(value, 99) << bad;
        const std::string line(bad, strcspn(bad, "\n"));
        EXPECT_THAT(world.take_messages(), ElementsAre(told(8, line.c_str(), size_name, "integer")));
    }
}

TEST_F(KnobAccess, AnIntegerBeyond32BitsIsInvalidAndIsStoredCut) {
    const std::pair<const char *, int32_t> cut[] = {
        {"2147483648\n", INT32_MIN}, {"4294967297\n", 1}, {"-2147483649\n", INT32_MAX}, {"2g\n", INT32_MIN}};
    for (const auto &[text, expected] : cut) {
        int32_t value = 99;
        EXPECT_EQ(read_host_integer(text, value), TBS_ST_INVALID_ARG) << text;
        EXPECT_EQ(value, expected) << text;
        EXPECT_EQ(world.take_messages().size(), 1u);
        tbs_boolean_t found = 99;
        EXPECT_EQ(rvzd_knoblet_get_integer(view_cache_size, KNOBLET_HOST, nullptr, &found, &value), TBS_ST_INVALID_ARG);
        EXPECT_EQ(found, 0);
        world.take_messages();
    }
}

TEST_F(KnobAccess, BooleansAreTwoWordsInAnyCase) {
    const auto read = [&](const char *text, int32_t &value) {
        world.write_file("host/data/lyfsconfig/lyfs_acenabled", text);
        return rvzd_knob_get_boolean(lyfs_acenabled, nullptr, &value);
    };
    for (const char *text : {"TRUE\n", "true\n", "TrUe"}) {
        int32_t value = 99;
        EXPECT_EQ(read(text, value), TBS_ST_OK) << text;
        EXPECT_EQ(value, 1);
    }
    for (const char *text : {"FALSE\n", "false"}) {
        int32_t value = 99;
        EXPECT_EQ(read(text, value), TBS_ST_OK) << text;
        EXPECT_EQ(value, 0);
    }
    for (const char *text : {"1\n", "yes\n", "TRUE \n", "\n"}) {
        int32_t value = 99;
        EXPECT_EQ(read(text, value), TBS_ST_INVALID_ARG) << text;
        EXPECT_EQ(value, 99);
        EXPECT_THAT(world.take_messages(),
                    ElementsAre(told(8, std::string(text, strcspn(text, "\n")).c_str(), "lyfs_acenabled", "boolean")));
    }
}

TEST_F(KnobAccess, AStoredValueOutOfRangeIsReadAsItStands) {
    int32_t value = 0;
    EXPECT_EQ(read_host_integer("5\n", value), TBS_ST_OK);
    EXPECT_EQ(value, 5);
    write_profile("");
    site.put("checkout_reserve_policy", "whatever");
    row(checkout_reserve_policy).knoblets[KNOBLET_SYNC_SITE] = {1, KNOBLET_SYNC_SITE, nullptr, nullptr};
    char text[32];
    EXPECT_EQ(rvzd_knob_get_string(checkout_reserve_policy, nullptr, sizeof text, text), TBS_ST_OK);
    EXPECT_STREQ(text, "whatever");
}

TEST_F(KnobAccess, ReadingTheDefaultKnobletFindsIt) {
    tbs_boolean_t found = 0;
    int32_t value = 0;
    EXPECT_EQ(rvzd_knoblet_get_integer(view_cache_size, KNOBLET_DEFAULT, nullptr, &found, &value), TBS_ST_OK);
    EXPECT_EQ(found, 1);
    EXPECT_EQ(value, 4096000);
    EXPECT_EQ(rvzd_knoblet_get_boolean(view_shareable_dos, KNOBLET_DEFAULT, nullptr, &found, &value), TBS_ST_OK);
    EXPECT_EQ(value, 1);
    char text[32];
    EXPECT_EQ(rvzd_knoblet_get_value_spelling(view_shareable_dos, KNOBLET_DEFAULT, nullptr, &found, 32, text),
              TBS_ST_OK);
    EXPECT_STREQ(text, "TRUE");
}

// Asking for what the row says nothing of is another fault than asking for what it denies.
TEST_F(KnobAccess, UndeclaredAndDeniedKnobletsDiffer) {
    tbs_boolean_t found;
    int32_t value;
    char text[8];
    const auto expect = [&](uint32_t id, int32_t kind, int message) {
        const char *name;
        rvzd_knob_name(id, &name);
        found = 99;
        EXPECT_EQ(rvzd_knoblet_get_value_spelling(id, kind, nullptr, &found, sizeof text, text), TBS_ST_ERROR);
        EXPECT_EQ(found, 0);
        EXPECT_THAT(world.take_messages(), ElementsAre(told(message, name, kind))) << id << " " << kind;
        EXPECT_EQ(rvzd_knoblet_origin(id, kind, nullptr, sizeof text, text), TBS_ST_ERROR);
        EXPECT_THAT(world.take_messages(), ElementsAre(told(message, name, kind))) << id << " " << kind;
    };
    expect(view_cache_size, KNOBLET_SYNC_SITE, 10);
    expect(view_cache_size, KNOBLET_USER, 4);
    expect(view_shareable_dos, KNOBLET_HOST, 4);
    expect(checkout_reserve_policy, KNOBLET_HOST, 10);
    expect(view_cache_size, 5, 4);
    expect(view_cache_size, -1, 4);
    EXPECT_EQ(rvzd_knoblet_get_integer(view_cache_size, KNOBLET_SYNC_SITE, nullptr, &found, &value), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_set_integer(view_cache_size, KNOBLET_SYNC_SITE, nullptr, 2048000), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_set_integer(view_cache_size, KNOBLET_USER, nullptr, 2048000), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(told(10, size_name, 2), told(10, size_name, 2), told(4, size_name, 4)));
    EXPECT_EQ(world.peer.calls.size(), 0u);
}

TEST_F(KnobAccess, ADefaultIsNeverWritten) {
    const auto refused = told(11, size_name);
    EXPECT_EQ(rvzd_knoblet_set_integer(view_cache_size, KNOBLET_DEFAULT, nullptr, 2048000), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(view_cache_size, KNOBLET_DEFAULT, nullptr, "2048000"), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_unset_value(view_cache_size, KNOBLET_DEFAULT, nullptr), TBS_ST_ERROR);
    // What the row says nothing of counts as the default.
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(view_cache_size, KNOBLET_USER, nullptr, "2048000"), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knoblet_unset_value(view_cache_size, KNOBLET_USER, nullptr), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(refused, refused, refused, refused, refused));
}

TEST_F(KnobAccess, AKindThatIsNoneIsUnknownToThoseThatDoNotTestTheSlot) {
    for (const int32_t kind : {-1, 5, INT32_MAX}) {
        EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(view_cache_size, kind, nullptr, "2048000"), TBS_ST_ERROR);
        EXPECT_EQ(rvzd_knoblet_unset_value(view_cache_size, kind, nullptr), TBS_ST_ERROR);
        EXPECT_THAT(world.take_messages(), ElementsAre(told(7, kind), told(7, kind)));
    }
}

TEST_F(KnobAccess, ADeniedKnobletIsWrittenAllTheSameFromASpelling) {
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(server_group_lifetime, KNOBLET_SITE, nullptr, "5"), TBS_ST_OK);
    EXPECT_THAT(site.texts(), ElementsAre("-name=server_group_lifetime;-value=5;"));
    EXPECT_EQ(rvzd_knoblet_unset_value(server_group_lifetime, KNOBLET_SYNC_SITE, nullptr), TBS_ST_OK);
    EXPECT_THAT(site.texts(), IsEmpty());
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(site_name, KNOBLET_HOST, nullptr, "x"), TBS_ST_OK);
    EXPECT_EQ(contents(host_path("fl_site_name")), "x\n");
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(site_name, KNOBLET_USER, nullptr, "x"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(KnobAccess, ASpellingIsStoredAsItIs) {
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(view_cache_size, KNOBLET_HOST, nullptr, " 4096k "), TBS_ST_OK);
    EXPECT_EQ(contents(host_path(size_name)), " 4096k \n");
    int32_t value = 0;
    EXPECT_EQ(integer_in_force(view_cache_size, value), TBS_ST_OK);
    EXPECT_EQ(value, 4194304);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(lyfs_acenabled, KNOBLET_HOST, nullptr, "False"), TBS_ST_OK);
    EXPECT_EQ(contents(world.root() + "/host/data/lyfsconfig/lyfs_acenabled"), "False\n");
}

TEST_F(KnobAccess, ASpellingThatIsNoValueIsRefused) {
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(view_cache_size, KNOBLET_HOST, nullptr, "x"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(view_cache_size, KNOBLET_HOST, nullptr, "1023999"),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(view_cache_size, KNOBLET_HOST, nullptr, "4294967296"),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(lyfs_acenabled, KNOBLET_HOST, nullptr, "1"), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(nmaster_policy, KNOBLET_SITE, nullptr, ""), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(site_name, KNOBLET_SYNC_SITE, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_set_string(site_name, KNOBLET_SYNC_SITE, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(told(8, "x", size_name, "integer"), told(15, size_name, 1024000, 1023999),
                            told(8, "4294967296", size_name, "integer"), told(8, "1", "lyfs_acenabled", "boolean"),
                            told(18, "checkout_nmaster_policy", "-nmaster", ""),
                            told(8, "(null)", "fl_site_name", "string")));
    EXPECT_EQ(contents(host_path(size_name)), std::nullopt);
    EXPECT_EQ(world.peer.calls.size(), 0u);
}

TEST_F(KnobAccess, ATypeThatIsNoneIsAnInternalError) {
    row(site_name).type = 3;
    EXPECT_EQ(rvzd_knoblet_set_value_from_spelling(site_name, KNOBLET_SYNC_SITE, nullptr, "x"), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(9, "fl_site_name", 3)));
    EXPECT_STREQ(type_word(3), "??unknown??");
}

TEST_F(KnobAccess, TypedWritesStoreTheUsualSpelling) {
    EXPECT_EQ(rvzd_knoblet_set_boolean(lyfs_acenabled, KNOBLET_HOST, nullptr, 7), TBS_ST_OK);
    EXPECT_EQ(contents(world.root() + "/host/data/lyfsconfig/lyfs_acenabled"), "TRUE\n");
    EXPECT_EQ(rvzd_knoblet_set_boolean(lyfs_acenabled, KNOBLET_HOST, nullptr, 0), TBS_ST_OK);
    EXPECT_EQ(contents(world.root() + "/host/data/lyfsconfig/lyfs_acenabled"), "FALSE\n");
    EXPECT_EQ(rvzd_knoblet_set_integer(view_cache_size, KNOBLET_HOST, nullptr, INT32_MAX), TBS_ST_OK);
    EXPECT_EQ(contents(host_path(size_name)), "2147483647\n");
    EXPECT_EQ(rvzd_knoblet_set_boolean(view_shareable_dos, KNOBLET_SITE, nullptr, 0), TBS_ST_OK);
    EXPECT_THAT(site.texts(), ElementsAre("-name=view_shareable_dos;-value=FALSE;"));
    row(lyfs_mnmax).int_range_kind = IntegerRange::nonzero;
    EXPECT_EQ(rvzd_knoblet_set_integer(lyfs_mnmax, KNOBLET_HOST, nullptr, INT32_MIN), TBS_ST_OK);
    EXPECT_EQ(contents(world.root() + "/host/data/lyfsconfig/lyfs_mnmax"), "-2147483648\n");
}

TEST_F(KnobAccess, AValueOneBelowItsBoundIsToldAndNotStored) {
    EXPECT_EQ(rvzd_knoblet_set_integer(view_cache_size, KNOBLET_HOST, nullptr, 1023999), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rvzd_knoblet_set_integer(view_cache_size, KNOBLET_SITE, nullptr, 1023999), TBS_ST_INVALID_ARG);
    const auto refused = told(15, size_name, 1024000, 1023999);
    EXPECT_THAT(world.take_messages(), ElementsAre(refused, refused));
    EXPECT_EQ(contents(host_path(size_name)), std::nullopt);
    EXPECT_THAT(site.texts(), IsEmpty());
}

TEST_F(KnobAccess, AnEmptyValueOfAPolicyIsRefusedThoughItsDefaultIsEmpty) {
    EXPECT_EQ(rvzd_knoblet_set_string(nmaster_policy, KNOBLET_USER, nullptr, ""), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(18, "checkout_nmaster_policy", "-nmaster", "")));
}

TEST_F(KnobAccess, EveryBoundIsInclusive) {
    for (const auto &knob : expected_knobs) {
        if (knob.type != KNOB_INTEGER)
            continue;
        SCOPED_TRACE(knob.name);
        const Knob &the_row = row(knob.id);
        const bool is_nonnegative = the_row.int_range_kind == IntegerRange::nonnegative;
        const bool is_between = the_row.int_range_kind == IntegerRange::between;
        const int32_t least = is_nonnegative ? 0 : the_row.int_min;
        EXPECT_EQ(rvzd_knob_range_check_integer(knob.id, least), TBS_ST_OK);
        EXPECT_EQ(rvzd_knob_range_check_integer(knob.id, is_between ? the_row.int_max : INT32_MAX), TBS_ST_OK);
        EXPECT_THAT(world.take_messages(), IsEmpty());
        const auto below = is_nonnegative ? told(14, knob.name, -1)
                           : is_between   ? told(17, knob.name, least, the_row.int_max, least - 1)
                                          : told(15, knob.name, least, least - 1);
        EXPECT_EQ(rvzd_knob_range_check_integer(knob.id, least - 1), TBS_ST_INVALID_ARG);
        EXPECT_THAT(world.take_messages(), ElementsAre(below));
        if (!is_between)
            continue;
        EXPECT_EQ(rvzd_knob_range_check_integer(knob.id, the_row.int_max + 1), TBS_ST_INVALID_ARG);
        EXPECT_THAT(world.take_messages(),
                    ElementsAre(told(17, knob.name, least, the_row.int_max, the_row.int_max + 1)));
    }
}

TEST_F(KnobAccess, KindsOfRangesThatNoRowHasAreHonoured) {
    row(1).int_range_kind = IntegerRange::nonzero;
    EXPECT_EQ(rvzd_knob_range_check_integer(1, -1), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_range_check_integer(1, 0), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(13, size_name, 0)));
    row(1).int_range_kind = IntegerRange::maximum; // its bound stands where a minimum's does
    row(1).int_max = 5;
    EXPECT_EQ(rvzd_knob_range_check_integer(1, 1024000), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_range_check_integer(1, 1024001), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(16, size_name, 1024000, 1024001)));
    row(1).int_range_kind = static_cast<IntegerRange>(6);
    EXPECT_EQ(rvzd_knob_range_check_integer(1, 1024000), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    row(site_name).has_range = true;
    row(site_name).str_range_kind = StringRange::function;
    row(site_name).str_range_check = [](const char *text) -> tbs_status_t {
        return strcmp(text, "good") == 0 ? TBS_ST_OK : 4711;
    };
    EXPECT_EQ(rvzd_knob_range_check_string(site_name, "good"), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_range_check_string(site_name, "bad"), 4711);
    EXPECT_EQ(rvzd_knoblet_set_string(site_name, KNOBLET_SYNC_SITE, nullptr, "bad"), 4711);
    EXPECT_THAT(site.texts(), IsEmpty());
}

TEST_F(KnobAccess, AListTakesItsItemsInAnyCaseAndNothingElse) {
    for (const char *good : {"-reserved", "-UNRESERVED", "-reserved -unreserved", "-Unreserved -Reserved"})
        EXPECT_EQ(rvzd_knob_range_check_string(checkout_reserve_policy, good), TBS_ST_OK) << good;
    EXPECT_THAT(world.take_messages(), IsEmpty());
    const char *list = "-reserved,-unreserved,-reserved -unreserved,-unreserved -reserved";
    for (const char *bad : {"", "reserved", "-reserved,", ",", "-reserved,-unreserved", " -reserved", "-reserve"}) {
        EXPECT_EQ(rvzd_knob_range_check_string(checkout_reserve_policy, bad), TBS_ST_INVALID_ARG) << bad;
        EXPECT_THAT(world.take_messages(), ElementsAre(told(18, "checkout_reserve_policy", list, bad)));
    }
    EXPECT_EQ(rvzd_knob_range_check_string(checkout_reserve_policy, nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(KnobAccess, AListThatIsEmptyOrDoesNotFitTakesNothing) {
    row(checkout_reserve_policy).str_range_list = "";
    EXPECT_EQ(rvzd_knob_range_check_string(checkout_reserve_policy, ""), TBS_ST_INVALID_ARG);
    EXPECT_EQ(world.take_messages().size(), 1u);
    const std::string fits = "-a," + std::string(1020, 'x');
    const std::string too_long = fits + "x";
    row(checkout_reserve_policy).str_range_list = fits.c_str();
    EXPECT_EQ(rvzd_knob_range_check_string(checkout_reserve_policy, "-a"), TBS_ST_OK);
    row(checkout_reserve_policy).str_range_list = too_long.c_str();
    EXPECT_EQ(rvzd_knob_range_check_string(checkout_reserve_policy, "-a"), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    row(checkout_reserve_policy).str_range_list = nullptr;
    EXPECT_EQ(rvzd_knob_range_check_string(checkout_reserve_policy, "-a"), TBS_ST_INVALID_ARG);
}

TEST_F(KnobAccess, WithoutARangeEveryCheckPassesWhateverTheType) {
    EXPECT_EQ(rvzd_knob_range_check_integer(view_shareable_dos, -5), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_range_check_string(view_shareable_dos, "x"), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_range_check_boolean(view_shareable_dos, 9), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_range_check_boolean(site_name, 9), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_range_check_integer(site_name, 9), TBS_ST_OK);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(KnobAccess, WithoutADefaultThereIsNothingInForce) {
    row(site_name).knoblets[KNOBLET_DEFAULT].present = 0;
    char text[8];
    EXPECT_EQ(rvzd_knob_get_string(site_name, nullptr, sizeof text, text), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(6, "fl_site_name")));
}

// A default that is there without a text: the spelling in force goes on behind it, the typed value is none.
TEST_F(KnobAccess, APlaceWithoutATextGivesWayOnlyForTheSpelling) {
    row(site_name).knoblets[KNOBLET_DEFAULT].default_spelling = nullptr;
    row(lyfs_mnmax).knoblets[KNOBLET_DEFAULT].default_spelling = nullptr;
    char text[8];
    int32_t value = 99;
    EXPECT_EQ(rvzd_knob_get_value_spelling(site_name, nullptr, sizeof text, text), TBS_ST_ERROR);
    EXPECT_EQ(rvzd_knob_get_integer(lyfs_mnmax, nullptr, &value), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(told(6, "fl_site_name"), told(8, "(null)", "lyfs_mnmax", "integer")));
}

TEST_F(KnobAccess, AKindThatIsNoneMetOnTheWayIsAnInternalError) {
    row(lyfs_mnmax).knoblets[KNOBLET_HOST].kind = 9;
    int32_t value = 99;
    EXPECT_EQ(rvzd_knob_get_integer(lyfs_mnmax, nullptr, &value), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(7, 9)));
    EXPECT_EQ(rvzd_knoblet_unset_value(lyfs_mnmax, KNOBLET_HOST, nullptr), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(told(7, 9)));
}

TEST_F(KnobAccess, AChangeByOthersShowsAtTheNextRead) {
    char text[64];
    EXPECT_EQ(rvzd_knob_get_string(notify_email, nullptr, sizeof text, text), TBS_ST_OK);
    EXPECT_STREQ(text, "");
    site.put("fl_vault_notify_email", "site@x");
    EXPECT_EQ(rvzd_knob_get_string(notify_email, nullptr, sizeof text, text), TBS_ST_OK);
    EXPECT_STREQ(text, "site@x");
    write_host("fl_vault_notify_email", "host@x\n");
    EXPECT_EQ(rvzd_knob_get_string(notify_email, nullptr, sizeof text, text), TBS_ST_OK);
    EXPECT_STREQ(text, "host@x");
}

} // namespace
