// The client list: read from a broker, looked up, and entered by this host, at most once in a while.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

#include <support/stg.h>
#include <tests/sim/noted.h>
#include <tests/sim/without_standard_input.h>
#include <veliaxdr/rvzd_hosts.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

clnt_entry_t entry_of(const char *address, char *name) {
    clnt_entry_t entry = {};
    entry.address.ipv4.sin_family = AF_INET;
    inet_pton(AF_INET, address, &entry.address.ipv4.sin_addr);
    entry.hostinfo.hostname = name;
    entry.registry_time = 1234;
    return entry;
}

class ClientListOfABroker : public BrokerTest {
protected:
    // Two entries, in the form of the protocol that the peer speaks.
    void answer_list(bool is_v70, tbs_status_t status = TBS_ST_OK) {
        static char one[] = "one";
        static char two[] = "two";
        clnt_entry_t both[] = {entry_of("10.0.0.1", one), entry_of("10.0.0.2", two)};
        rvzd_clnt_list_get_reply_t record = {{0, status}, 17, 1, 2, both};
        const auto routine = is_v70 ? xdr_rvzd_clnt_list_get_v70_reply_t : xdr_rvzd_clnt_list_get_reply_t;
        world.peer.answer(is_v70 ? RVZD_PROC_CLNT_LIST_GET_V70 : RVZD_PROC_CLNT_LIST_GET, sim::reply(routine, record));
    }
    tbs_status_t get(rvzd_handle_t *handle) {
        return rvzd_clnt_list_get(handle, 5, 6, &position, &finished, &count, &entries);
    }
    void release_entries() {
        for (uint32_t i = 0; entries != nullptr && i < count; ++i)
            rvzd_hostinfo_free(entries[i].hostinfo);
        stg_free(entries);
        entries = nullptr;
    }

    int32_t position = 3;
    tbs_boolean_t finished = 0;
    uint32_t count = 0;
    clnt_entry_t *entries = nullptr;
};

TEST_F(ClientListOfABroker, APieceIsHandedOutWithWhereToGoOn) {
    for (const bool is_v70 : {false, true}) {
        world.peer.speak(is_v70 ? 5 : 6);
        rvzd_handle_t *handle = handle_to(is_v70 ? "beta" : "alpha");
        answer_list(is_v70);
        position = 3;
        ASSERT_EQ(get(handle), TBS_ST_OK);
        const auto request = world.peer.last().decode(xdr_rvzd_clnt_list_get_req_t);
        EXPECT_EQ(request.first, 5);
        EXPECT_EQ(request.second, 6u);
        EXPECT_EQ(request.position, 3);
        EXPECT_EQ(position, 17);
        EXPECT_EQ(finished, 1u);
        ASSERT_EQ(count, 2u);
        EXPECT_STREQ(entries[1].hostinfo.hostname, "two");
        EXPECT_EQ(entries[1].registry_time, 1234);
        release_entries();
        rvzd_free_handle(handle);
    }
}

TEST_F(ClientListOfABroker, OnlyAVersionAboveFiveIsAskedInTheNewerForm) {
    rvzd_handle_t *handle = handle_to("alpha");
    clnt_entry_t entry = {};
    for (const uint32_t version : {0u, 4u, 5u, 6u, 7u}) {
        handle->cached->protocol_version = version;
        get(handle);
        EXPECT_EQ(world.peer.last().procedure, version > 5 ? RVZD_PROC_CLNT_LIST_GET : RVZD_PROC_CLNT_LIST_GET_V70)
            << version;
        rvzd_clnt_list_lookup(handle, "pluto", &entry);
        EXPECT_EQ(world.peer.last().procedure,
                  version > 5 ? RVZD_PROC_CLNT_LIST_LOOKUP : RVZD_PROC_CLNT_LIST_LOOKUP_V70)
            << version;
    }
    rvzd_free_handle(handle);
}

