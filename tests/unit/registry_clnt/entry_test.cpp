// The accessors of an entry, and the names of databases and items.
#include <tests/unit/registry_clnt/entry_fixture.h>

namespace {

using Entry = EntryTest;
using testing::ElementsAre;
using testing::Pair;

TEST_F(Entry, DatabasesAndItemsHaveTheirNames) {
    const char *dbs[] = {"view_object", "view_tag",    "vault_object", "vault_tag", "regions",    "bbase_object",
                         "bbase_tag",   "site_config", "storage_path", "dct_dbs",   "ct_servers", "domains"};
    for (rgy_db_t db = 0; db < 12; ++db)
        EXPECT_STREQ(registry_db_name(db), dbs[db]);
    const char *items[] = {"-acl",
                           "-dtm",
                           "-global_path",
                           "-hostname",
                           "-id",
                           "-local_path",
                           "-mount_access",
                           "-mount_options",
                           "-name",
                           "-region",
                           "-tag",
                           "-title",
                           "-value",
                           "-version",
                           "-view_uuid",
                           "-vault_family",
                           "-vault_replica",
                           "-vault_set",
                           "-attributes",
                           "-view_exid",
                           "-default_viewsize",
                           "-type",
                           "-project",
                           "-owner",
                           "-connect_info1",
                           "-connect_info2",
                           "-connect_options",
                           "-database",
                           "-dbset",
                           "-domain",
                           "-domain_type",
                           "-domain_uuid",
                           "-family",
                           "-ndcs_url",
                           "-os",
                           "-replica",
                           "-rnp_url",
                           "-server_unix",
                           "-server_win",
                           "-webdav_url"};
    for (uint32_t item = 0; item < 40; ++item)
        EXPECT_STREQ(registry_item_name(item), items[item]);
}

TEST_F(Entry, AnIndexBehindTheLastIsTheEmptyTextAndNeverNull) {
    for (uint32_t index : {12u, 13u, UINT32_MAX})
        EXPECT_STREQ(registry_db_name(index), "");
    for (uint32_t index : {40u, 41u, UINT32_MAX})
        EXPECT_STREQ(registry_item_name(index), "");
}

TEST_F(Entry, TheConstReaderLendsTheEntrysOwnText) {
    use("-hostname=alpha;-region=r1;");
    const char *value = nullptr;
    ASSERT_EQ(rgy_getstring_from_entry_const(entry, RGY_ITEM_REGION, &value), TBS_ST_OK);
    EXPECT_EQ(value, entry->flex.items[1].value);
    EXPECT_EQ(rgy_getstring_from_entry_const(entry, RGY_ITEM_OWNER, &value), TBS_ST_NOT_FOUND);
}

TEST_F(Entry, WhatIsNoLiveEntryIsRefused) {
    use("-hostname=alpha;");
    const char *value = nullptr;
    char buffer[8];
    tbs_uuid_t uuid = {};
    rgy_entry_t dead = {};
    dead.magic = RGY_ENTRY_MAGIC + 1;
    for (rgy_entry_t *wrong : {static_cast<rgy_entry_t *>(nullptr), &dead}) {
        EXPECT_EQ(rgy_getstring_from_entry_const(wrong, 3, &value), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_getstring_from_entry(wrong, 3, sizeof buffer, buffer), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_getuuid_from_entry(wrong, 3, &uuid), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_getuuid_from_entry_fast(wrong, 3, &uuid), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_setstring_in_entry(wrong, 3, "x"), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_setuuid_in_entry(wrong, 3, &uuid), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_get_item_from_entry(wrong, 0, 8, buffer, 8, buffer), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_delete_entry(&wrong), TBS_ST_INVALID_ARG);
    }
    EXPECT_EQ(rgy_delete_entry(nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getstring_from_entry_const(entry, 3, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getstring_from_entry(entry, 3, 8, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getuuid_from_entry(entry, 3, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_setstring_in_entry(entry, 3, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_setuuid_in_entry(entry, 3, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_get_item_from_entry(entry, 0, 8, nullptr, 8, buffer), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_get_item_from_entry(entry, 0, 8, buffer, 8, nullptr), TBS_ST_INVALID_ARG);
}

TEST_F(Entry, AReadTextIsFollowedByZerosToTheEndOfTheBuffer) {
    use("-region=r1;");
    char buffer[6];
    memset(buffer, 'x', sizeof buffer);
    ASSERT_EQ(rgy_getstring_from_entry(entry, RGY_ITEM_REGION, sizeof buffer, buffer), TBS_ST_OK);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("r1\0\0\0\0", 6));
}

TEST_F(Entry, ABufferOfTheValuesExactLengthIsRefusedThoughEveryCharacterIsWritten) {
    use("-region=abc;");
    char buffer[4] = "xxx";
    EXPECT_EQ(rgy_getstring_from_entry(entry, RGY_ITEM_REGION, 3, buffer), TBS_ST_INVALID_ARG);
    EXPECT_EQ(std::string(buffer, 3), "abc");
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(rgy_getstring_from_entry(entry, RGY_ITEM_REGION, 2, buffer), TBS_ST_INVALID_ARG);
    EXPECT_EQ(std::string(buffer, 4), "abxx");
    EXPECT_EQ(rgy_getstring_from_entry(entry, RGY_ITEM_REGION, 0, buffer), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getstring_from_entry(entry, RGY_ITEM_REGION, 4, buffer), TBS_ST_OK);
    EXPECT_STREQ(buffer, "abc");
}

TEST_F(Entry, AMissingItemLeavesTheBufferAlone) {
    use("-region=abc;");
    char buffer[4] = "xyz";
    EXPECT_EQ(rgy_getstring_from_entry(entry, RGY_ITEM_OWNER, sizeof buffer, buffer), TBS_ST_NOT_FOUND);
    EXPECT_STREQ(buffer, "xyz");
}

TEST_F(Entry, ReadersSeeTheLaterOfTwoItemsAndSettersReplaceIt) {
    use("-tag=one;-region=r;-tag=two;");
    const char *value = nullptr;
    ASSERT_EQ(rgy_getstring_from_entry_const(entry, RGY_ITEM_TAG, &value), TBS_ST_OK);
    EXPECT_STREQ(value, "two");
    ASSERT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_TAG, "three"), TBS_ST_OK);
    given_up = 1;
    EXPECT_THAT(items_of(entry->flex), ElementsAre(Pair("-tag", "one"), Pair("-region", "r"), Pair("-tag", "three")));
}

TEST_F(Entry, ALentTextStaysGoodWhenItsItemIsSet) {
    use("-tag=one;");
    const char *lent = nullptr;
    ASSERT_EQ(rgy_getstring_from_entry_const(entry, RGY_ITEM_TAG, &lent), TBS_ST_OK);
    ASSERT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_TAG, lent), TBS_ST_OK);
    given_up = 1;
    EXPECT_STREQ(lent, "one");
    EXPECT_NE(entry->flex.items[0].value, lent);
}

TEST_F(Entry, ANewItemIsAppended) {
    use("-tag=one;");
    ASSERT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_OWNER, "me"), TBS_ST_OK);
    ASSERT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_REGION, ""), TBS_ST_OK);
    EXPECT_THAT(items_of(entry->flex), ElementsAre(Pair("-tag", "one"), Pair("-owner", "me"), Pair("-region", "")));
}

