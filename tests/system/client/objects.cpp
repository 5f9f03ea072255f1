#include <tests/system/client/objects.h>

#include <cstdio>
#include <cstring>

#include <unistd.h>

#include <tests/system/client/stale_adds.h>
#include <veliaxdr/rgy_objects.h>

namespace {

constexpr uint8_t common_client = 0;

tbs_uuid_t view_uuid(uint8_t client, uint32_t number) {
    tbs_uuid_t uuid = {};
    uuid.bytes[0] = client;
    memcpy(uuid.bytes + 1, &number, sizeof number);
    return uuid;
}

// As a user would: when others were faster ten times, once more.
tbs_status_t register_view(uint8_t client, uint32_t number) {
    const auto uuid = view_uuid(client, number);
    tbs_status_t status;
    do {
        status = rgy_add_view_object(nullptr, "user", &uuid, "alpha", "/views", 0, nullptr);
    } while (status == TBS_ST_STALE_ID);
    return status;
}

} // namespace

bool register_views(uint8_t client, const std::string &stop_file) {
    int own = 0;
    int common = 0;
    int refused = 0;
    for (uint32_t number = 0; access(stop_file.c_str(), F_OK) != 0; ++number) {
        const auto own_status = register_view(client, number);
        const auto common_status = register_view(common_client, number);
        own += own_status == TBS_ST_OK;
        common += common_status == TBS_ST_OK;
        refused += common_status == TBS_ST_ALREADY_EXISTS;
        printf("own %d common %d refused %d stale %d\n", own, common, refused, stale_adds());
        fflush(stdout);
        if (own_status != TBS_ST_OK || (common_status != TBS_ST_OK && common_status != TBS_ST_ALREADY_EXISTS))
            return false;
    }
    return true;
}
