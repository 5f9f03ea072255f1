// A line of the daemon's client list file: whatever it says, what is taken of it is within bounds and entered once.
#include <fuzz/harness.h>

#include <server/hosts/client_file.h>

using namespace velia::server;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Messages messages;
    const std::string_view line(reinterpret_cast<const char *>(data), size);
    ListedHost client;
    const LineFault fault = parse_client_line(line, client);
    if (fault != LineFault::none)
        return 0;
    const std::string address = numeric_address(client.address);
    FUZZ_REQUIRE(!address.empty());
    for (const std::string &text : client.texts)
        FUZZ_REQUIRE(text.size() <= size);
    ClientList list;
    FUZZ_REQUIRE(list.restore(client));
    FUZZ_REQUIRE(!list.restore(client));
    return 0;
}
