// veliactl contact: who answers, where, in which protocol version, and how fast.
#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/results.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

struct Arguments {
    std::vector<std::string> hosts;
    std::string transport = "udp";
};

Options options_of(Arguments &arguments) {
    return {
        {.name = "HOST", .help = "host names", .target = &arguments.hosts, .is_required = true},
        {.name = "--transport",
         .type = "udp|tcp",
         .help = "transport",
         .target = &arguments.transport,
         .words = transports,
         .shows_default = true},
    };
}

int contact_hosts(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {{"host", Type::text, "the host that answered"},
                              {"transport", Type::text, "udp or tcp"},
                              {"protocol", Type::integer, "version of the protocol that its broker speaks"},
                              {"round_trip_ms", Type::number, "how long the answer took"},
                              {"addresses", Type::texts, "under which the broker is reached"}};
constexpr Output output = {Output::Shape::list, columns};

constexpr Command commands[] = {
    {.path = "contact",
     .help = "Ask the brokers of hosts whether they answer, and what they speak",
     .examples = {"veliactl contact build7", "veliactl contact --transport tcp --timeout 2 build7 build8",
                  "veliactl contact --output json build7 | jq .[].protocol"},
     .make = call_of<contact_hosts, options_of>,
     .output = &output},
};

// True when the host answered and its protocol version is known.
bool contact_host(const std::string &host, const Arguments &arguments, const Settings &settings, Results &results) {
    const uint32_t protocol = protocol_of_name(arguments.transport);
    const Broker broker = reach_broker(host, protocol, settings.timeout);
    double round_trip_ms = 0;
    if (broker == nullptr || !ping(rvzd_get_rpc_clnt(broker.get()), settings.timeout, host.c_str(), round_trip_ms))
        return false;
    rvzd_server_addr_t addresses;
    rvzd_get_addr(broker.get(), &addresses);
    Cells texts;
    for (uint32_t i = 0; i < addresses.addr_count; ++i)
        texts.emplace_back(text_of_address(addresses.addrs[i]));
    results.add({host, arguments.transport, rvzd_get_server_protocol_version(broker.get()),
                 Cell::milliseconds(round_trip_ms), texts});
    return true;
}

int contact_hosts(const Arguments &arguments, const Settings &settings) {
    Results results(output, settings);
    int status = exit_done;
    for (const auto &host : arguments.hosts)
        if (!contact_host(host, arguments, settings, results))
            status = exit_unreachable;
        else
            results.pause();
    if (!results.empty())
        results.finish();
    return status;
}

} // namespace

const Commands contact_commands = commands;

} // namespace velia::cli
