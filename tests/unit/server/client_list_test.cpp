// The daemon's client list: what is entered, what a file says, and what is left of a bad one.
#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/resource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/hosts/client_file.h>
#include <tests/bad_files.h>

using namespace velia::server;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

ListedHost client_at(const char *ipv4, const std::string &name) {
    ListedHost client;
    client.address.ipv4.sin_family = AF_INET;
    inet_pton(AF_INET, ipv4, &client.address.ipv4.sin_addr);
    client.texts[CLIENT_HOSTNAME] = name;
    return client;
}

class ClientFile : public testing::Test {
protected:
    ClientFile() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-clients-XXXXXX").string();
        directory_ = mkdtemp(name.data());
    }
    ~ClientFile() override { std::filesystem::remove_all(directory_); }

    std::string name() const { return directory_ / "clients"; }
    void write(const std::string &text) const { std::ofstream(name()) << text; }
    static std::string text_of(const std::string &file_name) {
        std::ostringstream text;
        text << std::ifstream(file_name).rdbuf();
        return text.str();
    }
    bool save(ClientList &list) const {
        return add_to_client_journal(name(), list.take_changed(CLIENTS_MAX)) == 0 && join_client_files(name());
    }
    // What is printed while the file is read.
    std::string read(ClientList &list) const {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        read_client_file(name(), list);
        testing::internal::GetCapturedStdout();
        return testing::internal::GetCapturedStderr();
    }

private:
    std::filesystem::path directory_;
};

} // namespace

TEST(ClientTable, AnAddressThatComesAgainIsUpdatedInItsPlace) {
    ClientList list;
    EXPECT_TRUE(list.enter(client_at("10.0.0.1", "one")));
    EXPECT_TRUE(list.enter(client_at("10.0.0.2", "two")));
    EXPECT_TRUE(list.enter(client_at("10.0.0.1", "renamed")));
    ASSERT_THAT(list.clients(), SizeIs(2));
    EXPECT_EQ(list.clients()[0].texts[CLIENT_HOSTNAME], "renamed");
    EXPECT_TRUE(list.has_changed());
}

TEST(ClientTable, IsBounded) {
    ClientList list;
    for (uint32_t i = 0; i < CLIENTS_MAX; ++i) {
        ListedHost client = client_at("10.0.0.0", "x");
        client.is_proven = true;
        const uint32_t network = i / CLIENTS_OF_NETWORK_MAX;
        client.address.ipv4.sin_addr.s_addr = htonl(0x0a000000 + (network << 16) + i % CLIENTS_OF_NETWORK_MAX);
        ASSERT_TRUE(list.enter(client));
    }
    ListedHost late = client_at("192.168.0.1", "late");
    late.is_proven = true;
    EXPECT_FALSE(list.enter(late));
    EXPECT_TRUE(list.enter(client_at("10.0.0.1", "known")));
    EXPECT_THAT(list.clients(), SizeIs(CLIENTS_MAX));
}

TEST(ClientTable, FindsByNameInAnyCase) {
    ClientList list;
    list.enter(client_at("10.0.0.1", "Pluto"));
    ASSERT_NE(list.find("pLUTO"), nullptr);
    EXPECT_EQ(list.find("plut"), nullptr);
}

TEST(ClientTable, WhatAStrangerSaysFitsALineOfTheFile) {
    char bad[] = "a;b\nc=d";
    char options[] = "-no_servers;x\ty";
    clnt_hostinfo_t info = {};
    info.hostname = bad;
    info.options = options;
    const std::string long_text(1000, 'x');
    info.region = const_cast<char *>(long_text.c_str());
    ListedHost client;
    take_texts(info, client);
    EXPECT_EQ(client.texts[CLIENT_HOSTNAME], "a?b?c=d");
    EXPECT_EQ(client.texts[CLIENT_OPTIONS], "-no_servers;x?y");
    EXPECT_THAT(client.texts[CLIENT_REGION], SizeIs(255));
    EXPECT_EQ(client.texts[CLIENT_PRODUCT], "");
}

