// The simulated world: a support layer under test control.
//
// The test programs link the library's and the support layer's objects with ld's --wrap for the operations that matter,
// so that a World decides what time it is, which hosts exist, what the peer answers, which allocation fails and where a
// raise arrives. One World lives at a time; it is torn down with its test, and ctest runs each test in a process of its
// own, since caches of the library last as long as the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <rpc/rpc.h>

#include <support/imsg.h>
#include <support/sysutl.h>
#include <tests/sim/network.h>
#include <tests/sim/peer.h>

namespace sim {

struct Message {
    int severity = IMSG_PLAIN;
    const imsg_table_t *table = nullptr; // null for a message given as a format string
    int index = -1;                      // -1 likewise
    std::string text;
    std::string subsystem; // that speaks: the table's own, unless another one shares the table

    Message() = default;
    Message(int severity_, const imsg_table_t *table_, int index_, std::string text_)
        : Message(severity_, table_, index_, std::move(text_), table_ != nullptr ? table_->subsystem_name : "") {}
    Message(int severity_, const imsg_table_t *table_, int index_, std::string text_, std::string subsystem_)
        : severity(severity_), table(table_), index(index_), text(std::move(text_)), subsystem(std::move(subsystem_)) {}

    bool operator==(const Message &) const = default;
};

// The same out of another subsystem's mouth, of a message of a table that is shared.
inline Message told_by(const char *subsystem, Message message) {
    message.subsystem = subsystem;
    return message;
}
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

struct SystemStart {
    int argument_count;
    char **arguments;
    char *name;
};

// What fails on demand: each is the number of further calls that succeed; none (the default) never fails.
struct Faults {
    static constexpr int never = -1;
    int socket = never;
    int bind = never;
    int getsockname = never;
    int connect = never;
    int gethostname = never;
    int getgroups = never;
    int fclose = never; // the stream is closed all the same
    int authenticator = never;
    int udp_client = never;
    int tcp_client = never;
    int rt_sched = never;
    int rt_handle_fd = never;
    int server_groups = never;
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

    // The clock stands still but for what the world itself lets pass: a call that times out, or a test. It is that of
    // time(), too.
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
    std::function<void(const Message &)> on_message; // at the moment when one is told
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

    // The allocation with this number fails, counted from the moment it is set; 0: none. `how_many` tells whether those
    // behind it fail, too.
    enum class Failing { one, all_further };
    void fail_allocation(int number, Failing how_many = Failing::one);
    bool allocation_failed() const { return allocations_failed_ > 0; }
    size_t allocations_failed() const { return allocations_failed_; } // since one was last made to fail
    bool allocation_is_due();

    // A raise of `code` arrives at the support call with this number; 0: none.
    void raise_at_call(int number, int code);
    bool raise_was_sent() const { return raise_sent_; }
    void support_call();

    // Which host asked for the resolver, and for which type of socket; grows with each look-up.
    std::vector<std::string> lookups;
    std::vector<int> lookup_socket_types;

    // How often the lock of broker calls was taken.
    std::atomic<size_t> call_locks = 0;

    // The starts of a server that were announced to the support layer, and the name that its messages bear now.
    std::vector<SystemStart> system_starts;
    std::string app_name;

private:
    std::string root_;
    int allocations_left_ = 0;
    Failing failing_ = Failing::one;
    size_t allocations_failed_ = 0;
    int calls_left_ = 0;
    int raise_code_ = 0;
    bool raise_sent_ = false;
};

} // namespace sim
