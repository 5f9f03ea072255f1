// What the simulated world notes beyond what most tests ask for: loans of the support layer that are no storage, what
// it is told, and what a directory holds. A new World begins with nothing noted.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include <netdb.h>
#include <rpc/rpc.h>

#include <support/credutl.h>
#include <support/hash.h>

namespace sim {

struct MappedCredentials {
    std::string host;
    credutl_sid_credentials_t credentials;
};

struct Noted {
    std::set<const addrinfo *> resolver_lists; // of sysutl_host_addr, that are out
    size_t authenticators = 0;                 // that are out
    size_t first_authenticators = 0;           // of new clients, likewise
    std::vector<MappedCredentials> mapped_credentials;

    std::set<hash_table_t> ordered_tables; // whose owner counts on walks in order, in which records may be freed

    int raise_of_udp_client = 0; // with which the making of one ends by itself; 0: with none

    bool keeps_no_thread_values = false; // so that a thread's first one fails
    bool soils_thread_blocks = false;    // as a support layer may that promises nothing of what is in a new one

    int raise_at_close = 0; // that arrives while a descriptor is closed; 0: none

    // The rows of the next flags that a command line is found to have; with none given, what stands there.
    std::deque<int> flag_rows;

    // What the next readings of a directory find; with none given, what is there.
    std::deque<std::string> directory_entries;
};

Noted &noted();

// Counts this one until it is destroyed; null is none.
AUTH *note_authenticator(AUTH *authenticator);

// Makes what a new client has until somebody gives it another: one of no identity, which is counted, too.
void make_first_authenticator(AUTH &authenticator);

// Blocks of threads' own that are out: of all threads, and also of those that outlive their World.
std::atomic<int> &thread_blocks();

} // namespace sim