TEST_F(ClientFile, WhatWasWrittenIsReadBack) {
    ClientList list;
    ListedHost whole = client_at("10.0.0.1", "one");
    for (size_t i = CLIENT_PRODUCT; i <= CLIENT_REGION; ++i)
        whole.texts[i] = "text" + std::to_string(i);
    whole.texts[CLIENT_OPTIONS] = "-no_servers two=words; more";
    whole.registry_time = 1'700'000'000;
    list.enter(whole);
    ListedHost six;
    six.address.ipv6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "fd00::7", &six.address.ipv6.sin6_addr);
    list.enter(six);
    ASSERT_TRUE(save(list));
    EXPECT_FALSE(list.has_changed());

    ClientList again;
    EXPECT_EQ(read(again), "");
    ASSERT_THAT(again.clients(), SizeIs(2));
    for (size_t i = 0; i < CLIENT_TEXT_COUNT; ++i)
        EXPECT_EQ(again.clients()[0].texts[i], whole.texts[i]) << i;
    EXPECT_EQ(again.clients()[0].registry_time, whole.registry_time);
    EXPECT_EQ(numeric_address(again.clients()[1].address), "fd00::7");
    EXPECT_FALSE(again.has_changed());
}

TEST_F(ClientFile, TheOneBeforeIsKeptAndNoMore) {
    ClientList list;
    for (const char *host : {"one", "two", "three"}) {
        list.enter(client_at("10.0.0.1", host));
        ASSERT_TRUE(save(list));
    }
    EXPECT_THAT(text_of(name()), HasSubstr("three"));
    EXPECT_THAT(text_of(name() + ".old"), HasSubstr("two"));
    EXPECT_FALSE(std::filesystem::exists(name() + ".new"));
}

TEST_F(ClientFile, AnEmptyListIsNotWritten) {
    EXPECT_TRUE(join_client_files(name()));
    EXPECT_FALSE(std::filesystem::exists(name()));
}

TEST_F(ClientFile, AWriteThatFailsLeavesTheFileAndTheJournal) {
    ClientList list;
    list.enter(client_at("10.0.0.1", "one"));
    std::filesystem::create_directory(name());
    std::ofstream(name() + "/inside") << "x";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(save(list));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(name()));
    std::filesystem::remove_all(name());
    EXPECT_TRUE(join_client_files(name()));
    EXPECT_THAT(text_of(name()), HasSubstr("one"));
}

// A registration writes its own line, however long the list.
TEST_F(ClientFile, WhatIsSavedIsAddedToTheJournalAndTheFileIsLeftAlone) {
    ClientList list;
    list.enter(client_at("10.0.0.1", "one"));
    ASSERT_TRUE(save(list));
    const std::string file = text_of(name());
    list.enter(client_at("10.0.0.1", "renamed"));
    list.enter(client_at("10.0.0.2", "two"));
    ASSERT_EQ(add_to_client_journal(name(), list.take_changed(1)), 0);
    EXPECT_TRUE(list.has_changed());
    ASSERT_EQ(add_to_client_journal(name(), list.take_changed(1)), 0);
    EXPECT_FALSE(list.has_changed());
    EXPECT_EQ(text_of(name()), file);
    EXPECT_EQ(text_of(journal_of(name())), "-address=10.0.0.1;-hostname=renamed;\n-address=10.0.0.2;-hostname=two;\n");
    ClientList again;
    EXPECT_EQ(read_client_file(name(), again), 2U);
    ASSERT_THAT(again.clients(), SizeIs(2));
    EXPECT_EQ(again.clients()[0].texts[CLIENT_HOSTNAME], "renamed");
    EXPECT_EQ(again.clients()[1].texts[CLIENT_HOSTNAME], "two");
    EXPECT_FALSE(again.has_changed());
}

TEST_F(ClientFile, WhatCouldNotBeSavedIsSavedTheNextTime) {
    ClientList list;
    list.enter(client_at("10.0.0.1", "one"));
    std::filesystem::create_directory(journal_of(name()));
    const auto taken = list.take_changed(CLIENTS_MAX);
    EXPECT_EQ(add_to_client_journal(name(), taken), EISDIR);
    EXPECT_FALSE(list.has_changed());
    list.give_back(taken);
    EXPECT_TRUE(list.has_changed());
    std::filesystem::remove(journal_of(name()));
    EXPECT_TRUE(save(list));
}

TEST_F(ClientFile, AJournalIsNotWrittenThroughALink) {
    std::ofstream(name() + ".elsewhere") << "kept\n";
    std::filesystem::create_symlink(name() + ".elsewhere", journal_of(name()));
    EXPECT_EQ(add_to_client_journal(name(), {client_at("10.0.0.1", "one")}), ELOOP);
    EXPECT_EQ(text_of(name() + ".elsewhere"), "kept\n");
}

