// veliactl site master: the whole turn of a site to another master, in the order in which no update is lost: the master
// takes no updates any more, the next one has all that was taken, becomes the master, the former one becomes its
// standby, and the hosts follow. Each step looks first whether it is done already, so that the whole can be run again.
#include <cli/site.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <optional>
#include <poll.h>
#include <strings.h>
#include <sys/random.h>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/registry.h>
#include <cli/results.h>
#include <cli/waits.h>
#include <support/imsg.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

namespace {

constexpr uint32_t hold_s = 120; // then the former master takes updates again by itself
constexpr int between_looks_ms = 100;
constexpr const char *list_separators = " \t\r\n,;";

struct Arguments {
    std::string host;
    bool is_forced = false;
};

Options options_of(Arguments &arguments) {
    return {
        {.name = "HOST", .help = "the standby that becomes the master", .target = &arguments.host, .is_required = true},
        {.name = "--force",
         .help = "also when the master does not answer: what it alone has is lost then",
         .target = &arguments.is_forced}};
}

int turn_site(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {{"step", Type::text, "find, hold, copy, promote, demote or follow"},
                              {"host", Type::text, "which host it is about"},
                              {"outcome", Type::text, "done, was done, or what is left to do"}};
constexpr Output output = {Output::Shape::list, columns};

constexpr const char *notes =
    R"(The steps, each of which is told: the master takes no updates any more (hold), for two minutes at most; the standby
comes to have all that was taken (copy), and becomes the master (promote); the former master becomes its standby (demote);
and the hosts of the site take it for their registry (follow). A host that does not let this one change it is told with
the command to run there. After a failure at any step the same command goes on where it was. Of two turns to different
hosts at one time, the one that comes second is refused.
)";

constexpr Command commands[] = {
    {.path = "site", .help = "The hosts of a site as a whole"},
    {.path = "site master",
     .help = "Make a standby the master of the site's registry, without losing an update",
     .examples = {"veliactl site master build8", "veliactl site master build8 --force   # the master is gone for good"},
     .notes = notes,
     .make = call_of<turn_site, options_of>,
     .output = &output},
};

void append_hosts(std::vector<std::string> &hosts, const std::string &list) {
    for (size_t begin = 0; (begin = list.find_first_not_of(list_separators, begin)) != std::string::npos;) {
        const size_t end = std::min(list.find_first_of(list_separators, begin), list.size());
        const std::string host = list.substr(begin, end - begin);
        bool is_known = false;
        for (const auto &other : hosts)
            is_known = is_known || is_same_host(other, host);
        if (!is_known)
            hosts.push_back(host);
        begin = end;
    }
}

std::string names_in_hosts_file() {
    std::array<char, RVZD_HOST_NAME_MAX + 1> master = {};
    std::array<char, RVZD_HOST_NAME_MAX + 1> backup = {};
    size_t lengths[2];
    registry_prop_get_hostnames_local(master.size(), backup.size(), &lengths[0], &lengths[1], master.data(),
                                      backup.data());
    return std::string(master.data()) + " " + backup.data();
}

// What the former master knows this turn by: where it goes, and a word of its own, so that another one to the same host
// does not end its hold.
std::string name_of_turn(const std::string &host) {
    uint32_t word = 0;
    std::array<char, 16> text = {};
    if (getrandom(&word, sizeof word, 0) != static_cast<ssize_t>(sizeof word))
        return host;
    snprintf(text.data(), text.size(), "#%08x", word);
    return host.size() + strlen(text.data()) <= RVZD_HOST_NAME_MAX ? host + text.data() : host;
}

// The turn of one site.
class Turn {
public:
    Turn(const Arguments &arguments, const Settings &settings)
        : next_(arguments.host), name_(name_of_turn(next_)), is_forced_(arguments.is_forced), settings_(settings),
          results_(output, settings, Results::Of::change) {}

    int run() {
        const int status = run_steps();
        if (status == exit_done || is_at_end_)
            results_.finish();
        return status;
    }

private:
    using Stamps = std::array<rgy_dtm_pair_t, RGY_DB_ALL>;

