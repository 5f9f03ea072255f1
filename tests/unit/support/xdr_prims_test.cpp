#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <support/xdr_prims.h>

#include "alloc_probe.h"

namespace {

using Bytes = std::vector<char>;

// Encodes into bytes; empty if the routine refuses.
template <class Code>
Bytes encoded(Code &&code) {
    Bytes bytes(65536);
    XDR xdrs;
    xdrmem_create(&xdrs, bytes.data(), static_cast<u_int>(bytes.size()), XDR_ENCODE);
    if (!code(&xdrs))
        return {};
    bytes.resize(xdr_getpos(&xdrs));
    return bytes;
}

template <class Code>
bool decoded(const Bytes &bytes, Code &&code) {
    Bytes copy = bytes; // exact size, so that reading beyond is seen
    XDR xdrs;
    xdrmem_create(&xdrs, copy.data(), static_cast<u_int>(copy.size()), XDR_DECODE);
    return code(&xdrs) && xdr_getpos(&xdrs) == copy.size();
}

template <class Code>
void freed(Code &&code) {
    XDR xdrs = {};
    xdrs.x_op = XDR_FREE;
    EXPECT_TRUE(code(&xdrs));
}

Bytes words(std::initializer_list<uint32_t> values) {
    Bytes bytes;
    for (const uint32_t value : values) {
        const uint32_t word = htonl(value);
        const char *begin = reinterpret_cast<const char *>(&word);
        bytes.insert(bytes.end(), begin, begin + sizeof word);
    }
    return bytes;
}

// Decoding of every true prefix fails, leaves nothing behind (the leak check sees to that), and free mode after it is
// safe. `Record` is decoded by `code(xdrs, record)`.
template <class Record, class Code>
void expect_truncations_fail(const Bytes &bytes, Code &&code) {
    for (size_t length = 0; length < bytes.size(); ++length) {
        Record record = {};
        const Bytes cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length));
        EXPECT_FALSE(decoded(cut, [&](XDR *xdrs) { return code(xdrs, record); })) << length;
        freed([&](XDR *xdrs) { return code(xdrs, record); });
    }
}

// Each failing allocation fails the decoding and leaves nothing behind.
template <class Record, class Code>
void expect_failing_allocations_fail(const Bytes &bytes, Code &&code) {
    for (size_t number = 1;; ++number) {
        Record record = {};
        Bytes copy = bytes;
        XDR xdrs;
        xdrmem_create(&xdrs, copy.data(), static_cast<u_int>(copy.size()), XDR_DECODE);
        probe::fail_request(number);
        const bool ok = code(&xdrs, record);
        const bool has_failed = probe::has_failed();
        probe::fail_request(0);
        freed([&](XDR *freeing) { return code(freeing, record); });
        EXPECT_EQ(ok, !has_failed) << number;
        if (!has_failed)
            return;
    }
}

bool_t word_element(XDR *xdrs, void *element, void *) {
    return xdr_u_int(xdrs, static_cast<u_int *>(element));
}

bool_t string_element(XDR *xdrs, void *element, void *) {
    return xdr_ez_string8(xdrs, static_cast<char **>(element), UINT32_MAX);
}

struct StringArray {
    char **strings;
    uint32_t count;
};

bool_t code_strings(XDR *xdrs, StringArray &array) {
    if (!xdr_u_int(xdrs, &array.count))
        return FALSE;
    uint32_t count = array.count;
    void *strings = array.strings;
    const bool_t ok = xdr_ez_array(xdrs, &strings, &count, count, sizeof(char *), string_element, nullptr);
    array.strings = static_cast<char **>(strings);
    return ok;
}

} // namespace

TEST(XdrLong, IsOneWordAndRefusesWhatDoesNotFit) {
    for (const int64_t value : {int64_t{0}, int64_t{1}, int64_t{-1}, int64_t{INT32_MAX}, int64_t{INT32_MIN}}) {
        int64_t cell = value;
        const Bytes bytes = encoded([&](XDR *xdrs) { return velia_xdr_long(xdrs, &cell); });
        EXPECT_EQ(bytes, words({static_cast<uint32_t>(value)}));
        int64_t read = 77;
        EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return velia_xdr_long(xdrs, &read); }));
        EXPECT_EQ(read, value);
    }
    for (int64_t value : {int64_t{INT32_MAX} + 1, int64_t{INT32_MIN} - 1, INT64_MAX})
        EXPECT_TRUE(encoded([&](XDR *xdrs) { return velia_xdr_long(xdrs, &value); }).empty()) << value;
}