// Killed after any byte of a line: those before it count, and the next one stands on its own.
TEST_F(ClientFile, AJournalThatEndsAmidALineLosesThatLineAlone) {
    const std::string whole = "-address=10.0.0.1;-hostname=one;\n";
    const std::string cut = "-address=10.0.0.2;-hostname=two;";
    for (size_t length = 0; length <= cut.size(); ++length) {
        std::ofstream(journal_of(name())) << whole << cut.substr(0, length);
        ClientList list;
        EXPECT_EQ(read_client_file(name(), list), 1U);
        EXPECT_THAT(list.clients(), SizeIs(1)) << length;
        ASSERT_EQ(add_to_client_journal(name(), {client_at("10.0.0.3", "three")}), 0);
        EXPECT_EQ(text_of(journal_of(name())), whole + "-address=10.0.0.3;-hostname=three;\n") << length;
    }
}

TEST_F(ClientFile, AJournalWithoutEndIsNotAddedToForEver) {
    std::ofstream(journal_of(name())) << "x";
    std::filesystem::resize_file(journal_of(name()), (32U << 20) + 1);
    EXPECT_EQ(add_to_client_journal(name(), {client_at("10.0.0.1", "one")}), EFBIG);
}

// Killed at any step of the joining: what stands aside, what came after it, and a file that has it already.
TEST_F(ClientFile, AJoiningThatIsBrokenOffLosesNothing) {
    const auto hosts = [&] {
        ClientList list;
        EXPECT_EQ(read(list), "");
        std::string names;
        for (const ListedHost &client : list.clients())
            names += client.texts[CLIENT_HOSTNAME] + " ";
        return names;
    };
    write("-dbversion=1.0;\n-address=10.0.0.1;-hostname=one;\n");
    std::ofstream(former_journal_of(name())) << "-address=10.0.0.1;-hostname=uno;\n-address=10.0.0.2;-hostname=two;\n";
    std::ofstream(journal_of(name())) << "-address=10.0.0.2;-hostname=due;\n";
    EXPECT_EQ(hosts(), "uno due ");
    ASSERT_TRUE(join_client_files(name()));
    EXPECT_FALSE(std::filesystem::exists(former_journal_of(name())));
    EXPECT_EQ(hosts(), "uno due ");
    ASSERT_TRUE(join_client_files(name()));
    EXPECT_FALSE(std::filesystem::exists(journal_of(name())));
    EXPECT_EQ(hosts(), "uno due ");
    EXPECT_EQ(text_of(name()), "-dbversion=1.0;\n-address=10.0.0.1;-hostname=uno;\n-address=10.0.0.2;-hostname=due;\n");
}

TEST_F(ClientFile, BadLinesOfAJournalAreToldAndTheOthersCount) {
    std::ofstream(journal_of(name())) << "nonsense\n-address=10.0.0.1;-hostname=one;\n";
    ClientList list;
    EXPECT_THAT(read(list), HasSubstr("Invalid entry, file \"" + journal_of(name()) + "\", line 1"));
    EXPECT_THAT(list.clients(), SizeIs(1));
}

TEST_F(ClientFile, AListThatWasNotWrittenToItsEndDoesNotReplaceTheGoodOne) {
    ClientList list;
    for (const char *address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) // longer than what is said of it
        list.enter(client_at(address, std::string(200, 'x')));
    ASSERT_TRUE(save(list));
    const std::string good = text_of(name());
    list.enter(client_at("10.0.0.4", "four"));
    signal(SIGXFSZ, SIG_IGN);
    rlimit usual;
    getrlimit(RLIMIT_FSIZE, &usual);
    const rlimit short_disk = {good.size() + 10, usual.rlim_max};
    testing::internal::CaptureStderr();
    setrlimit(RLIMIT_FSIZE, &short_disk);
    const bool is_written = save(list);
    setrlimit(RLIMIT_FSIZE, &usual);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(name() + ".new"));
    EXPECT_FALSE(is_written);
    EXPECT_EQ(text_of(name()), good);
    EXPECT_FALSE(std::filesystem::exists(name() + ".new"));
    EXPECT_TRUE(join_client_files(name())) << "later";
    EXPECT_THAT(text_of(name()), HasSubstr("four"));
}

