// Finding: which process answers a request. A server that can answer now is preferred, then one that is starting, then
// a new one, and last one that is busy already.
#include <server/broker/server_table.h>

#include <algorithm>
#include <array>
#include <unistd.h>

#include <common/require.h>
#include <server/messages.h>

namespace velia::server {

namespace {

void answer_status(const FindDone &done, tbs_status_t status) {
    FindAnswer answer;
    answer.status = status;
    done(answer);
}

void print_unknown(const FindRequest &request) {
    std::array<char, TBS_UUID_STR_SIZE> uuid;
    print_of_stranger(IMSG_WARNING, MSG_UNKNOWN_SERVER, static_cast<unsigned>(request.trait.prog),
                      static_cast<int>(request.trait.vers), static_cast<int>(request.trait.proto),
                      tbs_uuid_to_str(&request.uuid, uuid.data()), printable(request.path).c_str(),
                      client_name(request.client).c_str());
}

bool is_started(const Process &process) {
    return process.state != ProcessState::starting && process.state != ProcessState::ending;
}

// A server that started by itself answers for the uuid and path under which it registered; without a uuid, or without a
// path, for any.
enum class Match { none, wrong_uuid, wrong_path, full };

Match match_of(const Process &process, const Registration &registration, const FindRequest &request) {
    const bool uuid_fits = is_nil(registration.uuid) || tbs_uuid_eq(&registration.uuid, &request.uuid) ||
                           process.answers_for(request.uuid);
    const bool path_fits = registration.path.empty() || registration.path == request.path;
    if (uuid_fits && path_fits)
        return Match::full;
    if (!uuid_fits && !path_fits)
        return Match::none;
    return uuid_fits ? Match::wrong_path : Match::wrong_uuid;
}

void print_mismatch(Match match, const Process &process, const FindRequest &request) {
    std::array<char, TBS_UUID_STR_SIZE> uuid;
    tbs_uuid_to_str(&request.uuid, uuid.data());
    const auto name = process.name();
    if (match == Match::wrong_uuid)
        print_of_stranger(IMSG_WARNING, MSG_WRONG_UUID, name.c_str(), printable(request.path).c_str(), uuid.data());
    else if (match == Match::wrong_path)
        print_of_stranger(IMSG_WARNING, MSG_WRONG_PATH, client_name(request.client).c_str(), name.c_str(), uuid.data(),
                          printable(request.path).c_str());
}

} // namespace

ServerTable::ServicePointer ServerTable::service_of(const rvzd_rpc_trait_t &trait) const {
    const auto found = std::find_if(services_.begin(), services_.end(), [&](const ServicePointer &service) {
        return service->service.serves(trait.prog, trait.vers, trait.proto);
    });
    return found != services_.end() ? *found : nullptr;
}

uint32_t ServerTable::count_of(const ServicePointer &service) const {
    return static_cast<uint32_t>(std::count_if(processes_.begin(), processes_.end(), [&](const auto &entry) {
        return entry.second.service == service && entry.second.state != ProcessState::ending;
    }));
}

size_t ServerTable::waiter_count() const {
    size_t count = 0;
    for (const auto &[pid, process] : processes_)
        count += process.waiters.size();
    return count;
}

size_t ServerTable::waiter_count_of(const Sender::Host &host) const {
    ptrdiff_t count = 0;
    for (const auto &[pid, process] : processes_)
        count += std::count_if(process.waiters.begin(), process.waiters.end(),
                               [&](const Waiter &waiter) { return host_of(waiter.request.client) == host; });
    return static_cast<size_t>(count);
}

// A program of the configuration is served by what the daemon starts, and by the user as whom it would.
bool ServerTable::may_serve(const rvzd_rpc_trait_t &trait, std::optional<uid_t> user) const {
    const auto service = service_of(trait);
    return service == nullptr || user == service->service.user.value_or(geteuid());
}

// Of several the administrator's goes first, then the one that has been registered longest: nobody takes clients from
// another by registering after him.
Process *ServerTable::self_started_for(const FindRequest &request) {
    const auto order = [](const Process &process, const Registration &registration) {
        const bool is_administrators = process.user == uid_t{0} || process.user == geteuid();
        return std::pair(!is_administrators, registration.cookie);
    };
    Match nearest = Match::none;
    const Process *nearest_process = nullptr;
    Process *best = nullptr;
    const Registration *best_registration = nullptr;
    for (auto &[pid, process] : processes_) {
        const Registration *registration =
            process.service == nullptr ? process.registration_of(request.trait) : nullptr;
        if (registration == nullptr || !may_serve(request.trait, process.user))
            continue;
        const Match match = match_of(process, *registration, request);
        if (match != Match::none && match != Match::full) {
            nearest = match;
            nearest_process = &process;
        }
        if (match == Match::full &&
            (best == nullptr || order(process, *registration) < order(*best, *best_registration))) {
            best = &process;
            best_registration = registration;
        }
    }
    if (best == nullptr && nearest_process != nullptr && service_of(request.trait) == nullptr)
        print_mismatch(nearest, *nearest_process, request);
    return best;
}

// The process of the service that should answer, or null where a new one has to be started for it.
Process *ServerTable::process_for(const ServicePointer &service, const FindRequest &request) {
    const bool is_dedicated = service->service.kind == ServerKind::dedicated;
    const bool has_room = count_of(service) < service->service.control.processes_max;
    // Lower is better; a busy server only where no other may be started.
    const auto rank = [](const Process &process) {
        switch (process.state) {
        case ProcessState::idle:
            return 0;
        case ProcessState::offered:
            return 1;
        case ProcessState::starting:
            return 2;
        default:
            return 3;
        }
    };
    Process *best = nullptr;
    for (auto &[pid, process] : processes_) {
        if (process.service != service || process.state == ProcessState::ending)
            continue;
        if (is_dedicated) {
            if (process.path == request.path && process.answers_for(request.uuid))
                return &process;
            continue;
        }
        if (process.state == ProcessState::busy && has_room && service->service.kind == ServerKind::shared)
            continue;
        const auto key = [&](const Process &one) { return std::pair(rank(one), one.offers + one.waiters.size()); };
        if (best == nullptr || key(process) < key(*best))
            best = &process;
    }
    return best;
}

void ServerTable::require_sound() const {
    require(processes_.size() <= PROCESSES_MAX);
    require(waiter_count() <= WAITERS_MAX);
    for (const auto &[pid, process] : processes_) {
        require(pid == process.pid);
        process.require_sound();
        for (const Registration &registration : process.registrations)
            require(registration.cookie > 0 && registration.cookie <= last_cookie_);
    }
}

void ServerTable::find(const FindRequest &request, Moment now, const FindDone &done) {
    const Step step(*this);
    if (Process *process = self_started_for(request))
        return serve(*process, request, now, done);
    const auto service = service_of(request.trait);
    if (service == nullptr) {
        print_unknown(request);
        return answer_status(done, TBS_ST_NOT_FOUND);
    }
    find_in_service(service, request, now, done);
}

void ServerTable::find_in_service(const ServicePointer &service, const FindRequest &request, Moment now,
                                  const FindDone &done) {
    Process *process = process_for(service, request);
    if (process != nullptr)
        return serve(*process, request, now, done);
    if (is_shutting_down_ || !service->may_start(now))
        return answer_status(done, TBS_ST_ERROR);
    if (count_of(service) >= service->service.control.processes_max || processes_.size() >= PROCESSES_MAX) {
        print_of_stranger(IMSG_WARNING, MSG_TOO_FEW_SERVERS, service->service.path.c_str());
        return answer_status(done, TBS_ST_ERROR);
    }
    process = start(service, request, now);
    if (process == nullptr)
        return answer_status(done, TBS_ST_ERROR);
    serve(*process, request, now, done);
}

void ServerTable::serve(Process &process, const FindRequest &request, Moment now, const FindDone &done) {
    const Registration *registration = process.registration_of(request.trait);
    if (registration != nullptr)
        return offer(process, *registration, request, now, done);
    // A server registers its transports one after the other; one that has had its time will not register this one.
    const int64_t start_ms = int64_t{process.service->service.control.start_s} * 1000;
    if (is_started(process) && now - process.started >= start_ms)
        return answer_status(done, TBS_ST_ERROR);
    if (waiter_count() >= WAITERS_MAX || waiter_count_of(host_of(request.client)) >= HOST_WAITERS_MAX)
        return answer_status(done, TBS_ST_TRY_AGAIN);
    if (imsg_get_desired_verbosity() >= 1 && imsg_should_trace("xdr/rvzd", 1))
        print(IMSG_TRACE, MSG_WAITING);
    process.client = request.client;
    process.waiters.push_back({request, done});
}

void ServerTable::offer(Process &process, const Registration &registration, const FindRequest &request, Moment now,
                        const FindDone &done) {
    ++process.offers;
    process.client = request.client;
    // Only servers of ours are watched for their reports; the time runs from the first offer that was not taken up.
    if (process.service != nullptr && process.state != ProcessState::busy && process.state != ProcessState::offered) {
        process.state = ProcessState::offered;
        process.since = now;
    }
    done({TBS_ST_OK, registration.uuid, registration.path, registration.ports});
}

} // namespace velia::server
