// veliactl probe: which of many hosts are there at all. Hosts and their addresses are all tried at once, so that one
// that is silent holds up nobody.
#include <cli/commands.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <netdb.h>
#include <sys/resource.h>

#include <cli/messages.h>
#include <cli/parallel.h>
#include <cli/results.h>
#include <cli/waits.h>
#include <support/imsg.h>
#include <support/sysutl.h>
#include <veliaxdr/rvzd_messages.h>
#include <veliaxdr/rvzd_probe.h>

namespace velia::cli {

namespace {

constexpr size_t threads_max = 512;
constexpr size_t descriptors_a_thread = 2; // its socket; the resolver's have come and gone before, two at a time
constexpr size_t other_descriptors = 16;

using Hosts = std::vector<std::string>;

Options options_of(Hosts &hosts) {
    return {{.name = "HOST", .help = "host names", .target = &hosts, .is_required = true}};
}

int probe_hosts(const Hosts &hosts, const Settings &settings);

constexpr Column columns[] = {{"host", Type::text, "as it was given"},
                              {"state", Type::text, "up, down or unknown"},
                              {"time_ms", Type::number, "how long it took to tell", true},
                              {"address", Type::text, "that answered, or was waited for longest", true}};
constexpr Output output = {Output::Shape::list, columns};

constexpr const char *notes =
    R"(A host is up if it accepts a TCP connection on port 371, the well-known port of brokers, at one of its addresses.
Nothing is sent, and whatever listens there counts; a broker that the site keeps on another port is not found, ask it
with "veliactl contact". A host that is silent is down after 0.9 seconds, or --timeout if that is shorter; 512 addresses are tried
at once, fewer where "ulimit -n" is below 1040.

States: up; down (silent, or it refuses); unknown (no such name). With any host that is not up the exit status is 3.
)";

constexpr Command commands[] = {
    {.path = "probe",
     .help = "Tell within a second which of many hosts are up, by TCP port 371",
     .examples = {"veliactl probe build7 build8 pluto",
                  "veliactl probe --output json $(cat hosts) | jq -r '.[] | select(.state != \"up\").host'"},
     .notes = notes,
     .make = call_of<probe_hosts, options_of>,
     .output = &output},
};

// One address of one host.
struct Trial {
    size_t host;
    std::string address; // as text: the probe asks the system's resolver, which does not know the site's own names
    bool is_up = false;
    double elapsed_ms = 0;
};

std::vector<std::string> addresses_of(const std::string &host) {
    addrinfo *list = nullptr;
    const int code = sysutl_host_addr(host.c_str(), nullptr, SOCK_STREAM, &list);
    if (code != 0) {
        tell_failure_by(TBS_ST_NOT_FOUND, host, [&] {
            imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_UNKNOWN_HOST, host.c_str(), gai_strerror(code));
        });
        return {};
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
    std::vector<std::string> addresses;
    for (const addrinfo *entry = list; entry != nullptr; entry = entry->ai_next) {
        std::array<char, SYSUTL_ADDRESS_TEXT_SIZE> text;
        if (sysutl_host_numeric(entry->ai_addr, text.size(), text.data(), 0, 0) == 0)
            addresses.emplace_back(text.data());
    }
    return addresses;
}

// A host for which no descriptor is left would pass for down.
size_t threads_allowed() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return threads_max;
    const size_t spare = limit.rlim_cur > other_descriptors ? limit.rlim_cur - other_descriptors : 0;
    return std::clamp<size_t>(spare / descriptors_a_thread, 1, threads_max);
}

std::vector<Trial> trials_of(const Hosts &hosts, Duration timeout) {
    std::vector<std::vector<std::string>> addresses(hosts.size());
    for_each_at_once(hosts.size(), threads_allowed(), [&](size_t i) {
        begin_wait(timeout);
        addresses[i] = addresses_of(hosts[i]);
    });
    std::vector<Trial> trials;
    for (size_t i = 0; i < hosts.size(); ++i)
        for (const auto &address : addresses[i])
            trials.push_back({i, address});
    return trials;
}

void probe(Trial &trial) {
    const auto start = std::chrono::steady_clock::now();
    trial.is_up = rvzd_nonblock_connect_ping(trial.address.c_str()) != 0;
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    trial.elapsed_ms = elapsed.count();
}

// What tells most of a host: the first of its addresses to answer, or else the one that took longest to say nothing.
bool tells_more(const Trial &trial, const Trial &other) {
    if (trial.is_up != other.is_up)
        return trial.is_up;
    return trial.is_up ? trial.elapsed_ms < other.elapsed_ms : trial.elapsed_ms > other.elapsed_ms;
}

void add_host(const std::string &host, const std::optional<Trial> &trial, Results &results) {
    if (!trial)
        results.add({host, "unknown", nullptr, nullptr});
    else
        results.add({host, trial->is_up ? "up" : "down", Cell::milliseconds(trial->elapsed_ms), trial->address});
}

int probe_hosts(const Hosts &hosts, const Settings &settings) {
    auto trials = trials_of(hosts, settings.timeout);
    for_each_at_once(trials.size(), threads_allowed(), [&](size_t i) {
        begin_wait(settings.timeout);
        probe(trials[i]);
    });
    std::vector<std::optional<Trial>> best(hosts.size());
    for (const auto &trial : trials)
        if (!best[trial.host] || tells_more(trial, *best[trial.host]))
            best[trial.host] = trial;
    Results results(output, settings);
    bool are_all_up = true;
    for (size_t i = 0; i < hosts.size(); ++i) {
        add_host(hosts[i], best[i], results);
        are_all_up = are_all_up && best[i] && best[i]->is_up;
    }
    results.finish();
    return are_all_up ? exit_done : exit_unreachable;
}

} // namespace

const Commands probe_commands = commands;

} // namespace velia::cli