TEST(XdrUnsignedLong, IsOneWordAndRefusesWhatDoesNotFit) {
    uint64_t largest = UINT32_MAX;
    const Bytes bytes = encoded([&](XDR *xdrs) { return velia_xdr_u_long(xdrs, &largest); });
    uint64_t read = 0;
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return velia_xdr_u_long(xdrs, &read); }));
    EXPECT_EQ(read, UINT32_MAX);
    uint64_t too_large = largest + 1;
    EXPECT_TRUE(encoded([&](XDR *xdrs) { return velia_xdr_u_long(xdrs, &too_large); }).empty());
}

TEST(XdrTime, SentinelsSurviveTheTrip) {
    for (time_t value : {time_t{0}, time_t{1}, time_t{-1}, time_t{5000000000}}) {
        const Bytes bytes = encoded([&](XDR *xdrs) { return xdr_time_t(xdrs, &value); });
        EXPECT_EQ(bytes,
                  words({static_cast<uint32_t>(static_cast<uint64_t>(value) >> 32), static_cast<uint32_t>(value)}));
        time_t read = 77;
        EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return xdr_time_t(xdrs, &read); }));
        EXPECT_EQ(read, value);
        expect_truncations_fail<time_t>(bytes, [](XDR *xdrs, time_t &cell) { return xdr_time_t(xdrs, &cell); });
    }
}

TEST(XdrSize, IsAHyper) {
    uint64_t value = 0x123456789abcdef0;
    EXPECT_EQ(encoded([&](XDR *xdrs) { return xdr_size_t(xdrs, &value); }), words({0x12345678, 0x9abcdef0}));
}

TEST(XdrBoolean, AnyValueButZeroIsOneBothWays) {
    tbs_boolean_t value = 42;
    EXPECT_EQ(encoded([&](XDR *xdrs) { return xdr_tbs_boolean_t(xdrs, &value); }), words({1}));
    tbs_boolean_t read = 0;
    EXPECT_TRUE(decoded(words({7}), [&](XDR *xdrs) { return xdr_tbs_boolean_t(xdrs, &read); }));
    EXPECT_EQ(read, 1);
}

TEST(XdrWords, AreOneWordEach) {
    int32_t pid = -5;
    tbs_status_t status = TBS_ST_RPC_FAILED;
    uint32_t word = 0xfffffffe;
    tbs_acl_generic_map_t map = {3, 12};
    EXPECT_EQ(encoded([&](XDR *xdrs) {
                  return xdr_pid_t(xdrs, &pid) && xdr_tbs_status_t(xdrs, &status) && xdr_ks_uint32_t(xdrs, &word) &&
                         xdr_tbs_acl_permission_set_t(xdrs, &word) && xdr_tbs_notify_delivery_mask_t(xdrs, &word) &&
                         xdr_tbs_acl_generic_map_t(xdrs, &map);
              }),
              words({0xfffffffb, 1004, 0xfffffffe, 0xfffffffe, 0xfffffffe, 3, 12}));
}

TEST(XdrUuid, IsItsSixteenBytes) {
    tbs_uuid_t uuid;
    memcpy(uuid.bytes, "0123456789abcdef", 16);
    const Bytes bytes = encoded([&](XDR *xdrs) { return xdr_tbs_uuid_t(xdrs, &uuid); });
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "0123456789abcdef");
}

TEST(XdrString, RoundTripsAtEveryLengthAroundTheSteps) {
    for (const size_t length : {0u, 1u, 2u, 3u, 4u, 1023u, 1024u, 1025u, 2048u, 5000u}) {
        std::string text(length, 'x');
        char *cell = text.data();
        const Bytes bytes = encoded([&](XDR *xdrs) { return xdr_string_pointer(xdrs, &cell, 5000); });
        EXPECT_EQ(bytes.size(), 4 + (length + 3) / 4 * 4);
        char *read = reinterpret_cast<char *>(1); // decoding never looks at what was there
        EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return xdr_string_pointer(xdrs, &read, 5000); }));
        EXPECT_EQ(read, text);
        freed([&](XDR *xdrs) { return xdr_string_pointer(xdrs, &read, 5000); });
        EXPECT_EQ(read, nullptr);
    }
}

