// Watching the servers of a host.
#include <cli/server.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <mutex>
#include <thread>

#include <unistd.h>

#include <cli/results.h>
#include <cli/streams.h>
#include <support/date.h>

namespace velia::cli {

namespace {

constexpr size_t state_column = 4;

// How long an interrupt lets a writer finish. A reader that takes nothing, as a stopped pager, must not make the watch
// immortal.
constexpr std::chrono::seconds finishing_max{1};

// Held while results are written, so that none is cut in the middle.
std::timed_mutex writing;
Results *watched = nullptr; // to be finished; guarded by it

class Watched {
public:
    explicit Watched(Results &results) { set(&results); }
    ~Watched() { set(nullptr); }
    Watched(const Watched &) = delete;
    Watched &operator=(const Watched &) = delete;

private:
    static void set(Results *results) {
        const std::lock_guard lock(writing);
        watched = results;
    }
};

// The RPC library holds off all signals while it waits for an answer, and a silent broker gives none. So a thread of
// its own takes them, and ends the process at once: all results are written out, and but for their end nothing else is
// to be done.
void end_on_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal_number : {SIGINT, SIGTERM})
        sigaddset(&signals, signal_number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals] {
        int signal_number = 0;
        sigwait(&signals, &signal_number);
        if (const std::unique_lock lock(writing, finishing_max); lock.owns_lock() && watched != nullptr)
            watched->finish();
        _exit(exit_done);
    }).detach();
}

// False when nobody reads any more.
bool write_changes(const std::vector<ServerChange> &changes, Results &results) {
    if (changes.empty())
        return true;
    const time_t now = time(nullptr);
    const std::lock_guard lock(writing);
    for (const auto &[what, server] : changes) {
        Cells cells = {time_cell(now, date_fmt_token_date_time(now)), what};
        cells.insert(cells.end(), server.begin(), server.end());
        results.add(std::move(cells));
    }
    return results.show();
}

std::vector<ServerChange> all_present(const Servers &servers) {
    std::vector<ServerChange> changes;
    for (const auto &server : servers)
        changes.push_back({"present", server});
    return changes;
}

// All but its state tells which server it is.
bool is_same_server(const Cells &left, const Cells &right) {
    for (size_t i = 0; i < left.size(); ++i)
        if (i != state_column && left[i] != right[i])
            return false;
    return true;
}

Servers::const_iterator find_server(const Servers &servers, const Cells &wanted) {
    return std::find_if(servers.begin(), servers.end(),
                        [&](const auto &server) { return is_same_server(server, wanted); });
}

} // namespace

std::vector<ServerChange> changes_of(const Servers &before, const Servers &now) {
    std::vector<ServerChange> changes;
    for (const auto &server : before)
        if (find_server(now, server) == now.end())
            changes.push_back({"ended", server});
    for (const auto &server : now) {
        const auto found = find_server(before, server);
        if (found == before.end())
            changes.push_back({"started", server});
        else if (*found != server)
            changes.push_back({"changed", server});
    }
    return changes;
}

int watch_servers(const ServerFilter &filter, Duration interval, const Settings &settings) {
    Results results(watch_output, settings);
    const Watched end(results);
    end_on_signals();
    Servers before;
    const int status = list_servers(filter, settings, before);
    if (status != exit_done)
        return status;
    auto changes = all_present(before);
    // A watch of a host where nothing happens writes nothing by which it would notice that its reader has gone.
    while (write_changes(changes, results) && wait_while_read(interval)) {
        changes.clear();
        Servers now;
        if (list_servers(filter, settings, now) != exit_done)
            continue;
        changes = changes_of(before, now);
        before = std::move(now);
    }
    return exit_failed;
}

} // namespace velia::cli
