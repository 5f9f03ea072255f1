// The simulated world: a support layer under test control.
//
// The test programs link the library's and the support layer's objects with ld's --wrap for the operations that matter,
// so that a World decides what time it is, which hosts exist, what the peer answers, which allocation fails and where a
// raise arrives. One World lives at a time; it is torn down with its test, and ctest runs each test in a process of its
// own, since caches of the library last as long as the process.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <rpc/rpc.h>

#include <support/imsg.h>
#include <support/sysutl.h>
#include <tests/sim/network.h>
#include <tests/sim/peer.h>

namespace sim {

struct Message {
    int severity;
    const imsg_table_t *table; // null for a message given as a format string
    int index;                 // -1 likewise
    std::string text;

    bool operator==(const Message &) const = default;
};
void PrintTo(const Message &message, std::ostream *out);

struct Timer {
    void (*function)(void *);
    void *argument;
    int64_t due_us;
};

struct ExitAction {
    void (*function)(void *);
    void *argument;
};

struct Watch {
    void (*function)(void *);
    int descriptor;
    void *argument;
};

// What fails on demand: each is the number of further calls that succeed; none (the default) never fails.
struct Faults {
    static constexpr int never = -1;
    int socket = never;
    int bind = never;
    int getsockname = never;
    int connect = never;
    int gethostname = never;
    int authenticator = never;
    int udp_client = never;
    int tcp_client = never;
    int rt_sched = never;
    int rt_handle_fd = never;
    int error_number = EIO; // errno of a fault

    // True when this call is the one to fail; it and all later ones do.
    static bool due(int &countdown) { return countdown == 0 || (countdown > 0 && countdown-- == 0); }
};

class World {
public:
    World();
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    static World &current();
    static bool exists();

    // The clock stands still but for what the world itself lets pass: a call that times out, or a test.
    int64_t now_us = 1'700'000'000'000'000;
    void advance_s(int64_t seconds) { now_us += seconds * 1'000'000; }
    // Lets time pass and runs the timers that come due, in their order.
    void run_timers_for_s(int64_t seconds);

    // Host names and what the resolver says of them. A host that is in neither is EAI_NONAME.
    void add_host(const std::string &name, std::vector<std::string> addresses);
    std::map<std::string, std::vector<std::string>> hosts;
    std::map<std::string, int> resolver_errors;
    std::map<std::string, uint16_t> services;
    std::string host_name = "thishost";

    Peer peer;
    Network network;
    Faults faults;

    // Messages since the last take; the trace level and subsystem:level pairs in force.
    std::vector<Message> take_messages();
    // Those at the error severity; the others are forgotten.
    std::vector<Message> take_errors();
    std::vector<Message> messages;
    int verbosity = 0;
    std::set<std::string> traced; // "xdr/rvzd:4"

    // Who sits at the terminal: how a password prompt ends, and what is typed; and the prompts that were shown.
    int prompt_result = IMSG_PASSWORD_ENTERED;
    std::string typed_password;
    std::vector<std::string> prompts;

    std::vector<Timer> timers;
    std::vector<Watch> watches;
    std::vector<ExitAction> exit_actions;

    int component_mask = 1;
    int privileged = 1;
    const char *os_name = ""; // of this host; "": the real one, null: not known
    uint64_t next_uniquifier = 1000;

    // The root directory of this world, with its configuration files.
    const std::string &root() const { return root_; }
    void write_file(const std::string &path_below_root, const std::string &text);

    // Storage and descriptors that are out at this moment. Resolver lists count as storage.
    size_t live_blocks() const { return blocks.size(); }
    size_t live_descriptors() const { return descriptors.size(); }
    size_t live_clients() const { return clients; }
    std::set<const void *> blocks;
    std::set<int> descriptors;
    size_t clients = 0;

    // Addresses, as texts without port, to which no client can be created; the retransmission interval of each UDP
    // client; how many replies were freed through their client.
    std::set<std::string> unreachable;
    std::vector<timeval> udp_intervals;
    size_t replies_freed = 0;

    // The allocation with this number fails, counted from the moment it is set; 0: none.
    void fail_allocation(int number);
    bool allocation_failed() const { return allocation_failed_; }
    bool allocation_is_due();

    // A raise of `code` arrives at the support call with this number; 0: none.
    void raise_at_call(int number, int code);
    bool raise_was_sent() const { return raise_sent_; }
    void support_call();

    // Which host asked for the resolver; grows with each look-up.
    std::vector<std::string> lookups;

private:
    std::string root_;
    int allocations_left_ = 0;
    bool allocation_failed_ = false;
    int calls_left_ = 0;
    int raise_code_ = 0;
    bool raise_sent_ = false;
};

} // namespace sim
