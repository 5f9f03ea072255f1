// Reading a registry from a master that answers what the test says, over a real connection.
#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>

#include <server/registry/remote_source.h>
#include <server/rpc/serve.h>
#include <server/rpc/tcp_endpoint.h>
#include <tests/unit/server/open_guard.h>
#include <veliaxdr/rgy_wire.h>

using namespace velia::server;
namespace procedures = velia::procedures;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr rgy_db_t db = RGY_DB_REGIONS;

// What the master says to a listing that begins at the cursor.
struct Page {
    std::vector<Record> records;
    uint64_t cursor = 0;
    uint8_t stamp = 1;
    tbs_status_t status = TBS_ST_OK;
};

rgy_dtm_pair_t pair_of(uint8_t stamp) {
    rgy_dtm_pair_t pair = {};
    pair.dtm.bytes[0] = stamp;
    return pair;
}

class RemoteSourceTest : public testing::Test {
protected:
    RemoteSourceTest() {
        std::string name = (std::filesystem::temp_directory_path() / "velia-source-XXXXXX").string();
        root_ = mkdtemp(name.data());
        setenv("VELIA_ROOT", root_.c_str(), 1);
        setenv("VELIA_HOSTNAME", "here", 1);
        UniqueFd listening = listen_somewhere();
        write("config/services.conf", "rvzd " + std::to_string(port_) + "\n");
        write("config/hosts.conf", "here 127.0.0.1\nmaster 127.0.0.1\n");
        uv_loop_init(&loop_);
        uv_async_init(&loop_, &end_, [](uv_async_t *async) { uv_stop(async->loop); });
        endpoint_ = std::make_unique<TcpEndpoint>(&loop_, std::move(listening), dispatcher_, ConnectionLimits{});
        thread_ = std::thread([this] { uv_run(&loop_, UV_RUN_DEFAULT); });
    }
    ~RemoteSourceTest() override {
        uv_async_send(&end_);
        thread_.join();
        endpoint_.reset();
        uv_close(reinterpret_cast<uv_handle_t *>(&end_), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
        std::filesystem::remove_all(root_);
    }

    // Answers one listing after the other from here on. Called in the loop's thread.
    std::function<Page(uint64_t cursor)> page_at;
    tbs_status_t other_status = TBS_ST_OK; // of the other questions
    std::atomic<int> listings = 0;         // begun

private:
    UniqueFd listen_somewhere() {
        UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        sockaddr_in local = {};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listening.get(), reinterpret_cast<sockaddr *>(&local), sizeof local), 0);
        EXPECT_EQ(listen(listening.get(), 16), 0);
        socklen_t length = sizeof local;
        getsockname(listening.get(), reinterpret_cast<sockaddr *>(&local), &length);
        port_ = ntohs(local.sin_port);
        return listening;
    }
    void write(const std::string &name, const std::string &text) const {
        std::filesystem::create_directories((root_ / name).parent_path());
        std::ofstream(root_ / name) << text;
    }

    using Master = RemoteSourceTest;

    std::vector<ServedProcedure> rows() {
        return {serve<procedures::contact, &Master::contact>(*this),
                serve<procedures::rgy_get_dtm, &Master::get_dtm>(*this),
                serve<procedures::rgy_get_backup, &Master::get_backup>(*this),
                serve<procedures::rgy_get_entry, &Master::listing>(*this)};
    }

    tbs_status_t contact(const rvzd_contact_req_t &, const Caller &, Reply<rvzd_contact_reply_t> &reply) {
        reply.record.protocol_version = RVZD_PROTOCOL_CURRENT;
        return TBS_ST_OK;
    }

    tbs_status_t get_dtm(const rvzd_registry_get_dtm_req_t &, const Caller &,
                         Reply<rvzd_registry_get_dtm_reply_t> &reply) {
        reply.record.dtm = pair_of(9);
        reply.record.aux_uuid1.bytes[0] = 8;
        return other_status;
    }

    tbs_status_t get_backup(const rvzd_registry_get_backup_req_t &, const Caller &,
                            Reply<rvzd_registry_get_backup_reply_t> &reply) {
        reply.record.host_list = reply.arena.text(std::string(RGY_WIRE_HOST_LIST_MAX, 'h'));
        return other_status;
    }

    tbs_status_t listing(const rvzd_registry_get_req_t &request, const Caller &,
                         Reply<rvzd_registry_get_reply_t> &reply) {
        if (request.cursor == 0)
            ++listings;
        auto &page = reply.arena.keep(page_at(request.cursor));
        auto &entries = reply.arena.keep(std::vector<rgy_svr_entry_t>());
        for (const auto &record : page.records)
            entries.push_back({record.id, unowned(record.flex_text)});
        reply.record.version = RGY_PROTOCOL_VERSION;
        reply.record.dtm = pair_of(page.stamp);
        reply.record.cursor = page.cursor;
        reply.record.count = static_cast<int64_t>(entries.size());
        reply.record.entries = entries.data();
        return page.status;
    }

    std::filesystem::path root_;
    uint16_t port_ = 0;
    uv_loop_t loop_ = {};
    uv_async_t end_ = {};
    Dispatcher dispatcher_{RVZD_PROGRAM, RVZD_VERSION, server_tests::open_guard, rows()};
    std::unique_ptr<TcpEndpoint> endpoint_;
    std::thread thread_;
};

