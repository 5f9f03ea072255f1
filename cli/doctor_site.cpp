// What the daemons of a site tell, of one of its hosts and of how it stands to the others.
#include <cli/doctor.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <support/stg.h>
#include <support/sysutl.h>
#include <veliaxdr/rvzd_hosts.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

namespace {

constexpr int64_t clock_warn_s = 5;   // what is told of times is not worth much then
constexpr int64_t clock_fail_s = 300; // nor are schedules
constexpr int64_t lag_warn_s = 300;

std::string seconds(int64_t count) {
    return std::to_string(count) + (count == 1 ? " second" : " seconds");
}

// What a host's clock is ahead of ours, beyond the time in which the question may have been answered.
int64_t ahead_of(int64_t theirs, int64_t before, int64_t after) {
    return theirs > after ? theirs - after : theirs < before ? theirs - before : 0;
}

// 0, or why it is not answered.
int connect_within(const sockaddr *address, socklen_t length, Duration timeout) {
    const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return errno;
    int error_number = connect(fd, address, length) == 0 ? 0 : errno;
    if (error_number == EINPROGRESS) {
        pollfd writable = {fd, POLLOUT, 0};
        socklen_t size = sizeof error_number;
        if (poll(&writable, 1, static_cast<int>(timeout.count())) != 1)
            error_number = ETIMEDOUT;
        else
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &error_number, &size);
    }
    close(fd);
    return error_number;
}

void look_at_address(Visit &visit, const addrinfo &entry, uint16_t port) {
    ks_sockaddr_storage_t address = {};
    memcpy(&address, entry.ai_addr, std::min<size_t>(entry.ai_addrlen, sizeof address));
    sysutl_sockaddr_set_port(&address.base, port);
    const std::string text = text_of_address(address);
    const int error_number =
        connect_within(&address.base, sysutl_sockaddr_size(&address.base), visit.settings().timeout);
    if (error_number == 0)
        visit.ok(text, "accepts connections");
    else
        visit.warn(text, std::string("accepts no connection: ") + imsg_strerror(error_number),
                   "start the daemon, let it listen there, or see what is between");
}

// Whoever is said to be a master and takes updates.
bool is_master(const HostAnswer &answer) {
    return answer.is_there() && answer.registry->role == RGY_SVR_MASTER && answer.registry->takes_updates != 0;
}

bool is_copy(const HostAnswer &answer) {
    const int32_t role = answer.registry->role;
    return answer.is_there() && role != RGY_SVR_MASTER && role != RGY_SVR_NONE;
}

bool is_same_registry(const HostAnswer &one, const HostAnswer &other) {
    return tbs_uuid_eq(&one.registry->registry, &other.registry->registry) != 0;
}

const char *no_answer = "its daemon does not answer";

// Whom this host's hosts file names first.
std::string registry_in_hosts_file() {
    std::array<std::array<char, RVZD_HOST_NAME_MAX + 1>, 2> names = {};
    size_t lengths[2];
    registry_prop_get_hostnames_local(names[0].size(), names[1].size(), &lengths[0], &lengths[1], names[0].data(),
                                      names[1].data());
    return names[0].data();
}

void look_at_named_master(Visit &visit, const std::string &master) {
    const auto &answer = visit.ask(master);
    if (!answer.is_there())
        return visit.fail(master, "is the registry by the hosts file, and does not answer",
                          "start its daemon, or name another: veliactl registry hosts --master HOST");
    if (answer.registry->role == RGY_SVR_NONE)
        return visit.fail(master, "is the registry by the hosts file, and has none",
                          "veliactl registry hosts --master HOST");
    if (answer.registry->heard_term > answer.registry->term)
        return visit.fail(master,
                          "is the registry by the hosts file, and was superseded by " +
                              std::string(answer.registry->heard_host),
                          "veliactl registry hosts --master " + std::string(answer.registry->heard_host));
    if (answer.registry->role != RGY_SVR_MASTER)
        return visit.fail(master,
                          "is the registry by the hosts file, and copies from " + std::string(answer.registry->source),
                          "veliactl registry hosts --master " + std::string(answer.registry->source));
    visit.ok(master, "is the master, as the hosts file says");
}