TEST_F(Entry, AnEntryWithNoVectorTakesItems) {
    use("");
    rgy_destroy_flex_entry(&entry->flex);
    for (uint32_t item = 0; item < 40; ++item)
        ASSERT_EQ(rgy_setstring_in_entry(entry, item, "v"), TBS_ST_OK);
    EXPECT_EQ(entry->flex.count, 40);
}

TEST_F(Entry, ATextOf1023CharactersIsSetAndOneOf1024Refused) {
    use("-tag=one;");
    EXPECT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_TITLE, std::string(1023, 'x').c_str()), TBS_ST_OK);
    EXPECT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_TITLE, std::string(1024, 'y').c_str()), TBS_ST_INVALID_ARG);
    EXPECT_EQ(entry->flex.items[1].value, std::string(1023, 'x'));
}

TEST_F(Entry, ASemicolonOrLineFeedIsRefusedBeforeAnythingChanges) {
    use("-tag=one;");
    for (const char *text : {"a;b", "a\nb", ";"}) {
        EXPECT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_TAG, text), TBS_ST_INVALID_ARG);
        EXPECT_EQ(rgy_setstring_in_entry(entry, RGY_ITEM_OWNER, text), TBS_ST_INVALID_ARG);
    }
    EXPECT_THAT(items_of(entry->flex), ElementsAre(Pair("-tag", "one")));
}

