// veliactl contact: who answers, where, in which protocol version, and how fast.
#include <cli/commands.h>

#include <iostream>
#include <memory>

#include <cli/broker.h>
#include <cli/choices.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

constexpr const char *footer = R"(Examples:
  veliactl contact build7
  veliactl contact --transport tcp --timeout 2 build7 build8
  veliactl contact --output json build7 | jq .protocol
)";

struct Arguments {
    std::vector<std::string> hosts;
    std::string transport = "udp";
};

// True when the host answered and its protocol version is known.
bool contact_host(const std::string &host, const Arguments &arguments, const Settings &settings, Results &results) {
    const uint32_t protocol = protocol_of_name(arguments.transport);
    const Reach reach = reach_broker(host, protocol, settings.timeout_s);
    if (!reach.answered)
        return false;
    rvzd_handle_t *handle = nullptr;
    if (rvzd_get_handle_proto(host.c_str(), protocol, &handle) != TBS_ST_OK)
        return false;
    rvzd_server_addr_t addresses;
    rvzd_get_addr(handle, &addresses);
    Cells texts;
    for (uint32_t i = 0; i < addresses.addr_count; ++i)
        texts.emplace_back(text_of_address(addresses.addrs[i]));
    results.add({host, arguments.transport, rvzd_get_server_protocol_version(handle),
                 Cell::milliseconds(reach.round_trip_ms), texts});
    rvzd_free_handle(handle);
    return true;
}

int contact_hosts(const Arguments &arguments, const Settings &settings) {
    Results results({"host", "transport", "protocol", "round_trip_ms", "addresses"});
    int status = exit_done;
    for (const auto &host : arguments.hosts)
        if (!contact_host(host, arguments, settings, results))
            status = exit_unreachable;
    results.print(settings.format, settings.with_headers, std::cout);
    return status;
}

} // namespace

void add_contact_command(CLI::App &app, Settings &settings, Command &chosen) {
    auto arguments = std::make_shared<Arguments>();
    CLI::App *command =
        app.add_subcommand("contact", "Ask the brokers of hosts whether they answer, and what they speak");
    command->add_option("HOST", arguments->hosts, "host names")->type_name("")->required();
    command->add_option("--transport", arguments->transport, "transport")
        ->type_name("udp|tcp")
        ->capture_default_str()
        ->check(one_of({"udp", "tcp"}));
    add_common_options(*command, settings);
    command->footer(std::string(footer) + "\n" + exit_status_help);
    command->callback([arguments, &chosen] {
        chosen = [arguments](const Settings &given) { return contact_hosts(*arguments, given); };
    });
}

} // namespace velia::cli