// A master that does not know its standby cannot tell it, nor ask it after its own absence.
void look_at_masters_list(Visit &visit, const std::string &master) {
    const auto &own = visit.ask(visit.host());
    const bool is_standby = is_copy(own) && visit.ask(master).is_there();
    const auto &hosts = visit.other_hosts();
    for (const auto &host : hosts)
        if (!visit.ask(host).is_there() && !is_same_host(host, master))
            visit.warn(host, "belongs to the site by the hosts file or the list of backup hosts, and does not answer",
                       "start its daemon, or take it out: veliactl registry backup HOSTS");
    if (!is_standby)
        return;
    const auto listed = backup_hosts_of(master, visit.settings());
    const bool is_listed = std::any_of(listed.begin(), listed.end(),
                                       [&](const std::string &host) { return is_same_host(host, visit.host()); });
    if (is_listed)
        visit.ok(visit.host(), "is in the master's list of backup hosts");
    else
        visit.warn(visit.host(), "copies the registry, and is not in the master's list of backup hosts",
                   "add it: veliactl registry backup HOSTS, all of them with commas between");
}

// Where all of them answer, so that it is none of those that do not.
bool is_without_master(Visit &visit) {
    const auto &hosts = visit.other_hosts();
    return std::all_of(hosts.begin(), hosts.end(), [&](const std::string &host) {
        const auto &answer = visit.ask(host);
        return answer.is_there() && answer.registry->role != RGY_SVR_MASTER;
    });
}

} // namespace

const HostAnswer &Visit::ask(const std::string &host) {
    if (const auto known = answers_.find(host); known != answers_.end())
        return known->second;
    HostAnswer &answer = answers_[host];
    const Broker daemon = reach_quietly(host, settings_);
    if (daemon == nullptr)
        return answer;
    const int64_t before = time(nullptr);
    answer.status = answer.registry.ask(daemon.get());
    if (answer.is_there())
        answer.ahead_s = ahead_of(answer.registry->now, before, time(nullptr));
    return answer;
}

const std::vector<std::string> &Visit::other_hosts() {
    if (!has_other_hosts_) {
        const std::string source = ask(host_).is_there() ? ask(host_).registry->source : "";
        other_hosts_ = hosts_of_site(host_, settings_);
        if (!source.empty() && std::none_of(other_hosts_.begin(), other_hosts_.end(),
                                            [&](const auto &other) { return is_same_host(other, source); }))
            other_hosts_.push_back(source);
        std::erase_if(other_hosts_, [&](const auto &other) { return is_same_host(other, host_); });
        has_other_hosts_ = true;
    }
    return other_hosts_;
}

void look_at_addresses(Visit &visit) {
    uint16_t port = 0;
    rvzd_get_port(nullptr, &port, AF_UNSPEC);
    addrinfo *list = nullptr;
    if (sysutl_host_addr(visit.host().c_str(), nullptr, SOCK_STREAM, &list) != 0)
        return; // which is told of its name
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
    for (const addrinfo *entry = list; entry != nullptr; entry = entry->ai_next)
        look_at_address(visit, *entry, port);
}

void look_at_daemon(Visit &visit) {
    const auto &answer = visit.ask(visit.host());
    if (answer.status == TBS_ST_UNSUPPORTED)
        return visit.warn(visit.host(), "its daemon does not tell of its state", "install a newer one");
    if (!answer.is_there())
        return visit.fail(visit.host(), std::string(no_answer) + ": " + tbs_strerror(answer.status),
                          "start rvzd_server there");
    if (answer.registry->role == RGY_SVR_MASTER && *answer.registry->failure != '\0')
        return visit.fail(visit.host(), std::string("its registry cannot be reached: ") + answer.registry->failure,
                          "see to the database in which it is");
    constexpr tbs_uuid_t none = {};
    if (answer.registry->role != RGY_SVR_NONE && tbs_uuid_eq(&answer.registry->registry, &none) != 0)
        return visit.fail(visit.host(), "it has a role, but serves no registry", "see its log, which tells why");
    visit.ok(visit.host(), "its daemon answers: " + name_of_role(answer.registry->role));
}