TEST_F(Entry, AnIndexBehindTheLastReadsNothingAndSetsTheEmptyName) {
    use("-tag=one;");
    const char *value = nullptr;
    EXPECT_EQ(rgy_getstring_from_entry_const(entry, 40, &value), TBS_ST_NOT_FOUND);
    ASSERT_EQ(rgy_setstring_in_entry(entry, 40, "v"), TBS_ST_OK);
    EXPECT_THAT(items_of(entry->flex), ElementsAre(Pair("-tag", "one"), Pair("", "v")));
    EXPECT_EQ(rgy_getstring_from_entry_const(entry, 4000, &value), TBS_ST_OK);
}

TEST_F(Entry, SettingWithoutStorageLeavesTheEntryAsItWas) {
    for (uint32_t item : {RGY_ITEM_TAG, RGY_ITEM_OWNER}) {
        rgy_entry_t *mine = make_entry("-tag=one;");
        const size_t before = world.live_blocks();
        tbs_status_t status = TBS_ST_OK;
        const int failures = sim::sweep_allocations(
            world, [&] { status = rgy_setstring_in_entry(mine, item, "two"); },
            [&](int number) {
                EXPECT_EQ(status, TBS_ST_NO_MEMORY);
                EXPECT_THAT(items_of(mine->flex), ElementsAre(Pair("-tag", "one")));
                EXPECT_EQ(world.live_blocks(), before) << number;
            });
        // The vector that grew for a new item stays grown when a text of the item cannot be had.
        EXPECT_EQ(failures, item == RGY_ITEM_TAG ? 1 : 2);
        EXPECT_EQ(status, TBS_ST_OK);
        rgy_delete_entry(&mine);
    }
    given_up = 1;
}

TEST_F(Entry, ARaiseWhileSettingLandsBehindTheWholeChange) {
    for (int number = 1; number <= 2; ++number) {
        use("-tag=one;");
        auto set = [&] { rgy_setstring_in_entry(entry, RGY_ITEM_OWNER, "me"); };
        world.raise_at_call(number, sim::raise_code);
        EXPECT_EQ(sim::run_and_catch(set), sim::raise_code);
        EXPECT_TRUE(world.raise_was_sent()) << number;
        EXPECT_THAT(items_of(entry->flex), ElementsAre(Pair("-tag", "one"), Pair("-owner", "me")));
        rgy_delete_entry(&entry);
    }
}

