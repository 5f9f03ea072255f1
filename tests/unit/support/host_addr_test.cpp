// Looking up hosts and services: the site's own files before the system's resolver.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <tests/bad_files.h>

#include "address_list.h"
#include "alloc_probe.h"
#include "message_recorder.h"
#include "test_site.h"

namespace {

using testing::Each;
using testing::IsEmpty;
using testing::Not;
using Addresses = std::vector<std::string>;

std::string machine_name() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

constexpr uint64_t bytes_max = 16 << 20;

// Expects that `file` was refused once with these words since the last time.
void expect_refusal(MessageRecorder &recorder, const std::string &file, const std::string &words) {
    ASSERT_EQ(recorder.messages.size(), 1u);
    EXPECT_EQ(recorder.messages[0].severity, IMSG_ERROR);
    EXPECT_EQ(recorder.messages[0].text, "Error reading from \"" + file + "\": " + words + ".\n");
    recorder.messages.clear();
}

} // namespace

TEST(HostLookUp, GivesTheSitesAddressesInTheOrderOfTheFile) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9 ::1 127.0.0.3\n");
    EXPECT_EQ(look_up("pluto", nullptr), (LookUp{0, {"127.0.0.9:0", "[::1]:0", "127.0.0.3:0"}}));
}

TEST(HostLookUp, LinesOfOneHostAddUp) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\nvenus 127.0.0.4\npluto 127.0.0.3\n");
    EXPECT_EQ(look_up("pluto", nullptr).addresses, (Addresses{"127.0.0.9:0", "127.0.0.3:0"}));
}

TEST(HostLookUp, ComparesNamesWithoutCaseAndPassesOverComments) {
    TestSite site;
    site.write("config/hosts.conf", "# the outer ones\n\n  PLUTO\t127.0.0.9 # 127.0.0.8\n#pluto 127.0.0.7\n");
    EXPECT_EQ(look_up("pluto", nullptr).addresses, Addresses{"127.0.0.9:0"});
}

TEST(HostLookUp, PassesOverMalformedAddressesAndLines) {
    TestSite site;
    site.write("config/hosts.conf",
               "pluto 127.0.0.999 127.0.0.9 nonsense\n" + std::string(5000, 'x') + "\npluto 127.0.0.3");
    EXPECT_EQ(look_up("pluto", nullptr).addresses, (Addresses{"127.0.0.9:0", "127.0.0.3:0"}));
}

TEST(HostLookUp, LineLongerThanAnySensibleOneIsPassedOverWhole) {
    TestSite site;
    site.write("config/hosts.conf", "pluto" + std::string(1100, ' ') + "pluto 127.0.0.8\npluto 127.0.0.3\n");
    EXPECT_EQ(look_up("pluto", nullptr).addresses, Addresses{"127.0.0.3:0"});
}

TEST(HostLookUp, ReadsTheFileAfreshAtEachQuestion) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    EXPECT_EQ(look_up("pluto", nullptr).addresses, Addresses{"127.0.0.9:0"});
    site.write("config/hosts.conf", "pluto 127.0.0.3\n");
    EXPECT_EQ(look_up("pluto", nullptr).addresses, Addresses{"127.0.0.3:0"});
}

TEST(HostLookUp, HostThatTheSiteDoesNotHaveIsTheSystems) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    EXPECT_EQ(look_up("127.0.0.77", nullptr).addresses, Addresses{"127.0.0.77:0"});
    EXPECT_EQ(look_up("::1", nullptr).addresses, Addresses{"[::1]:0"});
}

TEST(HostLookUp, UnknownHostIsAResolversCodeAndANullList) {
    TestSite site;
    const std::string too_long_for_any_host(300, 'x');
    addrinfo other = {};
    addrinfo *found = &other;
    EXPECT_NE(sysutl_host_addr(too_long_for_any_host.c_str(), nullptr, SOCK_STREAM, &found), 0);
    EXPECT_EQ(found, nullptr);
}

TEST(HostLookUp, NeitherHostNorServiceIsNoName) {
    TestSite site;
    EXPECT_EQ(look_up(nullptr, nullptr), (LookUp{EAI_NONAME, {}}));
}

