// Records are laid at the offsets that the wire routine walks by.
#include <server/broker/server_list.h>

#include <algorithm>
#include <cstring>

#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

namespace {

struct Listed {
    const Process *process;
    const Registration *registration;
};

std::vector<Listed> registrations_behind(const std::map<int32_t, Process> &processes, uint64_t cookie) {
    std::vector<Listed> listed;
    for (const auto &[pid, process] : processes)
        for (const auto &registration : process.registrations)
            if (registration.cookie > cookie)
                listed.push_back({&process, &registration});
    std::sort(listed.begin(), listed.end(), [](const Listed &left, const Listed &right) {
        return left.registration->cookie < right.registration->cookie;
    });
    return listed;
}

void append_record(std::vector<char> &records, const Listed &listed) {
    const Registration &registration = *listed.registration;
    rvzd_server_entry_t entry = {};
    entry.cookie = registration.cookie;
    entry.trait = registration.trait;
    entry.ports = registration.ports;
    entry.uuid = registration.uuid;
    entry.state = static_cast<int32_t>(listed.process->state);
    entry.pid = listed.process->pid;
    entry.name_length = static_cast<uint16_t>(registration.path.size());
    const size_t at = records.size();
    records.resize(at + rvzd_server_entry_size(registration.path.size()));
    memcpy(&records[at], &entry, RVZD_SERVER_ENTRY_NAME_OFFSET);
    memcpy(&records[at + RVZD_SERVER_ENTRY_NAME_OFFSET], registration.path.data(), registration.path.size());
}

} // namespace

ServerListPiece list_servers(const std::map<int32_t, Process> &processes, uint64_t cookie, uint64_t size_bytes) {
    ServerListPiece piece;
    const uint64_t room = std::min<uint64_t>(size_bytes, RVZD_LIST_SERVERS_BYTES_MAX);
    for (const auto &listed : registrations_behind(processes, cookie)) {
        if (piece.records.size() + rvzd_server_entry_size(listed.registration->path.size()) > room) {
            piece.at_end = false;
            break;
        }
        append_record(piece.records, listed);
    }
    return piece;
}

} // namespace velia::server
