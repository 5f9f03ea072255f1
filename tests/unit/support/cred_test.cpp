// Credentials of users and groups, and RPC authenticators.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <support/credmap.h>
#include <support/credutl.h>

#include <rpc/auth_unix.h>

#include "alloc_probe.h"
#include "test_site.h"

namespace {

struct Parts {
    int result;
    std::string domain;
    std::string user;

    bool operator==(const Parts &) const = default;
};

Parts crack(const char *name, size_t size = 256) {
    std::string domain(256, 'd');
    std::string user(256, 'u');
    const int result = credutl_crack_fq_name(name, domain.data(), size, user.data(), size);
    return {result != 0, domain.c_str(), user.c_str()};
}

std::string text_of(const credutl_credentials_t &credentials) {
    char buffer[CREDUTL_TEXT_SIZE];
    EXPECT_EQ(credutl_credentials_to_str(&credentials, buffer), buffer);
    return buffer;
}

// What an authenticator tells a server.
struct Identity {
    std::string machine;
    uid_t user;
    gid_t group;
    unsigned group_count;
};

Identity identity_of(AUTH *auth) {
    char bytes[1024];
    XDR stream;
    xdrmem_create(&stream, bytes, sizeof bytes, XDR_ENCODE);
    EXPECT_TRUE(auth_marshall(auth, &stream));
    xdrmem_create(&stream, bytes, sizeof bytes, XDR_DECODE);
    unsigned flavour = 0;
    unsigned length = 0;
    EXPECT_TRUE(xdr_u_int(&stream, &flavour) && xdr_u_int(&stream, &length));
    EXPECT_EQ(flavour, static_cast<unsigned>(AUTH_SYS));
    authunix_parms parameters = {};
    EXPECT_TRUE(xdr_authunix_parms(&stream, &parameters));
    Identity identity = {parameters.aup_machname, parameters.aup_uid, parameters.aup_gid, parameters.aup_len};
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_authunix_parms), &parameters);
    return identity;
}

} // namespace

TEST(Sid, KeepsTheIdAndWhatItIsAnIdOf) {
    credutl_sid_t sid = {};
    EXPECT_EQ(credutl_uid_to_sid(&sid, 1000), 0);
    EXPECT_EQ(sid.kind, CREDUTL_SID_USER);
    EXPECT_EQ(sid.id, 1000u);
    EXPECT_EQ(credutl_gid_to_sid(&sid, 100), 0);
    EXPECT_EQ(sid.kind, CREDUTL_SID_GROUP);
    EXPECT_EQ(sid.id, 100u);
}

TEST(Groups, AreThoseOfTheProcess) {
    gid_t expected[65536];
    const int expected_count = getgroups(65536, expected);
    uint32_t groups[65536];
    EXPECT_EQ(credutl_getgroups(65536, groups), expected_count);
    EXPECT_EQ(memcmp(groups, expected, static_cast<size_t>(expected_count) * sizeof(gid_t)), 0);
}

