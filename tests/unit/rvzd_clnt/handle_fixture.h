// What the tests of handles share beyond the world: handles that cannot be had, and what is then told.
#pragma once

#include <tests/unit/rvzd_clnt/broker_fixture.h>

namespace {

class HandleTest : public BrokerTest {
protected:
    // Asks for a handle that cannot be had.
    tbs_status_t fail_to_get(const char *host = "alpha", uint32_t protocol = RVZD_PROTOCOL_UDP, int quiet = 0) {
        auto *handle = reinterpret_cast<rvzd_handle_t *>(1);
        const auto status = rvzd_get_handle_prim_proto(host, protocol, 0, quiet, &handle);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(world.live_clients(), 0u);
        EXPECT_EQ(world.live_descriptors(), 0u);
        expect_lock_is_free();
        return status;
    }

    sim::Message cannot_contact(const char *host = "alpha") {
        return message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, 33, host);
    }
};

} // namespace
