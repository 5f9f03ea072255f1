// The start switch, the last argument with which the broker starts a server.
#include <fuzz/harness.h>

#include <algorithm>
#include <vector>

#include <support/rt.h>
#include <veliaxdr/rvzd_svr.h>

namespace {

int watched_lifelines;

} // namespace

// In the place of the support layer's, which would refuse most numbers as no descriptors.
extern "C" int rt_handle_fd(int, void (*)(void *), int, void *) {
    ++watched_lifelines;
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Messages messages;
    messages.count = 0;
    watched_lifelines = 0;
    std::string argument(reinterpret_cast<const char *>(data), size);
    std::string program = "server";
    char *arguments[] = {program.data(), argument.data(), nullptr};
    int argument_count = 2;
    // The caller sizes these, one for each ":". A vector of that size has its bounds watched.
    const auto sockets = static_cast<size_t>(std::count(argument.begin(), argument.end(), ':'));
    std::vector<rvzd_socket_desc_t> descs(sockets);
    uint32_t count = 77;
    const auto status = rvzd_server_get_sockets(&argument_count, arguments, descs.data(), &count);
    FUZZ_REQUIRE(count <= sockets);
    FUZZ_REQUIRE(argument_count == (status == TBS_ST_NOT_FOUND ? 2 : 1));
    FUZZ_REQUIRE(watched_lifelines == (status == TBS_ST_NOT_FOUND ? 0 : 1));
    FUZZ_REQUIRE(messages.count == (status == TBS_ST_ERROR ? 1u : 0u));
    for (uint32_t i = 0; i < count; ++i)
        FUZZ_REQUIRE(descs[i].protocol == RVZD_PROTOCOL_UDP || descs[i].protocol == RVZD_PROTOCOL_TCP);
    return 0;
}
