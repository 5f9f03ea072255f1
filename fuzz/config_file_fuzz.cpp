// The daemon's configuration file: the reader's services are usable whatever the text, and each error has its words.
#include <fuzz/harness.h>

#include <algorithm>

#include <server/config/configuration.h>
#include <veliaxdr/rvzd_messages.h>

using namespace velia::server;

namespace {

const NameLookup names = {
    [](const std::string &name) { return name == "nobody" ? std::optional<uid_t>(65534) : std::nullopt; },
    [](const std::string &name) { return name == "nogroup" ? std::optional<gid_t>(65534) : std::nullopt; },
};

void check_service(const Service &service) {
    FUZZ_REQUIRE(service.udp || service.tcp);
    FUZZ_REQUIRE(!service.path.empty() && service.path[0] == '/');
    FUZZ_REQUIRE(service.control.processes_max > 0);
    FUZZ_REQUIRE(service.arguments.size() <= CONFIG_ARGUMENTS_MAX);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Messages messages;
    messages.count = 0;
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const auto result = parse_configuration(text, names);
    for (const Service &service : result.configuration.services)
        check_service(service);
    FUZZ_REQUIRE(result.errors.size() <= CONFIG_ERRORS_MAX + 1);
    const auto lines = static_cast<unsigned long>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const ConfigurationError &error : result.errors) {
        FUZZ_REQUIRE(error.line <= lines);
        FUZZ_REQUIRE(error.message >= 0);
    }
    print_configuration_errors("rvzd_server.conf", result.errors);
    FUZZ_REQUIRE(messages.count == result.errors.size());
    return 0;
}
