// veliactl doctor: a walk over the set-up of a host.
#include <cli/doctor.h>

#include <algorithm>
#include <utility>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/waits.h>
#include <support/imsg.h>
#include <support/sysutl.h>

namespace velia::cli {

namespace {

constexpr Duration answer_max = std::chrono::seconds(5); // of one host, of which there may be many

constexpr HostCheck checks[] = {
    {"name", false, look_at_names},
    {"port", true, look_at_port},
    {"directories", true, look_at_directories},
    {"private-files", true, look_at_private_files},
    {"role", true, look_at_role_file},
    {"local-road", true, look_at_local_road},
    {"address", false, look_at_addresses},
    {"daemon", false, look_at_daemon},
    {"clients", false, look_at_clients},
    {"clock", false, look_at_clocks},
    {"term", false, look_at_terms},
    {"copy", false, look_at_copy},
    {"hosts-file", true, look_at_hosts_file},
    {"database", true, look_at_database},
};

constexpr const char *health_names[] = {"ok", "warn", "fail"};

struct Arguments {
    std::string host;
};

Options options_of(Arguments &arguments) {
    return {{.name = "HOST", .help = "the host (default: this one)", .target = &arguments.host}};
}

int examine(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {{"check", Type::text, "what was looked at"},
                              {"subject", Type::text, "which host, file or address"},
                              {"status", Type::text, "ok, warn or fail"},
                              {"finding", Type::text, "how it is"},
                              {"advice", Type::text, "what to do about it", true}};
constexpr Output output = {Output::Shape::list, columns};

constexpr const char *notes =
    R"(Of this host everything is looked at: its name and addresses, the port and its marker file, directories and files with
their rights, the role, the socket for callers of this host and the addresses, the list of client hosts, the clock against
those of the other hosts of the site, terms, the hosts file against who is the master, and the database, each page of it. Run
it as the daemon's user, who may read all that. Of another host what its daemon tells. Nothing is changed.

The exit status is 0 where nothing failed, 3 where the daemon does not answer, and 1 where something else failed.
)";

constexpr Command commands[] = {
    {.path = "doctor",
     .help = "Look over the set-up of a host, and tell what is wrong and what to do",
     .examples = {"veliactl doctor", "veliactl doctor build8",
                  "veliactl doctor --output jsonl | jq 'select(.status != \"ok\")'"},
     .notes = notes,
     .make = call_of<examine, options_of>,
     .output = &output},
};

std::string one_line(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

// What the library says meanwhile is a finding, too: of a line that it does not understand, of a file that it cannot
// read.
std::vector<HostFinding> findings_of(const HostCheck &check, Visit &visit) {
    std::vector<HostFinding> heard;
    hear(
        [&](const Heard &message) {
            if (message.severity == IMSG_WARNING || message.severity == IMSG_ERROR)
                heard.push_back({Health::warn, visit.host(), one_line(message.text), ""});
        },
        [&] { check.look(visit); });
    auto findings = visit.take_findings();
    heard.insert(heard.end(), findings.begin(), findings.end());
    return heard;
}

int examine(const Arguments &arguments, const Settings &settings) {
    const std::string own = sysutl_myhostname();
    const bool is_here = arguments.host.empty() || is_same_host(arguments.host, own);
    Visit visit(is_here ? own : arguments.host, is_here, settings);
    Results results(output, settings);
    bool has_failed = false;
    for (const auto &check : checks) {
        if (check.is_of_this_host && !is_here)
            continue;
        for (const auto &finding : findings_of(check, visit)) {
            has_failed = has_failed || finding.health == Health::fail;
            results.add({check.name, finding.subject, health_names[static_cast<int>(finding.health)], finding.finding,
                         text_or_none(finding.advice.c_str())});
        }
        if (are_waits_over() || !results.pause())
            return exit_failed;
    }
    results.finish();
    return !visit.ask(visit.host()).is_there() ? exit_unreachable : has_failed ? exit_failed : exit_done;
}

} // namespace

Visit::Visit(std::string host, bool is_here, const Settings &settings)
    : host_(std::move(host)), is_here_(is_here), settings_(settings) {
    settings_.timeout = std::min(settings.timeout, answer_max);
}

void Visit::ok(const std::string &subject, const std::string &finding) {
    findings_.push_back({Health::ok, subject, finding, ""});
}

void Visit::warn(const std::string &subject, const std::string &finding, const std::string &advice) {
    findings_.push_back({Health::warn, subject, finding, advice});
}

void Visit::fail(const std::string &subject, const std::string &finding, const std::string &advice) {
    findings_.push_back({Health::fail, subject, finding, advice});
}

std::vector<HostFinding> Visit::take_findings() {
    return std::exchange(findings_, {});
}

const Commands doctor_commands = commands;

} // namespace velia::cli