TEST_F(ClientListOfABroker, FailedCallsAreToldUnderTheNameOfTheirForm) {
    rvzd_handle_t *handle = handle_to("alpha");
    world.peer.answer(RVZD_PROC_CLNT_LIST_GET, sim::silence());
    EXPECT_EQ(get(handle), TBS_ST_RPC_FAILED);
    EXPECT_THAT(world.take_messages().at(0).text, StartsWith("rvzd_clnt_list_get call failed"));
    world.peer.speak(5);
    rvzd_handle_t *old_handle = handle_to("beta");
    world.peer.answer(RVZD_PROC_CLNT_LIST_GET_V70, sim::silence());
    EXPECT_EQ(get(old_handle), TBS_ST_RPC_FAILED);
    EXPECT_THAT(world.take_messages().at(0).text, StartsWith("rvzd_clnt_list_get_v70 call failed"));
    EXPECT_EQ(position, 3);
    rvzd_free_handle(handle);
    rvzd_free_handle(old_handle);
}

TEST_F(ClientListOfABroker, AFailureInTheReplyLeavesTheOutsAlone) {
    rvzd_handle_t *handle = handle_to("alpha");
    answer_list(false, TBS_ST_NO_ACCESS);
    EXPECT_EQ(get(handle), TBS_ST_NO_ACCESS);
    EXPECT_EQ(position, 3);
    EXPECT_EQ(entries, nullptr);
    rvzd_free_handle(handle);
}

TEST_F(ClientListOfABroker, GivingEntriesBackReleasesNothingOfThem) {
    rvzd_handle_t *handle = handle_to("alpha");
    answer_list(false);
    ASSERT_EQ(get(handle), TBS_ST_OK);
    clnt_entry_t *kept = entries;
    const size_t blocks = world.live_blocks();
    rvzd_clnt_list_get_free(handle, count, &entries);
    EXPECT_EQ(entries, nullptr);
    EXPECT_EQ(world.live_blocks(), blocks);
    entries = kept;
    release_entries();
    rvzd_free_handle(handle);
}

TEST_F(ClientListOfABroker, ARaiseAnywhereReleasesAnUndeliveredPiece) {
    rvzd_handle_t *handle = handle_to("alpha");
    answer_list(false);
    const auto before = sim::Holdings::now(world);
    sim::sweep_raises(
        world, [&] { get(handle); },
        [&](int number) {
            release_entries();
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
            EXPECT_GE(sim::release_lock(rvzd_call_lock), 1);
        });
    release_entries();
    rvzd_free_handle(handle);
}

TEST_F(ClientListOfABroker, AReplyCutOffAtAnyByteLeavesNothingBehind) {
    rvzd_handle_t *handle = handle_to("alpha");
    answer_list(false);
    ASSERT_EQ(get(handle), TBS_ST_OK);
    release_entries();
    char name[] = "one";
    clnt_entry_t entry = entry_of("10.0.0.1", name);
    const auto whole =
        sim::encode(xdr_rvzd_clnt_list_get_reply_t, rvzd_clnt_list_get_reply_t{{0, TBS_ST_OK}, 1, 1, 1, &entry});
    const auto before = sim::Holdings::now(world);
    for (size_t length = 0; length < whole.size(); ++length) {
        world.peer.answer(RVZD_PROC_CLNT_LIST_GET,
                          {RPC_SUCCESS, 0, sim::Bytes(whole.begin(), whole.begin() + static_cast<long>(length))});
        EXPECT_EQ(get(handle), TBS_ST_RPC_FAILED) << length;
        EXPECT_EQ(sim::Holdings::now(world), before) << length;
    }
    rvzd_free_handle(handle);
}

TEST_F(ClientListOfABroker, LookUpHandsTheEntryOut) {
    char name[] = "pluto";
    for (const bool is_v70 : {false, true}) {
        world.peer.speak(is_v70 ? 5 : 6);
        rvzd_handle_t *handle = handle_to(is_v70 ? "beta" : "alpha");
        rvzd_clnt_list_lookup_reply_t record = {{0, TBS_ST_OK}, entry_of("10.0.0.9", name)};
        const ks_sockaddr_storage_t plain = record.entry.address;
        // The older form sends what is in the IPv6 form, and gives it back so.
        if (is_v70)
            sysutl_set_ipv4_as_ipv6mapped(&plain.ipv4, &record.entry.address);
        world.peer.answer(
            is_v70 ? RVZD_PROC_CLNT_LIST_LOOKUP_V70 : RVZD_PROC_CLNT_LIST_LOOKUP,
            sim::reply(is_v70 ? xdr_rvzd_clnt_list_lookup_v70_reply_t : xdr_rvzd_clnt_list_lookup_reply_t, record));
        clnt_entry_t entry = {};
        const auto before = sim::Holdings::now(world);
        ASSERT_EQ(rvzd_clnt_list_lookup(handle, "pluto", &entry), TBS_ST_OK);
        EXPECT_STREQ(entry.hostinfo.hostname, "pluto");
        EXPECT_EQ(memcmp(&entry.address, &record.entry.address, sizeof entry.address), 0);
        rvzd_clnt_list_lookup_free(handle, &entry);
        EXPECT_EQ(sim::Holdings::now(world), before);
        rvzd_free_handle(handle);
    }
}