TEST(Groups, WithoutRoomForOneAreAFailure) {
    uint32_t group = 0;
    errno = 0;
    EXPECT_LT(credutl_getgroups(0, &group), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(credutl_getgroups(-1, &group), 0);
}

TEST(Credentials, AreFilledAndTheRestIsZero) {
    const uint32_t groups[] = {4, 24};
    credutl_credentials_t credentials;
    memset(&credentials, 0xaa, sizeof credentials);
    credutl_init_credentials(1000, 100, 2, groups, &credentials);
    credutl_credentials_t expected = {};
    expected.user = 1000;
    expected.group = 100;
    expected.group_count = 2;
    expected.groups[0] = 4;
    expected.groups[1] = 24;
    EXPECT_EQ(memcmp(&credentials, &expected, sizeof expected), 0);
}

TEST(Credentials, KeepTheFirstOfTooManyGroups) {
    uint32_t groups[CREDUTL_GROUPS_MAX + 3];
    for (uint32_t i = 0; i < CREDUTL_GROUPS_MAX + 3; ++i)
        groups[i] = i;
    credutl_credentials_t credentials;
    credutl_init_credentials(1, 2, CREDUTL_GROUPS_MAX + 3, groups, &credentials);
    EXPECT_EQ(credentials.group_count, static_cast<uint32_t>(CREDUTL_GROUPS_MAX));
    EXPECT_EQ(credentials.groups[CREDUTL_GROUPS_MAX - 1], CREDUTL_GROUPS_MAX - 1u);
    credutl_sid_credentials_t sids;
    credutl_init_sid_credentials(nullptr, nullptr, CREDUTL_GROUPS_MAX + 3, groups, &sids);
    EXPECT_EQ(sids.group_count, static_cast<uint32_t>(CREDUTL_GROUPS_MAX));
}

TEST(Credentials, OfSidsMayBeWithoutAny) {
    credutl_sid_credentials_t sids;
    memset(&sids, 0xaa, sizeof sids);
    credutl_init_sid_credentials(nullptr, nullptr, 5, nullptr, &sids);
    const credutl_sid_credentials_t none = {};
    EXPECT_EQ(memcmp(&sids, &none, sizeof none), 0);
}

TEST(Credentials, OfSidsHaveGroupSids) {
    const credutl_sid_t user = {CREDUTL_SID_USER, 1000};
    const credutl_sid_t group = {CREDUTL_SID_GROUP, 100};
    const uint32_t groups[] = {4};
    credutl_sid_credentials_t sids;
    credutl_init_sid_credentials(&user, &group, 1, groups, &sids);
    EXPECT_EQ(sids.user.id, 1000u);
    EXPECT_EQ(sids.group.id, 100u);
    EXPECT_EQ(sids.groups[0].kind, CREDUTL_SID_GROUP);
    EXPECT_EQ(sids.groups[0].id, 4u);
}

TEST(Credentials, OfTheCallerAreTheEffectiveIds) {
    credutl_sid_credentials_t mine;
    ASSERT_EQ(credutl_get_sid_credentials(&mine), 0);
    EXPECT_EQ(mine.user.kind, CREDUTL_SID_USER);
    EXPECT_EQ(mine.user.id, geteuid());
    EXPECT_EQ(mine.group.kind, CREDUTL_SID_GROUP);
    EXPECT_EQ(mine.group.id, getegid());
    const int group_count = getgroups(0, nullptr);
    EXPECT_EQ(mine.group_count, static_cast<uint32_t>(std::min<int>(group_count, CREDUTL_GROUPS_MAX)));
}

TEST(Credentials, OfTheCallerWithoutMemoryAreAnError) {
    credutl_sid_credentials_t mine;
    probe::fail_request(1);
    EXPECT_EQ(credutl_get_sid_credentials(&mine), ENOMEM);
    probe::fail_request(0);
}

TEST(Credentials, HaveTheNamesOfTheUserDatabase) {
    const passwd *root = getpwuid(0);
    ASSERT_NE(root, nullptr);
    const std::string user_name = root->pw_name;
    const group *root_group = getgrgid(0);
    ASSERT_NE(root_group, nullptr);
    const credutl_sid_t user = {CREDUTL_SID_USER, 0};
    const credutl_sid_t group = {CREDUTL_SID_GROUP, 0};
    credutl_sid_credentials_t sids;
    credutl_init_sid_credentials(&user, &group, 0, nullptr, &sids);
    credutl_string_credentials_t names;
    EXPECT_EQ(credutl_sid_credentials_to_string_credentials(&sids, &names), 0);
    EXPECT_EQ(names.user, user_name);
    EXPECT_STREQ(names.group, root_group->gr_name);
}

TEST(Credentials, IdWithoutANameReadsAsItsNumber) {
    const credutl_sid_t user = {CREDUTL_SID_USER, 3999999999};
    const credutl_sid_t group = {CREDUTL_SID_GROUP, 3999999998};
    credutl_sid_credentials_t sids;
    credutl_init_sid_credentials(&user, &group, 0, nullptr, &sids);
    credutl_string_credentials_t names;
    EXPECT_EQ(credutl_sid_credentials_to_string_credentials(&sids, &names), 0);
    EXPECT_STREQ(names.user, "3999999999");
    EXPECT_STREQ(names.group, "3999999998");
}

TEST(Credentials, PrintableFormNamesTheIds) {
    const uint32_t groups[] = {4, 24};
    credutl_credentials_t credentials;
    credutl_init_credentials(1000, 100, 2, groups, &credentials);
    EXPECT_EQ(text_of(credentials), "uid=1000 gid=100 groups=4,24");
    credutl_init_credentials(1000, 100, 0, nullptr, &credentials);
    EXPECT_EQ(text_of(credentials), "uid=1000 gid=100");
    credutl_init_credentials(CREDUTL_NO_ID, CREDUTL_NO_ID, 0, nullptr, &credentials);
    EXPECT_EQ(text_of(credentials), "<none>");
}

TEST(Credentials, LongestPrintableFormFitsTheSizeNamedForIt) {
    credutl_credentials_t credentials;
    memset(&credentials, 0xff, sizeof credentials);
    const std::string text = text_of(credentials);
    EXPECT_EQ(text.substr(0, 42), "uid=4294967295 gid=4294967295 groups=42949");
    EXPECT_EQ(std::count(text.begin(), text.end(), ','), CREDUTL_GROUPS_MAX - 1);
}

TEST(QualifiedName, IsSplitInItsTwoParts) {
    EXPECT_EQ(crack("domain\\user"), (Parts{0, "domain", "user"}));
    EXPECT_EQ(crack("user@domain"), (Parts{0, "domain", "user"}));
    EXPECT_EQ(crack("user@first@domain"), (Parts{0, "domain", "user@first"}));
    EXPECT_EQ(crack("domain\\user@x"), (Parts{0, "domain", "user@x"}));
    EXPECT_EQ(crack("user"), (Parts{0, "<unknown>", "user"}));
    EXPECT_EQ(crack(""), (Parts{0, "<unknown>", ""}));
}

TEST(QualifiedName, WithAPartThatDoesNotFitIsRefused) {
    EXPECT_EQ(crack("domain\\user", 7), (Parts{0, "domain", "user"}));
    EXPECT_EQ(crack("domain\\user", 6), (Parts{1, "", ""}));
    EXPECT_EQ(crack("d\\username", 6), (Parts{1, "", ""}));
    EXPECT_EQ(crack(nullptr), (Parts{1, "", ""}));
    EXPECT_NE(credutl_crack_fq_name("user", nullptr, 0, nullptr, 0), 0);
}

TEST(Privilege, IsThatOfRootAndOfTheOwnerOfTheInstallation) {
    TestSite site;
    EXPECT_NE(credutl_is_privileged(), 0) << "who runs the test owns its installation";
    if (geteuid() != 0) {
        ScopedEnv elsewhere("VELIA_ROOT", "/");
        EXPECT_EQ(credutl_is_privileged(), 0);
        ScopedEnv nowhere("VELIA_ROOT", "/nowhere");
        EXPECT_EQ(credutl_is_privileged(), 0);
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        ScopedEnv elsewhere("VELIA_ROOT", "/");
        _exit(seteuid(65534) == 0 && credutl_is_privileged() == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "another user is not privileged";
}

TEST(GroupLifetime, IsKeptUnlessNegative) {
    EXPECT_EQ(credutl_get_server_group_lifetime(), -1);
    EXPECT_EQ(credutl_set_server_group_lifetime(600), 0);
    EXPECT_NE(credutl_set_server_group_lifetime(-1), 0);
    EXPECT_EQ(credutl_get_server_group_lifetime(), 600);
    EXPECT_EQ(credutl_set_server_group_lifetime(0), 0);
    EXPECT_EQ(credutl_get_server_group_lifetime(), 0);
}

TEST(SchedulerClient, HasTheCallersCredentialsInOneRecord) {
    credutl_auth_ironvale_t auth = {};
    credutl_client_t client = {};
    ASSERT_EQ(credutl_mk_client_ironvale(1, &auth, &client), TBS_ST_OK);
    EXPECT_EQ(auth.flavour, 1u);
    EXPECT_EQ(auth.credentials.user, geteuid());
    EXPECT_EQ(auth.credentials.group, getegid());
    EXPECT_EQ(client.count, 1);
    EXPECT_EQ(client.auth, &auth);
    credutl_free_client(&client);
    EXPECT_EQ(client.count, 0);
    EXPECT_EQ(client.auth, nullptr);
}

TEST(SchedulerClient, IsRefusedForAnotherCountAndWithoutMemory) {
    credutl_auth_ironvale_t auth = {};
    credutl_client_t client = {};
    EXPECT_EQ(credutl_mk_client_ironvale(2, &auth, &client), TBS_ST_INVALID_ARG);
    probe::fail_request(1);
    EXPECT_EQ(credutl_mk_client_ironvale(1, &auth, &client), TBS_ST_ERROR);
    probe::fail_request(0);
    EXPECT_EQ(client.auth, nullptr);
}

TEST(Authenticator, OfTheCallerHasTheEffectiveIdsAndThisHost) {
    ScopedEnv env("VELIA_HOSTNAME", "beta");
    for (const char *host : {"pluto", static_cast<const char *>(nullptr)}) {
        AUTH *auth = credmap_auth_create_default(host);
        ASSERT_NE(auth, nullptr);
        const Identity identity = identity_of(auth);
        EXPECT_EQ(identity.machine, "beta");
        EXPECT_EQ(identity.user, geteuid());
        EXPECT_EQ(identity.group, getegid());
        EXPECT_EQ(identity.group_count, static_cast<unsigned>(std::min(getgroups(0, nullptr), 16)));
        auth_destroy(auth);
    }
}

TEST(Authenticator, OfAProcessInManyGroupsHasTheFirstSixteen) {
    if (geteuid() != 0) {
        EXPECT_LE(getgroups(0, nullptr), 65536);
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        gid_t groups[20];
        for (gid_t i = 0; i < 20; ++i)
            groups[i] = 5000 + i;
        AUTH *auth = setgroups(20, groups) == 0 ? credmap_auth_create_default("pluto") : nullptr;
        _exit(auth != nullptr && identity_of(auth).group_count == 16 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(Authenticator, OfNobodyHasNoGroups) {
    AUTH *auth = credmap_authunix_create_nobody();
    ASSERT_NE(auth, nullptr);
    const Identity identity = identity_of(auth);
    EXPECT_EQ(identity.user, 65534u);
    EXPECT_EQ(identity.group, 65534u);
    EXPECT_EQ(identity.group_count, 0u);
    auth_destroy(auth);
}

TEST(RemoteIdentity, IsTheSameOnAllHosts) {
    credutl_sid_credentials_t mine;
    ASSERT_EQ(credutl_get_sid_credentials(&mine), 0);
    credutl_sid_credentials_t mapped;
    memset(&mapped, 0xaa, sizeof mapped);
    EXPECT_EQ(credmap_local_to_remote_sid(&mine, "pluto", &mapped), 0);
    EXPECT_EQ(memcmp(&mapped, &mine, sizeof mine), 0);
    EXPECT_EQ(credmap_local_to_remote_sid(&mine, "pluto", &mine), 0);
    EXPECT_NE(credmap_local_to_remote_sid(nullptr, "pluto", &mapped), 0);
    EXPECT_NE(credmap_local_to_remote_sid(&mine, "pluto", nullptr), 0);
}