TEST_F(ClientFile, BadLinesAreToldAndTheOthersCount) {
    write("-dbversion=1.0;\n"
          "-address=10.0.0.1;-hostname=one;\n"
          "nonsense\n"
          "-address=10.0.0.999;-hostname=x;\n"
          "-hostname=no-address;\n"
          "-address=10.0.0.1;-hostname=again;\n"
          "-address=10.0.0.2;-hostname=two;\n");
    ClientList list;
    const std::string told = read(list);
    ASSERT_THAT(list.clients(), SizeIs(2));
    EXPECT_EQ(list.clients()[0].texts[CLIENT_HOSTNAME], "one");
    EXPECT_EQ(list.clients()[1].texts[CLIENT_HOSTNAME], "two");
    const std::string file = "file \"" + name() + "\", line ";
    EXPECT_THAT(told, HasSubstr("Invalid entry, " + file + "3"));
    EXPECT_THAT(told, HasSubstr("Invalid address format, " + file + "4"));
    EXPECT_THAT(told, HasSubstr("Invalid entry, " + file + "5"));
    EXPECT_THAT(told, HasSubstr("Duplicate address found, " + file + "6"));
}

TEST_F(ClientFile, OfAnUnknownVersionIsNotRead) {
    for (const std::string first : {"-dbversion=2.0;", "-dbversion=1.0", "", "-address=10.0.0.1;"}) {
        write(first + "\n-address=10.0.0.1;\n");
        ClientList list;
        EXPECT_THAT(read(list), HasSubstr("unknown, not reading")) << first;
        EXPECT_THAT(list.clients(), IsEmpty());
    }
}

// What a newer program has written is not lost, and the few that come meanwhile are not given out as all.
TEST_F(ClientFile, OfANewerVersionIsKeptAndItsListWithheld) {
    const std::string newer = "-dbversion=2.0;\n-address=10.0.0.1;-something=new;\n";
    write(newer);
    ClientList list;
    read(list);
    EXPECT_TRUE(list.is_withheld());
    ASSERT_TRUE(list.enter(client_at("10.0.0.9", "new")));
    EXPECT_FALSE(save(list));
    EXPECT_EQ(text_of(name()), newer);
    ClientList again;
    read(again);
    EXPECT_THAT(again.clients(), IsEmpty()) << "a journal is nothing without what it continues";
}

TEST_F(ClientFile, ThatIsNoFileIsNotWaitedForAndAnEmptyList) {
    bad_files::for_each(name(), 64 << 20, [&](const std::string &words) {
        ClientList list;
        EXPECT_THAT(read(list), HasSubstr("Unable to open client list file \"" + name() + "\": " + words + "."));
        EXPECT_THAT(list.clients(), IsEmpty());
    });
}

TEST_F(ClientFile, ThatIsNoFileIsReplacedByTheNextWrite) {
    const bad_files::BadFile file(bad_files::Kind::pipe, name());
    ClientList list;
    list.enter(client_at("10.0.0.1", "one"));
    ASSERT_TRUE(save(list));
    ClientList again;
    EXPECT_EQ(read(again), "");
    EXPECT_THAT(again.clients(), SizeIs(1));
}

TEST_F(ClientFile, LineThatIsTooLongIsOneThatIsNotUnderstood) {
    const std::string start = "-address=10.0.0.1;-hostname=one;";
    const std::string longest = start + std::string(8192 - start.size(), 'x');
    for (const std::string &more : {std::string("x"), std::string(1 << 20, 'x')}) {
        write("-dbversion=1.0;\n" + longest + more + "\n-address=10.0.0.2;-hostname=two;\n");
        ClientList list;
        const std::string told = read(list);
        EXPECT_THAT(told, HasSubstr("Invalid entry, file \"" + name() + "\", line 2"));
        EXPECT_EQ(told.find("Invalid", told.find("Invalid") + 1), std::string::npos) << "all of it is one line";
        ASSERT_THAT(list.clients(), SizeIs(1));
        EXPECT_EQ(list.clients()[0].texts[CLIENT_HOSTNAME], "two");
    }
    write("-dbversion=1.0;\n" + longest);
    ClientList list;
    EXPECT_EQ(read(list), "");
    EXPECT_THAT(list.clients(), SizeIs(1));
}