TEST_F(ClientListOfABroker, FailuresOfTheLookUpAreSilent) {
    rvzd_handle_t *handle = handle_to("alpha");
    clnt_entry_t entry = {};
    world.peer.answer(RVZD_PROC_CLNT_LIST_LOOKUP, sim::failure(RPC_PROCUNAVAIL));
    EXPECT_EQ(rvzd_clnt_list_lookup(handle, "pluto", &entry), TBS_ST_UNSUPPORTED);
    world.peer.answer(RVZD_PROC_CLNT_LIST_LOOKUP, sim::silence());
    EXPECT_EQ(rvzd_clnt_list_lookup(handle, "pluto", &entry), TBS_ST_RPC_FAILED);
    EXPECT_EQ(rvzd_clnt_list_lookup(handle, std::string(64, 'h').c_str(), &entry), TBS_ST_RPC_FAILED);
    world.peer.answer(RVZD_PROC_CLNT_LIST_LOOKUP, sim::reply(xdr_rvzd_clnt_list_lookup_reply_t,
                                                             rvzd_clnt_list_lookup_reply_t{{0, TBS_ST_NOT_FOUND}, {}}));
    EXPECT_EQ(rvzd_clnt_list_lookup(handle, "pluto", &entry), TBS_ST_NOT_FOUND);
    EXPECT_EQ(entry.hostinfo.hostname, nullptr);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    rvzd_free_handle(handle);
}

class Registration : public BrokerTest {
protected:
    static constexpr uid_t other_user = 60001;

    Registration() {
        world.write_file("host/config/rgy_region.conf", "east\n"); // and so its directory is there
        world.peer.answer(RVZD_PROC_CLNT_LIST_REGISTER,
                          sim::reply(xdr_rvzd_null_reply_t, rvzd_null_reply_t{{0, TBS_ST_OK}}));
    }
    size_t registrations() const { return world.peer.count(RVZD_PROC_CLNT_LIST_REGISTER); }
    void register_with(const char *host) {
        rvzd_handle_t *handle = handle_to(host);
        rvzd_clnt_list_register(handle);
        rvzd_free_handle(handle);
    }
    static std::string name_of_note(const std::string &key, uid_t user) {
        return "host/config/cache/ClientList_" + key + "." + std::to_string(user);
    }
    std::filesystem::path note_of(const std::string &key, uid_t user = geteuid()) const {
        return std::filesystem::path(world.root()) / name_of_note(key, user);
    }
    // As another process of this host left it.
    void leave_note(const std::string &key, int64_t age_s, uid_t user = geteuid()) {
        world.write_file(name_of_note(key, user), "");
        const timespec time = {world.now_us / 1'000'000 - age_s, 0};
        const timespec times[] = {time, time};
        ASSERT_EQ(utimensat(AT_FDCWD, note_of(key, user).c_str(), times, 0), 0);
    }
};

TEST_F(Registration, TellsTheBrokerWhoThisHostIs) {
    register_with("alpha");
    ASSERT_EQ(registrations(), 1u);
    auto request = world.peer.last().decode(xdr_rvzd_clnt_list_register_req_t);
    EXPECT_STREQ(request.hostinfo.hostname, sysutl_myhostname());
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_clnt_list_register_req_t), &request);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    expect_lock_is_free();
}

TEST_F(Registration, IsMadeOnceForABroker) {
    for (int i = 0; i < 3; ++i)
        register_with("alpha");
    EXPECT_EQ(registrations(), 1u);
}

