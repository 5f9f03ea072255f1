// veliactl registry promote and demote: which host is the site's master registry.
#include <cli/registry.h>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <support/imsg.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::cli {

namespace {

struct Promotion {
    std::string host;
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
             .fault = fault_of_host_word}};
}

struct Demotion {
    std::string role = rgy_svrtype_table[RGY_SVR_STANDBY].text;
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
             .shows_default = true}};
}

int promote(const Promotion &promotion, const Settings &settings);
int demote(const Demotion &demotion, const Settings &settings);

constexpr const char *promotion_notes =
    R"(Without HOST this host, which must be a standby, becomes the master. With HOST the standby there becomes it, and this
host takes it for its registry. A former master that still runs has to be demoted on its own host.
)";
constexpr const char *demotion_notes =
    R"(This host, which must be the master, steps down, and follows the registry that it followed before it was promoted.
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
     .examples = {"veliactl registry demote", "veliactl registry demote --to backup --output json"},
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

int promote(const Promotion &promotion, const Settings &settings) {
    const std::string &host = promotion.host;
    const std::string role = rgy_svrtype_table[RGY_SVR_MASTER].text;
    if (host.empty())
        return change_role(sysutl_myhostname(), role, settings, [] { return rgy_change_server_type(RGY_SVR_MASTER); });
    return change_role(host, role, settings, [&] { return rgy_promote_standby_svr(host.c_str()); });
}

int demote(const Demotion &demotion, const Settings &settings) {
    const std::string &role = demotion.role;
    const std::string host = sysutl_myhostname();
    if (rgy_get_svr_type() != RGY_SVR_MASTER) {
        tell_failure(TBS_ST_UNSUPPORTED, host, "Host '%s' is not the master registry server\n", host.c_str());
        return exit_failed;
    }
    return change_role(host, role, settings, [&] { return rgy_change_server_type(type_of_name(role)); });
}

} // namespace

const Commands registry_role_commands = commands;

} // namespace velia::cli
