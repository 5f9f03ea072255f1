// The hosts that have used this broker, in the order in which they came first.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <server/config/access.h>
#include <support/sysutl.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

// Addresses can be made up; hosts of a site are not so many, and no network of them has them all.
enum {
    CLIENTS_MAX = 20000,
    CLIENTS_OF_NETWORK_MAX = 4096,
    CLIENTS_UNPROVEN_MAX = CLIENTS_MAX / 2,
    CLIENTS_OF_LOOPBACK_MAX = 16, // any local user has all addresses of it
    CLIENT_NETWORK_BITS_IPV4 = 16,
    CLIENT_NETWORK_BITS_IPV6 = 48,
    CLIENT_TIME_KEPT_S = 600, // a later contact alone is no change worth writing
};

// What a host says of itself, in the order of clnt_hostinfo_t.
enum ClientText : size_t {
    CLIENT_HOSTNAME,
    CLIENT_PRODUCT,
    CLIENT_VERSION,
    CLIENT_OSNAME,
    CLIENT_OSVERSION,
    CLIENT_MACHINE,
    CLIENT_REGISTRY_HOST,
    CLIENT_REGION,
    CLIENT_RESERVED,
    CLIENT_OPTIONS,
    CLIENT_TEXT_COUNT,
};

struct ListedHost {
    ks_sockaddr_storage_t address = {}; // without its port; plain IPv4 where it is that
    std::string texts[CLIENT_TEXT_COUNT];
    time_t registry_time = 0; // of the last registry contact
    time_t written_time = 0;  // the one that the file has, or is to get
    bool is_proven = false;   // it has been answered at this address, which over UDP anybody can write

    // A record whose texts are this client's own. Where `empty_as_null` is set, those that are empty are null.
    clnt_entry_t lend(bool empty_as_null) const;
};

// The texts of a record, control characters replaced, and without what would end an item of the file.
void take_texts(const clnt_hostinfo_t &info, ListedHost &client);

class ClientList {
public:
    // Enters the client, or takes over what it says now. False when the list, or the share of its network or of those
    // whose address is not proven, is full.
    bool enter(ListedHost client);

    // As it was saved, whatever its network's share. False, and nothing entered, for an address that is there.
    bool restore(ListedHost client);

    // As it was saved later than what is there.
    void restore_later(ListedHost client);

    const std::vector<ListedHost> &clients() const { return clients_; }
    const ListedHost *find(const std::string &hostname) const; // by its name, in any case

    // What is worth saving and has not been saved. Who takes some of it saves it, or gives it back.
    bool has_changed() const { return !changed_.empty(); }
    std::vector<ListedHost> take_changed(size_t count_max);
    void give_back(const std::vector<ListedHost> &unsaved);

    // There are others, of which nothing is known: the list is neither told nor saved.
    void withhold() { is_withheld_ = true; }
    bool is_withheld() const { return is_withheld_; }

private:
    bool has_share(const ListedHost &client) const;
    void replace(size_t place, ListedHost client);

    std::vector<ListedHost> clients_;
    std::map<std::string, size_t> by_address_;
    std::map<AddressBytes, size_t> of_network_; // how many
    std::set<size_t> changed_;                  // places of clients
    size_t unproven_ = 0;
    bool is_withheld_ = false;
};

std::string numeric_address(const ks_sockaddr_storage_t &address);

} // namespace velia::server