TEST_F(Registration, LeavesANoteThatItsUserWritesAndAllRead) {
    const mode_t before = umask(0);
    register_with("alpha");
    umask(before);
    struct stat status;
    ASSERT_EQ(stat(note_of("127.0.0.2").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode_t{0644});
}

TEST_F(Registration, IsMadeWithTwoBrokersAtMost) {
    for (const char *host : {"alpha", "beta", "dual", "beta"})
        register_with(host);
    EXPECT_EQ(registrations(), 2u);
}

TEST_F(Registration, OnlyTheFirstSlotIsCompared) {
    register_with("alpha");
    std::filesystem::remove(note_of("127.0.0.2"));
    register_with("alpha");
    EXPECT_EQ(registrations(), 1u); // compared with the first
    register_with("beta");
    std::filesystem::remove(note_of("127.0.0.3"));
    register_with("beta");
    EXPECT_EQ(registrations(), 2u); // stopped since the second slot is taken
}

TEST_F(Registration, IsNotRepeatedWithinSixHoursByAnotherProcess) {
    leave_note("127.0.0.2", 21600);
    register_with("alpha");
    EXPECT_EQ(registrations(), 0u);
    leave_note("127.0.0.3", 21601);
    register_with("beta");
    EXPECT_EQ(registrations(), 1u);
}

TEST_F(Registration, ANoteOfAnotherUserOfThisHostCounts) {
    leave_note("127.0.0.2", 21600, other_user);
    register_with("alpha");
    EXPECT_EQ(registrations(), 0u);
}

TEST_F(Registration, AnExpiredNoteOfAnotherUserDoesNotStandInTheWayOfTheNextOne) {
    leave_note("127.0.0.2", 21601, other_user);
    const auto directory = note_of("127.0.0.2").parent_path();
    std::filesystem::permissions(directory, std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
    if (geteuid() == 0) {
        std::filesystem::permissions(world.root(), std::filesystem::perms::all); // of the test's own making
        ASSERT_EQ(seteuid(other_user + 1), 0);
    }
    register_with("alpha");
    EXPECT_EQ(registrations(), 1u);
    struct stat status = {};
    ASSERT_EQ(lstat(note_of("127.0.0.2").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtime, world.now_us / 1'000'000);
    EXPECT_EQ(seteuid(getuid()), 0);
}

TEST_F(Registration, AFileThatIsNoUsersNoteCountsForNothing) {
    for (const char *name : {"ClientList_127.0.0.2", "ClientList_127.0.0.2.", "ClientList_127.0.0.2.0.new5",
                             "ClientList_127.0.0.20.0", "Other_127.0.0.2.0"})
        world.write_file(std::string("host/config/cache/") + name, "");
    register_with("alpha");
    EXPECT_EQ(registrations(), 1u);
}

TEST_F(Registration, ANoteFromTheFutureCountsForNothing) {
    leave_note("127.0.0.2", -10);
    register_with("alpha");
    EXPECT_EQ(registrations(), 1u);
}

TEST_F(Registration, LeavesItsNoteOnTheHost) {
    register_with("alpha");
    EXPECT_TRUE(std::filesystem::exists(note_of("127.0.0.2")));
    EXPECT_THAT(std::vector<std::filesystem::path>(std::filesystem::directory_iterator(note_of("x").parent_path()), {}),
                SizeIs(1));
}

TEST_F(Registration, LeavesItsNoteAlsoWithoutAStandardInput) {
    rvzd_handle_t *handle = handle_to("alpha");
    const sim::WithoutStandardInput without;
    rvzd_clnt_list_register(handle);
    EXPECT_TRUE(std::filesystem::exists(note_of("127.0.0.2")));
    rvzd_free_handle(handle);
}

TEST_F(Registration, ANoteThatCannotBeReplacedLeavesNothingBesideIt) {
    std::filesystem::create_directories(note_of("127.0.0.2"));
    register_with("alpha");
    EXPECT_EQ(registrations(), 1u);
    EXPECT_THAT(std::vector<std::filesystem::path>(std::filesystem::directory_iterator(note_of("x").parent_path()), {}),
                ElementsAre(note_of("127.0.0.2")));
}

TEST_F(Registration, NotesAreLookedForAmong4096EntriesOfTheDirectory) {
    constexpr size_t entries_max = 4096;
    leave_note("127.0.0.2", 1);
    const std::string note = note_of("127.0.0.2").filename();
    auto &entries = sim::noted().directory_entries;
    entries.assign(entries_max - 1, "a file of others");
    entries.push_back(note);
    register_with("alpha");
    EXPECT_EQ(registrations(), 0u);
    leave_note("127.0.0.3", 1);
    entries.assign(entries_max, "a file of others");
    entries.push_back(note_of("127.0.0.3").filename());
    register_with("beta");
    EXPECT_EQ(registrations(), 1u);
}

TEST_F(Registration, LeavesItsNoteBeforeItCalls) {
    bool is_noted = false;
    world.peer.on(RVZD_PROC_CLNT_LIST_REGISTER, [&](const sim::Call &) {
        is_noted = std::filesystem::exists(note_of("127.0.0.2"));
        return sim::silence();
    });
    register_with("alpha");
    EXPECT_TRUE(is_noted);
    EXPECT_TRUE(std::filesystem::exists(note_of("127.0.0.2"))); // a call that fails is not made again soon
}

TEST_F(Registration, OfAHostThatCannotDescribeItselfIsNotMade) {
    world.os_name = nullptr;
    register_with("alpha");
    EXPECT_EQ(registrations(), 0u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
    expect_lock_is_free();
}

TEST_F(Registration, ReleasesTheDescriptionOfThisHost) {
    world.write_file("host/config/rgy_hosts.conf", "master1\n");
    rvzd_handle_t *handle = handle_to("alpha");
    const auto before = sim::Holdings::now(world);
    rvzd_clnt_list_register(handle);
    ASSERT_EQ(registrations(), 1u);
    EXPECT_EQ(world.live_blocks(), before.blocks + 1); // the name of the broker, for the life of the process
    rvzd_free_handle(handle);
}

TEST_F(Registration, IsMadeWithASecondBrokerOfTheSameFamily) {
    world.add_host("other-v6", {"::2"});
    register_with("v6only");
    register_with("v6only");
    EXPECT_EQ(registrations(), 1u);
    register_with("other-v6");
    EXPECT_EQ(registrations(), 2u);
}

TEST_F(Registration, IsMadeWithASecondBrokerOfAnotherFamily) {
    register_with("v6only");
    register_with("alpha");
    EXPECT_EQ(registrations(), 2u);
}

TEST_F(Registration, AnIpv6BrokerMakesAKeyWithoutColons) {
    register_with("v6only");
    EXPECT_EQ(registrations(), 1u);
    EXPECT_TRUE(std::filesystem::exists(note_of("__1")));
}

TEST_F(Registration, WhereNoNoteCanBeLeftItIsMadeAllTheSame) {
    world.write_file("host/config/cache", "a file in the way");
    register_with("alpha");
    EXPECT_EQ(registrations(), 1u);
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Registration, AFailedCallIsToldAndTheReplysStatusIsNot) {
    world.peer.answer(RVZD_PROC_CLNT_LIST_REGISTER, sim::silence());
    register_with("alpha");
    const auto messages = world.take_messages();
    ASSERT_THAT(messages, SizeIs(1));
    EXPECT_THAT(messages[0].text, StartsWith("rvzd_clnt_list_register call failed"));
    world.peer.answer(RVZD_PROC_CLNT_LIST_REGISTER,
                      sim::reply(xdr_rvzd_null_reply_t, rvzd_null_reply_t{{0, TBS_ST_NO_ACCESS}}));
    register_with("beta");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(Registration, ARaiseAnywhereReleasesTheDescription) {
    world.write_file("host/config/rgy_hosts.conf", "master1\n");
    rvzd_handle_t *handle = handle_to("alpha");
    const auto before = sim::Holdings::now(world);
    sim::sweep_raises(
        world, [&] { rvzd_clnt_list_register(handle); },
        [&](int number) {
            // What the process remembers, and the registry host that it has read, stay.
            EXPECT_LE(world.live_blocks(), before.blocks + 2) << number;
            sim::release_lock(rvzd_call_lock);
        });
    rvzd_free_handle(handle);
}

class RemoteBuild : public BrokerTest {
protected:
    void answer(const std::string &text, tbs_status_t status = TBS_ST_OK) {
        std::string copy = text;
        const rvzd_remote_build_hi_reply_t record = {{0, status}, 1, 2, 99, 3, copy.data(), copy.data(), copy.data()};
        world.peer.answer(RVZD_PROC_REMOTE_BUILD_HI, sim::reply(xdr_rvzd_remote_build_hi_reply_t, record));
    }
    tbs_status_t ask() {
        rvzd_handle_t *handle = handle_to("alpha");
        const auto status = rvzd_remote_build_request_hi(handle, "builder", 10, 20, &first, &second, &when, &third,
                                                         texts[0], texts[1], texts[2]);
        rvzd_free_handle(handle);
        return status;
    }

    int32_t first = 0;
    int32_t second = 0;
    int32_t third = 0;
    time_t when = 0;
    char texts[3][RVZD_REMOTE_BUILD_TEXT_SIZE] = {"a", "b", "c"};
};

TEST_F(RemoteBuild, FieldsAreHandedOutWhateverTheStatus) {
    for (const tbs_status_t status : {tbs_status_t{TBS_ST_OK}, tbs_status_t{TBS_ST_NO_ACCESS}}) {
        answer("text", status);
        first = second = third = 0;
        EXPECT_EQ(ask(), status);
        EXPECT_EQ(first, 1);
        EXPECT_EQ(second, 2);
        EXPECT_EQ(third, 3);
        EXPECT_EQ(when, 99);
        for (const auto &text : texts)
            EXPECT_STREQ(text, "text");
    }
    auto request = world.peer.last().decode(xdr_rvzd_remote_build_hi_req_t);
    EXPECT_STREQ(request.hostname, "builder");
    EXPECT_EQ(request.uid, 10u);
    EXPECT_EQ(request.gid, 20u);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_remote_build_hi_req_t), &request);
}

TEST_F(RemoteBuild, ATextBeyondTheBufferIsRefused) {
    answer(std::string(RVZD_REMOTE_BUILD_TEXT_SIZE - 1, 'x'));
    EXPECT_EQ(ask(), TBS_ST_OK);
    answer(std::string(RVZD_REMOTE_BUILD_TEXT_SIZE, 'x'));
    EXPECT_EQ(ask(), TBS_ST_NAME_TOO_LONG);
    for (const auto &text : texts)
        EXPECT_STREQ(text, "");
}

TEST_F(RemoteBuild, WithoutTheGroupsOfTheProcessNobodyIsAsked) {
    answer("text");
    world.faults.getgroups = 0;
    world.faults.error_number = EINVAL;
    EXPECT_EQ(ask(), TBS_ST_ERROR);
    EXPECT_EQ(world.peer.count(RVZD_PROC_REMOTE_BUILD_HI), 0u);
    EXPECT_STREQ(texts[0], "a");
    EXPECT_THAT(
        world.take_messages(),
        ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 0, "getgroups failed: ")),
                    sim::told_by("xdr/rvzd",
                                 message_of(IMSG_CONTINUATION, _tbs_cmsg_tbs_msg_table, 2, imsg_strerror(EINVAL)))));
    expect_lock_is_free();
}

