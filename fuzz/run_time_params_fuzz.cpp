// The run-time parameter file, read for every parameter.
#include <fuzz/harness.h>

#include <veliaxdr/rvzd_socket.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Root root;
    static fuzz::Messages messages;
    root.write("config/services/rvzd_rt_params.conf", {reinterpret_cast<const char *>(data), size});
    for (uint32_t index = 0; index <= RVZD_RT_PARAM_COUNT; ++index) {
        int32_t value = 77;
        const auto status = rvzd_get_rt_param(index, &value);
        FUZZ_REQUIRE(status == TBS_ST_OK || status == TBS_ST_ERROR || status == TBS_ST_NOT_SET);
        FUZZ_REQUIRE(status == TBS_ST_OK || value == 0);
        FUZZ_REQUIRE(index < RVZD_RT_PARAM_COUNT || status == TBS_ST_ERROR);
        FUZZ_REQUIRE(status == TBS_ST_OK ? value >= 0 : true);
    }
    FUZZ_REQUIRE(messages.count == 0);
    return 0;
}
