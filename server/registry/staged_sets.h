// Sets of changes that come piece by piece, in tables that end with their connection. They follow its transactions.
#pragma once

#include <functional>
#include <span>
#include <string>

#include <server/registry/sqlite.h>

namespace velia::server {

class StagedSets {
public:
    explicit StagedSets(Sqlite &database) : database_(database) {}

    void add(const tbs_uuid_t &set, std::span<const rgy_change_t> changes);
    Store::SetSize size(const tbs_uuid_t &set);
    void each(const tbs_uuid_t &set, const std::function<bool(uint64_t id, const std::string &text)> &visit);
    void forget(const tbs_uuid_t &set);

private:
    void make_place();
    bool is_full(const tbs_uuid_t &set);
    void forget_oldest();

    Sqlite &database_;
};

// A store whose sets are kept in this database of SQLite's, whatever keeps the rest.
class StoreWithSets : public Store {
public:
    void add_to_set(const tbs_uuid_t &set, std::span<const rgy_change_t> changes) override { sets_.add(set, changes); }
    SetSize size_of_set(const tbs_uuid_t &set) override { return sets_.size(set); }
    void each_of_set(const tbs_uuid_t &set,
                     const std::function<bool(uint64_t id, const std::string &text)> &visit) override {
        sets_.each(set, visit);
    }
    void forget_set(const tbs_uuid_t &set) override { sets_.forget(set); }

protected:
    // It may be made later, but before the first call.
    explicit StoreWithSets(Sqlite &database) : sets_(database) {}

private:
    StagedSets sets_;
};

} // namespace velia::server