TEST_F(Entry, AUuidIsSetAndReadAsItsText) {
    use("");
    tbs_uuid_t uuid;
    for (size_t i = 0; i < sizeof uuid.bytes; ++i)
        uuid.bytes[i] = static_cast<uint8_t>(i * 11);
    ASSERT_EQ(rgy_setuuid_in_entry(entry, RGY_ITEM_VIEW_UUID, &uuid), TBS_ST_OK);
    EXPECT_THAT(items_of(entry->flex), ElementsAre(Pair("-view_uuid", "000b1621-2c37-424d-5863-6e79848f9aa5")));
    for (auto *get : {rgy_getuuid_from_entry, rgy_getuuid_from_entry_fast}) {
        tbs_uuid_t read = {};
        ASSERT_EQ(get(entry, RGY_ITEM_VIEW_UUID, &read), TBS_ST_OK);
        EXPECT_TRUE(tbs_uuid_eq(&read, &uuid));
        EXPECT_EQ(get(entry, RGY_ITEM_VAULT_FAMILY, &read), TBS_ST_NOT_FOUND);
    }
}

TEST_F(Entry, WhatIsNoUuidIsWhatTheConversionSays) {
    use("-view_uuid=no uuid;");
    tbs_uuid_t uuid = {};
    EXPECT_EQ(rgy_getuuid_from_entry(entry, RGY_ITEM_VIEW_UUID, &uuid), TBS_ST_INVALID_ARG);
}

TEST_F(Entry, ItemsAreEnumeratedByPosition) {
    use("-tag=one;-region=r1;");
    char name[16];
    char value[16];
    ASSERT_EQ(rgy_get_item_from_entry(entry, 1, sizeof name, name, sizeof value, value), TBS_ST_OK);
    EXPECT_STREQ(name, "-region");
    EXPECT_STREQ(value, "r1");
    EXPECT_EQ(rgy_get_item_from_entry(entry, 2, sizeof name, name, sizeof value, value), TBS_ST_NOT_FOUND);
    EXPECT_EQ(rgy_get_item_from_entry(entry, UINT32_MAX, sizeof name, name, sizeof value, value), TBS_ST_NOT_FOUND);
}

TEST_F(Entry, AnItemOfWhichOnePartDoesNotFitIsNotCopied) {
    use("-tag=one;");
    char name[16] = "n";
    char value[16] = "v";
    EXPECT_EQ(rgy_get_item_from_entry(entry, 0, 4, name, 16, value), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_get_item_from_entry(entry, 0, 16, name, 3, value), TBS_ST_INVALID_ARG);
    EXPECT_STREQ(name, "n");
    EXPECT_STREQ(value, "v");
    EXPECT_EQ(rgy_get_item_from_entry(entry, 0, 5, name, 4, value), TBS_ST_OK);
    EXPECT_STREQ(name, "-tag");
    EXPECT_STREQ(value, "one");
}

TEST_F(Entry, DeletingTwiceIsRefusedAndNoCrash) {
    use("-tag=one;");
    EXPECT_EQ(rgy_delete_entry(&entry), TBS_ST_OK);
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(rgy_delete_entry(&entry), TBS_ST_INVALID_ARG);
}

struct AttributeCase {
    const char *name;
    std::string text;
    std::string wanted;
    tbs_status_t status;
    const char *value; // null for none
};

void PrintTo(const AttributeCase &wanted, std::ostream *out) {
    *out << wanted.text << " / " << wanted.wanted;
}

class AttributeText : public EntryTest, public testing::WithParamInterface<AttributeCase> {};

TEST_P(AttributeText, IsLookedUpByName) {
    std::string text = GetParam().text;
    char *value = reinterpret_cast<char *>(8);
    EXPECT_EQ(rgy_find_attrval(text.data(), GetParam().wanted.c_str(), &value), GetParam().status);
    EXPECT_STREQ(value, GetParam().value);
    EXPECT_TRUE(value == nullptr || (value >= text.data() && value < text.data() + text.size()));
}

const std::string long_1023(1023, 'x');
const std::string long_1024(1024, 'x');

