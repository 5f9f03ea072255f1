// What holds of every database, and of every text whatever bytes it has.
#include <tests/unit/store/store_fixture.h>

#include <array>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

struct DatabaseRow {
    rgy_db_t db;
    std::string name;
};
void PrintTo(const DatabaseRow &row, std::ostream *out) {
    *out << row.name;
}
const std::vector<DatabaseRow> databases = {
    {RGY_DB_VIEW_OBJECT, "ViewObject"}, {RGY_DB_VIEW_TAG, "ViewTag"},       {RGY_DB_VAULT_OBJECT, "VaultObject"},
    {RGY_DB_VAULT_TAG, "VaultTag"},     {RGY_DB_REGIONS, "Regions"},        {RGY_DB_BBASE_OBJECT, "BbaseObject"},
    {RGY_DB_BBASE_TAG, "BbaseTag"},     {RGY_DB_SITE_CONFIG, "SiteConfig"}, {RGY_DB_STORAGE_PATH, "StoragePath"},
    {RGY_DB_DCT_DBS, "DctDbs"},         {RGY_DB_CT_SERVERS, "CtServers"},   {RGY_DB_DOMAINS, "Domains"}};

using StoreDatabases = StoreTableTest<DatabaseRow>;
VELIA_FOR_EACH_STORE_AND_ROW(StoreDatabases, databases);

struct BytesRow {
    std::string name;
    std::string bytes;
};
void PrintTo(const BytesRow &row, std::ostream *out) {
    *out << row.name;
}

std::string all_bytes() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes.push_back(static_cast<char>(byte));
    return bytes;
}

// Bytes that repeat nothing, so that no store can make them short.
std::string unlike_bytes(size_t count) {
    std::string bytes;
    uint64_t state = 88172645463325252u;
    for (size_t i = 0; i < count; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        bytes.push_back(static_cast<char>(state));
    }
    return bytes;
}

const std::vector<BytesRow> texts = {{"Letter", "a"},
                                     {"Blank", " "},
                                     {"LineEnd", "a\nb"},
                                     {"Quotes", "it's \"quoted\""},
                                     {"Backslashes", "\\x00\\\\"},
                                     {"Wildcards", "%_*?"},
                                     {"Braces", "{a,\"b\",NULL}"},
                                     {"Parameters", "$1 ?1 :a @b"},
                                     {"Statement", "'; DROP TABLE entry; --"},
                                     {"Utf8", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x8c\xb2"},
                                     {"NoUtf8", "\xff\xfe\xc3("},
                                     {"NullByte", std::string("a\0b", 3)},
                                     {"NullByteAlone", std::string(1, '\0')},
                                     {"EveryByte", all_bytes()},
                                     {"Long", std::string(4095, 'x')},
                                     {"LongAndUnlike", unlike_bytes(4095)},
                                     {"VeryLong", unlike_bytes(100'000)}};

struct StoreTexts : StoreTableTest<BytesRow> {
    const std::string &bytes() const { return row().bytes; }
};
VELIA_FOR_EACH_STORE_AND_ROW(StoreTexts, texts);

} // namespace

TEST_P(StoreDatabases, IsEmptyAtFirstAndHasStamps) {
    EXPECT_THAT(all(row().db), IsEmpty());
    EXPECT_EQ(store->count(row().db), 0u);
    EXPECT_FALSE(is_same(pair(row().db), {}));
}

TEST_P(StoreDatabases, AnAddRenewsTheStampsOfNoOther) {
    std::vector<rgy_dtm_pair_t> before;
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        before.push_back(pair(db));
    add_all({"a"}, row().db);
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        EXPECT_EQ(is_same(pair(db), before[db]), db != row().db);
}

TEST_P(StoreDatabases, ARecordComesIsFoundIsChangedAndGoes) {
    add_all({"a"}, row().db);
    EXPECT_THAT(found("-name", "a", row().db), ElementsAre(Record{1, "-name=a;"}));
    ASSERT_EQ(change(1, named("b"), row().db), Store::ChangeResult::changed);
    EXPECT_THAT(found("-name", "b", row().db), ElementsAre(Record{1, "-name=b;"}));
    ASSERT_TRUE(remove(1, row().db));
    EXPECT_THAT(all(row().db), IsEmpty());
}

TEST_P(StoreDatabases, AnIdentityIsThereOnce) {
    add_all({"a"}, row().db);
    EXPECT_EQ(add(named("a"), row().db), Store::AddResult::exists);
    EXPECT_EQ(add(named("a"), (row().db + 1) % RGY_DB_ALL), Store::AddResult::added);
}

TEST_P(StoreDatabases, IsReplacedAlone) {
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        add_all({"a"}, db);
    store->replace(row().db, std::nullopt, {{100, "-x=y;"}});
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        EXPECT_EQ(all(db).at(0).flex_text, db == row().db ? "-x=y;" : "-name=a;");
}

TEST_P(StoreTexts, AreKeptWhole) {
    ASSERT_EQ(add(nameless({}, bytes())), Store::AddResult::added);
    reopen();
    EXPECT_THAT(all(), ElementsAre(Record{1, bytes()}));
}

TEST_P(StoreTexts, AreGivenOutWhenTheyAreRemoved) {
    ASSERT_EQ(add(nameless({}, bytes())), Store::AddResult::added);
    Record removed;
    ASSERT_TRUE(store->remove(RGY_DB_REGIONS, 1, removed));
    EXPECT_EQ(removed, (Record{1, bytes()}));
}

TEST_P(StoreTexts, AreFoundAsValues) {
    ASSERT_EQ(add(nameless({{"-a", bytes()}})), Store::AddResult::added);
    ASSERT_EQ(add(nameless({{"-a", bytes() + "x"}})), Store::AddResult::added);
    EXPECT_THAT(found("-a", bytes()), ElementsAre(Record{1, "text"}));
    EXPECT_THAT(found("-a", bytes().substr(1)), IsEmpty());
}

TEST_P(StoreTexts, AreFoundAsKeys) {
    ASSERT_EQ(add(nameless({{bytes(), "v"}})), Store::AddResult::added);
    EXPECT_THAT(found(bytes(), "v"), SizeIs(1));
    EXPECT_THAT(found(bytes() + "v", ""), IsEmpty());
}

TEST_P(StoreTexts, AreIdentities) {
    ASSERT_EQ(add({bytes(), "first", {}}), Store::AddResult::added);
    EXPECT_EQ(add({bytes(), "second", {}}), Store::AddResult::exists);
    EXPECT_EQ(add({bytes() + "x", "third", {}}), Store::AddResult::added);
}

TEST_P(StoreTexts, AreRegions) {
    ASSERT_EQ(add(nameless({{"-region", bytes()}})), Store::AddResult::added);
    EXPECT_THAT(scan({RGY_DB_REGIONS, bytes(), "", ""}), ElementsAre(Record{1, "text"}));
    EXPECT_THAT(scan({RGY_DB_REGIONS, bytes() + "x", "", ""}), ElementsAre(Record{1, "-"}));
}

TEST_P(StoreTexts, AreValuesOfSettings) {
    store->set_setting("s", bytes());
    EXPECT_EQ(store->setting("s"), bytes());
}

TEST_P(StoreTexts, AreNamesOfSettings) {
    store->set_setting(bytes(), "v");
    EXPECT_EQ(store->setting(bytes()), "v");
    EXPECT_EQ(store->setting(bytes() + "x"), "");
}
