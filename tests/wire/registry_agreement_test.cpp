// The registry's routines against code that rpcgen made of doc/protocol/registry.x: what the one sends the other takes
// whole and sends again as it was, and both refuse it cut anywhere.
#include <registry.h>
#include <registry_routines.h>

#include <gtest/gtest.h>

#include <tests/wire/agreement_suite.h>
#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_procedures.h>

using namespace wire_tests;

namespace {

void fill_pair(Sampler &s, rgy_dtm_pair_t &r) {
    fill(s, r.dtm);
    fill(s, r.svr_dtm);
}

// Fields by their names, as far as a record has them.
template <class Record>
void fill_request(Sampler &s, Record &r) {
    fill(s, r.header);
    r.version = s.signed_word();
    if constexpr (requires { r.db; })
        r.db = s.signed_word();
    if constexpr (requires { r.dtm; })
        fill_pair(s, r.dtm);
    if constexpr (requires { r.region; }) {
        r.region = s.text(RGY_WIRE_REGION_MAX);
        r.cursor = s.word();
        r.max_entries = s.signed_word();
    }
    if constexpr (requires { r.item_key; })
        r.item_key = s.text(RGY_WIRE_KEY_MAX);
    if constexpr (requires { r.lookup_string; })
        r.lookup_string = s.text(RGY_WIRE_VALUE_MAX);
    if constexpr (requires { r.attr_name; }) {
        r.attr_name = s.text(RGY_WIRE_VALUE_MAX);
        r.attr_value = s.text(RGY_WIRE_VALUE_MAX);
    }
    if constexpr (requires { r.lookup_uuid; })
        fill(s, r.lookup_uuid);
    if constexpr (requires { r.flex_text; })
        r.flex_text = s.text(RGY_WIRE_FLEX_MAX);
    if constexpr (requires { r.entry_id; })
        r.entry_id = s.word();
    if constexpr (requires { r.changes; }) {
        r.flags = static_cast<uint32_t>(s.word());
        fill(s, r.set);
        r.before = static_cast<uint32_t>(s.word());
        r.count = static_cast<int64_t>(s.number(4));
        r.changes = r.count > 0 ? s.array<rgy_change_t>(static_cast<size_t>(r.count)) : nullptr;
        for (int64_t i = 0; i < r.count; ++i)
            r.changes[i] = {s.word(), s.text(200)};
    }
    if constexpr (requires { r.uid; }) {
        r.uid = s.signed_word();
        r.password = s.text(RGY_WIRE_PASSWORD_MAX);
    }
    if constexpr (requires { r.db_max; })
        r.db_max = s.signed_word();
    if constexpr (requires { r.op; }) {
        r.op = s.signed_word();
        r.text = s.text(RGY_WIRE_SVR_CONF_MAX);
    }
    if constexpr (requires { r.host_list; })
        r.host_list = s.text(RGY_WIRE_HOST_LIST_MAX);
    if constexpr (requires { r.patterns; }) {
        r.patterns_length = static_cast<int64_t>(s.number(3));
        r.pattern_count = static_cast<int32_t>(r.patterns_length);
        r.patterns = s.array<char *>(static_cast<size_t>(r.patterns_length));
        for (int64_t i = 0; i < r.patterns_length; ++i)
            r.patterns[i] = s.text(40);
    }
}

void fill_body(Sampler &s, rvzd_registry_get_id_reply_t &r) {
    r.version = s.signed_word();
    fill_pair(s, r.dtm);
}
void fill_body(Sampler &s, rvzd_registry_get_dtm_reply_t &r) {
    r.version = s.signed_word();
    fill_pair(s, r.dtm);
    fill(s, r.aux_uuid1);
    fill(s, r.aux_uuid2);
}
void fill_body(Sampler &s, rvzd_registry_get_reply_t &r) {
    r.version = s.coin() ? 1 : 3;
    fill_pair(s, r.dtm);
    r.cursor = s.word();
    r.count = static_cast<int64_t>(s.number(r.version == 1 ? 1 : 4));
    r.entries = r.count > 0 ? s.array<rgy_svr_entry_t>(static_cast<size_t>(r.count)) : nullptr;
    for (int64_t i = 0; i < r.count; ++i)
        r.entries[i] = {s.word(), s.text(200)};
}
void fill_body(Sampler &s, rvzd_registry_get_db_reply_t &r) {
    r.version = s.signed_word();
    r.count = static_cast<int64_t>(s.number(4));
    r.dbs = r.count > 0 ? s.array<rgy_db_info_t>(static_cast<size_t>(r.count)) : nullptr;
    for (int64_t i = 0; i < r.count; ++i) {
        r.dbs[i].db = s.signed_word();
        r.dbs[i].name = s.text(30);
        fill(s, r.dbs[i].uuid1);
        fill(s, r.dbs[i].uuid2);
        r.dbs[i].last = s.signed_word();
    }
}
void fill_body(Sampler &s, rvzd_registry_change_reply_t &r) {
    r.version = s.signed_word();
    fill_pair(s, r.dtm);
    r.outcome = s.signed_word();
    r.failed = static_cast<uint32_t>(s.word());
    r.passed = static_cast<uint32_t>(s.word());
}
void fill_body(Sampler &s, rvzd_registry_get_backup_reply_t &r) {
    r.host_list = s.text(RGY_WIRE_HOST_LIST_MAX);
}
void fill_body(Sampler &, rvzd_null_reply_t &) {}

template <class Record>
void fill_record(Sampler &s, Record &r) {
    if constexpr (std::is_same_v<decltype(r.header), rvzd_hdr_req_t>) {
        fill_request(s, r);
    } else {
        fill(s, r.header);
        fill_body(s, r);
    }
}

AGREEMENT_PROTOCOL(Registry, REGISTRY, RVZD_REGISTRY_PROCEDURES, fill_record);

struct RegistryAgreement : testing::Test {
    Sampler sampler{20260202};
};

TEST_F(RegistryAgreement, AFieldMeansTheSameOnBothSides) {
    rvzd_registry_findbystring_req_t request = {};
    fill_record(sampler, request);
    Bytes bytes;
    ASSERT_TRUE(encode(xdr_rvzd_registry_findbystring_req_t, request, bytes));
    registry_findbystring_req twin = {};
    ASSERT_TRUE(decode(xdr_registry_findbystring_req, bytes, twin));
    EXPECT_EQ(twin.db, request.db);
    EXPECT_EQ(twin.layer_version, request.version);
    EXPECT_EQ(memcmp(twin.stamps.dtm, request.dtm.dtm.bytes, 16), 0);
    EXPECT_EQ(memcmp(twin.stamps.svr_dtm, request.dtm.svr_dtm.bytes, 16), 0);
    EXPECT_STREQ(twin.region, request.region);
    EXPECT_EQ(twin.cursor, request.cursor);
    EXPECT_EQ(twin.max_entries, request.max_entries);
    EXPECT_STREQ(twin.item_key, request.item_key);
    EXPECT_STREQ(twin.lookup_string, request.lookup_string);
    release(xdr_registry_findbystring_req, twin);
}

} // namespace