const AttributeCase attribute_cases[] = {
    {"AValue", "poolmap=/x,ro", "poolmap", TBS_ST_OK, "/x"},
    {"ABareName", "poolmap=/x,ro", "ro", TBS_ST_OK, nullptr},
    {"AMissingName", "poolmap=/x,ro", "rw", TBS_ST_NOT_FOUND, nullptr},
    {"NoTokenAtAll", "", "rw", TBS_ST_NOT_FOUND, nullptr},
    {"OnlyCommas", ",,,", "", TBS_ST_NOT_FOUND, nullptr},
    {"BlanksInFrontOfAName", "  a=1, \t b=2", "b", TBS_ST_OK, "2"},
    {"BlanksBehindTheEqualSign", "a=  1", "a", TBS_ST_OK, "1"},
    {"ABlankBeforeTheEqualSignBelongsToTheName", "a =b", "a", TBS_ST_NOT_FOUND, nullptr},
    {"ANameWithItsBlank", "a =b", "a ", TBS_ST_OK, "b"},
    {"ABareNameWithItsBlank", "a ,b", "a ", TBS_ST_OK, nullptr},
    {"ValuesKeepTheirBlanksBehind", "a=1 ,b", "a", TBS_ST_OK, "1 "},
    {"AnEqualSignInAValue", "a=b=c", "a", TBS_ST_OK, "b=c"},
    {"NothingBehindTheEqualSign", "a=,b", "a", TBS_ST_OK, nullptr},
    {"OnlyBlanksBehindTheEqualSign", "a=  ,b", "a", TBS_ST_OK, nullptr},
    {"ASemicolonEndsAValue", "a=1;2,b", "a", TBS_ST_OK, "1"},
    {"ASemicolonEndsAName", "a;x=1,b", "a", TBS_ST_OK, nullptr},
    {"WhatIsBehindASemicolonIsNotRead", "a;b,c", "b", TBS_ST_NOT_FOUND, nullptr},
    {"NoNameBeforeTheEqualSign", "=1,b", "", TBS_ST_NOT_FOUND, nullptr},
    {"AnOverlongValueWithoutAName", "=" + long_1024 + ",a=2", "a", TBS_ST_OK, "2"},
    {"TheFirstOfTwoCounts", "a=1,a=2", "a", TBS_ST_OK, "1"},
    {"NamesAreComparedExactly", "Ab=1", "ab", TBS_ST_NOT_FOUND, nullptr},
    {"APrefixIsNoMatch", "abc=1", "ab", TBS_ST_NOT_FOUND, nullptr},
    {"ANameOf1023Characters", long_1023 + "=1", long_1023, TBS_ST_OK, "1"},
    {"ANameOf1024Characters", long_1024 + "=1,a=2", "a", TBS_ST_INVALID_ARG, nullptr},
    {"AValueOf1023Characters", "a=" + long_1023, "a", TBS_ST_OK, long_1023.c_str()},
    {"AValueOf1024Characters", "a=" + long_1024, "a", TBS_ST_INVALID_ARG, nullptr},
    {"AnOverlongValueOnTheWay", "b=" + long_1024 + ",a=1", "a", TBS_ST_INVALID_ARG, nullptr},
    {"AnOverlongValueBehindTheMatch", "a=1,b=" + long_1024, "a", TBS_ST_OK, "1"},
};

INSTANTIATE_TEST_SUITE_P(Words, AttributeText, testing::ValuesIn(attribute_cases),
                         [](const auto &one) { return std::string(one.param.name); });

TEST_F(Entry, ATerminatorIsWrittenBehindTheAttributesNameToo) {
    char text[] = "poolmap=/x,ro";
    char *value = nullptr;
    ASSERT_EQ(rgy_find_attrval(text, "poolmap", &value), TBS_ST_OK);
    EXPECT_STREQ(text, "poolmap");
}

TEST_F(Entry, AnAttributeLookUpRefusesNulls) {
    char text[] = "a=1";
    char *value = text;
    EXPECT_EQ(rgy_find_attrval(text, nullptr, &value), TBS_ST_INVALID_ARG);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(rgy_find_attrval(nullptr, "a", &value), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_find_attrval(text, "a", nullptr), TBS_ST_INVALID_ARG);
}

} // namespace
