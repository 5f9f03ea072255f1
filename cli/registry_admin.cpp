// veliactl registry backup, check and passwd: the site's list of backup hosts, and the password that guards changes.
#include <cli/registry.h>

#include <array>
#include <sstream>

#include <cli/commands.h>
#include <cli/daemon_program.h>
#include <cli/messages.h>
#include <cli/password.h>
#include <cli/results.h>
#include <support/imsg.h>
#include <veliaxdr/rgy_manage.h>
#include <veliaxdr/rgy_wire.h>

namespace velia::cli {

namespace {

constexpr const char *prompt = "Registry password: ";

struct Backup {
    std::optional<std::string> hosts; // an empty list is one, too
};

std::string fault_of_host_list(const std::string &hosts) {
    return hosts.size() <= RGY_WIRE_HOST_LIST_MAX
               ? ""
               : "a list of backup hosts has " + std::to_string(RGY_WIRE_HOST_LIST_MAX) + " characters at most";
}

Options backup_options(Backup &backup) {
    return {{.name = "HOSTS",
             .help = "the new list, with commas between the hosts; '' for none",
             .target = &backup.hosts,
             .fault = fault_of_host_list}};
}

Option password_file_option(std::string &file) {
    return {.name = "--password-file",
            .type = "FILE",
            .help = "file whose first line is the password; - for standard input (default: the terminal, or standard "
                    "input if that is none)",
            .target = &file};
}

struct Check {
    std::string db;
    std::string host;
    std::string password_file;
};

Options check_options(Check &check) {
    Option db = db_place(check.db);
    db.help = "database, by name or number (default: privileged changes of tags)";
    db.is_required = false;
    return {db, registry_host_option(check.host), password_file_option(check.password_file)};
}

struct Passwd {
    std::string daemon;
    std::string password_file;
};

Options passwd_options(Passwd &passwd) {
    return {
        password_file_option(passwd.password_file),
        {.name = "--server",
         .type = "FILE",
         .help = "the daemon's program, which keeps the password (default: rvzd_server beside veliactl, or on PATH)",
         .target = &passwd.daemon}};
}

int show_or_set_backup(const Backup &backup, const Settings &settings);
int check_access(const Check &check, const Settings &settings);
int set_password(const Passwd &passwd, const Settings &settings);

constexpr Column backup_columns[] = {{"backup", Type::texts, "the backup hosts"}};
constexpr Output backup_output = {Output::Shape::one, backup_columns};
constexpr Column check_columns[] = {{"change", Type::text, "of what: tags, or a database"},
                                    {"access", Type::text, "granted, denied, or no password"}};
constexpr Output check_output = {Output::Shape::one, check_columns};
constexpr Column passwd_columns[] = {{"action", Type::text, "password set, or password removed"}};
constexpr Output passwd_output = {Output::Shape::one, passwd_columns};

constexpr Command commands[] = {
    {.path = "registry backup",
     .help = "Show the site's list of backup hosts, or set it",
     .examples = {"veliactl registry backup", "veliactl registry backup build8,build9"},
     .make = call_of<show_or_set_backup, backup_options>,
     .output = &backup_output},
    {.path = "registry check",
     .help = "Tell whether the registry lets you change tags, or a database, with a password",
     .examples = {"veliactl registry check", "veliactl registry check vault_tag --password-file secret --output json"},
     .make = call_of<check_access, check_options>,
     .output = &check_output},
    {.path = "registry passwd",
     .help = "Set the registry password of this host's daemon; an empty one removes it. Typed twice, or read once",
     .examples = {"veliactl registry passwd", "veliactl registry passwd < secret"},
     .make = call_of<set_password, passwd_options>,
     .output = &passwd_output},
};

Cells list_cell(const std::string &text) {
    Cells hosts;
    std::string words = text;
    for (char &c : words)
        if (c == ',')
            c = ' ';
    std::istringstream stream(words);
    for (std::string host; stream >> host;)
        hosts.emplace_back(host);
    return hosts;
}

int print_failure(const char *what, tbs_status_t status) {
    tell_failure(status, registry_of(""), "%s: %s\n", what, tbs_strerror(status));
    return exit_status_of_request(status);
}

int show_or_set_backup(const Backup &backup, const Settings &settings) {
    if (backup.hosts) {
        const auto set = rgy_set_current_backup(backup.hosts->c_str());
        if (set != TBS_ST_OK)
            return print_failure("The list of backup hosts was not changed", set);
    }
    std::array<char, RGY_WIRE_HOST_LIST_MAX + 1> hosts = {};
    char *place = hosts.data();
    const auto status = rgy_get_current_backup(&place);
    if (status != TBS_ST_OK)
        return print_failure("The list of backup hosts could not be had", status);
    Results results(backup_output, settings, backup.hosts ? Results::Of::change : Results::Of::look);
    results.add({list_cell(hosts.data())});
    results.finish();
    return exit_done;
}

// A typed password for tags is asked for by the library itself, to which an empty one means just that.
bool get_password(const Check &check, Password &password) {
    if (is_typed(check.password_file))
        return check.db.empty() || password.ask(prompt);
    if (!password.read(check.password_file.empty() ? "-" : check.password_file))
        return false;
    if (!password.is_empty() || !check.db.empty())
        return true;
    tell_failure(TBS_ST_INVALID_ARG, "", "The password is empty\n");
    return false;
}

tbs_status_t ask_registry(const Check &check, Password &password) {
    const char *host = check.host.empty() ? nullptr : check.host.c_str();
    return check.db.empty() ? rgy_chk_tag_priv(host, password.text())
                            : rgy_chk_access(*db_of_name(check.db), host, password.text());
}

const char *access_of(tbs_status_t status) {
    switch (status) {
    case TBS_ST_OK:
        return "granted";
    case TBS_ST_NO_ACCESS:
        return "denied";
    case TBS_ST_NOT_FOUND:
        return "no password";
    default:
        return nullptr;
    }
}

// Not found is what a registry without a password says, and what an unknown host is. Why is told by the library.
bool is_reached(const std::string &host) {
    rgy_timestamp_t *stamp = nullptr;
    const auto status = rgy_create_timestamp(RGY_DB_VAULT_TAG, host.empty() ? nullptr : host.c_str(), &stamp);
    if (stamp != nullptr)
        rgy_destroy_timestamp(&stamp);
    return status == TBS_ST_OK;
}

int check_access(const Check &check, const Settings &settings) {
    if (!is_reached(check.host))
        return exit_unreachable;
    Password password;
    if (!get_password(check, password))
        return exit_failed;
    const auto status = ask_registry(check, password);
    const char *access = access_of(status);
    if (access == nullptr)
        return print_failure("The access could not be checked", status);
    Results results(check_output, settings);
    results.add({check.db.empty() ? "tags" : check.db, access});
    results.finish();
    return status == TBS_ST_OK ? exit_done : exit_failed;
}

bool ask_twice(Password &password) {
    Password again;
    if (!password.ask("New registry password: ") || !again.ask("Once more: "))
        return false;
    if (password == again)
        return true;
    tell_failure(TBS_ST_INVALID_ARG, "", "The passwords differ; nothing was changed\n");
    return false;
}

int set_password(const Passwd &passwd, const Settings &settings) {
    Password password;
    const bool has_password = is_typed(passwd.password_file)
                                  ? ask_twice(password)
                                  : password.read(passwd.password_file.empty() ? "-" : passwd.password_file);
    if (!has_password)
        return exit_failed;
    const std::string program = daemon_program(passwd.daemon);
    const auto end = run_program(program, {"--set-registry-password"}, password.text(), Errors::shown);
    if (end.status != 0) {
        const std::string why =
            end.status < 0 ? imsg_strerror(end.error_number) : "exit status " + std::to_string(end.status);
        tell_failure(TBS_ST_ERROR, "", "The registry password was not changed: %s: %s\n", program.c_str(), why.c_str());
        return exit_failed;
    }
    Results results(passwd_output, settings, Results::Of::change);
    results.add({password.is_empty() ? "password removed" : "password set"});
    results.finish();
    return exit_done;
}

} // namespace

const Commands registry_admin_commands = commands;

} // namespace velia::cli
