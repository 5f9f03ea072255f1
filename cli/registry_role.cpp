// veliactl registry promote and demote: which host is the site's master registry.
#include <cli/registry.h>

#include <array>
#include <fstream>

#include <netdb.h>
#include <sys/socket.h>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/site.h>
#include <support/imsg.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::cli {

namespace {

struct Promotion {
    std::string host;
    bool is_forced = false;
};

// What this host could not write into its own hosts file afterwards is not promoted.
std::string fault_of_host_word(const std::string &host) {
    const bool is_word = !host.empty() && host.find_first_of(" \t\r\n\v\f") == std::string::npos;
    return is_word && host.size() <= RVZD_HOST_NAME_MAX
               ? ""
               : "a host is one word of " + std::to_string(RVZD_HOST_NAME_MAX) + " characters at most";
}

Options promotion_options(Promotion &promotion) {
    return {{.name = "HOST",
             .help = "the standby (default: this host)",
             .target = &promotion.host,
             .fault = fault_of_host_word},
            {.name = "--force",
             .help = "also while another host is the master and takes updates",
             .target = &promotion.is_forced}};
}

struct Demotion {
    std::string role = rgy_svrtype_table[RGY_SVR_STANDBY].text;
    std::string follow;
};

Choices servers_that_are_no_master() {
    static const auto names = [] {
        std::vector<const char *> all;
        for (const auto *type = rgy_svrtype_table; type->text != nullptr; ++type)
            if (type->value != RGY_SVR_NONE && type->value != RGY_SVR_MASTER)
                all.push_back(type->text);
        return all;
    }();
    return names;
}

Options demotion_options(Demotion &demotion) {
    return {{.name = "--to",
             .type = "ROLE",
             .help = "what it becomes: slave, backup or standby",
             .target = &demotion.role,
             .words = servers_that_are_no_master(),
             .shows_default = true},
            {.name = "--follow",
             .type = "HOST",
             .help = "the master that it copies from then (default: the one before its promotion)",
             .target = &demotion.follow,
             .fault = fault_of_host_word}};
}

int promote(const Promotion &promotion, const Settings &settings);
int demote(const Demotion &demotion, const Settings &settings);

constexpr const char *promotion_notes =
    R"(Without HOST this host, which must be a standby, becomes the master. With HOST the standby there becomes it, and this
host takes it for its registry. While the host that the standby copies from takes updates, this is refused: "veliactl site
master HOST" makes the turn without losing an update, and --force promotes all the same; the former master hears of the
higher term and takes no updates any more. The other hosts of the site follow, or are told with the command to run there.
)";
constexpr const char *demotion_notes =
    R"(This host, which must be the master, steps down, and follows HOST, or without it the registry that it followed before
it was promoted. It is refused where that would leave it copying from itself, or from a host that is no master.
)";

constexpr Column columns[] = {{"host", Type::text, "whose role was changed"}, {"role", Type::text, "that it has now"}};
constexpr Output output = {Output::Shape::one, columns};

constexpr Command commands[] = {
    {.path = "registry promote",
     .help = "Make a standby registry server the master",
     .examples = {"veliactl registry promote          # on the standby",
                  "veliactl registry promote build8   # from a client, which follows the new master then"},
     .notes = promotion_notes,
     .make = call_of<promote, promotion_options>,
     .output = &output},
    {.path = "registry demote",
     .help = "Let this host, the master registry server, step down",
     .examples = {"veliactl registry demote --follow build8", "veliactl registry demote --to backup --output json"},
     .notes = demotion_notes,
     .make = call_of<demote, demotion_options>,
     .output = &output},
};

int32_t type_of_name(const std::string &name) {
    for (const auto *type = rgy_svrtype_table; type->text != nullptr; ++type)
        if (name == type->text)
            return type->value;
    return RGY_SVR_NONE;
}

int print_role_of(const std::string &host, const std::string &role, const Settings &settings) {
    Results results(output, settings, Results::Of::change);
    results.add({host, role});
    results.finish();
    return exit_done;
}

// Why is told by the library.
int print_unchanged(const std::string &host, tbs_status_t status) {
    tell_failure(status, host, "The role of host '%s' was not changed: %s\n", host.c_str(), tbs_strerror(status));
    return status == TBS_ST_NOT_FOUND ? exit_unreachable : exit_status_of(status);
}

template <class Change>
int change_role(const std::string &host, const std::string &role, const Settings &settings, Change &&change) {
    const tbs_status_t status = change();
    return status == TBS_ST_OK ? print_role_of(host, role, settings) : print_unchanged(host, status);
}

// A daemon that is not asked this way is promoted as it always was.
bool is_master_gone(const std::string &standby, const Settings &settings) {
    const std::string source = master_over(standby, settings);
    if (source.empty())
        return true;
    tell_failure(TBS_ST_UNSUPPORTED, source,
                 "Host '%s' is the master and takes updates. \"veliactl site master %s\" makes the turn without losing "
                 "one; --force promotes all the same\n",
                 source.c_str(), standby.c_str());
    return false;
}

