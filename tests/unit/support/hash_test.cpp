// Hash tables with string and fixed-length keys.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <support/hash.h>
#include <support/stg.h>

#include "alloc_probe.h"

namespace {

struct Record {
    int count;
    char name[20];
};

class Table {
public:
    explicit Table(hash_table_t table) : table_(table) { EXPECT_NE(table_, nullptr); }
    ~Table() { hash_delete_ht(&table_); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    operator hash_table_t() const { return table_; }

private:
    hash_table_t table_;
};

Record *enter(hash_table_t table, const char *key) {
    void *record = nullptr;
    EXPECT_EQ(hash_str_enter(table, key, nullptr, &record), 0);
    return static_cast<Record *>(record);
}

std::vector<std::string> walk(hash_table_t table) {
    std::vector<std::string> keys;
    hash_iter_t state = 0;
    void *key = nullptr;
    while (hash_str_next(table, &state, &key, nullptr))
        keys.emplace_back(static_cast<const char *>(key));
    return keys;
}

using Keys = std::vector<std::string>;

} // namespace

TEST(HashTable, EntersAZeroedRecordAndFindsIt) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_POINTER));
    const char key[] = "alpha";
    void *stored_key = nullptr;
    void *record = nullptr;
    EXPECT_EQ(hash_str_enter(table, key, &stored_key, &record), 0);
    EXPECT_EQ(stored_key, key);
    const Record zeroed = {};
    EXPECT_EQ(memcmp(record, &zeroed, sizeof zeroed), 0);
    void *found = nullptr;
    EXPECT_NE(hash_str_lookup(table, std::string("alpha").c_str(), &stored_key, &found), 0);
    EXPECT_EQ(stored_key, key);
    EXPECT_EQ(found, record);
}

TEST(HashTable, KeyThatIsThereIsGivenWithItsRecordAndKept) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_POINTER));
    const char key[] = "alpha";
    enter(table, key)->count = 7;
    const std::string again = "alpha";
    void *stored_key = nullptr;
    void *record = nullptr;
    EXPECT_EQ(hash_str_enter(table, again.c_str(), &stored_key, &record), 1);
    EXPECT_EQ(stored_key, key);
    EXPECT_EQ(static_cast<Record *>(record)->count, 7);
}

TEST(HashTable, KeyThatIsMissingGivesNulls) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_POINTER));
    int somewhere = 0;
    void *key = &somewhere;
    void *record = &somewhere;
    EXPECT_EQ(hash_str_lookup(table, "alpha", &key, &record), 0);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(record, nullptr);
    key = record = &somewhere;
    EXPECT_EQ(hash_str_free(table, "alpha", &key, &record), 0);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(record, nullptr);
}

TEST(HashTable, GivesAKeptPointerBackWhenItsRecordIsFreed) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_POINTER));
    char *key = stg_strdup("alpha");
    enter(table, key);
    void *stored_key = nullptr;
    int somewhere = 0;
    void *record = &somewhere;
    EXPECT_NE(hash_str_free(table, "alpha", &stored_key, &record), 0);
    EXPECT_EQ(stored_key, key);
    EXPECT_EQ(record, nullptr);
    stg_free(stored_key);
    EXPECT_EQ(hash_str_lookup(table, "alpha", nullptr, nullptr), 0);
}

TEST(HashTable, KeepsACopyOfItsOwnWhereAsked) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_COPY));
    char key[] = "alpha";
    enter(table, key);
    key[0] = 'x';
    void *stored_key = nullptr;
    EXPECT_NE(hash_str_lookup(table, "alpha", &stored_key, nullptr), 0);
    EXPECT_NE(stored_key, key);
    EXPECT_STREQ(static_cast<char *>(stored_key), "alpha");
    EXPECT_NE(hash_str_free(table, "alpha", &stored_key, nullptr), 0);
    EXPECT_EQ(stored_key, nullptr) << "the copy went with the record";
}