TEST_F(RemoteBuild, TheUsersCredentialsAreMappedForTheBrokersHost) {
    answer("text");
    EXPECT_EQ(ask(), TBS_ST_OK);
    ASSERT_THAT(sim::noted().mapped_credentials, SizeIs(1));
    const auto &[host, mapped] = sim::noted().mapped_credentials[0];
    EXPECT_EQ(host, "alpha");
    EXPECT_EQ(mapped.user.kind, uint32_t{CREDUTL_SID_USER});
    EXPECT_EQ(mapped.user.id, 10u);
    EXPECT_EQ(mapped.group.kind, uint32_t{CREDUTL_SID_GROUP});
    EXPECT_EQ(mapped.group.id, 20u);
    uint32_t groups[CREDUTL_GROUPS_MAX];
    const int group_count = credutl_getgroups(CREDUTL_GROUPS_MAX, groups);
    ASSERT_EQ(static_cast<int>(mapped.group_count), group_count);
    for (int i = 0; i < group_count; ++i)
        EXPECT_EQ(mapped.groups[i].id, groups[i]);
}

TEST_F(RemoteBuild, AFailedCallIsToldWithTheHost) {
    world.peer.answer(RVZD_PROC_REMOTE_BUILD_HI, sim::silence());
    EXPECT_EQ(ask(), TBS_ST_RPC_FAILED);
    const auto messages = world.take_messages();
    ASSERT_THAT(messages, SizeIs(1));
    EXPECT_THAT(messages[0].text, StartsWith("builder: rvzd_remote_build_hi call failed"));
    EXPECT_STREQ(texts[0], "a");
}

} // namespace
