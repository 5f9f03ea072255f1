#include <server/hosts/client_list.h>

#include <algorithm>
#include <array>
#include <netinet/in.h>
#include <strings.h>

#include <server/rpc/reply_rate.h>

namespace velia::server {

namespace {

constexpr size_t text_length_max = 255;

constexpr std::array<char * clnt_hostinfo_t::*, CLIENT_TEXT_COUNT> fields = {
    &clnt_hostinfo_t::hostname,  &clnt_hostinfo_t::product, &clnt_hostinfo_t::version,       &clnt_hostinfo_t::osname,
    &clnt_hostinfo_t::osversion, &clnt_hostinfo_t::machine, &clnt_hostinfo_t::registry_host, &clnt_hostinfo_t::region,
    &clnt_hostinfo_t::reserved,  &clnt_hostinfo_t::options};

// One line of the file holds it, whatever a stranger sends.
std::string storable(const char *text, bool may_hold_semicolons) {
    std::string taken = text != nullptr ? text : "";
    taken.resize(std::min(taken.size(), text_length_max));
    std::replace_if(
        taken.begin(), taken.end(),
        [&](unsigned char c) { return c < ' ' || c == 0x7f || (c == ';' && !may_hold_semicolons); }, '?');
    return taken;
}

bool is_loopback(const ks_sockaddr_storage_t &address) {
    return address.base.sa_family == AF_INET &&
           ntohl(address.ipv4.sin_addr.s_addr) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET;
}

// Loopback is one network, however long.
AddressBytes network_of(const ks_sockaddr_storage_t &address) {
    constexpr uint32_t loopback_bits = 8;
    return velia::server::network_of(address, is_loopback(address) ? loopback_bits : uint32_t{CLIENT_NETWORK_BITS_IPV4},
                                     CLIENT_NETWORK_BITS_IPV6);
}

size_t share_of(const ks_sockaddr_storage_t &address) {
    return is_loopback(address) ? CLIENTS_OF_LOOPBACK_MAX : CLIENTS_OF_NETWORK_MAX;
}

bool is_worth_writing(const ListedHost &listed, const ListedHost &now) {
    return now.registry_time - listed.written_time >= CLIENT_TIME_KEPT_S || now.registry_time < listed.written_time ||
           !std::equal(std::begin(now.texts), std::end(now.texts), std::begin(listed.texts));
}

} // namespace

clnt_entry_t ListedHost::lend(bool empty_as_null) const {
    clnt_entry_t entry = {};
    entry.address = address;
    entry.registry_time = registry_time;
    for (size_t i = 0; i < fields.size(); ++i)
        if (!texts[i].empty() || !empty_as_null)
            entry.hostinfo.*fields[i] = const_cast<char *>(texts[i].c_str()); // only read
    return entry;
}

void take_texts(const clnt_hostinfo_t &info, ListedHost &client) {
    for (size_t i = 0; i < fields.size(); ++i)
        client.texts[i] = storable(info.*fields[i], i == CLIENT_OPTIONS);
}

bool ClientList::has_share(const ListedHost &client) const {
    const auto of_network = of_network_.find(network_of(client.address));
    return (client.is_proven || unproven_ < CLIENTS_UNPROVEN_MAX) &&
           (of_network == of_network_.end() || of_network->second < share_of(client.address));
}

// What was proven once stays so.
void ClientList::replace(size_t place, ListedHost client) {
    ListedHost &listed = clients_[place];
    if (client.is_proven && !listed.is_proven)
        --unproven_;
    client.is_proven = client.is_proven || listed.is_proven;
    listed = std::move(client);
}

bool ClientList::enter(ListedHost client) {
    const auto known = by_address_.find(numeric_address(client.address));
    if (known == by_address_.end()) {
        const bool is_entered = has_share(client) && restore(std::move(client));
        if (is_entered)
            changed_.insert(clients_.size() - 1);
        return is_entered;
    }
    const ListedHost &listed = clients_[known->second];
    const bool is_worth = is_worth_writing(listed, client);
    client.written_time = is_worth ? client.registry_time : listed.written_time;
    if (is_worth)
        changed_.insert(known->second);
    replace(known->second, std::move(client));
    return true;
}

bool ClientList::restore(ListedHost client) {
    if (clients_.size() >= CLIENTS_MAX || !by_address_.emplace(numeric_address(client.address), clients_.size()).second)
        return false;
    ++of_network_[network_of(client.address)];
    unproven_ += client.is_proven ? 0 : 1;
    client.written_time = client.registry_time;
    clients_.push_back(std::move(client));
    return true;
}

void ClientList::restore_later(ListedHost client) {
    const auto known = by_address_.find(numeric_address(client.address));
    if (known == by_address_.end()) {
        restore(std::move(client));
        return;
    }
    client.written_time = client.registry_time;
    replace(known->second, std::move(client));
}

std::vector<ListedHost> ClientList::take_changed(size_t count_max) {
    std::vector<ListedHost> taken;
    for (auto next = changed_.begin(); next != changed_.end() && taken.size() < count_max; next = changed_.erase(next))
        taken.push_back(clients_[*next]);
    return taken;
}

void ClientList::give_back(const std::vector<ListedHost> &unsaved) {
    for (const ListedHost &client : unsaved)
        changed_.insert(by_address_.at(numeric_address(client.address)));
}

const ListedHost *ClientList::find(const std::string &hostname) const {
    const auto found = std::find_if(clients_.begin(), clients_.end(), [&](const ListedHost &client) {
        return strcasecmp(client.texts[CLIENT_HOSTNAME].c_str(), hostname.c_str()) == 0;
    });
    return found != clients_.end() ? &*found : nullptr;
}

std::string numeric_address(const ks_sockaddr_storage_t &address) {
    std::array<char, SYSUTL_ADDRESS_TEXT_SIZE> text;
    return sysutl_host_numeric(&address.base, text.size(), text.data(), 0, 0) == 0 ? text.data() : "";
}

} // namespace velia::server
