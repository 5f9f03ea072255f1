// What is entered in the client list comes to be on disk, at the cost of what is entered.
#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/hosts/client_file.h>
#include <server/hosts/client_keeper.h>

using namespace velia::server;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

namespace {

struct ClientKeeperTest : testing::Test {
    uv_loop_t loop = {};
    std::filesystem::path directory;
    std::string file;
    ClientList list;

    void SetUp() override {
        std::string name = (std::filesystem::temp_directory_path() / "velia-keeper-XXXXXX").string();
        directory = mkdtemp(name.data());
        file = directory / "clients";
        uv_loop_init(&loop);
    }
    void TearDown() override {
        uv_run(&loop, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop), 0);
        std::filesystem::remove_all(directory);
    }
    void enter(uint32_t number, const std::string &name = "x") {
        ListedHost client;
        client.is_proven = true;
        client.address.ipv4.sin_family = AF_INET;
        client.address.ipv4.sin_addr.s_addr = htonl(0x0a000000U + number);
        client.texts[CLIENT_HOSTNAME] = name;
        ASSERT_TRUE(list.enter(client));
    }
    // As long as the loop has something to wait for, as a daemon's has.
    bool eventually(const std::function<bool()> &condition) {
        constexpr int rounds_max = 2000;
        TimerHandle round(&loop, [] {});
        round.start(10, 10);
        for (int i = 0; i < rounds_max && !condition(); ++i)
            uv_run(&loop, UV_RUN_ONCE);
        return condition();
    }
    static std::string text_of(const std::string &name) {
        std::ostringstream text;
        text << std::ifstream(name).rdbuf();
        return text.str();
    }
};

} // namespace

TEST_F(ClientKeeperTest, TheFirstMakeTheFileAndLaterOnesAreAddedToItsJournal) {
    ClientKeeper keeper(&loop, file, list);
    enter(1, "one");
    keeper.save_soon();
    ASSERT_TRUE(eventually([&] { return text_of(file).find("one") != std::string::npos; }));
    enter(2, "two");
    keeper.save_soon();
    ASSERT_TRUE(eventually([&] { return text_of(journal_of(file)).find("two") != std::string::npos; }));
    EXPECT_THAT(text_of(file), Not(HasSubstr("two")));
    EXPECT_THAT(text_of(journal_of(file)), Not(HasSubstr("one")));
    keeper.save_now();
    EXPECT_THAT(text_of(file), HasSubstr("two"));
    EXPECT_FALSE(std::filesystem::exists(journal_of(file)));
}

TEST_F(ClientKeeperTest, AsManyLinesAsPayForTheFileAreJoinedWithIt) {
    std::ofstream(file) << "-dbversion=1.0;\n";
    {
        std::ofstream journal(journal_of(file));
        for (uint32_t i = 0; i + 1 < ClientKeeper::CLIENTS_SAVED_TOGETHER; ++i)
            journal << "-address=10.1.0.1;-hostname=again;\n";
    }
    ClientKeeper keeper(&loop, file, list);
    enter(1, "one");
    keeper.save_soon();
    ASSERT_TRUE(eventually([&] { return text_of(journal_of(file)).find("one") != std::string::npos; }));
    EXPECT_THAT(text_of(file), Not(HasSubstr("again"))) << "one line too few";
    enter(2, "two");
    keeper.save_soon();
    ASSERT_TRUE(eventually([&] { return text_of(file).find("two") != std::string::npos; }));
    EXPECT_THAT(text_of(file), HasSubstr("again"));
}

// A second has so many lines and no more, and none is lost for it.
TEST_F(ClientKeeperTest, ManyAreSavedInPieces) {
    std::ofstream(file) << "-dbversion=1.0;\n";
    ClientKeeper keeper(&loop, file, list);
    constexpr uint32_t count = ClientKeeper::CLIENTS_SAVED_TOGETHER + 1;
    for (uint32_t i = 0; i < count; ++i)
        enter(i);
    keeper.save_soon();
    ClientList saved;
    ASSERT_TRUE(eventually([&] {
        saved = ClientList();
        read_client_file(file, saved);
        return !saved.clients().empty();
    }));
    EXPECT_THAT(saved.clients(), SizeIs(ClientKeeper::CLIENTS_SAVED_TOGETHER));
    EXPECT_TRUE(eventually([&] {
        saved = ClientList();
        read_client_file(file, saved);
        return saved.clients().size() == count;
    }));
}

TEST_F(ClientKeeperTest, AFailureIsToldOnceAndMendedLater) {
    std::filesystem::create_directory(journal_of(file));
    ClientKeeper keeper(&loop, file, list);
    enter(1, "one");
    testing::internal::CaptureStderr();
    keeper.save_now();
    keeper.save_now();
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_THAT(told, HasSubstr("\"" + journal_of(file) + "\""));
    EXPECT_EQ(told.find("journal"), told.rfind("journal")) << told;
    std::filesystem::remove(journal_of(file));
    keeper.save_now();
    EXPECT_THAT(text_of(file), HasSubstr("one"));
}

TEST_F(ClientKeeperTest, AListThatIsWithheldIsNotSaved) {
    std::ofstream(file) << "-dbversion=2.0;\n";
    ClientKeeper keeper(&loop, file, list);
    enter(1, "one");
    keeper.save_soon();
    keeper.save_now();
    EXPECT_EQ(text_of(file), "-dbversion=2.0;\n");
    EXPECT_FALSE(std::filesystem::exists(journal_of(file)));
}
