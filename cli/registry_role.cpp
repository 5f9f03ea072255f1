// veliactl registry promote and demote: which host is the site's master registry.
#include <cli/registry.h>

#include <array>
#include <iostream>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cli/choices.h>
#include <support/imsg.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_role.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::cli {

namespace {

constexpr const char *promote_footer = R"(Examples:
  veliactl registry promote          # on the standby
  veliactl registry promote build8   # from a client, which follows the new master then

Without HOST this host, which must be a standby, becomes the master. With HOST the standby there becomes it, and this
host takes it for its registry. A former master that still runs has to be demoted on its own host.
)";
constexpr const char *demote_footer = R"(Examples:
  veliactl registry demote
  veliactl registry demote --to backup --output json

This host, which must be the master, steps down, and follows the registry that it followed before it was promoted.
)";

// Keeps what the library says on standard output out of the results: it goes where messages go.
class MessagesAside {
public:
    MessagesAside() : output_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)) {
        std::cout.flush();
        if (output_ >= 0)
            dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    ~MessagesAside() {
        if (output_ < 0)
            return;
        dup2(output_, STDOUT_FILENO);
        close(output_);
    }
    MessagesAside(const MessagesAside &) = delete;
    MessagesAside &operator=(const MessagesAside &) = delete;

private:
    int output_;
};

// What this host could not write into its own hosts file afterwards is not promoted.
std::string check_host_word(const std::string &host) {
    const bool is_word = !host.empty() && host.find_first_of(" \t\r\n\v\f") == std::string::npos;
    return is_word && host.size() <= RVZD_HOST_NAME_MAX
               ? ""
               : fmt::format("a host is one word of {} characters at most", int{RVZD_HOST_NAME_MAX});
}

std::vector<std::string> servers_that_are_no_master() {
    std::vector<std::string> names;
    for (const auto *type = rgy_svrtype_table; type->text != nullptr; ++type)
        if (type->value != RGY_SVR_NONE && type->value != RGY_SVR_MASTER)
            names.emplace_back(type->text);
    return names;
}

int32_t type_of_name(const std::string &name) {
    for (const auto *type = rgy_svrtype_table; type->text != nullptr; ++type)
        if (name == type->text)
            return type->value;
    return RGY_SVR_NONE;
}

int print_role_of(const std::string &host, const std::string &role, const Settings &settings) {
    Results results({"host", "role"});
    results.add({host, role});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

// Why is told by the library.
int print_unchanged(const std::string &host, tbs_status_t status) {
    imsg_print(IMSG_ERROR, "The role of host '%s' was not changed: %s\n", IMSG_FORMAT, host.c_str(),
               tbs_strerror(status));
    return status == TBS_ST_NOT_FOUND ? exit_unreachable : exit_status_of(status);
}

template <class Change>
int change_role(const std::string &host, const std::string &role, const Settings &settings, Change &&change) {
    tbs_status_t status = TBS_ST_OK;
    {
        const MessagesAside aside;
        status = change();
    }
    return status == TBS_ST_OK ? print_role_of(host, role, settings) : print_unchanged(host, status);
}

int promote(const std::string &host, const Settings &settings) {
    const std::string role = rgy_svrtype_table[RGY_SVR_MASTER].text;
    if (host.empty())
        return change_role(sysutl_myhostname(), role, settings, [] { return rgy_change_server_type(RGY_SVR_MASTER); });
    return change_role(host, role, settings, [&] { return rgy_promote_standby_svr(host.c_str()); });
}

int demote(const std::string &role, const Settings &settings) {
    const std::string host = sysutl_myhostname();
    if (rgy_get_svr_type() != RGY_SVR_MASTER) {
        imsg_print(IMSG_ERROR, "Host '%s' is not the master registry server\n", IMSG_FORMAT, host.c_str());
        return exit_failed;
    }
    return change_role(host, role, settings, [&] { return rgy_change_server_type(type_of_name(role)); });
}

} // namespace

void add_registry_role(CLI::App &group, Settings &settings, Command &chosen) {
    auto host = std::make_shared<std::string>();
    CLI::App *promoting = group.add_subcommand("promote", "Make a standby registry server the master");
    promoting->add_option("HOST", *host, "the standby (default: this host)")
        ->type_name("")
        ->check(CLI::Validator(check_host_word, ""));
    add_common_options(*promoting, settings);
    promoting->footer(std::string(promote_footer) + "\n" + exit_status_help);
    promoting->callback([host, &chosen] { chosen = [host](const Settings &given) { return promote(*host, given); }; });

    auto role = std::make_shared<std::string>(rgy_svrtype_table[RGY_SVR_STANDBY].text);
    CLI::App *demoting = group.add_subcommand("demote", "Let this host, the master registry server, step down");
    demoting->add_option("--to", *role, "what it becomes: slave, backup or standby")
        ->type_name("ROLE")
        ->capture_default_str()
        ->check(one_of(servers_that_are_no_master()));
    add_common_options(*demoting, settings);
    demoting->footer(std::string(demote_footer) + "\n" + exit_status_help);
    demoting->callback([role, &chosen] { chosen = [role](const Settings &given) { return demote(*role, given); }; });
}

} // namespace velia::cli
