// The registry in the daemon: there or not, by this host's role, and what it tells the log. The loop never waits for
// the database: what is not in memory is asked of threads that have it open.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <server/registry/copier.h>
#include <server/registry/place.h>
#include <server/registry/registry.h>
#include <server/registry/role.h>
#include <server/registry/store_worker.h>
#include <server/registry/term.h>
#include <server/registry/update_hold.h>

namespace velia::server {

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

    // Only a master takes updates: what others hold is a copy. One that has been superseded is none any more.
    bool is_master() const { return is_master_; }

    // What is said of an update that is not taken; TBS_ST_OK for one that is.
    tbs_status_t refusal_of_update() const;

    // What this host knows of its registry's site, for all who ask.
    struct Standing {
        int32_t role = 0;
        Term term;
        tbs_uuid_t registry = {};
        std::string source; // whom a copy is made of
        time_t looked = 0;
        time_t current = 0;
        std::string failure;
        uint64_t entries = 0;
        uint64_t size_bytes = 0; // of the store
    };
    Standing standing() const;

    // Also of a database that is not reached for now: updates are tried all the same.
    bool takes_updates() const { return refusal_of_update() == TBS_ST_OK && away_.empty(); }

    // Somebody says that this registry has a term like this. Whoever may administer this host is believed; else the
    // other hosts of the site are asked.
    void hear_of_term(const tbs_uuid_t &registry, uint64_t number, const std::string &host, bool is_believed);

    // A master takes no updates for so long, also over a new start; answered when the last one that it has taken is
    // done. TBS_ST_ALREADY_EXISTS while a turn to another host is under way, TBS_ST_UNSUPPORTED for no master.
    using Answered = std::function<void(tbs_status_t)>;
    void hold_updates(const std::string &turn, uint32_t seconds, const Answered &answer);
    void release_updates(const std::string &turn, const Answered &answer);

    // Becomes a standby of another host, whatever it was, and is answered when it is one.
    void follow_host(const std::string &host, const Answered &answer);

    // A standby copies what it can still get, for some seconds at most, and becomes the master; so does a master that
    // has been superseded, as it is. TBS_ST_UNSUPPORTED for any other, TBS_ST_NOT_SET for one that has no copy; else
    // what went wrong, told.
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
        Term term;
        tbs_uuid_t registry = {};
        std::string source;
        std::string hold; // as it was noted
        uint64_t entries = 0;
        uint64_t size_bytes = 0;
        bool has_others = false;
        bool is_open = false;
        bool is_taken_away = false; // the file was, under the store
        bool is_moved = false;      // to elsewhere
        bool has_copy = false;      // of a database that is away
        std::string away;           // why its database is not reached
    };
    static Taken take_in(std::unique_ptr<Store> &store, const std::optional<int32_t> &written);
    static void take_in_copy(Taken &taken);
    void begin_taking(const std::optional<int32_t> &written);
    void follow_role(Taken taken);
    void end_change();
    void give_up_role(const Answered &answer);
    void close_store(std::function<void()> done);
    void serve(std::unique_ptr<StoreVersion> version);
    void serve_copy(Taken &taken);
    void stop_serving();
    void become_master(const Answered &answer);
    static void take_standing(Store &store, Taken &taken);
    void follow_standing(Taken &taken);
    void note_hold(const std::string &noted, std::function<void()> done);
    void go_on_holding(const std::string &noted);
    tbs_status_t refusal_of_hold(const std::string &turn) const;
    bool is_held() const { return hold_.host(monotonic_ms()).has_value(); }
    static void tell_superseded(const Term &term);
    void refresh_standing();
    void bring_log_home();
    void look_around();
    void look_into_claim();
    void look_at_once();
    void update_ended();
    StoreWorker &worker_of(Lane lane);

    Copier copier_;
    Copier looker_;
    TimerHandle look_timer_;
    TimerHandle claim_timer_;
    std::optional<int64_t> claim_looked_ms_; // when a stranger's claim was looked into last, or will be
    TimerHandle checkpoint_timer_;
    TimerHandle reopen_timer_;
    TimerHandle away_timer_;
    Standing standing_;
    std::string away_;              // why the database was not reached when it was asked last
    bool has_others_ = false;       // hosts of the site
    bool is_on_copy_ = false;       // because it has not been reached since the start
    bool is_shut_out_ = false;      // neither it nor a copy was to be had
    UpdateHold hold_;               // while it lasts, updates are refused
    bool is_hold_known_ = false;    // what was noted of it before this start
    int64_t hold_noted_ms_ = 0;     // until when, by the store
    size_t updates_in_hand_ = 0;    // taken and not answered
    std::vector<Answered> holding_; // who waits until there are none
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