TEST(HostLookUp, NullHostIsThisMachinesLoopback) {
    TestSite site;
    const LookUp found = look_up(nullptr, "371");
    EXPECT_EQ(found.error, 0);
    EXPECT_THAT(found.addresses, Not(IsEmpty()));
    EXPECT_THAT(found.addresses, Each(testing::AnyOf("127.0.0.1:371", "[::1]:371")));
}

TEST(HostLookUp, EntriesHaveTheSocketTypeAskedFor) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        addrinfo *found = nullptr;
        ASSERT_EQ(sysutl_host_addr("pluto", nullptr, type, &found), 0);
        EXPECT_EQ(found->ai_socktype, type);
        EXPECT_EQ(found->ai_next, nullptr);
        freeaddrinfo(found);
    }
}

TEST(HostLookUp, CallerWithoutAWishGetsEachAddressOnce) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    EXPECT_EQ(look_up("pluto", nullptr, 0).addresses, Addresses{"127.0.0.9:0"});
    EXPECT_EQ(look_up("127.0.0.9", nullptr, 0).addresses, Addresses{"127.0.0.9:0"});
}

TEST(HostLookUp, MachinesOwnNameStandsForTheHostThatVeliaHostnameNames) {
    TestSite site;
    ScopedEnv env("VELIA_HOSTNAME", "beta");
    site.write("config/hosts.conf", "beta 127.0.0.12\n");
    EXPECT_EQ(look_up(machine_name().c_str(), nullptr).addresses, Addresses{"127.0.0.12:0"});
    EXPECT_EQ(look_up("beta", nullptr).addresses, Addresses{"127.0.0.12:0"});
}

TEST(HostLookUp, MachinesOwnNameIsAHostLikeAnyWithoutVeliaHostname) {
    TestSite site;
    ScopedEnv env("VELIA_HOSTNAME", nullptr);
    site.write("config/hosts.conf", machine_name() + " 127.0.0.13\n");
    EXPECT_EQ(look_up(machine_name().c_str(), nullptr).addresses, Addresses{"127.0.0.13:0"});
}

TEST(HostLookUp, FailsCleanlyWithoutMemory) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9 127.0.0.10\n");
    look_up("pluto", nullptr);
    for (size_t number = 1;; ++number) {
        addrinfo *found = nullptr;
        probe::fail_request(number);
        const int error = sysutl_host_addr("pluto", nullptr, SOCK_STREAM, &found);
        const bool has_failed = probe::has_failed();
        probe::fail_request(0);
        EXPECT_EQ(error != 0, found == nullptr);
        if (found != nullptr)
            freeaddrinfo(found);
        if (!has_failed)
            break;
    }
}

TEST(HostLookUp, FileThatIsNoneIsRefusedAndTheSystemAsked) {
    TestSite site;
    const std::string file = site.path("config/hosts.conf");
    MessageRecorder recorder;
    bad_files::for_each(file, bytes_max, [&](const std::string &words) {
        EXPECT_EQ(look_up("127.0.0.77", nullptr).addresses, Addresses{"127.0.0.77:0"});
        expect_refusal(recorder, file, words);
        EXPECT_EQ(look_up("127.0.0.78", nullptr).addresses, Addresses{"127.0.0.78:0"});
        EXPECT_THAT(recorder.messages, IsEmpty()) << "one message, however often the file is asked";
        std::filesystem::remove(file);
        look_up("127.0.0.77", nullptr);
    });
}

TEST(HostLookUp, FileUpToItsBoundIsReadAndNoneBehindIt) {
    TestSite site;
    std::string text = "pluto 127.0.0.9\n";
    while (text.size() < bytes_max)
        text += std::string(std::min<size_t>(1000, bytes_max - text.size() - 1), '#') + "\n";
    const std::string file = site.write("config/hosts.conf", text);
    MessageRecorder recorder;
    EXPECT_EQ(look_up("pluto", nullptr).addresses, Addresses{"127.0.0.9:0"});
    EXPECT_THAT(recorder.messages, IsEmpty());
    site.write("config/hosts.conf", text + "#");
    EXPECT_EQ(look_up("127.0.0.77", nullptr).addresses, Addresses{"127.0.0.77:0"});
    expect_refusal(recorder, file, bad_files::words(bad_files::Kind::sparse, bytes_max));
}