    int run_steps() {
        if (const int status = find(); status != exit_done)
            return status;
        if (!is_promoted_) {
            int status = former_.empty() ? int{exit_done} : hold();
            if (status == exit_done && !former_.empty()) {
                told("hold", former_, is_held_ ? "done" : "takes no updates");
                status = copy();
            }
            if (status == exit_done)
                status = promote();
            if (status != exit_done)
                return release(status);
        }
        const int demoted = demote();
        const int followed = is_other_master_ ? int{exit_failed} : follow();
        is_at_end_ = true;
        return demoted != exit_done ? demoted : followed;
    }

    void told(const char *step, const std::string &host, const std::string &outcome) {
        results_.add({step, host, outcome});
        results_.pause();
    }
    int fail(const char *what, const std::string &host, tbs_status_t status) {
        tell_failure(status, host, "%s host '%s': %s. Nothing is lost; the same command goes on from here\n", what,
                     host.c_str(), tbs_strerror(status));
        return status == TBS_ST_RPC_FAILED || status == TBS_ST_NOT_FOUND ? exit_unreachable : exit_failed;
    }

    int find() {
        RegistryState state;
        if (const auto status = state.ask(next_, settings_); status != TBS_ST_OK)
            return fail("There is no answer from", next_, status);
        is_promoted_ = has_become_master();
        if (!is_promoted_ && state->role != RGY_SVR_STANDBY) {
            tell_failure(TBS_ST_UNSUPPORTED, next_, "Host '%s' is no standby, but: %s\n", next_.c_str(),
                         name_of_role(state->role).c_str());
            return exit_failed;
        }
        hosts_ = hosts_of_site(next_, settings_);
        append_hosts(hosts_, state->source);
        append_hosts(hosts_, next_);
        if (is_promoted_)
            return exit_done;
        const int status = find_former(state->source, state->master);
        append_hosts(hosts_, former_);
        return status;
    }

    // Whom the standby copies from takes updates, or another host of the site, where it copies from the wrong one; or
    // nobody does any more, after a failure of ours or because the master is down.
    int find_former(const std::string &source, const std::string &master_of_copy) {
        RegistryState state;
        const bool is_source = !source.empty() && state.ask(source, settings_) == TBS_ST_OK;
        if (is_source && is_turned_to_another(*state) && !is_forced_)
            return fail_turned_to_another(source, state->heard_host);
        former_ = is_source && state->role == RGY_SVR_MASTER ? source : master_over(next_, settings_);
        if (former_.empty() && !is_forced_)
            for (const auto &host : {source, master_of_copy})
                if (const auto status = silence_of(host); status != TBS_ST_OK)
                    return fail_silent(host, status);
        told("find", former_.empty() ? source : former_, former_.empty() ? "no master answers" : "is the master");
        return exit_done;
    }
    // One that was superseded by itself has an older registry, and nobody else has a newer one.
    bool is_turned_to_another(const rvzd_registry_state_reply_t &state) const {
        return state.role == RGY_SVR_MASTER && state.heard_term > state.term &&
               !is_same_host(state.heard_host, next_) && !is_same_host(state.heard_host, state.master);
    }
    static int fail_turned_to_another(const std::string &host, const std::string &heard_host) {
        tell_failure(TBS_ST_UNSUPPORTED, host,
                     "Host '%s' takes no updates any more: '%s' is the master by a higher term. Nothing has changed; "
                     "\"veliactl site master %s\" brings that turn to its end first\n",
                     host.c_str(), heard_host.c_str(), heard_host.c_str());
        return exit_failed;
    }
    tbs_status_t silence_of(const std::string &host) {
        RegistryState state;
        return host.empty() || is_same_host(host, next_) ? tbs_status_t{TBS_ST_OK} : state.ask(host, settings_);
    }
    static int fail_silent(const std::string &host, tbs_status_t status) {
        tell_failure(
            status, host,
            "The master '%s' does not answer: %s. What it alone has would be lost; --force goes on without it\n",
            host.c_str(), tbs_strerror(status));
        return exit_unreachable;
    }

    int order(const std::string &host, int64_t op, const std::string &other) {
        const Broker daemon = reach_quietly(host, settings_);
        if (daemon == nullptr)
            return TBS_ST_RPC_FAILED;
        return rvzd_registry_turn(daemon.get(), op, hold_s, other.c_str());
    }

