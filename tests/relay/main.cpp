// The relay as a program: runs until it is told to end, then says what it did.
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <tests/relay/options.h>
#include <tests/relay/relay.h>

using namespace velia::relay;

namespace {

const char *const description =
    "Passes datagrams and connections on to a server and does to them what a bad network does.\n"
    "Ends at SIGINT or SIGTERM, and tells how often each came about.";

const char *const reasons =
    R"(A chance is from 0 to 1 and falls on a message: a datagram, or a record on a connection. The same seed
does the same to the n-th message of the m-th client, whatever others send meanwhile.

Datagrams are dropped, doubled and reordered; a connection loses and doubles nothing, so it is cut and
dribbled instead.

A message is corrupted in words alone that its receiver compares with what they have to be: of a call
the direction, of a reply the direction or the transaction number. What else a network turns over, the
checksums of UDP and TCP find; what they let through, nobody above them can tell from a message that
was sent so.)";

Relay *running = nullptr;

void stop_running(int /*signal_number*/) {
    running->stop();
}

struct Options {
    std::string listen;
    std::string server;
    bool is_udp = false;
    bool is_tcp = false;
    Plan plan;
};

void add_options(CLI::App &app, Options &options) {
    app.add_option("--listen", options.listen, "where clients come: PORT (of 127.0.0.1) or HOST:PORT")->required();
    app.add_option("--to", options.server, "where the server is: PORT or HOST:PORT")->required();
    app.add_flag("--udp", options.is_udp, "datagrams alone, unless --tcp is given, too");
    app.add_flag("--tcp", options.is_tcp, "connections alone, unless --udp is given, too");
    add_harms(app, options.plan.harms, options.plan.seed);
}

int run(Options &options) {
    options.plan.listen = parse_address(options.listen);
    options.plan.server = parse_address(options.server);
    options.plan.takes_datagrams = options.is_udp || !options.is_tcp;
    options.plan.takes_connections = options.is_tcp || !options.is_udp;
    Relay relay(options.plan);
    running = &relay;
    signal(SIGINT, stop_running);
    signal(SIGTERM, stop_running);
    printf("port %d\n", relay.port());
    fflush(stdout);
    relay.run();
    fputs(relay.tally().text().c_str(), stdout);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
    try {
        CLI::App app(description);
        app.footer(reasons);
        Options options;
        add_options(app, options);
        CLI11_PARSE(app, argc, argv);
        return run(options);
    } catch (const std::exception &error) {
        fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
