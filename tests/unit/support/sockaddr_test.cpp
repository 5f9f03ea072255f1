// Socket addresses of both families.
#include <gtest/gtest.h>

#include <cstring>

#include <arpa/inet.h>
#include <sys/un.h>

#include <support/sysutl.h>

namespace {

ks_sockaddr_storage_t ipv4(const char *text, uint16_t port) {
    ks_sockaddr_storage_t address;
    memset(&address, 0, sizeof address);
    address.ipv4.sin_family = AF_INET;
    address.ipv4.sin_port = htons(port);
    inet_pton(AF_INET, text, &address.ipv4.sin_addr);
    return address;
}

ks_sockaddr_storage_t ipv6(const char *text, uint16_t port) {
    ks_sockaddr_storage_t address;
    memset(&address, 0, sizeof address);
    address.ipv6.sin6_family = AF_INET6;
    address.ipv6.sin6_port = htons(port);
    inet_pton(AF_INET6, text, &address.ipv6.sin6_addr);
    return address;
}

const sockaddr *base(const ks_sockaddr_storage_t &address) {
    return &address.base;
}

ks_sockaddr_storage_t of_another_family() {
    ks_sockaddr_storage_t address;
    memset(&address, 0x55, sizeof address);
    address.base.sa_family = AF_UNIX;
    return address;
}

ks_sockaddr_storage_t garbage() {
    ks_sockaddr_storage_t address;
    memset(&address, 0xaa, sizeof address);
    return address;
}

bool same_bytes(const ks_sockaddr_storage_t &left, const ks_sockaddr_storage_t &right) {
    return memcmp(&left, &right, sizeof left) == 0;
}

std::string text_of(const ks_sockaddr_storage_t &address) {
    char text[SYSUTL_ADDRESS_TEXT_SIZE];
    return sysutl_sockaddr_to_str(&address.base, sizeof text, text);
}

const ks_sockaddr_storage_t all_zero = ks_sockaddr_storage_t{};

} // namespace

TEST(SocketAddress, CopyKeepsEitherFamilyAndClearsTheRest) {
    const auto four = ipv4("127.0.0.1", 371);
    auto copy = garbage();
    sysutl_copy_sockaddr(&copy, &four.base);
    EXPECT_TRUE(same_bytes(copy, four));
    auto six = ipv6("fe80::1", 371);
    six.ipv6.sin6_scope_id = 3;
    six.ipv6.sin6_flowinfo = htonl(5);
    sysutl_copy_sockaddr(&copy, &six.base);
    EXPECT_TRUE(same_bytes(copy, six));
}

TEST(SocketAddress, CopyOfAnotherFamilyIsAllZero) {
    const auto other = of_another_family();
    auto copy = garbage();
    sysutl_copy_sockaddr(&copy, &other.base);
    EXPECT_TRUE(same_bytes(copy, all_zero));
}

TEST(SocketAddress, CopyOntoItselfChangesNothing) {
    auto address = ipv6("::1", 371);
    const auto before = address;
    sysutl_copy_sockaddr(&address, &address.base);
    EXPECT_TRUE(same_bytes(address, before));
}

TEST(SocketAddress, SizeIsThatOfTheFamily) {
    EXPECT_EQ(sysutl_sockaddr_size(base(ipv4("127.0.0.1", 0))), sizeof(sockaddr_in));
    EXPECT_EQ(sysutl_sockaddr_size(base(ipv6("::1", 0))), sizeof(sockaddr_in6));
    EXPECT_EQ(sysutl_sockaddr_size(base(of_another_family())), 0u);
}

TEST(SocketAddress, PortIsReadAndSetInNetworkOrder) {
    for (auto address : {ipv4("127.0.0.1", 371), ipv6("::1", 371)}) {
        uint16_t port = 0;
        EXPECT_EQ(sysutl_sockaddr_get_port(&address.base, &port), 0);
        EXPECT_EQ(port, htons(371));
        EXPECT_EQ(sysutl_sockaddr_set_port(&address.base, htons(4711)), 0);
        EXPECT_EQ(sysutl_sockaddr_get_port(&address.base, &port), 0);
        EXPECT_EQ(port, htons(4711));
    }
}

TEST(SocketAddress, AnotherFamilyHasNoPort) {
    auto address = of_another_family();
    uint16_t port = 99;
    EXPECT_EQ(sysutl_sockaddr_get_port(&address.base, &port), -1);
    EXPECT_EQ(port, 0);
    EXPECT_EQ(sysutl_sockaddr_set_port(&address.base, 5), -1);
    EXPECT_TRUE(same_bytes(address, of_another_family()));
}