TEST(HostLookUp, FileThatMayNotBeReadCountsAsMissing) {
    TestSite site;
    const std::string file = site.write("config/hosts.conf", "127.0.0.77 127.0.0.9\n");
    MessageRecorder recorder;
    const bad_files::WithoutRight guard(file);
    EXPECT_EQ(look_up("127.0.0.77", nullptr).addresses, Addresses{"127.0.0.77:0"});
    EXPECT_THAT(recorder.messages, IsEmpty());
}

TEST(HostLookUp, ZeroByteEndsItsLineAndNoOther) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9" + std::string(1, '\0') + " 127.0.0.8\npluto 127.0.0.3");
    EXPECT_EQ(look_up("pluto", nullptr).addresses, (Addresses{"127.0.0.9:0", "127.0.0.3:0"}));
}

TEST(ServiceLookUp, FileThatIsNoneIsRefusedAndTheSystemAsked) {
    TestSite site;
    const std::string file = site.path("config/services.conf");
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    MessageRecorder recorder;
    bad_files::for_each(file, bytes_max, [&](const std::string &words) {
        EXPECT_EQ(look_up("pluto", "371").addresses, Addresses{"127.0.0.9:371"});
        expect_refusal(recorder, file, words);
        std::filesystem::remove(file);
        look_up("pluto", "371");
    });
}

TEST(ServiceLookUp, GivesTheSitesPort) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    site.write("config/services.conf", "# ours\nrvzd 4371\n");
    EXPECT_EQ(look_up("pluto", "RVZD").addresses, Addresses{"127.0.0.9:4371"});
    EXPECT_THAT(look_up(nullptr, "rvzd").addresses, Each(testing::AnyOf("127.0.0.1:4371", "[::1]:4371")));
}

TEST(ServiceLookUp, ProtocolLimitsALineToItsTransport) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    site.write("config/services.conf", "rvzd 4371/udp\nrvzd 4372/TCP\n");
    EXPECT_EQ(look_up("pluto", "rvzd", SOCK_DGRAM).addresses, Addresses{"127.0.0.9:4371"});
    EXPECT_EQ(look_up("pluto", "rvzd", SOCK_STREAM).addresses, Addresses{"127.0.0.9:4372"});
    EXPECT_EQ(look_up("pluto", "rvzd", 0).addresses, Addresses{"127.0.0.9:4371"});
}

TEST(ServiceLookUp, PassesOverMalformedPorts) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    site.write("config/services.conf", "rvzd\nrvzd -1\nrvzd 65536\nrvzd 12x\nrvzd 0\nrvzd 65535\n");
    EXPECT_EQ(look_up("pluto", "rvzd").addresses, Addresses{"127.0.0.9:65535"});
}

TEST(ServiceLookUp, NumberIsItsOwnPort) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    EXPECT_EQ(look_up("pluto", "371").addresses, Addresses{"127.0.0.9:371"});
}

TEST(ServiceLookUp, WithoutADescriptorIsAFailureAndNoAnswer) {
    TestSite site;
    site.write("config/services.conf", "velia-sample 4711\n");
    rlimit usual;
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none = {3, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const auto of_site = look_up(nullptr, "velia-sample");
    setrlimit(RLIMIT_NOFILE, &usual);
    std::filesystem::remove(site.path("config/services.conf"));
    setrlimit(RLIMIT_NOFILE, &none);
    const auto of_system = look_up(nullptr, "velia-nothing");
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(of_site, (LookUp{EAI_SYSTEM, {}}));
    EXPECT_EQ(of_system, (LookUp{EAI_SYSTEM, {}}));
    EXPECT_EQ(look_up(nullptr, "velia-nothing").error, EAI_SERVICE);
}

TEST(ServiceLookUp, UnknownServiceIsAResolversCode) {
    TestSite site;
    site.write("config/hosts.conf", "pluto 127.0.0.9\n");
    const LookUp found = look_up("pluto", "no-such-service");
    EXPECT_NE(found.error, 0);
    EXPECT_THAT(found.addresses, IsEmpty());
    EXPECT_NE(look_up(nullptr, "no-such-service").error, 0);
}
