// A store of each kind, with a registry that was made for the test, and short words for what tests do with it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/unit/store/store_kinds.h>

namespace velia::server {

inline bool operator==(const Record &left, const Record &right) {
    return left.id == right.id && left.flex_text == right.flex_text;
}
inline void PrintTo(const Record &record, std::ostream *out) {
    *out << record.id << ' ' << record.flex_text;
}

// An entry as the registry hands it to its store.
struct Entry {
    std::string identity;
    std::string text;
    Items items;
};

inline Entry named(const std::string &name) {
    return {name, "-name=" + name + ";", {{"-name", name}}};
}
inline Entry nameless(const Items &items, const std::string &text = "text") {
    return {"", text, items};
}

class StoreUnderTest : public testing::Test {
protected:
    explicit StoreUnderTest(const StoreKind &kind) : place(kind.make_place()) { store = place->open(is_new); }

    // By any thread.
    std::unique_ptr<Store> open() const {
        bool is_made = false;
        return place->open(is_made);
    }
    void reopen() {
        store.reset();
        store = place->open(is_new);
    }

    rgy_dtm_pair_t pair(rgy_db_t db) { return store->stamps(db).pair; }

    Store::AddResult add(const Entry &entry, rgy_db_t db = RGY_DB_REGIONS) { return add_to(*store, entry, db); }
    static Store::AddResult add_to(Store &to, const Entry &entry, rgy_db_t db = RGY_DB_REGIONS) {
        return to.add(db, to.stamps(db).pair, entry.identity, entry.text, entry.items);
    }
    void add_all(const std::vector<std::string> &names, rgy_db_t db = RGY_DB_REGIONS) {
        store->together([&] {
            for (const std::string &name : names)
                ASSERT_EQ(add(named(name), db), Store::AddResult::added) << name;
        });
    }
    Store::ChangeResult change(uint64_t id, const Entry &entry, rgy_db_t db = RGY_DB_REGIONS) {
        return store->change(db, id, entry.identity, entry.text, entry.items);
    }
    bool remove(uint64_t id, rgy_db_t db = RGY_DB_REGIONS) {
        Record removed;
        return store->remove(db, id, removed);
    }

    // What a scan visits; the text of what is left out by its region is "-".
    static std::vector<Record> scan_of(Store &of, const Selection &selection, uint64_t after_id = 0) {
        std::vector<Record> records;
        of.scan(selection, after_id, [&](uint64_t id, const Record *record) {
            records.push_back(record != nullptr ? *record : Record{id, "-"});
            return true;
        });
        return records;
    }
    std::vector<Record> scan(const Selection &selection, uint64_t after_id = 0) {
        return scan_of(*store, selection, after_id);
    }
    std::vector<Record> all(rgy_db_t db = RGY_DB_REGIONS) { return scan({db, "", "", ""}); }
    std::vector<Record> found(const std::string &key, const std::string &value, rgy_db_t db = RGY_DB_REGIONS) {
        return scan({db, "", key, value});
    }

    // Whether the body leaves other stamps.
    bool renews_stamps(rgy_db_t db, const std::function<void()> &body) {
        const auto before = pair(db);
        body();
        return !is_same(pair(db), before);
    }

    std::unique_ptr<StorePlace> place;
    std::unique_ptr<Store> store;
    bool is_new = false;
};

// One test for each kind.
class StoreTest : public StoreUnderTest, public testing::WithParamInterface<StoreKind> {
protected:
    StoreTest() : StoreUnderTest(GetParam()) {}
};

inline std::string name_of_kind(const testing::TestParamInfo<StoreKind> &info) {
    return info.param.name;
}

#define VELIA_FOR_EACH_STORE(SUITE)                                                                                    \
    INSTANTIATE_TEST_SUITE_P(Each, SUITE, testing::ValuesIn(store_kinds()), name_of_kind)

// One test for each kind and row of a table; a row has a `name` of letters and digits.
template <class Row>
class StoreTableTest : public StoreUnderTest, public testing::WithParamInterface<std::tuple<StoreKind, Row>> {
protected:
    using Parameter = std::tuple<StoreKind, Row>;
    StoreTableTest() : StoreUnderTest(std::get<0>(testing::WithParamInterface<Parameter>::GetParam())) {}

    const Row &row() const { return std::get<1>(testing::WithParamInterface<Parameter>::GetParam()); }
};

template <class Row>
std::string name_of_row(const testing::TestParamInfo<std::tuple<StoreKind, Row>> &info) {
    return std::get<0>(info.param).name + "_" + std::get<1>(info.param).name;
}

#define VELIA_FOR_EACH_STORE_AND_ROW(SUITE, ROWS)                                                                      \
    INSTANTIATE_TEST_SUITE_P(Each, SUITE, testing::Combine(testing::ValuesIn(store_kinds()), testing::ValuesIn(ROWS)), \
                             name_of_row<std::decay_t<decltype(*std::begin(ROWS))>>)

} // namespace velia::server
