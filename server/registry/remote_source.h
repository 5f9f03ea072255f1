// The registry of another host, over the broker's procedures.
#pragma once

#include <memory>
#include <string>

#include <server/registry/copy.h>
#include <veliaxdr/rvzd_handle.h>

namespace velia::server {

class RemoteSource : public Source {
public:
    explicit RemoteSource(const std::string &host);

    Stamps stamps(rgy_db_t db) override;
    Reading read(rgy_db_t db) override;
    std::string backup_hosts() override;
    Term term(const tbs_uuid_t &registry, const Term &known) override;

private:
    Reading read_once(rgy_db_t db);

    struct FreeHandle {
        void operator()(rvzd_handle_t *handle) const { rvzd_free_handle(handle); }
    };
    std::unique_ptr<rvzd_handle_t, FreeHandle> handle_;
};

} // namespace velia::server