TEST(XdrString, NullIsSentAsTheEmptyString) {
    char *none = nullptr;
    const Bytes bytes = encoded([&](XDR *xdrs) { return xdr_ks_canon_pname_p_t(xdrs, &none); });
    EXPECT_EQ(bytes, words({0}));
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return xdr_ks_canon_pname_p_t(xdrs, &none); }));
    EXPECT_STREQ(none, "");
    stg_free(none);
}

TEST(XdrString, TheMaximumBindsBothWays) {
    char text[] = "abcd";
    char *cell = text;
    EXPECT_TRUE(encoded([&](XDR *xdrs) { return xdr_string_pointer(xdrs, &cell, 3); }).empty());
    const Bytes bytes = encoded([&](XDR *xdrs) { return xdr_string_pointer(xdrs, &cell, 4); });
    char *read = nullptr;
    EXPECT_FALSE(decoded(bytes, [&](XDR *xdrs) { return xdr_string_pointer(xdrs, &read, 3); }));
    EXPECT_EQ(read, nullptr);
}

TEST(XdrString, AZeroByteInsideDoesNotDecode) {
    Bytes bytes = words({4, 0x61006263});
    char *read = nullptr;
    EXPECT_FALSE(decoded(bytes, [&](XDR *xdrs) { return xdr_string_pointer(xdrs, &read, 100); }));
    EXPECT_EQ(read, nullptr);
}

TEST(XdrString, ToleratesTruncationAndFailedAllocationsEverywhere) {
    std::string text(2500, 'y');
    char *cell = text.data();
    const auto code = [](XDR *xdrs, char *&string) { return xdr_ez_string8(xdrs, &string, UINT32_MAX); };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, cell); });
    expect_truncations_fail<char *>(bytes, code);
    expect_failing_allocations_fail<char *>(bytes, code);
}

TEST(HostileLength, OfAStringCostsNoMoreThanArrives) {
    const Bytes bytes = words({0xfffffff0, 0x61616161, 0x61616161});
    probe::start_counting();
    char *read = nullptr;
    const bool ok = [&] {
        Bytes copy = bytes;
        XDR xdrs;
        xdrmem_create(&xdrs, copy.data(), static_cast<u_int>(copy.size()), XDR_DECODE);
        return xdr_ez_string8(&xdrs, &read, UINT32_MAX) != 0;
    }();
    EXPECT_FALSE(ok);
    EXPECT_LE(probe::bytes_asked(), 4096u);
}

TEST(HostileCount, OfAnArrayCostsNoMoreThanArrives) {
    struct Large {
        u_int word;
        char rest[1000];
    };
    Bytes bytes = words({1, 2, 3});
    void *array = nullptr;
    uint32_t count = UINT32_MAX;
    probe::start_counting();
    EXPECT_FALSE(decoded(bytes, [&](XDR *xdrs) {
        return xdr_ez_array(xdrs, &array, &count, UINT32_MAX, sizeof(Large), word_element, nullptr);
    }));
    EXPECT_LE(probe::bytes_asked(), 8192u);
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(count, UINT32_MAX);
}

TEST(XdrArray, CarriesElementsAndNoCount) {
    u_int values[] = {5, 6, 7};
    void *array = values;
    uint32_t count = 3;
    const auto code = [&](XDR *xdrs) {
        return xdr_ez_array(xdrs, &array, &count, count, sizeof(u_int), word_element, nullptr);
    };
    const Bytes bytes = encoded(code);
    EXPECT_EQ(bytes, words({5, 6, 7}));
    array = nullptr;
    EXPECT_TRUE(decoded(bytes, code));
    EXPECT_EQ(memcmp(array, values, sizeof values), 0);
    freed(code);
    EXPECT_EQ(array, nullptr);
}

TEST(XdrArray, UsesTheCallersStorage) {
    u_int storage[] = {9, 9, 9};
    void *array = storage;
    uint32_t count = 2;
    EXPECT_TRUE(decoded(words({1, 2}), [&](XDR *xdrs) {
        return xdr_ez_array(xdrs, &array, &count, 3, sizeof(u_int), word_element, nullptr);
    }));
    EXPECT_EQ(array, storage);
    EXPECT_EQ(storage[0], 1u);
    EXPECT_EQ(storage[1], 2u);
    EXPECT_EQ(storage[2], 9u);
}

