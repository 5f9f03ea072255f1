// What the tests of the broker client share: a world, handles that are given back, and expected messages.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rvzd/client/rvzd_clnt/cached_handle.h>
#include <tests/sim/sweeps.h>
#include <tests/sim/world.h>
#include <veliaxdr/rvzd_messages.h>

namespace {

// A message of a table at a position, with its text made from these arguments.
[[maybe_unused]] sim::Message message_of(int severity, const imsg_table_t &table, int position, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, position);
    vsnprintf(text, sizeof text, table.texts[position], arguments);
    va_end(arguments);
    return {severity, &table, position, text};
}

[[maybe_unused]] sim::Message text_message(int severity, const std::string &text) {
    return {severity, nullptr, -1, text};
}

// For a process that ends by it: what is printed at such an end goes to the standard error again.
template <class Operation>
void run_to_death(Operation &&operation) {
    imsg_set_sink(nullptr, nullptr);
    operation();
}

class BrokerTest : public testing::Test {
protected:
    BrokerTest() {
        world.add_host("alpha", {"127.0.0.2"});
        world.add_host("beta", {"127.0.0.3"});
        world.add_host("dual", {"127.0.0.4", "::1"});
        world.add_host("v6only", {"::1"});
    }

    // Fails the test unless a handle is had.
    rvzd_handle_t *handle_to(const char *host, uint32_t protocol = RVZD_PROTOCOL_UDP, uint32_t prim = 0) {
        rvzd_handle_t *handle = nullptr;
        EXPECT_EQ(rvzd_get_handle_prim_proto(host, protocol, prim, 0, &handle), TBS_ST_OK);
        return handle;
    }

    // Opens a handle, gives it back, and leaves the record idle.
    rvzd_cached_handle_t *rest_record(const char *host, uint32_t protocol = RVZD_PROTOCOL_UDP) {
        rvzd_handle_t *handle = handle_to(host, protocol);
        rvzd_cached_handle_t *record = handle->cached;
        rvzd_free_handle(handle);
        return record;
    }

    void expect_lock_is_free() { EXPECT_EQ(rvzd_call_lock.depth, 0u); }

    sim::World world;
};

} // namespace
