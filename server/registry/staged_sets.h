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

} // namespace velia::server
