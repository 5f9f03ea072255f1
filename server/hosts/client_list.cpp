#include <server/hosts/client_list.h>

#include <algorithm>
#include <array>
#include <strings.h>

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

bool ClientList::enter(ListedHost client) {
    const auto known = by_address_.find(numeric_address(client.address));
    if (known == by_address_.end()) {
        const bool has_room = restore(std::move(client));
        has_changed_ = has_changed_ || has_room;
        return has_room;
    }
    clients_[known->second] = std::move(client);
    has_changed_ = true;
    return true;
}

bool ClientList::restore(ListedHost client) {
    if (clients_.size() >= CLIENTS_MAX || !by_address_.emplace(numeric_address(client.address), clients_.size()).second)
        return false;
    clients_.push_back(std::move(client));
    return true;
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