    int hold() {
        const auto status = order(former_, RVZD_TURN_HOLD, name_);
        is_held_ = is_held_ || status == TBS_ST_OK;
        const bool is_refused = status == TBS_ST_UNSUPPORTED || status == TBS_ST_ALREADY_EXISTS;
        if (status == TBS_ST_OK || (is_refused && is_superseded()))
            return exit_done;
        return is_refused ? fail_other_turn(status) : fail("Updates could not be held on", former_, status);
    }
    // Then it takes no updates, whatever it is asked.
    bool is_superseded() {
        RegistryState state;
        return state.ask(former_, settings_) == TBS_ST_OK && state->role == RGY_SVR_MASTER &&
               state->heard_term > state->term && (is_forced_ || !is_turned_to_another(*state));
    }
    int fail_other_turn(tbs_status_t status) {
        tell_failure(status, former_,
                     "Another turn of the site is under way: host '%s' holds updates for another host than '%s', or is "
                     "not the master any more. Nothing has changed; that turn ends in two minutes at most\n",
                     former_.c_str(), next_.c_str());
        return exit_failed;
    }

    // Whoever was killed may have left them held; that ends by itself.
    int release(int status) {
        if (is_held_)
            order(former_, RVZD_TURN_RELEASE, name_);
        return status;
    }

    std::optional<Stamps> stamps_of(const std::string &host) {
        const Broker daemon = reach_quietly(host, settings_);
        Stamps stamps = {};
        for (rgy_db_t db = 0; daemon != nullptr && db < RGY_DB_ALL; ++db)
            if (rvzd_rgy_get_id(daemon.get(), db, RGY_PROTOCOL_VERSION, &stamps[db]) != TBS_ST_OK)
                return std::nullopt;
        return daemon != nullptr ? std::optional(stamps) : std::nullopt;
    }

    // The standby looks by itself, in its interval. Updates are held anew each time before the two are compared: what
    // the former master takes because a copy lasts longer than they are held has to be copied, too.
    int copy() {
        for (int64_t left_ms = settings_.timeout.count(); left_ms > 0 && !are_waits_over();
             left_ms -= between_looks_ms) {
            if (const int status = hold(); status != exit_done)
                return status;
            const auto wanted = stamps_of(former_);
            if (!wanted)
                return fail("The stamps could not be had of", former_, TBS_ST_RPC_FAILED);
            const auto present = stamps_of(next_);
            if (present && memcmp(present->data(), wanted->data(), sizeof *wanted) == 0) {
                told("copy", next_, "done");
                return exit_done;
            }
            poll(nullptr, 0, between_looks_ms);
        }
        RegistryState state;
        const auto status = state.ask(next_, settings_);
        tell_failure(TBS_ST_TRY_AGAIN, next_,
                     "Host '%s' has not come to have what the master has: %s. Nothing has changed; see --timeout\n",
                     next_.c_str(),
                     status != TBS_ST_OK       ? tbs_strerror(status)
                     : *state->failure != '\0' ? state->failure
                                               : "its copy is not done yet");
        return exit_failed;
    }

    // A promotion that is not answered may still be made, so that no update is taken meanwhile which the next master
    // would not have.
    int leave_held() {
        is_held_ = false;
        tell_failure(
            TBS_ST_RPC_FAILED, next_,
            "Host '%s' did not answer whether it is the master now. Updates stay held for two minutes at most; "
            "the same command goes on from here\n",
            next_.c_str());
        return exit_unreachable;
    }

    int promote() {
        const Broker daemon = reach_quietly(next_, settings_);
        const auto status = daemon == nullptr
                                ? tbs_status_t{TBS_ST_RPC_FAILED}
                                : rvzd_rgy_svr_conf_change(daemon.get(), RGY_PROTOCOL_VERSION, RGY_CONF_PROMOTE, "");
        if (status != TBS_ST_OK && !has_become_master())
            return daemon != nullptr && status == TBS_ST_RPC_FAILED ? leave_held()
                                                                    : fail("It could not be promoted:", next_, status);
        told("promote", next_, status == TBS_ST_OK ? "done" : "was done");
        return exit_done;
    }

    // By a turn that broke off while it was being promoted.
    bool has_become_master() {
        RegistryState state;
        return state.ask(next_, settings_) == TBS_ST_OK && state->role == RGY_SVR_MASTER && state->takes_updates != 0;
    }

