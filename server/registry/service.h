// The registry in the daemon: there or not, by this host's role, and what it tells the log.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <server/registry/copier.h>
#include <server/registry/registry.h>
#include <server/registry/role.h>

namespace velia::server {

// Where the registry of this host is, whether it is there or not.
std::string registry_file();

class RegistryService {
public:
    explicit RegistryService(uv_loop_t *loop);

    // How often a copy is brought up to date.
    void set_copy_interval(uint32_t seconds) { copy_interval_s_ = seconds; }

    // Takes this host's role as its file has it, or the last one where the file does not say. A registry that cannot be
    // opened is told, and asked for in vain. All but a master copy what the master has.
    void take_role();

    void stop_copying() { copier_.stop(); }

    // Null while this host is no registry server, or one that has nothing to tell yet. A copy is asked each time: the
    // copying process takes it out of service before it makes it another registry's. Throws StoreError.
    Registry *registry();

    // Only a master takes updates: what others hold is a copy.
    bool is_master() const { return is_master_; }

    // A standby copies what it can still get, for some seconds at most, and becomes the master. TBS_ST_UNSUPPORTED for
    // any other, TBS_ST_NOT_SET for one that has no copy, TBS_ST_TRY_AGAIN during another promotion; else what went
    // wrong, told.
    void promote(std::function<void(tbs_status_t)> answer);

    // A master stops serving until it has another role. TBS_ST_UNSUPPORTED for any other.
    tbs_status_t step_down();

    // Tells of an update, who made it and what it was.
    static void print_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller);

    // Tells what the database said, and gives the status for the client.
    static tbs_status_t print_failure(const char *what);

private:
    // Hands over the store that is open, or else the one in its file; null if there is none.
    template <class Body>
    auto with_memory(Body &&body) {
        const auto opened = store_ == nullptr ? existing_store(registry_file()) : nullptr;
        return body(store_ != nullptr ? store_.get() : opened.get());
    }
    std::optional<int32_t> present_role();
    void remember(int32_t role);
    bool open();
    void close();
    void follow_copy();
    tbs_status_t become_master();

    Copier copier_;
    uint32_t copy_interval_s_ = 0;
    bool is_master_ = false;
    bool is_in_promotion_ = false;
    std::unique_ptr<Store> store_;
    std::unique_ptr<Registry> registry_;
};

} // namespace velia::server
