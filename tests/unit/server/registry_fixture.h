// A registry in a directory of its own, and callers of it.
#pragma once

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/registry/registry.h>

namespace velia::server {

inline bool operator==(const Record &left, const Record &right) {
    return left.id == right.id && left.flex_text == right.flex_text;
}
inline void PrintTo(const Record &record, std::ostream *out) {
    *out << record.id << ' ' << record.flex_text;
}

class RegistryFixture : public testing::Test {
protected:
    RegistryFixture() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-registry-XXXXXX").string();
        directory_ = mkdtemp(name.data());
        reopen();
    }
    ~RegistryFixture() override {
        memory.follow(nullptr);
        registry.reset();
        store.reset();
        std::filesystem::remove_all(directory_);
    }

    void reopen() {
        registry.reset();
        store.reset();
        memory.follow(nullptr);
        store = open_sqlite_store(file_name(), is_new);
        registry = std::make_unique<Registry>(*store);
        memory.follow(store->watch_version());
    }
    std::string file_name() const { return directory_ / "registry.db"; }

    static Caller caller_with_uid(uint32_t uid) {
        Caller caller;
        caller.credentials = Credentials{uid, uid};
        return caller;
    }

    tbs_status_t add(rgy_db_t db, const std::string &text) {
        return registry->add(db, registry->stamps(db).pair, text, user);
    }

    // Everything of a database, batch by batch.
    std::vector<std::string> texts_of(const Selection &selection, uint64_t batch_records = 1000,
                                      const Filter &filter = {}) {
        std::vector<std::string> texts;
        uint64_t cursor = 0;
        do {
            const Batch batch = registry->fetch(selection, cursor, {batch_records, 8000}, filter);
            for (const auto &record : batch.records)
                texts.push_back(record.flex_text);
            cursor = batch.cursor;
        } while (cursor != 0);
        return texts;
    }
    static Selection all_of(rgy_db_t db) { return {db, "", "", ""}; }

    template <class Read>
    auto learning(Read &&read) {
        const uint64_t version = memory.version();
        Learned learned;
        store->refresh();
        Registry reader(*store, &learned);
        auto result = read(reader);
        memory.learn(version, std::move(learned));
        return result;
    }

    // As the daemon does it: out of memory, or else from the store, which the memory learns of.
    AnswerMemory::Answer answer(const Selection &selection, uint64_t cursor, const BatchLimits &limits,
                                const Filter &filter = {}) {
        if (const auto remembered = memory.find(selection, cursor, limits, filter))
            return remembered->batch;
        return learning([&](Registry &reader) { return reader.find(selection, cursor, limits, filter)->batch; });
    }
    bool is_new = false;
    RegistryMemory memory;
    std::unique_ptr<Store> store;
    std::unique_ptr<Registry> registry;
    Caller user = caller_with_uid(1000);

private:
    std::filesystem::path directory_;
};

} // namespace velia::server