TEST_F(ClientFile, FullListAtItsLongestIsReadBack) {
    ClientList list;
    ListedHost client;
    client.is_proven = true;
    client.address.ipv6.sin6_family = AF_INET6;
    for (auto &byte : client.address.ipv6.sin6_addr.s6_addr)
        byte = 0xfd;
    client.registry_time = 1'700'000'000;
    for (std::string &text : client.texts)
        text = std::string(255, 'x');
    for (uint32_t i = 0; i < CLIENTS_MAX; ++i) {
        client.address.ipv6.sin6_addr.s6_addr32[3] = 0xfdfd0000 + i;
        client.address.ipv6.sin6_addr.s6_addr[5] = static_cast<uint8_t>(100 + i / CLIENTS_OF_NETWORK_MAX);
        ASSERT_TRUE(list.enter(client));
    }
    ASSERT_TRUE(save(list));
    ClientList again;
    EXPECT_EQ(read(again), "");
    EXPECT_THAT(again.clients(), SizeIs(CLIENTS_MAX));
}

TEST_F(ClientFile, ThatIsMissingIsAnEmptyList) {
    ClientList list;
    EXPECT_EQ(read(list), "");
    EXPECT_THAT(list.clients(), IsEmpty());
}

TEST_F(ClientFile, CutOffAtAnyByteGivesNoMoreThanItHolds) {
    const std::string whole = "-dbversion=1.0;\n-address=10.0.0.1;-hostname=one;-registry=2024-05-28 13:33:43;words\n"
                              "-address=fd00::1;-region=r;\n";
    for (size_t length = 0; length <= whole.size(); ++length) {
        write(whole.substr(0, length));
        ClientList list;
        read(list);
        EXPECT_LE(list.clients().size(), 2u);
    }
}

TEST(ClientTable, OneNetworkGetsItsShareOfTheListAndNoMore) {
    ClientList list;
    const auto enter = [&](uint32_t ipv4) {
        ListedHost client;
        client.address.ipv4.sin_family = AF_INET;
        client.address.ipv4.sin_addr.s_addr = htonl(ipv4);
        return list.enter(std::move(client));
    };
    uint32_t entered = 0;
    while (enter(0x0a010000U + entered))
        ++entered;
    EXPECT_EQ(entered, uint32_t{CLIENTS_OF_NETWORK_MAX});
    EXPECT_TRUE(enter(0x0a010000U)) << "who is there may come again";
    EXPECT_TRUE(enter(0x0a020000U)) << "another network has its own";
    uint32_t of_loopback = 0;
    while (enter(0x7f000001U + 0x10000U * of_loopback))
        ++of_loopback;
    EXPECT_EQ(of_loopback, uint32_t{CLIENTS_OF_LOOPBACK_MAX});
}

TEST(ClientTable, OnlyWhatIsNewIsWorthWriting) {
    ClientList list;
    auto client = client_at("10.0.0.1", "one");
    client.registry_time = 100'000;
    list.enter(client);
    list.take_changed(CLIENTS_MAX);
    client.registry_time += CLIENT_TIME_KEPT_S - 1;
    list.enter(client);
    EXPECT_FALSE(list.has_changed());
    EXPECT_EQ(list.clients().front().registry_time, client.registry_time) << "but told";
    client.texts[CLIENT_REGION] = "lab";
    list.enter(client);
    EXPECT_TRUE(list.has_changed());
    list.take_changed(CLIENTS_MAX);
    client.registry_time += CLIENT_TIME_KEPT_S;
    list.enter(client);
    EXPECT_TRUE(list.has_changed());
}

// Over UDP anybody writes any address, and so has as many networks as it likes.
TEST(ClientTable, WhoseAddressIsNotProvenLeaveRoomForThoseWhoProveIt) {
    ClientList list;
    ListedHost client = client_at("10.0.0.0", "x");
    uint32_t entered = 0;
    const auto enter = [&] {
        client.address.ipv4.sin_addr.s_addr = htonl(0x0a000000U + ((entered % 16) << 16) + entered / 16);
        return list.enter(client);
    };
    while (enter())
        ++entered;
    EXPECT_EQ(entered, uint32_t{CLIENTS_UNPROVEN_MAX});
    client.is_proven = true;
    EXPECT_TRUE(enter());
    EXPECT_TRUE(list.enter(client_at("10.0.0.1", "known"))) << "who is there may come again";

    // Who has proven its address has left the share of the others, for good.
    ListedHost proven = client_at("10.0.0.0", "x");
    proven.is_proven = true;
    ASSERT_TRUE(list.enter(proven));
    ASSERT_TRUE(list.enter(client_at("10.0.0.0", "x")));
    ASSERT_TRUE(list.enter(proven));
    EXPECT_TRUE(list.enter(client_at("10.100.0.1", "one for it")));
    EXPECT_FALSE(list.enter(client_at("10.100.0.2", "and no more")));
}