TEST(XdrArray, RefusesMoreThanTheMaximumAndAMissingArray) {
    void *none = nullptr;
    uint32_t count = 2;
    const auto code = [&](uint32_t maximum) {
        return [&, maximum](XDR *xdrs) {
            return xdr_ez_array(xdrs, &none, &count, maximum, sizeof(u_int), word_element, nullptr);
        };
    };
    EXPECT_FALSE(decoded(words({1, 2}), code(1)));
    EXPECT_TRUE(encoded(code(2)).empty());
    count = 0;
    EXPECT_TRUE(decoded({}, code(0)));
    EXPECT_EQ(none, nullptr);
}

TEST(XdrArray, OfStringsToleratesTruncationAndFailedAllocationsEverywhere) {
    std::vector<std::string> texts(1200, "some text");
    std::vector<char *> pointers;
    for (std::string &text : texts)
        pointers.push_back(text.data());
    StringArray array = {pointers.data(), 40};
    Bytes bytes = encoded([&](XDR *xdrs) { return code_strings(xdrs, array); });
    expect_truncations_fail<StringArray>(bytes, code_strings);
    expect_failing_allocations_fail<StringArray>(bytes, code_strings);
    // Beyond the first step of the array's storage.
    array.count = 1200;
    bytes = encoded([&](XDR *xdrs) { return code_strings(xdrs, array); });
    StringArray read = {};
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code_strings(xdrs, read); }));
    ASSERT_EQ(read.count, 1200u);
    for (uint32_t i = 0; i < read.count; ++i)
        ASSERT_STREQ(read.strings[i], "some text");
    freed([&](XDR *xdrs) { return code_strings(xdrs, read); });
}

TEST(XdrArrayBehindACell, MakesAndReleasesTheCell) {
    u_int values[] = {5, 6};
    void *array = values;
    void **cell = &array;
    uint32_t count = 2;
    const auto code = [](XDR *xdrs, void **&place) {
        uint32_t two = 2;
        return xdr_ez_p2array(xdrs, &place, &two, 2, sizeof(u_int), word_element, nullptr);
    };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, cell); });
    EXPECT_EQ(bytes, words({5, 6}));
    void **read = nullptr;
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code(xdrs, read); }));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(static_cast<u_int *>(*read)[1], 6u);
    freed([&](XDR *xdrs) { return code(xdrs, read); });
    EXPECT_EQ(read, nullptr);
    expect_truncations_fail<void **>(bytes, code);
    expect_failing_allocations_fail<void **>(bytes, code);
    void **none = nullptr;
    EXPECT_TRUE(encoded([&](XDR *xdrs) {
                    return xdr_ez_p2array(xdrs, &none, &count, 2, sizeof(u_int), word_element, nullptr);
                }).empty());
}

TEST(XdrPointer, AbsentDecodesToAZeroedObject) {
    void *none = nullptr;
    const auto code = [](XDR *xdrs, void *&pointer) {
        return xdr_ez_pointer(xdrs, &pointer, sizeof(u_int), word_element, nullptr);
    };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, none); });
    EXPECT_EQ(bytes, words({0}));
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code(xdrs, none); }));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(*static_cast<u_int *>(none), 0u);
    freed([&](XDR *xdrs) { return code(xdrs, none); });
    EXPECT_EQ(none, nullptr);
}

TEST(XdrPointer, PresentCarriesTheObject) {
    char text[] = "abc";
    char *string = text;
    void *pointer = &string;
    const auto code = [](XDR *xdrs, void *&cell) {
        return xdr_ez_pointer(xdrs, &cell, sizeof(char *), string_element, nullptr);
    };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, pointer); });
    EXPECT_EQ(bytes, words({1, 3, 0x61626300}));
    void *read = nullptr;
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code(xdrs, read); }));
    EXPECT_STREQ(*static_cast<char **>(read), "abc");
    freed([&](XDR *xdrs) { return code(xdrs, read); });
    expect_truncations_fail<void *>(bytes, code);
    expect_failing_allocations_fail<void *>(bytes, code);
}