TEST(HashTable, FixedLengthKeysAreBytes) {
    Table table(hash_flen_create(16, sizeof(Record), HASH_KEEP_COPY, 4));
    void *record = nullptr;
    EXPECT_EQ(hash_flen_enter(table, "a\0b\0", nullptr, &record), 0);
    static_cast<Record *>(record)->count = 1;
    EXPECT_EQ(hash_flen_enter(table, "a\0b\1", nullptr, &record), 0);
    static_cast<Record *>(record)->count = 2;
    EXPECT_NE(hash_flen_lookup(table, "a\0b\0", nullptr, &record), 0);
    EXPECT_EQ(static_cast<Record *>(record)->count, 1);
    EXPECT_EQ(hash_flen_lookup(table, "a\0c\0", nullptr, nullptr), 0);
    EXPECT_NE(hash_flen_free(table, "a\0b\0", nullptr, nullptr), 0);
    EXPECT_EQ(hash_flen_lookup(table, "a\0b\0", nullptr, nullptr), 0);
    EXPECT_NE(hash_flen_lookup(table, "a\0b\1", nullptr, nullptr), 0);
}

TEST(HashTable, CaseOfAStringKeyCounts) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_COPY));
    enter(table, "alpha");
    EXPECT_EQ(hash_str_lookup(table, "Alpha", nullptr, nullptr), 0);
}

TEST(HashTable, AddressOfARecordStaysHoweverTheTableGrows) {
    Table table(hash_str_create(1, sizeof(Record), HASH_KEEP_COPY));
    Record *first = enter(table, "first");
    first->count = 42;
    for (int i = 0; i < 5000; ++i)
        enter(table, std::to_string(i).c_str())->count = i;
    void *found = nullptr;
    EXPECT_NE(hash_str_lookup(table, "first", nullptr, &found), 0);
    EXPECT_EQ(found, first);
    EXPECT_EQ(first->count, 42);
    for (int i = 0; i < 5000; ++i) {
        ASSERT_NE(hash_str_lookup(table, std::to_string(i).c_str(), nullptr, &found), 0);
        ASSERT_EQ(static_cast<Record *>(found)->count, i);
    }
}

TEST(HashTable, RecordsAreAlignedForAnyType) {
    Table table(hash_flen_create(16, sizeof(max_align_t), HASH_KEEP_COPY, 1));
    for (const char *key : {"a", "b", "c"}) {
        void *record = nullptr;
        EXPECT_EQ(hash_flen_enter(table, key, nullptr, &record), 0);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(record) % alignof(max_align_t), 0u);
    }
}

TEST(HashWalk, MeetsAllRecordsInTheOrderOfEntering) {
    Table table(hash_str_create(2, sizeof(Record), HASH_KEEP_COPY));
    hash_set_order(table);
    Keys entered;
    for (int i = 100; i > 0; --i) {
        entered.push_back(std::to_string(i));
        enter(table, entered.back().c_str());
    }
    EXPECT_EQ(walk(table), entered);
}

TEST(HashWalk, OfAnEmptyTableEndsAtOnce) {
    Table table(hash_flen_create(16, 0, HASH_KEEP_COPY, 16));
    hash_iter_t state = 0;
    int somewhere = 0;
    void *key = &somewhere;
    EXPECT_EQ(hash_flen_next(table, &state, &key, nullptr), 0);
    EXPECT_EQ(key, nullptr);
}

TEST(HashWalk, GoesOnWhenTheRecordItStandsOnIsFreed) {
    Table table(hash_str_create(2, sizeof(Record), HASH_KEEP_COPY));
    for (const char *key : {"a", "b", "c", "d"})
        enter(table, key);
    Keys met;
    hash_iter_t state = 0;
    void *key = nullptr;
    while (hash_str_next(table, &state, &key, nullptr)) {
        met.emplace_back(static_cast<const char *>(key));
        hash_str_free(table, met.back().c_str(), nullptr, nullptr);
    }
    EXPECT_EQ(met, (Keys{"a", "b", "c", "d"}));
    EXPECT_EQ(walk(table), Keys{});
}

