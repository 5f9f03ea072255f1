// The registry's records against bytes written down field by field: both directions, freeing, cut-off at every byte,
// limits of texts, and counts that lie.
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/sim/sweeps.h>
#include <tests/sim/world.h>
#include <tests/unit/xdr/samples.h>
#include <veliaxdr/rgy_wire.h>

namespace {

using wire_tests::Bytes;

// Bytes of the wire, field by field.
class Fields {
public:
    Fields &word(uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes_.push_back(static_cast<char>(value >> shift));
        return *this;
    }
    Fields &hyper(uint64_t value) {
        return word(static_cast<uint32_t>(value >> 32)).word(static_cast<uint32_t>(value));
    }
    Fields &text(const std::string &value) {
        word(static_cast<uint32_t>(value.size()));
        bytes_ += value;
        bytes_.append((4 - value.size() % 4) % 4, '\0');
        return *this;
    }
    Fields &uuid(uint8_t first) {
        for (uint8_t i = 0; i < 16; ++i)
            bytes_.push_back(static_cast<char>(first + i));
        return *this;
    }
    Fields &pair() { return uuid(0x10).uuid(0x40); }
    Fields &request_header() { return hyper(0x0102030405060708).word(9); }
    Fields &good_reply() { return word(77).word(0); }
    // What nearly all requests begin with: database 3, version 3.
    Fields &db_prefix() { return request_header().word(3).word(3); }
    Fields &fetch_prefix() { return db_prefix().pair().text("r1").word(5).word(20); }