// Whoever cannot be made to follow from here is told how.
void turn_others(const std::string &master, const Settings &settings) {
    for (const auto &host : hosts_of_site(master, settings)) {
        if (is_same_host(host, sysutl_myhostname()))
            continue;
        const auto turned = turn_host(host, master, settings);
        if (!turned.is_done)
            imsg_print(IMSG_WARNING, "Host '%s' does not follow '%s' yet; %s\n", IMSG_FORMAT, host.c_str(),
                       master.c_str(), turned.told.c_str());
    }
}

int promote(const Promotion &promotion, const Settings &settings) {
    const std::string role = rgy_svrtype_table[RGY_SVR_MASTER].text;
    const std::string host = promotion.host.empty() ? sysutl_myhostname() : promotion.host;
    const bool is_standby = !promotion.host.empty() || rgy_get_svr_type() == RGY_SVR_STANDBY;
    if (is_standby && !promotion.is_forced && !is_master_gone(host, settings))
        return exit_failed;
    const int status = promotion.host.empty()
                           ? change_role(host, role, settings, [] { return rgy_change_server_type(RGY_SVR_MASTER); })
                           : change_role(host, role, settings, [&] { return rgy_promote_standby_svr(host.c_str()); });
    if (status == exit_done)
        turn_others(host, settings);
    return status;
}

// Whom this host would copy from: the one that is given, the one that took over, or the one before its promotion.
std::string host_to_follow(const Demotion &demotion, const std::string &host, const Settings &settings) {
    if (!demotion.follow.empty())
        return demotion.follow;
    RegistryState state;
    return state.ask(host, settings) == TBS_ST_OK ? state->heard_host : "";
}

// The first word of the hosts file from before the promotion.
std::string former_master() {
    std::array<char, TBS_PATH_SIZE> path = {};
    if (generate_backup_pathname(registry_configuration_pathname(), path.data()) != TBS_ST_OK)
        return "";
    std::ifstream file(path.data());
    std::string master;
    file >> master;
    return master;
}

tbs_status_t demote_to_follow(const std::string &host, const std::string &role, const std::string &master) {
    rgy_svr_conf_change(host.c_str(), RGY_CONF_DEMOTE, "");
    const auto status = rgy_clnt_conf_change(RGY_CONF_SET_HOST, master.c_str());
    return status == TBS_ST_OK ? rgy_set_svr_type(type_of_name(role)) : status;
}

bool has_address(const std::string &host) {
    addrinfo *list = nullptr;
    const bool is_known = sysutl_host_addr(host.c_str(), nullptr, SOCK_DGRAM, &list) == 0;
    if (is_known)
        freeaddrinfo(list);
    return is_known;
}

// Whoever copies itself, from this host at last, would leave the site without a master. One that is down may be the
// master when it comes back.
bool may_be_followed(const std::string &master, const Settings &settings) {
    if (master.empty())
        return true; // the library tells why
    if (!has_address(master)) {
        tell_failure(TBS_ST_NOT_FOUND, master, "There is no host '%s'\n", master.c_str());
        return false;
    }
    RegistryState state;
    if (const auto status = state.ask(master, settings); status == TBS_ST_OK && state->role != RGY_SVR_MASTER) {
        tell_failure(TBS_ST_UNSUPPORTED, master,
                     "Host '%s' is no master, but: %s. \"veliactl site master %s\" makes it the master, and this host "
                     "its standby\n",
                     master.c_str(), name_of_role(state->role).c_str(), master.c_str());
        return false;
    }
    const std::string host = sysutl_myhostname();
    const bool is_other_host = state->master == nullptr || !is_same_host(state->master, host);
    if (is_other_host && serve_one_store(host, master, settings)) {
        tell_failure(TBS_ST_UNSUPPORTED, master,
                     "Host '%s' serves the same registry, which is in a database: none of its hosts is a copy\n",
                     master.c_str());
        return false;
    }
    return true;
}

int demote(const Demotion &demotion, const Settings &settings) {
    const std::string &role = demotion.role;
    const std::string host = sysutl_myhostname();
    if (rgy_get_svr_type() != RGY_SVR_MASTER) {
        tell_failure(TBS_ST_UNSUPPORTED, host, "Host '%s' is not the master registry server\n", host.c_str());
        return exit_failed;
    }
    const std::string master = host_to_follow(demotion, host, settings);
    if (is_same_host(master.empty() ? former_master() : master, host)) {
        tell_failure(TBS_ST_INVALID_ARG, host,
                     "Host '%s' would copy from itself: give the master that it is to follow with --follow\n",
                     host.c_str());
        return exit_failed;
    }
    if (!may_be_followed(master.empty() ? former_master() : master, settings))
        return exit_failed;
    if (!master.empty())
        return change_role(host, role, settings, [&] { return demote_to_follow(host, role, master); });
    return change_role(host, role, settings, [&] { return rgy_change_server_type(type_of_name(role)); });
}

} // namespace

const Commands registry_role_commands = commands;

} // namespace velia::cli
