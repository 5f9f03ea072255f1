// What the tests of registry operations over the network share: a broker test whose peer is a registry.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <rvzd/client/registry_clnt/bindings.h>
#include <rvzd/client/registry_clnt/local/local_files.h>
#include <support/stg.h>
#include <tests/unit/rvzd_clnt/broker_fixture.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_messages.h>
#include <veliaxdr/rgy_wire.h>

namespace {

using namespace velia::registry_clnt;

[[maybe_unused]] tbs_uuid_t uuid_from(uint8_t first) {
    tbs_uuid_t uuid;
    for (uint8_t i = 0; i < 16; ++i)
        uuid.bytes[i] = static_cast<uint8_t>(first + i);
    return uuid;
}

// The stamps of a reply whose server stamp is told by `server` and whose database stamp by `database`.
[[maybe_unused]] rgy_dtm_pair_t stamps_of(uint8_t database, uint8_t server) {
    return {uuid_from(database), uuid_from(server)};
}

// Entries as the wire carries them, numbered from 1.
class WireEntries {
public:
    WireEntries(std::vector<std::string> texts) : texts_(std::move(texts)) {
        uint64_t id = 0;
        for (auto &text : texts_)
            entries_.push_back({++id, text.data()});
    }
    rgy_svr_entry_t *data() { return entries_.data(); }
    int64_t count() const { return static_cast<int64_t>(entries_.size()); }

private:
    std::vector<std::string> texts_;
    std::vector<rgy_svr_entry_t> entries_;
};

// A reply to any of the fetches.
[[maybe_unused]] sim::Answer batch(std::vector<std::string> texts, uint64_t cursor = 0,
                                   rgy_dtm_pair_t stamps = stamps_of(1, 2), int64_t version = 3) {
    WireEntries entries(std::move(texts));
    const rvzd_registry_get_reply_t reply = {{},     version,         stamps,
                                             cursor, entries.count(), entries.count() > 0 ? entries.data() : nullptr};
    return sim::reply(xdr_rvzd_registry_get_reply_t, reply);
}

// A reply that is its status.
[[maybe_unused]] sim::Answer refusal(tbs_status_t status) {
    return sim::reply(xdr_rvzd_null_reply_t, rvzd_null_reply_t{{0, status}});
}

class RegistryTest : public BrokerTest {
protected:
    RegistryTest() {
        world.peer.answer(RVZD_PROC_CLNT_LIST_REGISTER, refusal(TBS_ST_OK));
        setenv("VELIA_HOSTNAME", "thishost", 1);
    }
    ~RegistryTest() override {
        rgy_deallocate_bindings(nullptr);
        rgy_hostname_cache_inval();
        EXPECT_EQ(registry_cache_lock.depth, 0u);
        expect_lock_is_free();
    }

    // The first word of what is printed for a failed call.
    static std::string head_of(const std::vector<sim::Message> &messages) {
        if (messages.size() != 1)
            return "not one message";
        return messages[0].text.substr(0, messages[0].text.find(':'));
    }
};

} // namespace