    operator Bytes() const { return bytes_; }

private:
    Bytes bytes_;
};

constexpr rvzd_hdr_req_t request_header = {0x0102030405060708, 9};
constexpr rvzd_hdr_reply_t good_reply = {77, TBS_ST_OK};

tbs_uuid_t uuid_from(uint8_t first) {
    tbs_uuid_t uuid;
    for (uint8_t i = 0; i < 16; ++i)
        uuid.bytes[i] = static_cast<uint8_t>(first + i);
    return uuid;
}
const rgy_dtm_pair_t stamps = {uuid_from(0x10), uuid_from(0x40)};

char *text(const char *value) {
    return const_cast<char *>(value);
}

// The record is these bytes, the bytes are this record, no shorter ones are, and nothing is left when it is freed.
template <class Record>
void expect_bytes(bool_t (*routine)(XDR *, Record *), const Record &record, const Bytes &expected) {
    Bytes encoded;
    ASSERT_TRUE(wire_tests::encode(routine, record, encoded));
    EXPECT_EQ(encoded, expected);
    Record decoded = {};
    size_t consumed = 0;
    ASSERT_TRUE(wire_tests::decode(routine, expected, decoded, &consumed));
    EXPECT_EQ(consumed, expected.size());
    Bytes again;
    ASSERT_TRUE(wire_tests::encode(routine, decoded, again));
    EXPECT_EQ(again, expected);
    EXPECT_TRUE(wire_tests::release(routine, decoded));
    for (size_t length = 1; length < expected.size(); ++length) {
        Record cut = {};
        EXPECT_FALSE(wire_tests::decode(routine, expected.substr(0, length), cut)) << length;
        EXPECT_TRUE(wire_tests::release(routine, cut));
    }
    EXPECT_EQ(sim::World::current().live_blocks(), 0u);
}

struct RecordCase {
    const char *name;
    std::function<void()> check;
};

void PrintTo(const RecordCase &record, std::ostream *out) {
    *out << record.name;
}

class RegistryRecord : public testing::TestWithParam<RecordCase> {
protected:
    sim::World world;
};

TEST_P(RegistryRecord, IsItsBytes) {
    GetParam().check();
}

rgy_svr_entry_t two_entries[] = {{7, text("-a=1;")}, {0xffffffff, text("")}};
rgy_db_info_t two_dbs[] = {{1, text("view_tag"), uuid_from(1), uuid_from(2), -1},
                           {11, text(""), uuid_from(3), uuid_from(4), 5}};
char *patterns[] = {text("a*"), text(""), text("b?c")};

const RecordCase record_cases[] = {
    {"SvrEntry",
     [] {
         expect_bytes(xdr_rgy_svr_entry_t, {7, text("-a=1;")}, Fields().word(7).text("-a=1;"));
     }},
    {"DbInfo",
     [] {
         expect_bytes(xdr_rgy_db_info_t, two_dbs[0],
                      Fields().word(1).text("view_tag").uuid(1).uuid(2).word(UINT32_MAX));
     }},
    {"DtmPair", [] { expect_bytes(xdr_rgy_dtm_pair_t, stamps, Fields().pair()); }},
    {"GetIdRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_get_id_req_t, {request_header, 3, 3}, Fields().db_prefix());
     }},
    {"GetDtmRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_get_dtm_req_t, {request_header, 3, 3}, Fields().db_prefix());
     }},
    {"GetRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_get_req_t, {request_header, 3, 3, stamps, text("r1"), 5, 20},
                      Fields().fetch_prefix());
     }},
    {"FindByStringRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_findbystring_req_t,
                      {request_header, 3, 3, stamps, text("r1"), 5, 20, text("-tag"), text("/tags/a")},
                      Fields().fetch_prefix().text("-tag").text("/tags/a"));
     }},
    {"FindByAttrRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_findbyattr_req_t,
                      {request_header, 3, 3, stamps, text("r1"), 5, 20, text("-attributes"), text("n"), text("value")},
                      Fields().fetch_prefix().text("-attributes").text("n").text("value"));
     }},
    {"FindByUuidRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_findbyuuid_req_t,
                      {request_header, 3, 3, stamps, text("r1"), 5, 20, text("-view_uuid"), uuid_from(0x80)},
                      Fields().fetch_prefix().text("-view_uuid").uuid(0x80));
     }},
    {"GetPatternRequestWithTheBatchSizeLast",
     [] {
         expect_bytes(
             xdr_rvzd_registry_get_pattern_req_t, {request_header, 3, 3, stamps, text("r1"), 5, 3, patterns, 3, 20},
             Fields().db_prefix().pair().text("r1").word(5).word(3).text("a*").text("").text("b?c").word(3).word(20));
     }},
    {"AnEmptyPatternListSendsBothCountsAsZero",
     [] {
         expect_bytes(xdr_rvzd_registry_get_pattern_req_t,
                      {request_header, 3, 3, stamps, text("r1"), 5, 0, nullptr, 0, 20},
                      Fields().db_prefix().pair().text("r1").word(5).word(0).word(0).word(20));
     }},
    {"AddRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_add_req_t, {request_header, 3, 3, stamps, text("-a=1;")},
                      Fields().db_prefix().pair().text("-a=1;"));
     }},
    {"RemoveRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_remove_req_t, {request_header, 3, 3, stamps, 4711},
                      Fields().db_prefix().pair().word(4711));
     }},
    {"ChangeRequest",
     [] {
         rgy_change_t changes[] = {{0, text("-a=1;")}, {4711, nullptr}};
         expect_bytes(
             xdr_rvzd_registry_change_req_t, {request_header, 3, 3, stamps, 2, uuid_from(0x80), 7, 2, changes},
             Fields().db_prefix().pair().word(2).uuid(0x80).word(7).word(2).word(0).text("-a=1;").word(4711).text(""));
     }},
    {"ChkAccessRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_chk_access_req_t, {request_header, 3, 3, -2, text("secret")},
                      Fields().db_prefix().word(0xfffffffe).text("secret"));
     }},
    {"GetDbRequestWithoutDatabase",
     [] {
         expect_bytes(xdr_rvzd_registry_get_db_req_t, {request_header, 3, 12},
                      Fields().request_header().word(3).word(12));
     }},
    {"ClntConfRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_clnt_conf_req_t, {request_header, 3, 10, text("alpha")},
                      Fields().request_header().word(3).word(10).text("alpha"));
     }},
    {"SvrConfRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_svr_conf_req_t, {request_header, 3, 12, text("")},
                      Fields().request_header().word(3).word(12).text(""));
     }},
    {"GetBackupRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_get_backup_req_t, {request_header, 3}, Fields().request_header().word(3));
     }},
    {"SetBackupRequest",
     [] {
         expect_bytes(xdr_rvzd_registry_set_backup_req_t, {request_header, 3, text("a b")},
                      Fields().request_header().word(3).text("a b"));
     }},
    {"GetIdReply",
     [] {
         expect_bytes(xdr_rvzd_registry_get_id_reply_t, {good_reply, 3, stamps}, Fields().good_reply().word(3).pair());
     }},
    {"GetDtmReply",
     [] {
         expect_bytes(xdr_rvzd_registry_get_dtm_reply_t, {good_reply, 3, stamps, uuid_from(1), uuid_from(2)},
                      Fields().good_reply().word(3).pair().uuid(1).uuid(2));
     }},
    {"GetReplyWithAnArray",
     [] {
         expect_bytes(
             xdr_rvzd_registry_get_reply_t, {good_reply, 3, stamps, 9, 2, two_entries},
             Fields().good_reply().word(3).pair().word(9).word(2).word(7).text("-a=1;").word(UINT32_MAX).text(""));
     }},
    {"GetReplyWithAnEmptyArray",
     [] {
         expect_bytes(xdr_rvzd_registry_get_reply_t, {good_reply, 0, stamps, 0, 0, nullptr},
                      Fields().good_reply().word(0).pair().word(0).word(0));
     }},
    {"GetReplyOfVersionOneWithAnEntry",
     [] {
         expect_bytes(xdr_rvzd_registry_get_reply_t, {good_reply, 1, stamps, 9, 1, two_entries},
                      Fields().good_reply().word(1).pair().word(9).word(1).word(7).text("-a=1;").word(1));
     }},
    {"GetReplyOfVersionOneWithoutEntry",
     [] {
         expect_bytes(xdr_rvzd_registry_get_reply_t, {good_reply, 1, stamps, 9, 0, nullptr},
                      Fields().good_reply().word(1).pair().word(9).word(0).word(0));
     }},
    {"GetDbReply",
     [] {
         expect_bytes(xdr_rvzd_registry_get_db_reply_t, {good_reply, 3, 2, two_dbs},
                      Fields()
                          .good_reply()
                          .word(3)
                          .word(2)
                          .word(1)
                          .text("view_tag")
                          .uuid(1)
                          .uuid(2)
                          .word(UINT32_MAX)
                          .word(11)
                          .text("")
                          .uuid(3)
                          .uuid(4)
                          .word(5));
     }},
    {"ChangeReply",
     [] {
         expect_bytes(xdr_rvzd_registry_change_reply_t, {good_reply, 3, stamps, 1072, 5, 6},
                      Fields().good_reply().word(3).pair().word(1072).word(5).word(6));
     }},
    {"GetBackupReply",
     [] {
         expect_bytes(xdr_rvzd_registry_get_backup_reply_t, {good_reply, text("beta")},
                      Fields().good_reply().text("beta"));
     }},
    {"AddReply", [] { expect_bytes(xdr_rvzd_registry_add_reply_t, {good_reply}, Fields().good_reply()); }},
    {"RemoveReply", [] { expect_bytes(xdr_rvzd_registry_remove_reply_t, {good_reply}, Fields().good_reply()); }},
    {"ChkAccessReply", [] { expect_bytes(xdr_rvzd_registry_chk_access_reply_t, {good_reply}, Fields().good_reply()); }},
    {"ClntConfReply", [] { expect_bytes(xdr_rvzd_registry_clnt_conf_reply_t, {good_reply}, Fields().good_reply()); }},
    {"SvrConfReply", [] { expect_bytes(xdr_rvzd_registry_svr_conf_reply_t, {good_reply}, Fields().good_reply()); }},
    {"SetBackupReply", [] { expect_bytes(xdr_rvzd_registry_set_backup_reply_t, {good_reply}, Fields().good_reply()); }},
};