TEST(HashWalk, DoesNotMeetWhatIsFreedAheadAndMeetsWhatIsEnteredOnTheWay) {
    Table table(hash_str_create(2, sizeof(Record), HASH_KEEP_COPY));
    for (const char *key : {"a", "b", "c"})
        enter(table, key);
    Keys met;
    hash_iter_t state = 0;
    void *key = nullptr;
    while (hash_str_next(table, &state, &key, nullptr)) {
        met.emplace_back(static_cast<const char *>(key));
        if (met.size() == 1) {
            hash_str_free(table, "b", nullptr, nullptr);
            enter(table, "d");
        }
    }
    EXPECT_EQ(met, (Keys{"a", "c", "d"}));
}

TEST(HashWalk, SeveralMayBeUnderWay) {
    Table table(hash_str_create(2, sizeof(Record), HASH_KEEP_COPY));
    for (const char *key : {"a", "b", "c"})
        enter(table, key);
    Keys outer_met;
    hash_iter_t outer = 0;
    void *key = nullptr;
    while (hash_str_next(table, &outer, &key, nullptr)) {
        outer_met.emplace_back(static_cast<const char *>(key));
        EXPECT_EQ(walk(table), (Keys{"a", "b", "c"}));
    }
    EXPECT_EQ(outer_met, (Keys{"a", "b", "c"}));
}

TEST(HashTable, EndsWithItsRecordsAndIsCleared) {
    hash_table_t table = hash_str_create(16, sizeof(Record), HASH_KEEP_COPY);
    enter(table, "alpha");
    hash_delete_ht(&table);
    EXPECT_EQ(table, nullptr);
    hash_delete_ht(&table);
    hash_delete_ht(nullptr);
}

TEST(HashTable, IsRefusedForBadArguments) {
    EXPECT_EQ(hash_flen_create(16, sizeof(Record), HASH_KEEP_COPY, 0), nullptr);
    EXPECT_EQ(hash_str_create(16, sizeof(Record), 2), nullptr);
    EXPECT_EQ(hash_str_create(16, SIZE_MAX, HASH_KEEP_COPY), nullptr);
    EXPECT_EQ(hash_flen_create(16, sizeof(Record), HASH_KEEP_COPY, SIZE_MAX), nullptr);
}

TEST(HashTable, ExpectedSizeIsNoMoreThanAHint) {
    Table table(hash_str_create(SIZE_MAX, sizeof(Record), HASH_KEEP_COPY));
    enter(table, "alpha");
    EXPECT_EQ(walk(table), Keys{"alpha"});
}

TEST(HashTable, WithoutMemoryIsNone) {
    for (size_t number = 1;; ++number) {
        probe::fail_request(number);
        hash_table_t table = hash_str_create(16, sizeof(Record), HASH_KEEP_COPY);
        const bool has_failed = probe::has_failed();
        probe::fail_request(0);
        EXPECT_EQ(table == nullptr, has_failed);
        hash_delete_ht(&table);
        if (!has_failed)
            break;
    }
}

TEST(HashTable, EnteringWithoutMemoryChangesNothing) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_COPY));
    enter(table, "alpha");
    int somewhere = 0;
    void *key = &somewhere;
    void *record = &somewhere;
    probe::fail_request(1);
    EXPECT_EQ(hash_str_enter(table, "beta", &key, &record), -1);
    probe::fail_request(0);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(walk(table), Keys{"alpha"});
}

TEST(HashTable, GoesOnWithoutMemoryToGrow) {
    Table table(hash_str_create(16, sizeof(Record), HASH_KEEP_COPY));
    for (int i = 0; i < 16; ++i)
        enter(table, std::to_string(i).c_str());
    probe::fail_request(2); // the first is the record, the second the larger table
    enter(table, "16");
    EXPECT_TRUE(probe::has_failed());
    probe::fail_request(0);
    EXPECT_NE(hash_str_lookup(table, "16", nullptr, nullptr), 0);
    EXPECT_EQ(walk(table).size(), 17u);
}