TEST_F(RemoteSourceTest, PagesAreReadToTheEnd) {
    page_at = [](uint64_t cursor) {
        return cursor == 0 ? Page{{{1, "-name=a;"}, {2, "-name=b;"}}, 2} : Page{{{5, "-name=c;"}}, 0};
    };
    const auto reading = RemoteSource("master").read(db);
    EXPECT_THAT(reading.contents, ElementsAre(Pair(1, "-name=a;"), Pair(2, "-name=b;"), Pair(5, "-name=c;")));
    ASSERT_TRUE(reading.stamps);
    EXPECT_EQ(reading.stamps->dtm.bytes[0], 1);
    EXPECT_EQ(listings, 1);
}

TEST_F(RemoteSourceTest, AListingDuringWhichTheStampsChangeIsReadAgain) {
    page_at = [this](uint64_t cursor) {
        return cursor == 0 ? Page{{{1, "-name=a;"}}, 1, 1} : Page{{}, 0, static_cast<uint8_t>(listings == 1 ? 2 : 1)};
    };
    const auto reading = RemoteSource("master").read(db);
    EXPECT_TRUE(reading.stamps);
    EXPECT_EQ(listings, 2);
}

TEST_F(RemoteSourceTest, AListingThatNeverStandsStillIsTakenWithoutStamps) {
    page_at = [](uint64_t cursor) {
        return cursor == 0 ? Page{{{1, "-name=a;"}}, 1, 1} : Page{{{2, "-name=b;"}}, 0, 2};
    };
    const auto reading = RemoteSource("master").read(db);
    EXPECT_FALSE(reading.stamps);
    EXPECT_THAT(reading.contents, ElementsAre(Pair(1, "-name=a;"), Pair(2, "-name=b;")));
    EXPECT_EQ(listings, 3);
}

TEST_F(RemoteSourceTest, ACursorThatStandsStillEndsTheReading) {
    page_at = [](uint64_t) { return Page{{{1, "-name=a;"}}, 7}; };
    RemoteSource source("master");
    EXPECT_THROW(source.read(db), CopyError);
}

TEST_F(RemoteSourceTest, ACircleOfCursorsEndsTheReading) {
    page_at = [](uint64_t cursor) { return Page{{{1, "-name=a;"}}, cursor % 3 + 1}; };
    RemoteSource source("master");
    EXPECT_THROW(source.read(db), CopyError);
}

TEST_F(RemoteSourceTest, ARefusalIsNoEmptyDatabase) {
    page_at = [](uint64_t) { return Page{{}, 0, 1, TBS_ST_NO_SERVER}; };
    other_status = TBS_ST_NO_SERVER;
    RemoteSource source("master");
    EXPECT_THROW(source.read(db), CopyError);
    EXPECT_THROW(source.stamps(db), CopyError);
    EXPECT_THROW(source.backup_hosts(), CopyError);
}

TEST_F(RemoteSourceTest, AnEmptyDatabaseIsOne) {
    page_at = [](uint64_t) { return Page{}; };
    const auto reading = RemoteSource("master").read(db);
    EXPECT_THAT(reading.contents, IsEmpty());
    EXPECT_TRUE(reading.stamps);
}

TEST_F(RemoteSourceTest, StampsAndTheLongestListOfHostsCome) {
    RemoteSource source("master");
    const auto stamps = source.stamps(db);
    EXPECT_EQ(stamps.pair.dtm.bytes[0], 9);
    EXPECT_EQ(stamps.registry.bytes[0], 8);
    EXPECT_EQ(source.backup_hosts(), std::string(RGY_WIRE_HOST_LIST_MAX, 'h'));
}

TEST_F(RemoteSourceTest, AHostThatNobodyKnowsIsTold) {
    EXPECT_THROW(RemoteSource("nowhere.invalid"), CopyError);
}

} // namespace
