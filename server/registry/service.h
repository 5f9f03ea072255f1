// The registry in the daemon: there or not, by this host's role, and what it tells the log. The loop never waits for
// the database: what is not in memory is asked of threads that have it open.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <server/registry/copier.h>
#include <server/registry/registry.h>
#include <server/registry/role.h>
#include <server/registry/store_worker.h>

namespace velia::server {

// Where the registry of this host is, whether it is there or not.
std::string registry_file();

// Who does a piece of work, so that none of a kind waits for those of another.
enum class Lane {
    look_up, // is short
    search,  // looks at records one after the other
    hash,    // is meant to take long
    update,  // waits for the disk
};

class RegistryService {
public:
    explicit RegistryService(uv_loop_t *loop);

    // How often a copy is brought up to date.
    void set_copy_interval(uint32_t seconds) { copy_interval_s_ = seconds; }

    // Takes this host's role as its file has it, or the last one where the file does not say. A registry that cannot be
    // opened is told, and asked for in vain. All but a master copy what the master has. It comes later; or at once, for
    // a daemon that does not serve yet.
    void take_role();
    void take_role_at_once();

    // The role's file has been written. One that this host has given up since is not taken again.
    void follow_role_file();

    // Copies no more, and waits for nobody who has the database.
    void stop();

    // Whether there is a registry here that has something to tell; nothing where that has to be looked up.
    std::optional<bool> is_serving();

    RegistryMemory &memory() { return memory_; }

    // Asks a thread. False, and nothing is done, where the sender has as much waiting as it may. What the work reads is
    // not before what was acknowledged until now.
    bool ask(Lane lane, const Sender &sender, StoreWorker::Task task);

    // Only a master takes updates: what others hold is a copy.
    bool is_master() const { return is_master_; }

    // A standby copies what it can still get, for some seconds at most, and becomes the master. TBS_ST_UNSUPPORTED for
    // any other, TBS_ST_NOT_SET for one that has no copy, TBS_ST_TRY_AGAIN during another promotion; else what went
    // wrong, told.
    using Answered = std::function<void(tbs_status_t)>;
    void promote(const Answered &answer);

    // A master stops serving until it has another role. TBS_ST_UNSUPPORTED for any other.
    void step_down(const Answered &answer);

    // Tells of an update, who made it and what it was.
    static void print_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller);
    static void print_changes(rgy_db_t db, uint32_t added, uint32_t changed, uint32_t removed, const Caller &caller);

    // Tells what the database said, and gives the status for the client.
    static tbs_status_t print_failure(const char *what);

private:
    // What the thread of the updates made of a role.
    struct Taken {
        std::optional<int32_t> role; // none: it cannot be told, and nothing changes
        std::unique_ptr<StoreVersion> version;
        bool is_open = false;
        bool is_taken_away = false; // the file was, under the store
    };
    static Taken take_in(std::unique_ptr<Store> &store, const std::optional<int32_t> &written);
    void begin_taking(const std::optional<int32_t> &written);
    void follow_role(Taken taken);
    void end_change();
    void give_up_role(const Answered &answer);
    void close_store(std::function<void()> done);
    void serve(std::unique_ptr<StoreVersion> version);
    void stop_serving();
    void become_master(const Answered &answer);
    StoreWorker &worker_of(Lane lane);

    Copier copier_;
    uint32_t copy_interval_s_ = 0;
    bool is_master_ = false;
    bool is_serving_ = false;
    bool is_changing_ = false;                  // a role is being taken
    bool is_another_change_due_ = false;        // since it began
    std::deque<std::function<void()>> waiting_; // changes asked for since
    std::string given_up_;                      // the role's file as it was then
    RegistryMemory memory_;
    StoreWorker look_ups_;
    StoreWorker searches_;
    StoreWorker hashes_;
    StoreWorker updates_;
};

} // namespace velia::server
