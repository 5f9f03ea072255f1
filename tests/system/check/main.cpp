// Clients and a daemon of a site of their own, with the relay between them: how long the calls take, and whether each
// entry that a client was told of is there, and once.
#include <cstdio>
#include <cstdlib>

#include <tests/relay/options.h>
#include <tests/system/support/rounds.h>

using namespace velia::system_test;

namespace {

struct Options {
    velia::relay::Plan plan;
    bool is_tcp = false;
    int processes = 8;
    int rounds = 1000;
    int64_t limit_ms = 0;
    int stops = 0;
    double stop_s = 11;
};

void add_options(CLI::App &app, Options &options) {
    app.add_flag("--tcp", options.is_tcp, "over connections instead of datagrams");
    app.add_option("--processes", options.processes, "clients")->capture_default_str()->check(CLI::Range(1, 200));
    app.add_option("--rounds", options.rounds, "look-ups and adds of all clients together")->capture_default_str();
    app.add_option("--limit", options.limit_ms, "of a call; the library's own without it")->type_name("MS");
    app.add_option("--stops", options.stops,
                   "the clients go on until the daemon was stopped so often, instead of "
                   "--rounds; --limit is 1000 then if it is not given");
    app.add_option("--stop-time", options.stop_s, "how long each stop is")->capture_default_str()->type_name("SECONDS");
    add_harms(app, options.plan.harms, options.plan.seed);
}

std::vector<Stop> stop_as_wanted(const Options &options, const Daemon &daemon, Rounds &clients) {
    std::vector<Stop> stops;
    if (options.stops == 0)
        return stops;
    for (int i = 0; i < options.stops; ++i) {
        if (!clients.answered_since(monotonic_us(), 10))
            throw std::runtime_error("the clients are answered no more");
        stops.push_back(clients.stop_until_failed(daemon, 1, options.stop_s));
    }
    if (!clients.answered_since(monotonic_us(), 10))
        throw std::runtime_error("the clients are answered no more");
    clients.stop();
    return stops;
}

void print_figures(const Options &options, const RoundFigures &figures, const std::vector<Stop> &stops) {
    constexpr double us_per_ms = 1000;
    printf("calls %zu\nrefused %zu (others were quicker)\nfailed %zu\n", figures.calls.size(), figures.refused,
           figures.failed);
    if (options.stops > 0)
        printf("failed while the daemon was not stopped %zu\n", figures.failed_outside(stops));
    for (const auto &[name, share] : {std::pair("median", 0.5), {"99 of 100", 0.99}, {"longest", 1.0}})
        printf("%s %.1f ms\n", name, static_cast<double>(figures.duration_us(share)) / us_per_ms);
    printf("added %zu\nmissing %zu\ndoubled %zu\n", figures.added, figures.missing, figures.doubled);
}

int run(Options &options) {
    const Site site;
    const auto daemon = daemon_for_rounds(site);
    if (!daemon->is_ready())
        throw std::runtime_error(daemon->output());
    options.plan.server = velia::relay::parse_address(std::to_string(site.port()));
    const velia::relay::RelayThread relay(options.plan);
    const bool has_stops = options.stops > 0;
    constexpr int without_end = 1'000'000'000;
    const int rounds = has_stops ? without_end : (options.rounds + options.processes - 1) / options.processes;
    const int64_t limit_ms = has_stops && options.limit_ms == 0 ? 1000 : options.limit_ms;
    Rounds clients(site, {options.is_tcp ? "tcp" : "udp", relay.port(), options.processes, rounds, limit_ms});
    const auto stops = stop_as_wanted(options, *daemon, clients);
    constexpr double patience_s = 3600;
    if (!clients.wait(patience_s))
        throw std::runtime_error(clients.output());
    const auto figures = clients.figures();
    print_figures(options, figures, stops);
    fputs(relay.tally().text().c_str(), stdout);
    // A cut costs a call over TCP, and so does a spoiled record; a datagram is sent again.
    const auto &tally = relay.tally();
    using velia::relay::Event;
    const size_t allowed = options.is_tcp ? tally[Event::cut] + tally[Event::corrupted] : 0;
    const bool is_well = figures.missing == 0 && figures.doubled == 0 && figures.failed_outside(stops) <= allowed;
    return is_well ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
    try {
        CLI::App app("Runs a daemon and clients with a relay between them, and tells how the clients fared.\n"
                     "The status is 0 if no call failed but while the daemon was stopped and, over TCP, one for each\n"
                     "record that was cut or corrupted, and if every entry that was added is there once.");
        Options options;
        add_options(app, options);
        CLI11_PARSE(app, argc, argv);
        return run(options);
    } catch (const std::exception &error) {
        fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
