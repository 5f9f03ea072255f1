#include <server/registry/service.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <strings.h>
#include <utility>

#include <server/daemon/private_files.h>
#include <server/registry/copy.h>
#include <server/registry/look.h>
#include <server/registry/messages.h>
#include <server/registry/role.h>
#include <server/registry/sqlite.h>
#include <support/date.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_site.h>

namespace velia::server {

namespace {

constexpr uint64_t last_copy_ms = 5000;    // the client that asks for the promotion waits
constexpr uint64_t look_ms = 30'000;       // of many hosts that are silent
constexpr int64_t claim_pause_ms = 10'000; // between two looks that strangers cause
constexpr int look_at_start_ms = 3000;
constexpr uint64_t look_delay_ms = 200; // behind a promotion, of which the former master is to hear soon
constexpr uint64_t checkpoint_delay_ms = 500;
constexpr uint32_t hold_s_max = 600;
constexpr const char *hold_setting = "held-until"; // in seconds since 1970, and behind a blank by which turn
constexpr uint64_t look_when_away_ms = 1000;       // whether it is there again
constexpr uint64_t reopen_ms = 1000;               // a database that is away, or refuses, until it is put right

// Each a bound on what its calls hold in memory: a search may be as long as a message, others are short.
// Threads with the store share locks of SQLite's: one that is worth less than the others and is put off while it holds
// such a lock puts all of them off.
constexpr Worker::Shape look_up_shape = {{64, 1024, 4096}, 1, 0};
constexpr Worker::Shape search_shape = {{64, 128, 512}, 1, 0};
constexpr Worker::Shape hash_shape = {{16, 64, 256}, 1, 15};
constexpr Worker::Shape update_shape = {{64, 1024, 4096}, 256, 0};

// A store that refuses is tried again and again until somebody puts it right: each of its reasons is told once. Only
// the thread that changes stores opens them.
bool is_new_reason(const std::string &reason) {
    static std::string last;
    return std::exchange(last, reason) != reason;
}

// Why it cannot be had, and whether that is because it is away: then there may be a copy.
struct NotOpen {
    std::string reason; // empty: it is open
    bool is_away = false;
    bool is_moved = false;
};

// Told where it cannot be had.
NotOpen open_store(std::unique_ptr<Store> &store) {
    if (store != nullptr)
        return {};
    const std::string file_name = registry_place();
    try {
        bool is_new = false;
        store = open_registry(is_new);
        is_new_reason("");
        print_registry(IMSG_PLAIN, is_new ? MSG_FILE_CREATED : MSG_LOADED, file_name.c_str());
        return {};
    } catch (const StoreAway &error) { // told where it is noticed, once for all who try again and again
        return {error.what(), true};
    } catch (const StoreError &error) {
        if (is_new_reason(error.what()))
            print_registry(IMSG_ERROR, MSG_OPEN_FAILED, file_name.c_str(), error.what());
        return {error.what(), false, dynamic_cast<const StoreMoved *>(&error) != nullptr};
    }
}

// Hands over the store that is open, or else the one in its file; null if there is none.
template <class Body>
auto with_memory(const std::unique_ptr<Store> &store, Body &&body) {
    const auto opened = store == nullptr ? existing_registry() : nullptr;
    return body(store != nullptr ? store.get() : opened.get());
}

// Nothing, told, where neither the role's file nor the registry can be read.
std::optional<int32_t> role_of(const std::unique_ptr<Store> &store, const std::optional<int32_t> &written) {
    if (written)
        return written;
    try {
        return with_memory(store, [](Store *memory) { return last_role(memory); });
    } catch (const StoreAway &) { // as above
        return std::nullopt;
    } catch (const StoreError &error) {
        RegistryService::print_failure(error.what());
        return std::nullopt;
    }
}

// Copies are of hosts with a registry of their own.
std::optional<int32_t> role_beside_others(const std::optional<int32_t> &role) {
    if (!role || !is_registry_shared() || *role == RGY_SVR_NONE || *role == RGY_SVR_MASTER)
        return role;
    imsg_print(IMSG_ERROR,
               "The registry is in a database that each of its hosts serves as a master: this host's role is none of "
               "a copy's. Make it master or none.\n",
               IMSG_FORMAT);
    return RGY_SVR_NONE;
}

// Whoever was not the master before begins a term, unless it has heard of one that is above its own.
void take_office(Store &store) {
    const Term term = term_of(store);
    const bool is_new = remembered_role(store) != RGY_SVR_MASTER || term.number == 0;
    if (!is_new || term.is_superseded())
        return;
    if (!term.host.empty() && !is_this_host(term.host))
        store.set_setting(former_master_setting, term.host);
    begin_term(store, sysutl_myhostname());
}

// What no host of a shared one serves any more is no concern of the others.
void remember(const std::unique_ptr<Store> &store, int32_t role) {
    if (role == RGY_SVR_NONE && is_registry_shared())
        return;
    try {
        with_memory(store, [&](Store *memory) {
            if (memory == nullptr)
                return;
            if (role == RGY_SVR_MASTER)
                take_office(*memory);
            remember_role(*memory, role);
            if (role == RGY_SVR_MASTER && memory->setting(origin_setting) != origin_master)
                memory->set_setting(origin_setting, origin_master);
        });
    } catch (const StoreError &error) {
        RegistryService::print_failure(error.what());
    }
}

bool is_promotable(const std::optional<int32_t> &role, const std::unique_ptr<Store> &store) {
    if (role != RGY_SVR_MASTER)
        return role == RGY_SVR_STANDBY;
    try {
        return store != nullptr && term_of(*store).is_superseded();
    } catch (const StoreError &error) {
        RegistryService::print_failure(error.what());
        return false;
    }
}

std::string master_in_hosts_file() {
    std::array<char, RVZD_HOST_NAME_MAX + 1> master = {};
    std::array<char, RVZD_HOST_NAME_MAX + 1> backup = {};
    size_t lengths[2];
    registry_prop_get_hostnames_local(master.size(), backup.size(), &lengths[0], &lengths[1], master.data(),
                                      backup.data());
    return master.data();
}

tbs_status_t make_master(Store &store) {
    Registry registry(store);
    try {
        if (!registry.is_filled()) {
            print_registry(IMSG_ERROR, MSG_BACKUP_ERROR, "there is no copy of the master's registry yet");
            return TBS_ST_NOT_SET;
        }
        const Term before = term_of(store);
        store.together([&] {
            registry.become_master();
            if (!before.host.empty() && !is_this_host(before.host))
                store.set_setting(former_master_setting, before.host);
            begin_term(store, sysutl_myhostname());
            remember_role(store, RGY_SVR_MASTER);
            store.set_setting(hold_setting, ""); // of when it was the master before
        });
        const auto status = rgy_set_svr_type(RGY_SVR_MASTER);
        share_with_host("rgy_svr.conf"); // clients read the role
        if (status != TBS_ST_OK) {
            remember_role(store, RGY_SVR_STANDBY);
            store.set_setting(origin_setting, origin_copy);
            take_term(store, before.number, before.host);
        }
        return status;
    } catch (const StoreError &error) {
        return RegistryService::print_failure(error.what());
    }
}

} // namespace

RegistryService::RegistryService(uv_loop_t *loop)
    : copier_(loop, "--copy-registry", [this] { refresh_standing(); }),
      looker_(loop, "--look-at-site", [this] { refresh_standing(); }), look_timer_(loop, [this] { look_around(); }),
      claim_timer_(loop, [this] { look_around(); }), checkpoint_timer_(loop, [this] { bring_log_home(); }),
      reopen_timer_(loop, [this] { take_role(); }), away_timer_(loop, [this] { refresh_standing(); }),
      look_ups_(loop, look_up_shape, false), searches_(loop, search_shape, false), hashes_(loop, hash_shape, false),
      updates_(loop, update_shape, true) {}

StoreWorker &RegistryService::worker_of(Lane lane) {
    switch (lane) {
    case Lane::look_up:
        return look_ups_;
    case Lane::search:
        return searches_;
    case Lane::hash:
        return hashes_;
    default:
        return updates_;
    }
}

// Updates are counted, for whoever wants to know when the last one is done.
bool RegistryService::ask(Lane lane, const Sender &sender, StoreWorker::Task task) {
    if (lane != Lane::update)
        return worker_of(lane).submit(sender, std::move(task));
    const bool is_taken = updates_.submit(
        sender, {std::move(task.work), [this, done = std::move(task.done)](const StoreFailure &failure) {
                     done(failure);
                     update_ended();
                 }});
    updates_in_hand_ += is_taken ? 1 : 0;
    return is_taken;
}

void RegistryService::update_ended() {
    --updates_in_hand_;
    checkpoint_timer_.start(checkpoint_delay_ms);
    if (updates_in_hand_ > 0)
        return;
    for (const auto &answer : std::exchange(holding_, {}))
        answer(TBS_ST_OK);
}

tbs_status_t RegistryService::refusal_of_update() const {
    if (!is_master_)
        return TBS_ST_NO_SERVER;
    return is_held() || is_on_copy_ ? TBS_ST_TRY_AGAIN : TBS_ST_OK;
}

// Who was superseded takes none anyway; but whoever makes the turn to another host than the one that did so has to look
// at the site anew: what was taken there since is not here.
tbs_status_t RegistryService::refusal_of_hold(const std::string &turn) const {
    const Term &term = standing_.term;
    const bool is_turned_to_another = standing_.role == RGY_SVR_MASTER && term.is_superseded() &&
                                      !is_this_host(term.heard_host) &&
                                      strcasecmp(term.heard_host.c_str(), host_of_turn(turn).c_str()) != 0;
    return is_turned_to_another ? TBS_ST_ALREADY_EXISTS : TBS_ST_UNSUPPORTED;
}

void RegistryService::hold_updates(const std::string &turn, uint32_t seconds, const Answered &answer) {
    if (!is_master_)
        return answer(refusal_of_hold(turn));
    const int64_t now_ms = monotonic_ms();
    const int64_t held_ms = int64_t{std::min(seconds, hold_s_max)} * 1000;
    const bool is_new = !hold_.is_held_by(turn, now_ms);
    if (!hold_.take(turn, now_ms, now_ms + held_ms)) {
        imsg_print(IMSG_WARNING, "A turn of the site to \"%s\" is refused: one to \"%s\" is under way.\n", IMSG_FORMAT,
                   host_of_turn(turn).c_str(), hold_.host(now_ms).value_or("").c_str());
        return answer(TBS_ST_ALREADY_EXISTS);
    }
    if (is_new)
        imsg_print(IMSG_PLAIN, "Updates are held, by the turn of the site to \"%s\".\n", IMSG_FORMAT, turn.c_str());
    const auto held = [this, answer] {
        if (updates_in_hand_ == 0)
            answer(TBS_ST_OK);
        else
            holding_.push_back(answer);
    };
    if (now_ms + held_ms / 2 <= hold_noted_ms_) // whoever holds them does so again and again
        return held();
    hold_noted_ms_ = now_ms + held_ms;
    note_hold(std::to_string(time(nullptr) + held_ms / 1000) + " " + turn, held);
}

void RegistryService::release_updates(const std::string &turn, const Answered &answer) {
    if (!is_master_)
        return answer(TBS_ST_UNSUPPORTED);
    if (!hold_.release(turn, monotonic_ms()))
        return answer(TBS_ST_ALREADY_EXISTS);
    if (is_held() || hold_noted_ms_ == 0)
        return answer(TBS_ST_OK);
    hold_noted_ms_ = 0;
    note_hold("", [answer] { answer(TBS_ST_OK); });
}

// A master that is started anew amid a turn would take updates that the next one does not get. One that cannot write
// holds them all the same: there are none that it could take.
void RegistryService::note_hold(const std::string &noted, std::function<void()> done) {
    updates_.change(
        [noted](std::unique_ptr<Store> &store) {
            try {
                if (store != nullptr && !is_registry_shared() && store->setting(hold_setting) != noted)
                    store->set_setting(hold_setting, noted);
            } catch (const StoreError &error) {
                print_failure(error.what());
            }
        },
        std::move(done));
}

// Once, of what was noted before this daemon was started; the clock may have been set since.
void RegistryService::go_on_holding(const std::string &noted) {
    if (std::exchange(is_hold_known_, true))
        return;
    const size_t blank = noted.find(' ');
    const auto until = static_cast<int64_t>(term_of_text(noted.substr(0, blank)));
    const int64_t left_s = std::min<int64_t>(until - time(nullptr), hold_s_max);
    if (blank == std::string::npos || left_s <= 0)
        return;
    hold_noted_ms_ = monotonic_ms() + left_s * 1000;
    hold_.take(noted.substr(blank + 1), monotonic_ms(), hold_noted_ms_);
}

// Its own name, or none, would leave a standby that copies from itself.
void RegistryService::follow_host(const std::string &host, const Answered &answer) {
    if (host.empty() || is_this_host(host))
        return answer(TBS_ST_INVALID_ARG);
    if (is_registry_shared())
        return answer(TBS_ST_UNSUPPORTED);
    if (is_changing_)
        return waiting_.push_back([this, host, answer] { follow_host(host, answer); });
    auto status = rgy_clnt_conf_change(RGY_CONF_SET_HOST, host.c_str());
    share_with_host("rgy_hosts.conf");
    rgy_hostname_cache_inval();
    if (status == TBS_ST_OK && role_in_file() != RGY_SVR_STANDBY) {
        status = rgy_set_svr_type(RGY_SVR_STANDBY);
        share_with_host("rgy_svr.conf");
    }
    if (status != TBS_ST_OK)
        return answer(status);
    copier_.stop(); // it asks the other host from now on
    waiting_.push_back([answer] { answer(TBS_ST_OK); });
    take_role();
}

RegistryService::Standing RegistryService::standing() const {
    Standing standing = standing_;
    standing.looked = copier_.ended_at();
    standing.current = copier_.succeeded_at();
    standing.failure = is_master_ || is_shut_out_ ? away_ : copier_.failure();
    if (is_shut_out_)
        standing.role = RGY_SVR_MASTER; // which it is as soon as it can
    return standing;
}

// In the thread of the updates.
void RegistryService::take_standing(Store &store, Taken &taken) {
    store.refresh();
    taken.term = term_of(store);
    taken.registry = store.stamps(0).registry;
    taken.source = master_in_hosts_file();
    taken.hold = store.setting(hold_setting);
    taken.has_others = !other_hosts(&store).empty();
    taken.entries = 0;
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        taken.entries += store.count(db);
    taken.size_bytes = store.size_bytes();
}

// A host that has been the master under the higher term itself has an older registry now than then.
void RegistryService::tell_superseded(const Term &term) {
    const bool is_own = is_this_host(term.heard_host);
    imsg_print(IMSG_WARNING,
               "Host \"%s\" is the master of this registry's site, by term %llu; this host's is %llu. No updates are "
               "taken here any more. %s: veliactl registry %s %s%s\n",
               IMSG_FORMAT, term.heard_host.c_str(), static_cast<unsigned long long>(term.heard),
               static_cast<unsigned long long>(term.number),
               is_own ? "To begin a new term with what is here" : "To make this host its standby",
               is_own ? "promote" : "demote --follow", term.heard_host.c_str(), is_own ? " --force" : "");
}

// A master that has heard of a higher term goes on telling what it has, and changes it no more.
void RegistryService::follow_standing(Taken &taken) {
    const bool was_superseded = standing_.term.is_superseded();
    standing_.term = taken.term;
    standing_.registry = taken.registry;
    standing_.source = taken.source;
    standing_.entries = taken.entries;
    standing_.size_bytes = taken.size_bytes;
    has_others_ = taken.has_others;
    if (standing_.role != RGY_SVR_MASTER || !standing_.term.is_superseded())
        return;
    is_master_ = false;
    if (!was_superseded)
        tell_superseded(standing_.term);
}

void RegistryService::refresh_standing() {
    const auto taken = std::make_shared<Taken>();
    updates_.change(
        [taken](std::unique_ptr<Store> &store) {
            try {
                taken->is_open = store != nullptr;
                if (taken->is_open)
                    take_standing(*store, *taken);
            } catch (const StoreAway &error) {
                taken->is_open = false;
                taken->away = error.what();
            } catch (const StoreMoved &error) {
                taken->is_open = false;
                taken->away = error.what();
                if (is_new_reason(error.what()))
                    imsg_print(IMSG_ERROR, "The registry is not served any more: %s\n", IMSG_FORMAT, error.what());
            } catch (const StoreError &error) {
                taken->is_open = false;
                print_failure(error.what());
            }
        },
        [this, taken] {
            if (is_on_copy_ || is_shut_out_)
                return; // what is tried again and again tells when it is there
            away_ = is_serving_ ? taken->away : "";
            if (!away_.empty())
                away_timer_.start(look_when_away_ms);
            if (taken->is_open)
                follow_standing(*taken);
        });
}

void RegistryService::bring_log_home() {
    updates_.change(
        [](std::unique_ptr<Store> &store) {
            if (store != nullptr)
                store->checkpoint();
        },
        [this] { refresh_standing(); });
}

void RegistryService::hear_of_term(const tbs_uuid_t &registry, uint64_t number, const std::string &host,
                                   bool is_believed) {
    if (standing_.role != RGY_SVR_MASTER || number <= std::max(standing_.term.number, standing_.term.heard) ||
        host.empty() || is_this_host(host) || tbs_uuid_eq(&registry, &standing_.registry) == 0)
        return;
    if (!is_believed)
        return look_into_claim();
    updates_.change(
        [number, host](std::unique_ptr<Store> &store) {
            try {
                if (store != nullptr)
                    server::hear_of_term(*store, number, host);
            } catch (const StoreError &error) {
                print_failure(error.what());
            }
        },
        [this] { refresh_standing(); });
}

// A master asks the others now and then; one that asks already hears enough.
// Whoever may ask may claim, as often as he likes: a look is a process, and asks the other hosts.
void RegistryService::look_into_claim() {
    const int64_t now_ms = monotonic_ms();
    const int64_t due_ms = claim_looked_ms_ ? *claim_looked_ms_ + claim_pause_ms : now_ms;
    if (claim_looked_ms_ && *claim_looked_ms_ > now_ms)
        return; // one is due
    claim_looked_ms_ = std::max(now_ms, due_ms);
    if (due_ms <= now_ms)
        look_around();
    else
        claim_timer_.start(static_cast<uint64_t>(due_ms - now_ms));
}

void RegistryService::look_around() {
    if (standing_.role != RGY_SVR_MASTER)
        return;
    look_timer_.start(uint64_t{copy_interval_s_} * 1000);
    if (has_others_)
        looker_.finish(look_ms, [] {});
    else
        refresh_standing();
}

// Before anybody is served: a host that was down may have been superseded meanwhile.
void RegistryService::look_at_once() {
    if (standing_.role != RGY_SVR_MASTER || !has_others_ || !is_master_)
        return;
    if (run_to_end("--look-at-site", look_at_start_ms))
        refresh_standing();
    updates_.wait();
}

// A copy is asked for each version of it: the copying process takes it out of service before it makes it another
// registry's.
std::optional<bool> RegistryService::is_serving() {
    if (is_master_ || !is_serving_)
        return is_serving_;
    return memory_.is_filled();
}

void RegistryService::serve(std::unique_ptr<StoreVersion> version) {
    memory_.follow(std::move(version));
    if (is_serving_)
        return;
    is_serving_ = true;
    for (StoreWorker *reader : {&look_ups_, &searches_, &hashes_})
        reader->use(existing_registry);
    if (is_registry_copied())
        for (StoreWorker *reader : {&look_ups_, &searches_})
            reader->use_meanwhile(copy_of_shared_registry);
}

// Nobody else is a master meanwhile: updates are to be tried again.
void RegistryService::serve_copy(Taken &taken) {
    if (!std::exchange(is_on_copy_, true))
        imsg_print(IMSG_WARNING, "Look-ups are answered without the registry's database: %s\n", IMSG_FORMAT,
                   taken.away.c_str());
    is_shut_out_ = false;
    is_master_ = true;
    away_ = taken.away;
    follow_standing(taken);
    serve(nullptr);
}

void RegistryService::stop_serving() {
    is_master_ = is_on_copy_ = is_shut_out_ = false;
    standing_.role = RGY_SVR_NONE;
    standing_.registry = {};
    look_timer_.stop();
    looker_.stop();
    away_timer_.stop();
    away_.clear();
    memory_.follow(nullptr);
    if (!is_serving_)
        return;
    is_serving_ = false;
    for (StoreWorker *reader : {&look_ups_, &searches_, &hashes_})
        reader->use(nullptr);
}

// What a daemon that starts without its database has to tell meanwhile.
void RegistryService::take_in_copy(Taken &taken) {
    try {
        const auto copy = copy_of_shared_registry();
        if (copy == nullptr)
            return;
        take_standing(*copy, taken);
        taken.has_copy = true;
        taken.away +=
            std::string("; look-ups are answered from the copy of ") + date_fmt_token_date_time(time_of_copy(*copy));
    } catch (const StoreError &error) {
        print_failure(error.what());
    }
}

RegistryService::Taken RegistryService::take_in(std::unique_ptr<Store> &store, const std::optional<int32_t> &written) {
    Taken taken;
    taken.is_taken_away = store != nullptr && !store->is_in_place();
    if (taken.is_taken_away)
        return taken;
    taken.role = role_beside_others(role_of(store, written));
    if (!taken.role)
        return taken;
    NotOpen not_open;
    if (*taken.role != RGY_SVR_NONE)
        not_open = open_store(store);
    taken.is_open = *taken.role != RGY_SVR_NONE && not_open.reason.empty();
    taken.away = not_open.reason;
    taken.is_moved = not_open.is_moved;
    if (not_open.is_away && is_registry_copied())
        take_in_copy(taken);
    if (taken.is_open || *taken.role == RGY_SVR_NONE)
        remember(store, *taken.role);
    if (taken.is_open) {
        taken.version = store->watch_version();
        try {
            take_standing(*store, taken);
        } catch (const StoreError &error) {
            print_failure(error.what());
        }
    }
    return taken;
}

// What the file takes away holds from now on; what it gives, once the database is open.
void RegistryService::begin_taking(const std::optional<int32_t> &written) {
    if (!written)
        return;
    if (*written != RGY_SVR_MASTER)
        is_master_ = false;
    if (*written == RGY_SVR_NONE)
        stop_serving();
    if (*written == RGY_SVR_NONE || *written == RGY_SVR_MASTER)
        copier_.stop();
}

void RegistryService::follow_role(Taken taken) {
    if (taken.is_taken_away) {
        copier_.stop();
        stop_serving();
        is_another_change_due_ = true; // without that store
        return close_store([this] { end_change(); });
    }
    if (!taken.role && is_registry_shared())
        reopen_timer_.start(reopen_ms);
    if (!taken.role)
        return end_change();
    const bool is_server = *taken.role != RGY_SVR_NONE;
    const bool is_master = *taken.role == RGY_SVR_MASTER;
    standing_.role = *taken.role;
    if (is_master || !is_server)
        copier_.stop();
    if (!is_master) {
        looker_.stop();
        look_timer_.stop();
    }
    const bool is_shut_out = !taken.is_open && (is_registry_shared() ? is_server : is_master && taken.is_moved);
    if (is_shut_out && is_registry_shared())
        reopen_timer_.start(reopen_ms);
    if (is_shut_out && taken.has_copy) {
        serve_copy(taken);
        return close_store([this] { end_change(); });
    }
    if (!is_server || !taken.is_open) {
        stop_serving();
        is_shut_out_ = is_shut_out;
        away_ = is_shut_out ? taken.away : "";
        return close_store([this] { end_change(); });
    }
    if (is_on_copy_ || is_shut_out_)
        away_.clear();
    is_on_copy_ = is_shut_out_ = false;
    is_master_ = is_master;
    if (is_master) {
        go_on_holding(taken.hold);
    } else { // else a turn goes on over a signal to read everything again
        hold_.clear();
        hold_noted_ms_ = 0;
    }
    follow_standing(taken);
    serve(std::move(taken.version));
    if (is_master)
        look_timer_.start(look_delay_ms);
    if (!is_master || is_registry_copied())
        copier_.start(copy_interval_s_);
    end_change();
}

// Only when the loop has stopped looking at its version.
void RegistryService::close_store(std::function<void()> done) {
    updates_.change([](std::unique_ptr<Store> &store) { store.reset(); }, std::move(done));
}

void RegistryService::take_role() {
    is_another_change_due_ = is_changing_;
    if (is_changing_)
        return;
    is_changing_ = true;
    given_up_.clear();
    const auto written = role_in_file();
    begin_taking(written);
    const auto taken = std::make_shared<Taken>();
    updates_.change([taken, written](std::unique_ptr<Store> &store) { *taken = take_in(store, written); },
                    [this, taken] { follow_role(std::move(*taken)); });
}

void RegistryService::end_change() {
    is_changing_ = false;
    if (is_another_change_due_)
        return take_role();
    while (!is_changing_ && !waiting_.empty()) {
        const auto change = std::move(waiting_.front());
        waiting_.pop_front();
        change();
    }
}

void RegistryService::follow_role_file() {
    if (given_up_.empty() || mark_of_role_file() != given_up_)
        take_role();
}

void RegistryService::stop() {
    copier_.stop();
    looker_.stop();
    for (TimerHandle *timer : {&look_timer_, &claim_timer_, &checkpoint_timer_, &reopen_timer_, &away_timer_})
        timer->stop();
    wait_for_others(0);
}

void RegistryService::take_role_at_once() {
    take_role();
    while (is_changing_)
        updates_.wait();
    look_at_once();
}

void RegistryService::promote(const Answered &answer) {
    if (is_changing_)
        return waiting_.push_back([this, answer] { promote(answer); });
    is_changing_ = true;
    const auto refuse = [this, answer](tbs_status_t status) {
        answer(status);
        end_change();
    };
    const auto taken = std::make_shared<Taken>();
    updates_.change(
        [taken, written = role_in_file()](std::unique_ptr<Store> &store) {
            taken->role = role_beside_others(role_of(store, written));
            taken->is_open = is_promotable(taken->role, store) && open_store(store).reason.empty();
        },
        [this, taken, answer, refuse] {
            const bool is_superseded = taken->role == RGY_SVR_MASTER && taken->is_open;
            if (taken->role != RGY_SVR_STANDBY && !is_superseded)
                return refuse(TBS_ST_UNSUPPORTED);
            if (!taken->is_open)
                return refuse(TBS_ST_ERROR);
            if (is_superseded)
                return become_master(answer);
            copier_.finish(last_copy_ms, [this, answer] { become_master(answer); });
        });
}

// Its role is taken before it is told.
void RegistryService::become_master(const Answered &answer) {
    const auto taken = std::make_shared<Taken>();
    const auto status = std::make_shared<tbs_status_t>(TBS_ST_ERROR);
    updates_.change(
        [taken, status](std::unique_ptr<Store> &store) {
            *status = make_master(*store);
            *taken = take_in(store, role_in_file());
        },
        [this, taken, status, answer] {
            follow_role(std::move(*taken));
            answer(*status);
        });
}

// While a role is being taken, the one that comes of it is the one to give up.
void RegistryService::step_down(const Answered &answer) {
    if (is_changing_)
        waiting_.push_back([this, answer] { step_down(answer); });
    else if (standing_.role != RGY_SVR_MASTER || !is_serving_)
        answer(TBS_ST_UNSUPPORTED);
    else
        give_up_role(answer);
}

// Neither a file that is left half-written by whoever changes the role next, nor one that was written before and is
// only now heard of, makes this host the master again.
void RegistryService::give_up_role(const Answered &answer) {
    is_changing_ = true;
    given_up_ = mark_of_role_file();
    stop_serving();
    updates_.change(
        [](std::unique_ptr<Store> &store) {
            remember(store, RGY_SVR_NONE);
            store.reset();
        },
        [this, answer] {
            answer(TBS_ST_OK);
            end_change();
        });
}

void RegistryService::print_change(rgy_db_t db, bool is_added, const std::string &what, const Caller &caller) {
    const int uid = caller.credentials ? static_cast<int>(caller.credentials->uid) : -1;
    print_registry(IMSG_PLAIN, is_added ? MSG_ADDED : MSG_REMOVED, registry_db_name(db), uid,
                   address_text(caller.peer).c_str(), date_fmt_token_date_time(time(nullptr)));
    print_registry(IMSG_PLAIN, MSG_WHAT, what.c_str());
}

void RegistryService::print_changes(rgy_db_t db, uint32_t added, uint32_t changed, uint32_t removed,
                                    const Caller &caller) {
    if (added + changed + removed == 0)
        return;
    const int uid = caller.credentials ? static_cast<int>(caller.credentials->uid) : -1;
    imsg_print(IMSG_PLAIN, "%s: %u entries added, %u changed, %u removed by %d from %s\n", IMSG_FORMAT,
               registry_db_name(db), added, changed, removed, uid, address_text(caller.peer).c_str());
}

tbs_status_t RegistryService::print_failure(const char *what) {
    print_registry(IMSG_ERROR, MSG_INTERNAL_ERROR, what);
    return TBS_ST_ERROR;
}

} // namespace velia::server