TEST(SocketAddress, WildcardIsTheFamilyAndZero) {
    auto address = garbage();
    EXPECT_EQ(sysutl_sockaddr_any_init(AF_INET, &address), 0);
    EXPECT_TRUE(same_bytes(address, ipv4("0.0.0.0", 0)));
    address = garbage();
    EXPECT_EQ(sysutl_sockaddr_any_init(AF_INET6, &address), 0);
    EXPECT_TRUE(same_bytes(address, ipv6("::", 0)));
    EXPECT_EQ(sysutl_sockaddr_any_init(AF_UNIX, &address), -1);
    EXPECT_TRUE(same_bytes(address, all_zero));
}

TEST(SocketAddress, TextHasThePortAndBracketsAroundIpv6) {
    EXPECT_EQ(text_of(ipv4("127.0.0.1", 371)), "127.0.0.1:371");
    EXPECT_EQ(text_of(ipv6("::1", 371)), "[::1]:371");
    EXPECT_EQ(text_of(of_another_family()), "?");
}

TEST(SocketAddress, TextThatDoesNotFitIsCut) {
    char text[8] = "xxxxxxx";
    const auto address = ipv4("127.0.0.1", 371);
    EXPECT_EQ(sysutl_sockaddr_to_str(&address.base, sizeof text, text), text);
    EXPECT_STREQ(text, "127.0.0");
}

TEST(SocketAddress, LongestTextFitsTheSizeNamedForIt) {
    auto address = ipv6("fe80:1111:2222:3333:4444:5555:6666:7777", 65535);
    address.ipv6.sin6_scope_id = UINT32_MAX;
    EXPECT_EQ(text_of(address), "[fe80:1111:2222:3333:4444:5555:6666:7777%4294967295]:65535");
}

TEST(SocketAddress, NumericHostHasNoPort) {
    char text[46];
    EXPECT_EQ(sysutl_host_numeric(base(ipv4("127.0.0.1", 371)), sizeof text, text, 0, 0), 0);
    EXPECT_STREQ(text, "127.0.0.1");
    EXPECT_EQ(sysutl_host_numeric(base(ipv6("::ffff:10.0.0.1", 371)), sizeof text, text, 0, 0), 0);
    EXPECT_STREQ(text, "::ffff:10.0.0.1");
}

TEST(SocketAddress, NumericHostThatCannotBeGivenIsAResolversCode) {
    char text[4];
    EXPECT_EQ(sysutl_host_numeric(base(ipv4("127.0.0.1", 371)), sizeof text, text, 0, 0), EAI_OVERFLOW);
    EXPECT_EQ(sysutl_host_numeric(base(of_another_family()), sizeof text, text, 0, 0), EAI_FAMILY);
}

TEST(MappedAddress, IsRecognised) {
    const auto mapped = ipv6("::ffff:10.0.0.1", 0);
    const auto plain = ipv6("::1", 0);
    const auto four = ipv4("10.0.0.1", 0);
    EXPECT_NE(sysutl_is_addr_v4mapped(&mapped), 0);
    EXPECT_EQ(sysutl_is_addr_v4mapped(&plain), 0);
    EXPECT_EQ(sysutl_is_addr_v4mapped(&four), 0);
}

TEST(MappedAddress, GivesItsIpv4PartWithThePort) {
    const auto mapped = ipv6("::ffff:10.0.0.1", 371);
    ks_sockaddr_storage_t taken = all_zero;
    EXPECT_EQ(sysutl_get_v4mapped_addr(&mapped, &taken.ipv4), 0);
    EXPECT_TRUE(same_bytes(taken, ipv4("10.0.0.1", 371)));
}

TEST(MappedAddress, IsMadeOfAnIpv4AddressWithThePort) {
    const auto four = ipv4("10.0.0.1", 371);
    auto mapped = garbage();
    EXPECT_EQ(sysutl_set_ipv4_as_ipv6mapped(&four.ipv4, &mapped), 0);
    EXPECT_TRUE(same_bytes(mapped, ipv6("::ffff:10.0.0.1", 371)));
}

TEST(MappedAddress, OfAnotherFormIsRefusedWithZeroes) {
    const auto plain = ipv6("::1", 371);
    sockaddr_in taken;
    memset(&taken, 0xaa, sizeof taken);
    EXPECT_EQ(sysutl_get_v4mapped_addr(&plain, &taken), -1);
    EXPECT_EQ(memcmp(&taken, &all_zero, sizeof taken), 0);
    auto mapped = garbage();
    EXPECT_EQ(sysutl_set_ipv4_as_ipv6mapped(&plain.ipv4, &mapped), -1);
    EXPECT_TRUE(same_bytes(mapped, all_zero));
}