INSTANTIATE_TEST_SUITE_P(Wire, RegistryRecord, testing::ValuesIn(record_cases),
                         [](const auto &one) { return std::string(one.param.name); });

class RegistryWire : public testing::Test {
protected:
    sim::World world;
};

// A reply that failed is its header, and what was zeroed before stays so and frees well.
template <class Record>
void expect_header_only(bool_t (*routine)(XDR *, Record *)) {
    const Bytes bytes = Fields().word(77).word(TBS_ST_NOT_FOUND);
    Record record = {};
    size_t consumed = 0;
    ASSERT_TRUE(wire_tests::decode(routine, bytes + Bytes(100, '\xff'), record, &consumed));
    EXPECT_EQ(consumed, bytes.size());
    EXPECT_EQ(record.header.status, TBS_ST_NOT_FOUND);
    EXPECT_TRUE(wire_tests::release(routine, record));
    Bytes encoded;
    ASSERT_TRUE(wire_tests::encode(routine, record, encoded));
    EXPECT_EQ(encoded, bytes);
}

TEST_F(RegistryWire, ANonzeroStatusDecodesNothingMoreAndAZeroedReplyIsSafeToFree) {
    expect_header_only(xdr_rvzd_registry_get_id_reply_t);
    expect_header_only(xdr_rvzd_registry_get_dtm_reply_t);
    expect_header_only(xdr_rvzd_registry_get_reply_t);
    expect_header_only(xdr_rvzd_registry_get_db_reply_t);
    expect_header_only(xdr_rvzd_registry_get_backup_reply_t);
    expect_header_only(xdr_rvzd_registry_add_reply_t);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(RegistryWire, VersionOneGivesOneEntryOrANullPointerAndCountZero) {
    rvzd_registry_get_reply_t reply = {};
    ASSERT_TRUE(wire_tests::decode(xdr_rvzd_registry_get_reply_t,
                                   Bytes(Fields().good_reply().word(1).pair().word(9).word(0).word(0)), reply));
    EXPECT_EQ(reply.entries, nullptr);
    EXPECT_EQ(reply.count, 0);
    ASSERT_TRUE(wire_tests::decode(
        xdr_rvzd_registry_get_reply_t,
        Bytes(Fields().good_reply().word(1).pair().word(9).word(1).word(7).text("-a=1;").word(1)), reply));
    ASSERT_EQ(reply.count, 1);
    EXPECT_EQ(reply.entries[0].entry_id, 7u);
    EXPECT_STREQ(reply.entries[0].flex_text, "-a=1;");
    wire_tests::release(xdr_rvzd_registry_get_reply_t, reply);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(RegistryWire, ACountOfVersionOneThatPromisesMoreThanIsThereDoesNotDecode) {
    const Fields none = Fields().good_reply().word(1).pair().word(9).word(0);
    const Fields one = Fields().good_reply().word(1).pair().word(9).word(1).word(7).text("-a=1;");
    for (uint32_t count : {1u, 2u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        rvzd_registry_get_reply_t reply = {};
        EXPECT_FALSE(wire_tests::decode(xdr_rvzd_registry_get_reply_t, Bytes(Fields(none).word(count)), reply));
        EXPECT_TRUE(wire_tests::release(xdr_rvzd_registry_get_reply_t, reply));
        if (count > 1) {
            EXPECT_FALSE(wire_tests::decode(xdr_rvzd_registry_get_reply_t, Bytes(Fields(one).word(count)), reply));
        }
        EXPECT_TRUE(wire_tests::release(xdr_rvzd_registry_get_reply_t, reply));
    }
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(RegistryWire, AnArraysCountAloneCostsNoMemory) {
    for (const Bytes &bytes :
         {Bytes(Fields().good_reply().word(3).pair().word(9).word(UINT32_MAX)),
          Bytes(Fields().good_reply().word(3).pair().word(9).word(UINT32_MAX).word(1).text("x"))}) {
        rvzd_registry_get_reply_t reply = {};
        EXPECT_FALSE(wire_tests::decode(xdr_rvzd_registry_get_reply_t, bytes, reply));
        EXPECT_TRUE(wire_tests::release(xdr_rvzd_registry_get_reply_t, reply));
    }
    rvzd_registry_get_db_reply_t dbs = {};
    EXPECT_FALSE(wire_tests::decode(xdr_rvzd_registry_get_db_reply_t,
                                    Bytes(Fields().good_reply().word(3).word(UINT32_MAX)), dbs));
    EXPECT_TRUE(wire_tests::release(xdr_rvzd_registry_get_db_reply_t, dbs));
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(RegistryWire, AnyVersionButOneIsAnArray) {
    for (uint32_t version : {0u, 2u, 3u, 0xffffffffu}) {
        rvzd_registry_get_reply_t reply = {};
        ASSERT_TRUE(wire_tests::decode(
            xdr_rvzd_registry_get_reply_t,
            Bytes(Fields().good_reply().word(version).pair().word(9).word(1).word(7).text("-a=1;")), reply));
        EXPECT_EQ(reply.count, 1);
        wire_tests::release(xdr_rvzd_registry_get_reply_t, reply);
    }
}

// Sets a text in a cleared record and says whether it encodes.
template <class Record>
bool takes(bool_t (*routine)(XDR *, Record *), char *Record::*member, size_t length) {
    std::string value(length, 'x');
    Record record = {};
    record.*member = value.data();
    Bytes bytes;
    return wire_tests::encode(routine, record, bytes);
}

template <class Record>
void expect_longest(bool_t (*routine)(XDR *, Record *), char *Record::*member, size_t longest) {
    EXPECT_TRUE(takes(routine, member, longest)) << longest;
    EXPECT_FALSE(takes(routine, member, longest + 1)) << longest;
}

TEST_F(RegistryWire, EveryTextHasItsLongestForm) {
    expect_longest(xdr_rgy_svr_entry_t, &rgy_svr_entry_t::flex_text, 4095);
    expect_longest(xdr_rgy_db_info_t, &rgy_db_info_t::name, 1023);
    expect_longest(xdr_rvzd_registry_get_req_t, &rvzd_registry_get_req_t::region, 32);
    expect_longest(xdr_rvzd_registry_findbystring_req_t, &rvzd_registry_findbystring_req_t::region, 32);
    expect_longest(xdr_rvzd_registry_findbystring_req_t, &rvzd_registry_findbystring_req_t::item_key, 31);
    expect_longest(xdr_rvzd_registry_findbystring_req_t, &rvzd_registry_findbystring_req_t::lookup_string, 1023);
    expect_longest(xdr_rvzd_registry_findbyattr_req_t, &rvzd_registry_findbyattr_req_t::region, 32);
    expect_longest(xdr_rvzd_registry_findbyattr_req_t, &rvzd_registry_findbyattr_req_t::item_key, 31);
    expect_longest(xdr_rvzd_registry_findbyattr_req_t, &rvzd_registry_findbyattr_req_t::attr_name, 1023);
    expect_longest(xdr_rvzd_registry_findbyattr_req_t, &rvzd_registry_findbyattr_req_t::attr_value, 1023);
    expect_longest(xdr_rvzd_registry_findbyuuid_req_t, &rvzd_registry_findbyuuid_req_t::region, 32);
    expect_longest(xdr_rvzd_registry_findbyuuid_req_t, &rvzd_registry_findbyuuid_req_t::item_key, 31);
    expect_longest(xdr_rvzd_registry_get_pattern_req_t, &rvzd_registry_get_pattern_req_t::region, 32);
    expect_longest(xdr_rvzd_registry_add_req_t, &rvzd_registry_add_req_t::flex_text, 4095);
    expect_longest(xdr_rvzd_registry_chk_access_req_t, &rvzd_registry_chk_access_req_t::password, 4095);
    expect_longest(xdr_rvzd_registry_clnt_conf_req_t, &rvzd_registry_clnt_conf_req_t::text, 512);
    expect_longest(xdr_rvzd_registry_svr_conf_req_t, &rvzd_registry_svr_conf_req_t::text, 31);
    expect_longest(xdr_rvzd_registry_set_backup_req_t, &rvzd_registry_set_backup_req_t::host_list, 512);
    expect_longest(xdr_rvzd_registry_get_backup_reply_t, &rvzd_registry_get_backup_reply_t::host_list, 512);
}

TEST_F(RegistryWire, PatternsHaveNoLongestForm) {
    std::string pattern(20000, '*');
    char *list[] = {pattern.data()};
    rvzd_registry_get_pattern_req_t request = {};
    request.patterns_length = 1;
    request.patterns = list;
    Bytes bytes;
    EXPECT_TRUE(wire_tests::encode(xdr_rvzd_registry_get_pattern_req_t, request, bytes));
}

TEST_F(RegistryWire, ACountThatNoWordHoldsDoesNotEncode) {
    Bytes bytes;
    for (int64_t count : {int64_t{-1}, int64_t{1} << 32}) {
        rvzd_registry_get_reply_t reply = {};
        reply.count = count;
        EXPECT_FALSE(wire_tests::encode(xdr_rvzd_registry_get_reply_t, reply, bytes));
        rvzd_registry_get_pattern_req_t request = {};
        request.patterns_length = count;
        EXPECT_FALSE(wire_tests::encode(xdr_rvzd_registry_get_pattern_req_t, request, bytes));
    }
}

TEST_F(RegistryWire, EachFailingAllocationFailsTheDecodingAndLeaksNothing) {
    const Bytes array =
        Fields().good_reply().word(3).pair().word(9).word(2).word(7).text("-a=1;").word(8).text("-b=2;");
    const Bytes single = Fields().good_reply().word(1).pair().word(9).word(1).word(7).text("-a=1;").word(1);
    for (const Bytes &bytes : {array, single}) {
        bool done = false;
        rvzd_registry_get_reply_t reply = {};
        const int failures = sim::sweep_allocations(
            world,
            [&] {
                reply = {};
                done = wire_tests::decode(xdr_rvzd_registry_get_reply_t, bytes, reply);
            },
            [&](int number) {
                EXPECT_FALSE(done) << number;
                wire_tests::release(xdr_rvzd_registry_get_reply_t, reply);
                EXPECT_EQ(world.live_blocks(), 0u) << number;
            });
        EXPECT_GE(failures, 2);
        EXPECT_TRUE(done);
        wire_tests::release(xdr_rvzd_registry_get_reply_t, reply);
    }
}

} // namespace