TEST(XdrSockaddrIn, IsSixteenBytesWithoutTheSystemsFill) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(371);
    address.sin_addr.s_addr = htonl(0x7f000002);
    memset(address.sin_zero, 0x55, sizeof address.sin_zero);
    const Bytes bytes = encoded([&](XDR *xdrs) { return xdr_sockaddr_in(xdrs, &address); });
    EXPECT_EQ(bytes, words({0x00020173, 0x7f000002, 0, 0}));
    sockaddr_in read;
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return xdr_sockaddr_in(xdrs, &read); }));
    EXPECT_EQ(read.sin_port, address.sin_port);
    EXPECT_EQ(read.sin_addr.s_addr, address.sin_addr.s_addr);
    expect_truncations_fail<sockaddr_in>(bytes,
                                         [](XDR *xdrs, sockaddr_in &cell) { return xdr_sockaddr_in(xdrs, &cell); });
}

TEST(XdrSockaddrIn, FamilyNonePassesAndOthersDoNot) {
    sockaddr_in address = {};
    EXPECT_EQ(encoded([&](XDR *xdrs) { return xdr_sockaddr_in(xdrs, &address); }), words({0, 0, 0, 0}));
    address.sin_family = AF_INET6;
    EXPECT_TRUE(encoded([&](XDR *xdrs) { return xdr_sockaddr_in(xdrs, &address); }).empty());
    EXPECT_FALSE(decoded(words({0x000a0000, 0, 0, 0}), [&](XDR *xdrs) { return xdr_sockaddr_in(xdrs, &address); }));
}

namespace {

bool_t code_storage(XDR *xdrs, ks_sockaddr_storage_t &address) {
    return xdr_ks_sockaddr_storage_t(xdrs, &address);
}

} // namespace

TEST(XdrSockaddrStorage, KeepsBothFamilies) {
    ks_sockaddr_storage_t ipv4;
    sysutl_sockaddr_any_init(AF_INET, &ipv4);
    ipv4.ipv4.sin_port = htons(371);
    ipv4.ipv4.sin_addr.s_addr = htonl(0x7f000002);
    const Bytes bytes4 = encoded([&](XDR *xdrs) { return code_storage(xdrs, ipv4); });
    EXPECT_EQ(bytes4, words({1, 371, 0x7f000002}));

    ks_sockaddr_storage_t ipv6;
    sysutl_sockaddr_any_init(AF_INET6, &ipv6);
    ipv6.ipv6.sin6_port = htons(372);
    ipv6.ipv6.sin6_addr = in6addr_loopback;
    ipv6.ipv6.sin6_flowinfo = htonl(9);
    ipv6.ipv6.sin6_scope_id = 3;
    const Bytes bytes6 = encoded([&](XDR *xdrs) { return code_storage(xdrs, ipv6); });
    EXPECT_EQ(bytes6, words({2, 372, 0, 0, 0, 1, 9, 3}));

    for (const Bytes &bytes : {bytes4, bytes6}) {
        ks_sockaddr_storage_t read;
        memset(&read, 0x55, sizeof read);
        EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code_storage(xdrs, read); }));
        const ks_sockaddr_storage_t &expected = bytes == bytes4 ? ipv4 : ipv6;
        EXPECT_EQ(memcmp(&read, &expected, sizeof read), 0);
        expect_truncations_fail<ks_sockaddr_storage_t>(bytes, code_storage);
    }
}

TEST(XdrSockaddrStorage, NoAddressIsOneWordAndUnknownOnesDoNotPass) {
    ks_sockaddr_storage_t address;
    memset(&address, 0, sizeof address);
    EXPECT_EQ(encoded([&](XDR *xdrs) { return code_storage(xdrs, address); }), words({0}));
    EXPECT_FALSE(decoded(words({3, 0, 0}), [&](XDR *xdrs) { return code_storage(xdrs, address); }));
    EXPECT_FALSE(decoded(words({1, 65536, 0}), [&](XDR *xdrs) { return code_storage(xdrs, address); }));
    address.base.sa_family = AF_UNIX;
    EXPECT_TRUE(encoded([&](XDR *xdrs) { return code_storage(xdrs, address); }).empty());
}

