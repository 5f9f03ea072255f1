#include <tests/system/support/rounds.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

#include <tests/system/support/registry_calls.h>

namespace velia::system_test {

namespace {

constexpr rgy_db_t db = RGY_DB_REGIONS;
constexpr double patience_s = 60;
constexpr std::string_view added_beginning = "added ";

std::string write_root(const Site &site, uint16_t port) {
    for (const char *directory : {"config/services", "host/config", "host/priv", "host/data", "log"})
        std::filesystem::create_directories(site.root() / "far" / directory);
    site.write("far/config/services.conf", "rvzd " + std::to_string(port) + "\n");
    site.write("far/config/hosts.conf", "alpha 127.0.0.1\nfar 127.0.0.1\n");
    return site.path("far");
}

// How often each title stands in the registry.
std::map<std::string, size_t> titles_in_registry() {
    std::map<std::string, size_t> titles;
    std::array<rgy_entry_t *, 100> entries = {};
    rgy_cursor_t *cursor = nullptr;
    do {
        int64_t count = 0;
        if (rgy_get_entry(db, "alpha", nullptr, &cursor, entries.size(), entries.data(), &count) != TBS_ST_OK)
            break;
        for (size_t i = 0; cursor != nullptr && i < static_cast<size_t>(count); ++i) {
            ++titles[text_of(entries[i], RGY_ITEM_TITLE)];
            rgy_delete_entry(&entries[i]);
        }
    } while (cursor != nullptr);
    return titles;
}

} // namespace

bool RoundCall::is_failed() const {
    const bool is_answered = status == TBS_ST_OK || (name == "add" && status == TBS_ST_STALE_ID) ||
                             (name == "search" && status == TBS_ST_NOT_FOUND);
    return !is_answered;
}

size_t RoundFigures::failed_outside(const std::vector<Stop> &stops) const {
    return static_cast<size_t>(std::ranges::count_if(calls, [&](const RoundCall &call) {
        return call.is_failed() && std::ranges::none_of(stops, [&](const Stop &stop) {
                   return call.begin_us <= stop.end_us && call.end_us >= stop.begin_us;
               });
    }));
}

int64_t RoundFigures::duration_us(double share) const {
    std::vector<int64_t> durations;
    for (const auto &call : calls)
        durations.push_back(call.end_us - call.begin_us);
    if (durations.empty())
        return 0;
    std::sort(durations.begin(), durations.end());
    return durations[static_cast<size_t>(share * static_cast<double>(durations.size() - 1))];
}

Rounds::Rounds(const Site &site, const Wanted &wanted) : site_(site) {
    const std::string root = write_root(site, wanted.port);
    for (int i = 0; i < wanted.processes; ++i) {
        Child::Options options;
        options.output_file = site.path(output_name(static_cast<size_t>(i)));
        options.error_file = options.output_file + ".errors";
        options.environment = {"VELIA_ROOT=" + root, "VELIA_HOSTNAME=far"};
        clients_.push_back(std::make_unique<Child>(
            std::vector<std::string>{SYSTEM_CLIENT, "rounds", "alpha", std::to_string(program), wanted.transport,
                                     "c" + std::to_string(i), std::to_string(wanted.rounds), site.path("stop"),
                                     std::to_string(wanted.limit_ms)},
            options));
    }
}

bool Rounds::wait(double deadline_s) {
    const auto deadline_us = monotonic_us() + static_cast<int64_t>(deadline_s * 1e6);
    bool are_all_well = true;
    for (const auto &client : clients_) {
        const auto left_us = std::max<int64_t>(deadline_us - monotonic_us(), 0);
        are_all_well = client->wait(static_cast<double>(left_us) / 1e6) == 0 && are_all_well;
    }
    return are_all_well;
}

bool Rounds::answered_since(int64_t since_us, size_t count) {
    const auto is_answered = [](const RoundCall &call, int64_t since) {
        return call.begin_us >= since && !call.is_failed();
    };
    return eventually([&] { return count_since(since_us, is_answered) >= count; }, patience_s);
}

Stop Rounds::stop_until_failed(const Daemon &daemon, size_t count, double least_s) {
    Stop stop = {monotonic_us(), 0};
    daemon.signal(SIGSTOP);
    const auto is_failed = [](const RoundCall &call, int64_t) { return call.is_failed(); };
    const auto has_lasted = [&] {
        return static_cast<double>(monotonic_us() - stop.begin_us) >= least_s * 1e6 &&
               count_since(stop.begin_us, is_failed) >= count;
    };
    eventually(has_lasted, least_s + patience_s);
    daemon.signal(SIGCONT);
    stop.end_us = monotonic_us();
    return stop;
}

void Rounds::stop() const {
    site_.write("stop", "");
}

std::string Rounds::output_name(size_t client) const {
    return "rounds-" + std::to_string(client) + ".out";
}

std::string Rounds::output() const {
    std::string text;
    for (size_t i = 0; i < clients_.size(); ++i)
        text += site_.read(output_name(i)) + site_.read(output_name(i) + ".errors");
    return text;
}

void Rounds::read_on() {
    told_.resize(clients_.size());
    for (size_t i = 0; i < clients_.size(); ++i) {
        Told &told = told_[i];
        std::ifstream file(site_.path(output_name(i)));
        file.seekg(told.position);
        for (std::string line; std::getline(file, line) && !file.eof(); told.position = file.tellg()) {
            RoundCall call;
            if (line.starts_with(added_beginning))
                told.added.push_back(line.substr(added_beginning.size()));
            else if (std::istringstream(line) >> call.name >> call.status >> call.begin_us >> call.end_us)
                told.calls.push_back(call);
        }
    }
}

size_t Rounds::count_since(int64_t since_us, bool (*is_counted)(const RoundCall &call, int64_t since_us)) {
    read_on();
    size_t count = 0;
    for (const auto &told : told_)
        for (auto call = told.calls.rbegin(); call != told.calls.rend() && call->end_us >= since_us; ++call)
            count += is_counted(*call, since_us) ? 1 : 0;
    return count;
}

std::vector<RoundCall> Rounds::calls() {
    read_on();
    std::vector<RoundCall> calls;
    for (const auto &told : told_)
        calls.insert(calls.end(), told.calls.begin(), told.calls.end());
    return calls;
}

RoundFigures Rounds::figures() {
    RoundFigures figures;
    figures.calls = calls();
    for (const auto &call : figures.calls) {
        figures.failed += call.is_failed() ? 1 : 0;
        figures.refused += call.status == TBS_ST_STALE_ID ? 1 : 0;
    }
    const auto titles = titles_in_registry();
    for (const auto &[title, count] : titles)
        figures.doubled += count > 1 ? 1 : 0;
    for (const auto &told : told_)
        for (const auto &title : told.added) {
            ++figures.added;
            figures.missing += titles.contains(title) ? 0 : 1;
        }
    return figures;
}

std::unique_ptr<Daemon> daemon_for_rounds(const Site &site) {
    site.write("host/config/rgy_svr.conf", "master");
    site.write("host/config/rgy_hosts.conf", "alpha\n\n");
    site.configure("access 127.0.0.0/8 read,register,write\n" +
                   sample_line(Rounds::program, "shared", "-", "--quiet-seconds 60"));
    return std::make_unique<Daemon>(site);
}

int64_t monotonic_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

} // namespace velia::system_test
