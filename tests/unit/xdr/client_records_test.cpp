// Host information, the two forms of a client's address, and client lists.
#include <tests/unit/xdr/wire_test.h>

using namespace wire_tests;

namespace {

class HostInformation : public WireTest {};
class ClientEntry : public WireTest {};
class HostName : public WireTest {};

class ClientList : public WireTest {
protected:
    // `count` entries without addresses and texts behind the fields before them.
    static WireBytes list_of(uint32_t announced, uint32_t sent) {
        WireBytes wire = WireBytes().reply_header().word(3).word(1).word(announced);
        for (uint32_t i = 0; i < sent; ++i)
            wire.word(0).repeated(40, '\0').hyper(i).hyper(i + 1);
        return wire;
    }

    static void release_entries(rvzd_clnt_list_get_reply_t &record) {
        for (uint32_t i = 0; i < record.count; ++i)
            release(xdr_clnt_entry_t, record.entries[i]);
        stg_free(record.entries);
        record.entries = nullptr;
    }
};

const std::string zero_sockaddr(16, '\0');

ks_sockaddr_storage_t ipv6(const char *text, uint16_t port = 0) {
    ks_sockaddr_storage_t address;
    memset(&address, 0, sizeof address);
    address.ipv6.sin6_family = AF_INET6;
    address.ipv6.sin6_port = htons(port);
    inet_pton(AF_INET6, text, &address.ipv6.sin6_addr);
    return address;
}

Bytes address_v70_of(const ks_sockaddr_storage_t &address) {
    auto entry = cleared<clnt_entry_t>();
    entry.address = address;
    Bytes bytes;
    EXPECT_TRUE(encode(xdr_clnt_entry_v70_t, entry, bytes));
    return bytes.substr(0, 16);
}

TEST_F(HostInformation, IsTenTextsInTheirOrder) {
    clnt_hostinfo_t sent = cleared<clnt_hostinfo_t>();
    char *const texts[] = {sampler.text(9), sampler.text(9), sampler.text(9), sampler.text(9), sampler.text(9),
                           sampler.text(9), sampler.text(9), sampler.text(9), sampler.text(9), sampler.text(9)};
    sent = {texts[0], texts[1], texts[2], texts[3], texts[4], texts[5], texts[6], texts[7], texts[8], texts[9]};
    WireBytes expected;
    for (const char *text : texts)
        expected.text(text);
    EXPECT_EQ(encoded(xdr_clnt_hostinfo_t, sent), expected);
}

TEST_F(HostInformation, OfNullTextsGoesOutAsEmptyTexts) {
    EXPECT_EQ(encoded(xdr_clnt_hostinfo_t, cleared<clnt_hostinfo_t>()), WireBytes().repeated(40, '\0'));
}

// Whether a record goes out and comes in with a text of this length in one of its ten places.
void expect_text_passes(size_t place, size_t length, bool expected) {
    std::string text(length, 'h');
    const WireBytes wire = WireBytes().repeated(4 * place, '\0').text(text).repeated(4 * (9 - place), '\0');
    auto sent = cleared<clnt_hostinfo_t>();
    char **const cells[] = {&sent.hostname, &sent.product,       &sent.version, &sent.osname,   &sent.osversion,
                            &sent.machine,  &sent.registry_host, &sent.region,  &sent.reserved, &sent.options};
    *cells[place] = text.data();
    Bytes bytes;
    EXPECT_EQ(encode(xdr_clnt_hostinfo_t, sent, bytes, 1 << 18), expected) << place;
    auto received = cleared<clnt_hostinfo_t>();
    EXPECT_EQ(decode(xdr_clnt_hostinfo_t, wire, received), expected) << place;
    release(xdr_clnt_hostinfo_t, received);
}

TEST_F(HostInformation, BoundsTheHostNameAndMoreLooselyTheOtherTexts) {
    expect_text_passes(0, 255, true);
    expect_text_passes(0, 256, false);
    for (size_t place = 1; place < 10; ++place) {
        expect_text_passes(place, RVZD_HOST_TEXT_MAX, true);
        expect_text_passes(place, RVZD_HOST_TEXT_MAX + 1, false);
    }
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(ClientEntry, HoldsTheAddressFirstThenTheHostThenTwoTimes) {
    const WireBytes wire =
        WireBytes().word(1).word(371).raw("\x7f").repeated(2, 0).raw("\x01").repeated(40, 0).hyper(5).hyper(
            0xffffffffffffffff);
    auto entry = decoded(xdr_clnt_entry_t, wire);
    EXPECT_EQ(entry.address.ipv4.sin_family, AF_INET);
    EXPECT_EQ(entry.address.ipv4.sin_port, htons(371));
    EXPECT_EQ(entry.address.ipv4.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(entry.reserved_time, 5);
    EXPECT_EQ(entry.registry_time, -1);
    EXPECT_EQ(encoded(xdr_clnt_entry_t, entry), wire);
    release(xdr_clnt_entry_t, entry);
}

TEST_F(ClientEntry, OfTheOlderFormGivesUpTheIpv4PartAloneFamilyZeroIncluded) {
    EXPECT_EQ(address_v70_of(ipv6("::ffff:10.1.2.3", 371)),
              Bytes(WireBytes().repeated(4, 0).raw("\x0a\x01\x02\x03").repeated(8, 0)));
}

TEST_F(ClientEntry, OfTheOlderFormSendsZerosForAnyOtherAddress) {
    ks_sockaddr_storage_t ipv4;
    memset(&ipv4, 0, sizeof ipv4);
    EXPECT_EQ(address_v70_of(ipv4), zero_sockaddr);
    ipv4.ipv4.sin_family = AF_INET;
    ipv4.ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(address_v70_of(ipv4), zero_sockaddr);
    EXPECT_EQ(address_v70_of(ipv6("2001:db8::1", 371)), zero_sockaddr);
}

TEST_F(ClientEntry, OfTheOlderFormIsIpv6InMemoryWhateverFamilyItsAddressNames) {
    for (const uint32_t family : {0u, 2u}) {
        auto entry = decoded(xdr_clnt_entry_v70_t,
                             WireBytes().word(family << 16).raw("\x0a\x01\x02\x03").repeated(48, 0).hyper(5).hyper(6));
        const auto expected = ipv6("::ffff:10.1.2.3");
        EXPECT_EQ(memcmp(&entry.address.ipv6, &expected.ipv6, sizeof expected.ipv6), 0) << family;
        EXPECT_EQ(entry.registry_time, 6);
        release(xdr_clnt_entry_v70_t, entry);
    }
}

TEST_F(ClientEntry, OfTheOlderFormLeavesTheAddressAloneInFreeMode) {
    auto entry = cleared<clnt_entry_t>();
    entry.address = ipv6("::ffff:10.1.2.3");
    const auto before = entry.address;
    EXPECT_TRUE(release(xdr_clnt_entry_v70_t, entry));
    EXPECT_EQ(memcmp(&entry.address, &before, sizeof before), 0);
}

TEST_F(ClientList, BringsItsEntries) {
    auto reply = decoded(xdr_rvzd_clnt_list_get_reply_t, list_of(2, 2));
    EXPECT_EQ(reply.position, 3);
    EXPECT_EQ(reply.at_end, 1);
    ASSERT_EQ(reply.count, 2u);
    EXPECT_EQ(reply.entries[1].registry_time, 2);
    release_entries(reply);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(ClientList, OfNoEntriesHasNoArray) {
    EXPECT_EQ(decoded(xdr_rvzd_clnt_list_get_reply_t, list_of(0, 0)).entries, nullptr);
}

TEST_F(ClientList, IsLeftAloneByFreeMode) {
    auto reply = decoded(xdr_rvzd_clnt_list_get_reply_t, list_of(2, 2));
    const size_t blocks = world.live_blocks();
    clnt_entry_t *const entries = reply.entries;
    EXPECT_TRUE(release(xdr_rvzd_clnt_list_get_reply_t, reply));
    EXPECT_EQ(reply.entries, entries);
    EXPECT_EQ(reply.count, 2u);
    EXPECT_EQ(world.live_blocks(), blocks);
    release_entries(reply);
}

TEST_F(ClientList, IsReleasedWholeWhenItBreaksOff) {
    auto reply = cleared<rvzd_clnt_list_get_reply_t>();
    EXPECT_FALSE(decode(xdr_rvzd_clnt_list_get_reply_t, list_of(3, 2), reply));
    EXPECT_EQ(reply.entries, nullptr);
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(ClientList, CostsNoMemoryForACountAlone) {
    expect_refused(xdr_rvzd_clnt_list_get_reply_t, list_of(UINT32_MAX, 1));
    expect_refused(xdr_rvzd_clnt_list_get_v70_reply_t, list_of(UINT32_MAX, 0));
}

TEST_F(ClientList, HasABoundOnItsEntries) {
    constexpr uint32_t most = RVZD_CLNT_LIST_ENTRIES_MAX;
    auto reply = decoded(xdr_rvzd_clnt_list_get_reply_t, list_of(most, most));
    EXPECT_EQ(reply.count, most);
    release_entries(reply);
    expect_refused(xdr_rvzd_clnt_list_get_reply_t, list_of(most + 1, most + 1));
    EXPECT_EQ(world.live_blocks(), 0u);
}

TEST_F(HostName, HasAtMost63BytesInLookupsAndBuilds) {
    for (const size_t length : {size_t{63}, size_t{64}}) {
        std::string name(length, 'h');
        Bytes bytes;
        auto lookup = cleared<rvzd_clnt_list_lookup_req_t>();
        lookup.hostname = name.data();
        EXPECT_EQ(encode(xdr_rvzd_clnt_list_lookup_req_t, lookup, bytes), length == 63);
        auto build = cleared<rvzd_remote_build_hi_req_t>();
        build.hostname = name.data();
        EXPECT_EQ(encode(xdr_rvzd_remote_build_hi_req_t, build, bytes), length == 63);
    }
    const std::string too_long(64, 'h');
    expect_refused(xdr_rvzd_clnt_list_lookup_req_t, WireBytes().request_header().text(too_long));
    expect_refused(xdr_rvzd_remote_build_hi_req_t, WireBytes().request_header().text(too_long).word(1).word(1));
}

} // namespace