TEST(XdrCredentials, CarryAtMostThirtyTwoGroups) {
    const uint32_t groups[] = {4, 24};
    credutl_auth_ironvale_t auth = {};
    auth.flavour = 1;
    credutl_init_credentials(1000, 100, 2, groups, &auth.credentials);
    const auto code = [](XDR *xdrs, credutl_auth_ironvale_t &cell) { return xdr_credutl_auth_ironvale_t(xdrs, &cell); };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, auth); });
    EXPECT_EQ(bytes, words({1, 1000, 100, 2, 4, 24}));
    credutl_auth_ironvale_t read;
    memset(&read, 0x55, sizeof read);
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code(xdrs, read); }));
    EXPECT_EQ(memcmp(&read, &auth, sizeof auth), 0);
    expect_truncations_fail<credutl_auth_ironvale_t>(bytes, code);
    EXPECT_FALSE(decoded(words({1, 1000, 100, 33}), [&](XDR *xdrs) { return code(xdrs, read); }));
    auth.credentials.group_count = 33;
    EXPECT_TRUE(encoded([&](XDR *xdrs) { return code(xdrs, auth); }).empty());
}

TEST(XdrCredentials, ByThemselvesAreUserGroupAndTheCountedGroups) {
    const uint32_t groups[] = {4, 24};
    credutl_credentials_t credentials;
    credutl_init_credentials(1000, 100, 2, groups, &credentials);
    const auto code = [](XDR *xdrs, credutl_credentials_t &cell) { return xdr_credutl_credentials_t(xdrs, &cell); };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, credentials); });
    EXPECT_EQ(bytes, words({1000, 100, 2, 4, 24}));
    credutl_credentials_t read;
    memset(&read, 0x55, sizeof read);
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code(xdrs, read); }));
    EXPECT_EQ(memcmp(&read, &credentials, sizeof read), 0);
    expect_truncations_fail<credutl_credentials_t>(bytes, code);
}

TEST(XdrSid, IsKindAndId) {
    credutl_sid_t sid = {CREDUTL_SID_GROUP, 100};
    EXPECT_EQ(encoded([&](XDR *xdrs) { return xdr_credutl_sid_t(xdrs, &sid); }), words({2, 100}));
}

TEST(XdrFlagItem, NameIsDecodedToTheHeap) {
    strutl_flag_item_t item = {"Mon", 1};
    const auto code = [](XDR *xdrs, strutl_flag_item_t &cell) { return xdr_strutl_flag_item_t(xdrs, &cell); };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, item); });
    EXPECT_EQ(bytes, words({3, 0x4d6f6e00, 1}));
    strutl_flag_item_t read = {};
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code(xdrs, read); }));
    EXPECT_STREQ(read.name, "Mon");
    EXPECT_EQ(read.value, 1u);
    freed([&](XDR *xdrs) { return code(xdrs, read); });
    EXPECT_EQ(read.name, nullptr);
    expect_truncations_fail<strutl_flag_item_t>(bytes, code);
    expect_failing_allocations_fail<strutl_flag_item_t>(bytes, code);
}

TEST(XdrAcl, CarriesItsEntries) {
    char user[] = "user:pat";
    tbs_acl_entry_t entries[] = {{TBS_ACL_USER, user, 3}, {TBS_ACL_EVERYONE, nullptr, 1}};
    tbs_acl_t acl = {2, entries};
    tbs_acl_h_t handle = &acl;
    const auto code = [](XDR *xdrs, tbs_acl_h_t &cell) { return xdr_tbs_acl_h_t(xdrs, &cell); };
    const Bytes bytes = encoded([&](XDR *xdrs) { return code(xdrs, handle); });
    tbs_acl_h_t read = nullptr;
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return code(xdrs, read); }));
    ASSERT_EQ(read->count, 2u);
    EXPECT_STREQ(read->entries[0].identity, "user:pat");
    EXPECT_STREQ(read->entries[1].identity, "");
    EXPECT_EQ(read->entries[0].permissions, 3u);
    freed([&](XDR *xdrs) { return code(xdrs, read); });
    EXPECT_EQ(read, nullptr);
    expect_truncations_fail<tbs_acl_h_t>(bytes, code);
    expect_failing_allocations_fail<tbs_acl_h_t>(bytes, code);
}

TEST(XdrAcl, ANullHandleIsAnEmptyList) {
    tbs_acl_h_t none = nullptr;
    const Bytes bytes = encoded([&](XDR *xdrs) { return xdr_tbs_acl_h_t(xdrs, &none); });
    EXPECT_EQ(bytes, words({0}));
    EXPECT_TRUE(decoded(bytes, [&](XDR *xdrs) { return xdr_tbs_acl_h_t(xdrs, &none); }));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->count, 0u);
    freed([&](XDR *xdrs) { return xdr_tbs_acl_h_t(xdrs, &none); });
}