    // Only who is on the master's list may copy it, where it has one: the former master is on none.
    void enlist() {
        const auto listed = backup_hosts_of(next_, settings_);
        std::string list = joined(listed, " ");
        for (const auto &host : hosts_) {
            RegistryState state;
            const bool is_known =
                is_same_host(host, next_) ||
                std::any_of(listed.begin(), listed.end(), [&](const auto &other) { return is_same_host(host, other); });
            if (!is_known && state.ask(host, settings_) == TBS_ST_OK && state->role != RGY_SVR_NONE)
                list += " " + host;
        }
        const Broker daemon = reach_quietly(next_, settings_);
        if (!listed.empty() && daemon != nullptr && list.size() <= RGY_WIRE_HOST_LIST_MAX)
            rvzd_rgy_set_backup(daemon.get(), RGY_PROTOCOL_VERSION, list.c_str());
    }

    // A turn to another host may have begun behind this one, and what it makes of the hosts is not undone: it holds the
    // updates here, or has made its own host the master. One that does not answer cannot have been asked to.
    bool is_overtaken() {
        RegistryState state;
        if (state.ask(next_, settings_) != TBS_ST_OK ||
            (state->role == RGY_SVR_MASTER && (state->takes_updates != 0 || *state->failure != '\0')))
            return false;
        tell_failure(TBS_ST_TRY_AGAIN, next_,
                     "Host '%s' became the master, and another turn of the site has begun since: which host is the "
                     "master is told by \"veliactl doctor\"\n",
                     next_.c_str());
        return true;
    }
    // Who was made the master behind it, or at the same time, is not made its standby.
    bool is_behind(const rvzd_registry_state_reply_t &other) {
        RegistryState state;
        if (state.ask(next_, settings_) != TBS_ST_OK || tbs_uuid_eq(&state->registry, &other.registry) == 0 ||
            other.term < state->term)
            return false;
        tell_failure(TBS_ST_TRY_AGAIN, next_,
                     "Host '%s' is the master, too, by term %llu: decide for one of both, and run: veliactl site "
                     "master HOST\n",
                     other.master, static_cast<unsigned long long>(other.term));
        return true;
    }

    // Every other host that takes itself for the master; a host may have several names.
    int demote() {
        enlist();
        int exit_status = exit_done;
        for (const auto &host : hosts_) {
            RegistryState state;
            if (is_same_host(host, next_) || state.ask(host, settings_) != TBS_ST_OK || state->role != RGY_SVR_MASTER ||
                is_same_host(state->master, next_) || serve_one_store(host, next_, settings_))
                continue;
            is_other_master_ = is_overtaken() || is_behind(*state);
            if (is_other_master_)
                return exit_failed;
            const auto status = order(host, RVZD_TURN_FOLLOW, next_);
            told("demote", host,
                 status == TBS_ST_OK ? "done" : "run there: veliactl registry demote --follow " + next_);
            if (status != TBS_ST_OK)
                exit_status = exit_failed;
        }
        return exit_status;
    }

    int follow() {
        int exit_status = exit_done;
        for (const auto &host : hosts_) {
            if (is_overtaken())
                return exit_failed;
            const auto turned = turn_host(host, next_, settings_);
            told("follow", host, turned.is_done ? "done" : turned.told);
            if (!turned.is_done)
                exit_status = exit_failed;
        }
        return exit_status;
    }

    const std::string next_;
    const std::string name_;
    const bool is_forced_;
    const Settings &settings_;
    Results results_;
    std::string former_; // empty: none answers
    std::vector<std::string> hosts_;
    bool is_promoted_ = false;
    bool is_held_ = false;
    bool is_other_master_ = false; // by another turn, which then is the one that counts
    bool is_at_end_ = false;       // all steps were gone, though one may have left something to do
};

int turn_site(const Arguments &arguments, const Settings &settings) {
    return Turn(arguments, settings).run();
}

} // namespace

Broker reach_quietly(const std::string &host, const Settings &settings) {
    constexpr int is_quiet = 1;
    begin_wait(settings.timeout);
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle_prim_proto(host.c_str(), RVZD_PROTOCOL_UDP, 1, is_quiet, &handle) != TBS_ST_OK)
        return {nullptr, rvzd_free_handle};
    return {handle, rvzd_free_handle};
}