void look_at_clients(Visit &visit) {
    const Broker daemon = visit.ask(visit.host()).is_there() ? reach_quietly(visit.host(), visit.settings())
                                                             : Broker(nullptr, rvzd_free_handle);
    if (daemon == nullptr)
        return;
    int32_t position = 0;
    tbs_boolean_t is_finished = 0;
    uint32_t count = 0;
    clnt_entry_t *entries = nullptr;
    const auto status = rvzd_clnt_list_get(daemon.get(), 0, 0, &position, &is_finished, &count, &entries);
    for (uint32_t i = 0; status == TBS_ST_OK && i < count; ++i)
        rvzd_hostinfo_free(entries[i].hostinfo);
    if (status == TBS_ST_OK)
        stg_free(entries);
    if (status != TBS_ST_OK)
        return visit.fail(visit.host(), std::string("the list of its clients cannot be had: ") + tbs_strerror(status),
                          "see its log, and its file host/priv/clients");
    visit.ok(visit.host(), "tells of its clients");
}

void look_at_clocks(Visit &visit) {
    auto hosts = visit.other_hosts();
    hosts.insert(hosts.begin(), visit.host());
    for (const auto &host : hosts) {
        const auto &answer = visit.ask(host);
        if (!answer.is_there())
            continue;
        const int64_t off = std::abs(answer.ahead_s);
        const std::string finding =
            "its clock is " + seconds(off) + (answer.ahead_s > 0 ? " ahead of" : " behind") + " this host's";
        const char *advice = "set the clocks by one source of time";
        if (off >= clock_fail_s)
            visit.fail(host, finding, advice);
        else if (off >= clock_warn_s)
            visit.warn(host, finding, advice);
        else
            visit.ok(host, "its clock goes like this host's");
    }
}

void look_at_terms(Visit &visit) {
    const auto &own = visit.ask(visit.host());
    if (!own.is_there() || own.registry->role == RGY_SVR_NONE)
        return;
    const auto &state = *own.registry;
    if (state.role == RGY_SVR_MASTER && state.heard_term > state.term)
        return visit.fail(visit.host(),
                          "was superseded: " + std::string(state.heard_host) + " is the master, by term " +
                              std::to_string(state.heard_term),
                          is_same_host(state.heard_host, visit.host())
                              ? "its registry is an older one; to go on with it, run: veliactl registry promote " +
                                    visit.host() + " --force"
                              : "run there: veliactl registry demote --follow " + std::string(state.heard_host));
    for (const auto &host : visit.other_hosts()) {
        const auto &other = visit.ask(host);
        if (!is_master(own) || !is_master(other) || !is_same_registry(own, other))
            continue;
        if (is_same_host(own.registry->master, other.registry->master)) // another name of this host
            continue;
        if (serve_one_store(visit.host(), host, visit.settings()))
            continue;
        return visit.fail(host, "it takes updates, and so does " + visit.host(),
                          "decide which is the master, and run: veliactl site master HOST --force");
    }
    if (state.role != RGY_SVR_MASTER && is_without_master(visit))
        return visit.fail(visit.host(), "no host of the site is the master of its registry",
                          "make one of them the master: veliactl site master HOST");
    visit.ok(visit.host(), "term " + std::to_string(state.term));
}

void look_at_copy(Visit &visit) {
    const auto &own = visit.ask(visit.host());
    if (!is_copy(own))
        return;
    const auto &state = *own.registry;
    const int64_t lag = state.now - state.current;
    const std::string source = state.source;
    if (*state.failure != '\0')
        visit.fail(visit.host(), "it cannot copy from " + source + ": " + state.failure,
                   "see whether " + source + " answers and is the master");
    else if (state.current == 0)
        visit.warn(visit.host(), "it has not been like " + source + " yet", "wait for its first copy");
    else if (lag > lag_warn_s)
        visit.warn(visit.host(), "it was like " + source + " " + seconds(lag) + " ago", "see its log");
    else
        visit.ok(visit.host(), "it is like " + source);
}

void look_at_hosts_file(Visit &visit) {
    const std::string path = path_below_root("host/config/rgy_hosts.conf");
    const std::string master = registry_in_hosts_file();
    if (master.empty())
        return visit.warn(path, "names no registry", "veliactl registry hosts --master HOST");
    look_at_named_master(visit, master);
    look_at_masters_list(visit, master);
}

} // namespace velia::cli
