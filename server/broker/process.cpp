// Small questions about one process.
#include <server/broker/process.h>

#include <algorithm>

#include <common/require.h>
#include <support/sysutl.h>

namespace velia::server {

bool is_nil(const tbs_uuid_t &uuid) {
    return std::all_of(std::begin(uuid.bytes), std::end(uuid.bytes), [](uint8_t byte) { return byte == 0; });
}

bool same_trait(const rvzd_rpc_trait_t &left, const rvzd_rpc_trait_t &right) {
    return left.prog == right.prog && left.vers == right.vers && left.proto == right.proto;
}

std::string client_name(const ks_sockaddr_storage_t &client) {
    return client.base.sa_family == AF_UNSPEC ? "rvzd_server" : address_text(client);
}

const Registration *Process::registration_of(const rvzd_rpc_trait_t &trait) const {
    for (const auto &registration : registrations)
        if (same_trait(registration.trait, trait))
            return &registration;
    return nullptr;
}

bool Process::answers_for(const tbs_uuid_t &wanted) const {
    return tbs_uuid_eq(&uuid, &wanted) || std::any_of(alternate_uuids.begin(), alternate_uuids.end(),
                                                      [&](const auto &other) { return tbs_uuid_eq(&other, &wanted); });
}

std::vector<ServedPort> Process::served_ports() const {
    std::vector<ServedPort> served;
    for (const auto &registration : registrations)
        for (uint32_t i = 0; i < registration.ports.count; ++i)
            served.push_back({registration.trait.proto, static_cast<uint16_t>(registration.ports.ports[i].port)});
    return served;
}

std::string Process::name() const {
    if (service != nullptr)
        return service->service.path;
    if (registrations.empty())
        return "unregistered";
    const auto &trait = registrations.front().trait;
    return std::to_string(trait.prog) + "." + std::to_string(trait.vers);
}

std::string Process::place() const {
    return path.empty() ? sysutl_myhostname() : printable(path);
}

std::string printable(const std::string &text) {
    constexpr size_t shown_max = 256;
    std::string shown = text.substr(0, shown_max);
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    return shown;
}

// A server of ours is known before it has registered and after it was told to end; another only while it is registered.
void Process::require_sound() const {
    const bool is_ours = service != nullptr;
    const bool is_registered = state != ProcessState::starting && state != ProcessState::ending;
    require(is_ours || is_registered);
    require(!is_registered || !registrations.empty());
    require(state != ProcessState::starting || registrations.empty());
    require(state != ProcessState::ending || waiters.empty());
    require(is_ours || waiters.empty());
    require(state != ProcessState::offered || (is_ours && offers > 0));
    require(registrations.size() <= REGISTRATIONS_MAX);
    require(alternate_uuids.size() <= ALTERNATE_UUIDS_MAX);
    require(sched_infos.size() <= SCHED_INFOS_MAX);
}

} // namespace velia::server
