// Life and death of servers: starts, time-outs, exits, restarts. Whatever kills a server leaves nobody waiting for it.
#include <server/broker/server_table.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include <server/messages.h>

namespace velia::server {

namespace {

constexpr int64_t down_first_ms = 250; // how long a service stays down after its first failure; doubles with each
constexpr int64_t down_most_ms = 60000;
constexpr int64_t end_grace_ms = 10000;          // from cutting the lifeline to killing
constexpr int64_t scrub_interval_ms = 5000;      // how often servers that started by themselves are looked after
constexpr int64_t restarts_forgiven_ms = 600000; // a resident server that ran so long starts with a clean record

int64_t down_time_ms(uint32_t failures) {
    int64_t time_ms = down_first_ms;
    for (uint32_t i = 1; i < failures && time_ms < down_most_ms; ++i)
        time_ms *= 2;
    return std::min(time_ms, down_most_ms);
}

void print_exit(const Process &process, const ServerTable::ExitStatus &status) {
    const auto name = process.name();
    const int pid = process.pid;
    if (status.signal_number != 0)
        print(IMSG_WARNING, MSG_SERVER_SIGNALLED, name.c_str(), pid, status.signal_number);
    else if (status.code != 0)
        print(IMSG_WARNING, MSG_SERVER_EXIT_STATUS, name.c_str(), pid, static_cast<int>(status.code));
    else
        print(IMSG_PLAIN, MSG_SERVER_EXITED, name.c_str(), pid);
}

std::string last_component(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

} // namespace

void ServerTable::configure(const std::vector<Service> &services, Moment now) {
    const Step step(*this);
    std::vector<ServicePointer> taken;
    for (const auto &service : services) {
        const auto kept = std::find_if(services_.begin(), services_.end(),
                                       [&](const ServicePointer &known) { return known->service == service; });
        taken.push_back(kept != services_.end() ? *kept : std::make_shared<ServiceState>(ServiceState{service}));
    }
    for (const auto &known : services_)
        known->is_removed = std::find(taken.begin(), taken.end(), known) == taken.end();
    services_ = std::move(taken);
    for (auto &[pid, process] : processes_)
        if (process.service != nullptr && process.service->is_removed)
            end(process, now);
    start_residents(now);
}

Process *ServerTable::start(const ServicePointer &service, const FindRequest &request, Moment now) {
    const LaunchResult launched = launcher_.launch(service->service);
    if (launched.pid == 0) {
        print(IMSG_ERROR, launched.message, launched.detail.c_str());
        mark_down(*service, now);
        return nullptr;
    }
    Process &process = processes_[launched.pid];
    process = {};
    process.pid = launched.pid;
    process.service = service;
    process.since = process.started = now;
    process.uuid = request.uuid;
    process.path = request.path;
    process.client = request.client;
    print(IMSG_PLAIN, MSG_EXECUTING, service->service.path.c_str(), static_cast<int>(launched.pid),
          client_name(request.client).c_str());
    return &process;
}

void ServerTable::mark_down(ServiceState &service, Moment now) {
    service.down_until = now + down_time_ms(++service.failures);
}

void ServerTable::end(Process &process, Moment now) {
    if (process.state == ProcessState::ending || process.service == nullptr)
        return;
    process.state = ProcessState::ending;
    process.since = now;
    launcher_.cut_lifeline(process.pid);
    fail_waiters(process);
}

void ServerTable::fail_waiters(Process &process) {
    const auto waiters = std::exchange(process.waiters, {});
    for (const auto &waiter : waiters)
        waiter.done(FindAnswer{});
}

void ServerTable::process_exited(int32_t pid, const ExitStatus &status, Moment now) {
    const Step step(*this);
    const auto found = processes_.find(pid);
    if (found == processes_.end())
        return;
    Process process = std::move(found->second);
    processes_.erase(found);
    print_exit(process, status);
    if (process.state == ProcessState::starting) {
        print(IMSG_ERROR, MSG_DIED_ON_STARTUP, process.name().c_str(), static_cast<int>(pid), process.place().c_str());
        mark_down(*process.service, now);
    }
    fail_waiters(process);
    if (process.service != nullptr && process.service->service.kind == ServerKind::resident)
        after_resident_exit(process.service, process.started, now);
}

void ServerTable::after_resident_exit(const ServicePointer &service, Moment started, Moment now) {
    if (service->is_removed || service->is_disabled || service->is_exhausted || is_shutting_down_)
        return;
    if (now - started >= restarts_forgiven_ms)
        service->restarts = 0;
    if (service->restarts >= service->service.control.restarts_max) {
        service->is_exhausted = true;
        print(IMSG_ERROR, MSG_RESTARTS_EXCEEDED, service->service.path.c_str());
        return;
    }
    service->down_until = std::max(service->down_until, now + down_time_ms(++service->restarts));
}

void ServerTable::start_residents(Moment now) {
    static const FindRequest own_request = {};
    for (const auto &service : services_) {
        if (service->service.kind != ServerKind::resident || is_shutting_down_)
            continue;
        while (service->may_start(now) && count_of(service) < service->service.control.processes_max)
            if (start(service, own_request, now) == nullptr)
                after_resident_exit(service, now, now);
    }
}

tbs_status_t ServerTable::toggle_restart(const std::string &name, bool enable, Moment now) {
    const Step step(*this);
    bool is_known = false;
    for (const auto &service : services_) {
        if (service->service.path != name && last_component(service->service.path) != name)
            continue;
        is_known = true;
        service->is_disabled = !enable;
        if (enable) {
            service->is_exhausted = false;
            service->restarts = service->failures = 0;
            service->down_until = now;
        }
    }
    if (!is_known)
        return TBS_ST_NOT_FOUND;
    print(IMSG_PLAIN, enable ? MSG_RESTART_ENABLED : MSG_RESTART_DISABLED, name.c_str());
    start_residents(now);
    return TBS_ST_OK;
}

// When something has to be done about the process, if ever.
std::optional<Moment> ServerTable::due_of(const Process &process) const {
    if (process.service == nullptr)
        return std::nullopt;
    const Control &control = process.service->service.control;
    const bool is_registered = process.state != ProcessState::starting && process.state != ProcessState::ending;
    if (is_registered && !process.waiters.empty()) // for a transport that has not been registered
        return process.started + int64_t{control.start_s} * 1000;
    switch (process.state) {
    case ProcessState::starting:
        return process.since + int64_t{control.start_s} * 1000;
    case ProcessState::offered:
        return process.since + int64_t{control.busy_s} * 1000;
    case ProcessState::ending:
        return process.since + end_grace_ms;
    case ProcessState::idle:
        if (control.idle_s == 0 || process.service->service.kind == ServerKind::resident)
            return std::nullopt;
        return process.since + int64_t{control.idle_s} * 1000;
    case ProcessState::busy:
        break;
    }
    return std::nullopt;
}

// Whoever looks a server up need not call it, so silence alone is no fault: a call that waits in its sockets is, and a
// process that has been busy with something else all the while.
void ServerTable::take_offer_back(Process &process, Moment now) {
    const bool is_stuck = !launcher_.waits_for_calls(process.pid, process.served_ports(), now - process.started);
    if (is_stuck)
        print(IMSG_WARNING, process.has_reported ? MSG_CLIENT_NEVER_CAME : MSG_NEVER_BUSY, process.name().c_str(),
              static_cast<int>(process.pid), client_name(process.client).c_str(), process.place().c_str());
    if (is_stuck && !process.has_reported) {
        mark_down(*process.service, now);
        end(process, now);
        return;
    }
    process.state = ProcessState::idle;
    process.since = now;
    process.offers = 0;
}

void ServerTable::run_due(Process &process, Moment now) {
    const int pid = process.pid;
    const bool is_registered = process.state != ProcessState::starting && process.state != ProcessState::ending;
    if (is_registered && !process.waiters.empty())
        return fail_waiters(process);
    switch (process.state) {
    case ProcessState::starting: // It never registered. Its exit is told, and marks the service as down.
    case ProcessState::ending:
        fail_waiters(process);
        process.since = now; // and again after as long, should it not die of it
        if (const int error_number = launcher_.kill_now(pid))
            print(IMSG_ERROR, MSG_CANNOT_KILL, pid, imsg_strerror(error_number));
        return;
    case ProcessState::offered:
        return take_offer_back(process, now);
    case ProcessState::idle:
        return end(process, now);
    case ProcessState::busy:
        return;
    }
}

void ServerTable::scrub(Moment now) {
    next_scrub_ = now + scrub_interval_ms;
    std::erase_if(processes_, [&](const auto &entry) {
        if (entry.second.service != nullptr || launcher_.exists(entry.first))
            return false;
        print(IMSG_PLAIN, MSG_SCRUBBED, static_cast<int>(entry.first));
        return true;
    });
}

void ServerTable::run_due(Moment now) {
    const Step step(*this);
    for (auto &[pid, process] : processes_)
        if (const auto due = due_of(process); due && *due <= now)
            run_due(process, now);
    if (now >= next_scrub_)
        scrub(now);
    start_residents(now);
}

std::optional<Moment> ServerTable::next_due() const {
    std::optional<Moment> next;
    const auto consider = [&](std::optional<Moment> moment) {
        if (moment && (!next || *moment < *next))
            next = moment;
    };
    for (const auto &[pid, process] : processes_)
        consider(process.service != nullptr ? due_of(process) : next_scrub_);
    for (const auto &service : services_) {
        const bool is_wanted = service->service.kind == ServerKind::resident && !service->is_disabled &&
                               !service->is_exhausted && !is_shutting_down_ &&
                               count_of(service) < service->service.control.processes_max;
        if (is_wanted)
            consider(service->down_until);
    }
    return next;
}

void ServerTable::shut_down(Moment now) {
    const Step step(*this);
    is_shutting_down_ = true;
    for (auto &[pid, process] : processes_)
        end(process, now);
}

void ServerTable::kill_remaining() {
    for (auto &[pid, process] : processes_)
        if (process.service != nullptr)
            launcher_.kill_now(pid);
}

bool ServerTable::has_children() const {
    return std::any_of(processes_.begin(), processes_.end(),
                       [](const auto &entry) { return entry.second.service != nullptr; });
}

} // namespace velia::server
