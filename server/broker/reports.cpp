// What servers tell of themselves: who they are, idle, busy, further uuids.
#include <server/broker/server_table.h>

#include <algorithm>
#include <array>

#include <server/messages.h>

namespace velia::server {

namespace {

std::string ports_text(const rvzd_server_port_list_t &ports) {
    std::string text;
    for (uint32_t i = 0; i < std::min<uint32_t>(ports.count, RVZD_SERVER_PORTS_MAX); ++i)
        text += (ports.ports[i].family == AF_INET6 ? " ipv6/" : " ipv4/") + std::to_string(ports.ports[i].port);
    return text;
}

void print_invalid(const ServerTable::RegisterRequest &request) {
    std::array<char, TBS_UUID_STR_SIZE> uuid;
    print_of_stranger(IMSG_WARNING, MSG_INVALID_REGISTER, static_cast<unsigned>(request.trait.prog),
                      static_cast<int>(request.trait.vers), static_cast<int>(request.trait.proto),
                      tbs_uuid_to_str(&request.uuid, uuid.data()), printable(request.path).c_str(),
                      static_cast<int>(request.pid), ports_text(request.ports).c_str());
}

void trace_register(const ServerTable::RegisterRequest &request) {
    if (imsg_get_desired_verbosity() < 1 || !imsg_should_trace("xdr/rvzd", 1))
        return;
    std::array<char, TBS_UUID_STR_SIZE> uuid;
    print(IMSG_TRACE, MSG_REGISTERED, static_cast<unsigned long>(request.trait.prog),
          static_cast<long>(request.trait.vers), static_cast<long>(request.trait.proto),
          tbs_uuid_to_str(&request.uuid, uuid.data()), printable(request.path).c_str(), static_cast<int>(request.pid),
          ports_text(request.ports).c_str());
}

bool has_usable_ports(const rvzd_server_port_list_t &ports) {
    if (ports.count == 0 || ports.count > RVZD_SERVER_PORTS_MAX)
        return false;
    return std::all_of(ports.ports, ports.ports + ports.count,
                       [](const auto &port) { return port.port > 0 && port.port <= UINT16_MAX; });
}

} // namespace

Process *ServerTable::find_process(int32_t pid) {
    const auto found = processes_.find(pid);
    return found != processes_.end() ? &found->second : nullptr;
}

// A server of ours may only be what it was started as. One that started by itself may be what it likes, but the daemon
// itself and what the configuration gives to another user, and it has to exist.
bool ServerTable::is_welcome(const RegisterRequest &request, const Process *process) {
    const bool is_sound = request.pid > 1 && has_usable_ports(request.ports) &&
                          (request.trait.proto == RVZD_PROTOCOL_UDP || request.trait.proto == RVZD_PROTOCOL_TCP) &&
                          request.path.size() <= SERVER_PATH_MAX && request.trait.prog != RVZD_PROGRAM;
    if (!is_sound || (process != nullptr && process->state == ProcessState::ending))
        return false;
    if (process != nullptr && process->registrations.size() >= REGISTRATIONS_MAX &&
        process->registration_of(request.trait) == nullptr)
        return false;
    if (process != nullptr && process->service != nullptr)
        return process->service->service.serves(request.trait.prog, request.trait.vers, request.trait.proto);
    if (!may_serve(request.trait, request.user))
        return false;
    return process != nullptr || (processes_.size() < PROCESSES_MAX && launcher_.exists(request.pid));
}

bool ServerTable::is_child(int32_t pid) const {
    const auto found = processes_.find(pid);
    return found != processes_.end() && found->second.service != nullptr;
}

// A process of another user has the number of one that is gone.
void ServerTable::forget_former(const RegisterRequest &request) {
    const Process *process = find_process(request.pid);
    if (process != nullptr && process->service == nullptr && process->user != request.user)
        processes_.erase(request.pid);
}

tbs_status_t ServerTable::register_server(const RegisterRequest &request, Moment now) {
    const Step step(*this);
    forget_former(request);
    Process *process = find_process(request.pid);
    if (!is_welcome(request, process)) {
        print_invalid(request);
        return TBS_ST_ERROR;
    }
    if (process == nullptr) {
        process = &processes_[request.pid];
        process->pid = request.pid;
        process->user = request.user;
        process->started = now;
        process->uuid = request.uuid;
        process->path = request.path;
    }
    if (process->state == ProcessState::starting) {
        process->state = ProcessState::idle;
        process->since = now;
    }
    auto &registrations = process->registrations;
    std::erase_if(registrations, [&](const Registration &known) {
        const bool is_same = same_trait(known.trait, request.trait);
        if (is_same && known.path != request.path)
            print_of_stranger(IMSG_WARNING, MSG_USED_TO_BE, static_cast<int>(request.pid),
                              printable(request.path).c_str(), printable(known.path).c_str());
        return is_same;
    });
    registrations.push_back({++last_cookie_, request.trait, request.uuid, request.path, request.ports});
    trace_register(request);
    const Registration made = registrations.back();
    answer_waiters(*process, made, now);
    return TBS_ST_OK;
}

void ServerTable::answer_waiters(Process &process, const Registration &registration, Moment now) {
    std::vector<Waiter> ready;
    std::erase_if(process.waiters, [&](Waiter &waiter) {
        if (!same_trait(waiter.request.trait, registration.trait))
            return false;
        ready.push_back(std::move(waiter));
        return true;
    });
    for (const auto &waiter : ready)
        offer(process, registration, waiter.request, now, waiter.done);
}

tbs_status_t ServerTable::report_idle(int32_t pid, bool may_end, Moment now) {
    const Step step(*this);
    Process *process = find_process(pid);
    if (process == nullptr) {
        print_of_stranger(IMSG_WARNING, MSG_IDLE_FROM_UNKNOWN, static_cast<int>(pid));
        return TBS_ST_NOT_FOUND;
    }
    process->has_reported = true;
    if (process->state == ProcessState::starting || process->state == ProcessState::ending)
        return TBS_ST_OK;
    process->state = ProcessState::idle;
    process->since = now;
    process->offers = 0;
    if (may_end && process->service != nullptr && process->service->service.kind != ServerKind::resident)
        end(*process, now);
    return TBS_ST_OK;
}

tbs_status_t ServerTable::report_busy(int32_t pid, Moment now) {
    const Step step(*this);
    Process *process = find_process(pid);
    if (process == nullptr) {
        print_of_stranger(IMSG_WARNING, MSG_BUSY_FROM_UNKNOWN, static_cast<int>(pid));
        return TBS_ST_NOT_FOUND;
    }
    process->has_reported = true;
    if (process->service != nullptr)
        process->service->failures = 0;
    if (process->state == ProcessState::starting || process->state == ProcessState::ending)
        return TBS_ST_OK;
    process->state = ProcessState::busy;
    process->since = now;
    return TBS_ST_OK;
}

tbs_status_t ServerTable::add_alternate_uuid(int32_t pid, const tbs_uuid_t &uuid) {
    const Step step(*this);
    Process *process = find_process(pid);
    if (process == nullptr)
        return TBS_ST_NOT_FOUND;
    if (process->answers_for(uuid))
        return TBS_ST_OK;
    if (process->alternate_uuids.size() >= ALTERNATE_UUIDS_MAX) {
        std::array<char, TBS_UUID_STR_SIZE> text;
        print_of_stranger(IMSG_ERROR, MSG_UUID_TABLE_FULL, tbs_uuid_to_str(&uuid, text.data()), static_cast<int>(pid));
        return TBS_ST_ERROR;
    }
    process->alternate_uuids.push_back(uuid);
    return TBS_ST_OK;
}

// The latest pair of each uuid and kind is kept; the oldest gives way when there are too many.
tbs_status_t ServerTable::keep_sched_info(int32_t pid, const SchedInfo &info) {
    const Step step(*this);
    Process *process = find_process(pid);
    if (process == nullptr)
        return TBS_ST_NOT_FOUND;
    auto &kept = process->sched_infos;
    std::erase_if(kept, [&](const SchedInfo &known) {
        return known.pair.kind == info.pair.kind && tbs_uuid_eq(&known.uuid, &info.uuid);
    });
    if (kept.size() >= SCHED_INFOS_MAX)
        kept.erase(kept.begin());
    kept.push_back(info);
    return TBS_ST_OK;
}

} // namespace velia::server
