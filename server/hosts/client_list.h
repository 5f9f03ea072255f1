// The hosts that have used this broker, in the order in which they came first.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <support/sysutl.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::server {

enum { CLIENTS_MAX = 20000 }; // addresses can be made up; hosts of a site are not so many

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

    // A record whose texts are this client's own. Where `empty_as_null` is set, those that are empty are null.
    clnt_entry_t lend(bool empty_as_null) const;
};

// The texts of a record, control characters replaced, and without what would end an item of the file.
void take_texts(const clnt_hostinfo_t &info, ListedHost &client);

class ClientList {
public:
    // Enters the client, or takes over what it says now. False when the list is full.
    bool enter(ListedHost client);

    // False, and nothing entered, for an address that is there.
    bool restore(ListedHost client);

    const std::vector<ListedHost> &clients() const { return clients_; }
    const ListedHost *find(const std::string &hostname) const; // by its name, in any case
    bool has_changed() const { return has_changed_; }
    void note_saved() { has_changed_ = false; }

    // There are others, of which nothing is known: the list is neither told nor saved.
    void withhold() { is_withheld_ = true; }
    bool is_withheld() const { return is_withheld_; }

private:
    std::vector<ListedHost> clients_;
    std::map<std::string, size_t> by_address_;
    bool has_changed_ = false;
    bool is_withheld_ = false;
};

std::string numeric_address(const ks_sockaddr_storage_t &address);

} // namespace velia::server
