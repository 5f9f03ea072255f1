// Watching the servers of a host.
#include <cli/server.h>

#include <algorithm>
#include <chrono>

#include <cli/results.h>
#include <cli/streams.h>
#include <cli/waits.h>
#include <support/date.h>

namespace velia::cli {

namespace {

constexpr size_t state_column = 4;

// False when nobody reads any more.
bool write_changes(const std::vector<ServerChange> &changes, Results &results) {
    if (changes.empty())
        return true;
    const time_t now = time(nullptr);
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
    Servers before;
    const int status = list_servers(filter, settings, before);
    if (status != exit_done)
        return status;
    auto changes = all_present(before);
    // A watch of a host where nothing happens writes nothing by which it would notice that its reader has gone.
    while (!are_waits_over() && write_changes(changes, results) && wait_while_read(interval)) {
        changes.clear();
        Servers now;
        if (list_servers(filter, settings, now) != exit_done)
            continue;
        changes = changes_of(before, now);
        before = std::move(now);
    }
    if (are_waits_over()) // the usual end of a watch
        results.finish();
    return exit_failed;
}

} // namespace velia::cli
