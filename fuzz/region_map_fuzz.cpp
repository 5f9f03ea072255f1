// The map of users to regions, read for this process's user. A region that is given stands in the map, and fits.
#include <fuzz/harness.h>

#include <cstring>

#include <veliaxdr/rgy_local.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Root root;
    static fuzz::Messages messages;
    static const std::string path = std::string(getenv("VELIA_ROOT")) + "/map";
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    root.write("map", text);
    for (const size_t buffer_size : {33u, 4u}) {
        char region[33] = "untouched";
        const auto status = registry_prop_get_user_region(path.c_str(), buffer_size, region);
        FUZZ_REQUIRE(status == TBS_ST_OK || (status == TBS_ST_ERROR && strcmp(region, "untouched") == 0));
        FUZZ_REQUIRE(status != TBS_ST_OK || (*region != '\0' && strlen(region) < buffer_size));
        FUZZ_REQUIRE(status != TBS_ST_OK || text.find(region) != std::string_view::npos);
    }
    FUZZ_REQUIRE(messages.count == 0);
    return 0;
}
