// Client processes that change and read keys of a registry through daemons on several hosts, and write down what they
// were told.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include <tests/system/postgres/history.h>
#include <tests/system/support/site.h>

namespace velia::system_test {

class HistoryClients {
public:
    struct Wanted {
        std::vector<const char *> hosts; // asked in turn
        int processes = 16;
        uint32_t keys = 60;
        uint32_t updates_percent = 30; // of what they do
    };

    HistoryClients(const Site &site, const Wanted &wanted);
    ~HistoryClients();
    HistoryClients(const HistoryClients &) = delete;
    HistoryClients &operator=(const HistoryClients &) = delete;

    uint64_t operations() const { return shared_->operations; }
    // Adds and removals that were acknowledged.
    uint64_t updates() const { return shared_->updates; }

    // What all of them were told, and behind that what each key is now. They end.
    std::vector<Operation> finish();

    // How often each of the entries that have nothing but a title stands there, in the order of the titles' numbers:
    // more than once, if it was added more than once.
    static std::vector<uint32_t> titles_now(const char *host, size_t count);

    // Keys from here on are such titles: the value is always 1, and nobody removes it.
    static constexpr uint32_t first_title_key = 1U << 24;

private:
    struct Shared {
        std::atomic<bool> is_over;
        std::atomic<uint64_t> operations;
        std::atomic<uint64_t> updates;
        std::atomic<uint32_t> titles;
    };
    class Client;
    std::string file_of(int process) const;
    bool work(int number) const;
    void end_processes();

    const Site &site_;
    const Wanted wanted_;
    Shared *const shared_;
    std::vector<pid_t> processes_;
};

} // namespace velia::system_test