tbs_status_t RegistryState::ask(rvzd_handle_t *daemon) {
    rvzd_registry_state_free(&reply_);
    return rvzd_registry_state(daemon, nullptr, 0, "", &reply_);
}

tbs_status_t RegistryState::ask(const std::string &host, const Settings &settings) {
    const Broker daemon = reach_quietly(host, settings);
    return daemon == nullptr ? tbs_status_t{TBS_ST_RPC_FAILED} : ask(daemon.get());
}

std::string name_of_role(int32_t role) {
    for (const auto *row = rgy_svrtype_table; row->text != nullptr; ++row)
        if (row->value == role)
            return row->text;
    return "";
}

Cell text_or_none(const char *text) {
    return text != nullptr && *text != '\0' ? Cell(text) : Cell();
}

bool is_same_host(const std::string &one, const std::string &other) {
    return strcasecmp(one.c_str(), other.c_str()) == 0;
}

bool serve_one_store(const std::string &one, const std::string &other, const Settings &settings) {
    std::array<std::array<tbs_uuid_t, 2>, 2> names = {};
    for (size_t i = 0; i < names.size(); ++i) {
        const Broker daemon = reach_quietly(i == 0 ? one : other, settings);
        rgy_dtm_pair_t pair = {};
        if (daemon == nullptr ||
            rvzd_rgy_get_dtm(daemon.get(), 0, RGY_PROTOCOL_VERSION, &pair, &names[i][0], &names[i][1]) != TBS_ST_OK)
            return false;
    }
    return memcmp(&names[0], &names[1], sizeof names[0]) == 0;
}

std::string master_over(const std::string &host, const Settings &settings) {
    RegistryState state;
    if (state.ask(host, settings) != TBS_ST_OK)
        return "";
    const tbs_uuid_t registry = state->registry;
    const std::string source = state->source;
    std::vector<std::string> hosts;
    append_hosts(hosts, source + " " + state->master + " " + state->heard_host);
    for (const auto &other : hosts_of_site(host, settings))
        append_hosts(hosts, other);
    // Whom it copies from counts also before it has noticed whose registry it has by now.
    const auto is_of_same_registry = [&](const std::string &other) {
        return is_same_host(other, source) || tbs_uuid_eq(&registry, &state->registry) != 0;
    };
    for (const auto &other : hosts)
        if (!is_same_host(other, host) && state.ask(other, settings) == TBS_ST_OK && state->role == RGY_SVR_MASTER &&
            state->heard_term <= state->term && is_of_same_registry(other) && !is_same_host(state->master, host))
            return other;
    return "";
}

std::vector<std::string> backup_hosts_of(const std::string &host, const Settings &settings) {
    std::vector<std::string> hosts;
    std::array<char, RGY_WIRE_HOST_LIST_MAX + 1> list = {};
    char *text = list.data();
    const Broker daemon = reach_quietly(host, settings);
    if (daemon != nullptr && rvzd_rgy_get_backup(daemon.get(), RGY_PROTOCOL_VERSION, &text) == TBS_ST_OK)
        append_hosts(hosts, list.data());
    return hosts;
}

std::vector<std::string> hosts_of_site(const std::string &host, const Settings &settings) {
    std::vector<std::string> hosts;
    append_hosts(hosts, names_in_hosts_file());
    for (const auto &backup : backup_hosts_of(host, settings))
        append_hosts(hosts, backup);
    append_hosts(hosts, sysutl_myhostname());
    return hosts;
}

// This host's file is written here; it need not have a daemon.
HostTurned turn_host(const std::string &host, const std::string &master, const Settings &settings) {
    if (is_same_host(host, sysutl_myhostname()))
        return {rgy_clnt_conf_change(RGY_CONF_SET_HOST, master.c_str()) == TBS_ST_OK, "its hosts file was not written"};
    const Broker daemon = reach_quietly(host, settings);
    const auto status = daemon == nullptr ? tbs_status_t{TBS_ST_RPC_FAILED}
                                          : rvzd_rgy_clnt_conf_change(daemon.get(), RGY_PROTOCOL_VERSION,
                                                                      RGY_CONF_SET_HOST, master.c_str());
    return {status == TBS_ST_OK, "run there: veliactl registry hosts --master " + master};
}

const Commands site_commands = commands;

} // namespace velia::cli
