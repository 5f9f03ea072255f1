// Registering objects, time stamps and the check of rights, against a real daemon and other clients of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <thread>

#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rgy_manage.h>
#include <veliaxdr/rgy_objects.h>

using namespace velia::system_test;

namespace {

struct RegisteredObjects : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure("");
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }

    static tbs_uuid_t uuid_of(uint8_t seed) {
        tbs_uuid_t uuid = {};
        for (auto &byte : uuid.bytes)
            byte = seed;
        return uuid;
    }
};

// How often each text stands under `item` in the database.
std::map<std::string, int> counts_of(rgy_db_t db, uint32_t item) {
    std::map<std::string, int> counts;
    std::array<rgy_entry_t *, 50> entries = {};
    rgy_cursor_t *cursor = nullptr;
    do {
        int64_t count = 0;
        const auto status = rgy_get_entry(db, nullptr, nullptr, &cursor, entries.size(), entries.data(), &count);
        EXPECT_EQ(status, TBS_ST_OK);
        if (status != TBS_ST_OK)
            break;
        for (size_t i = 0; cursor != nullptr && i < static_cast<size_t>(count); ++i) {
            ++counts[text_of(entries[i], item)];
            rgy_delete_entry(&entries[i]);
        }
    } while (cursor != nullptr);
    rgy_close_cursor(&cursor);
    return counts;
}

// A client process that registers views until the stop file is there, and what it last said of itself.
class ViewClient {
public:
    ViewClient(const Site &site, int number, const std::string &stop_file)
        : site_(site), output_("views-" + std::to_string(number) + ".out"),
          child_({SYSTEM_CLIENT, "views", std::to_string(number), stop_file}, options()) {}

    struct Counts {
        int own = 0;
        int common = 0;
        int refused = 0;
        int stale = 0;
    };
    Counts counts() const {
        const auto text = site_.read(output_);
        const auto end = text.rfind('\n');
        const auto start = end == 0 || end == std::string::npos ? end : text.rfind('\n', end - 1);
        Counts counts;
        if (end != std::string::npos)
            sscanf(text.c_str() + (start == std::string::npos ? 0 : start + 1), "own %d common %d refused %d stale %d",
                   &counts.own, &counts.common, &counts.refused, &counts.stale);
        return counts;
    }
    int wait() { return child_.wait(60); }
    std::string output() const { return site_.read(output_) + site_.read(output_ + ".errors"); }

private:
    Child::Options options() const {
        Child::Options options;
        options.output_file = site_.path(output_);
        options.error_file = site_.path(output_ + ".errors");
        return options;
    }

    const Site &site_;
    std::string output_;
    Child child_;
};

} // namespace

TEST_F(RegisteredObjects, OfTwoClientsThatAddAtOnceAreEachRegisteredOnce) {
    constexpr int stale_wanted = 100;
    const auto stop_file = site.path("stop");
    ViewClient first(site, 1, stop_file);
    ViewClient second(site, 2, stop_file);
    const auto stale = [&] { return first.counts().stale + second.counts().stale; };
    EXPECT_TRUE(eventually([&] { return stale() >= stale_wanted; }, 90)) << first.output() << second.output();
    site.write("stop", "");
    ASSERT_EQ(first.wait(), 0) << first.output();
    ASSERT_EQ(second.wait(), 0) << second.output();
    const auto one = first.counts();
    const auto two = second.counts();
    RecordProperty("stale", stale());
    EXPECT_GE(stale(), stale_wanted);
    const auto views = counts_of(RGY_DB_VIEW_OBJECT, RGY_ITEM_VIEW_UUID);
    EXPECT_EQ(views.size(), static_cast<size_t>(one.own + two.own + one.common + two.common));
    for (const auto &[uuid, count] : views)
        EXPECT_EQ(count, 1) << uuid;
    // Each common view has one client that got it in; whoever came to it later was refused.
    EXPECT_EQ(one.own, one.common + one.refused);
    EXPECT_EQ(two.own, two.common + two.refused);
    EXPECT_EQ(one.common + two.common, std::max(one.own, two.own));
}

TEST_F(RegisteredObjects, OfThreadsOfOneProcessAreEachRegisteredOnce) {
    constexpr uint8_t views = 10;
    std::atomic<int> added = 0;
    std::atomic<int> refused = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (uint8_t number = 0; number < views; ++number) {
                const auto view = uuid_of(number);
                const auto status = rgy_add_view_object(nullptr, "me", &view, "alpha", "/a", 0, nullptr);
                added += status == TBS_ST_OK;
                refused += status == TBS_ST_ALREADY_EXISTS;
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(added, views);
    EXPECT_EQ(refused, 3 * views);
    EXPECT_THAT(counts_of(RGY_DB_VIEW_OBJECT, RGY_ITEM_VIEW_UUID), testing::SizeIs(views));
}

TEST_F(RegisteredObjects, AUuidIsRegisteredOnceWhateverElseDiffers) {
    const auto view = uuid_of(1);
    const auto other = uuid_of(2);
    EXPECT_EQ(rgy_add_view_object(nullptr, "me", &view, "alpha", "/a", 0, nullptr), TBS_ST_OK);
    EXPECT_EQ(rgy_add_view_object(nullptr, "you", &view, "beta", "/b", 0, nullptr), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(rgy_add_view_object(nullptr, "you", &other, "beta", "/b", 0, nullptr), TBS_ST_OK);
    EXPECT_EQ(counts_of(RGY_DB_VIEW_OBJECT, RGY_ITEM_LOCAL_PATH), (std::map<std::string, int>{{"/a", 1}, {"/b", 1}}));
    // A vault of the same uuid is another object, and two replicas are of one family.
    EXPECT_EQ(rgy_add_vault_object(nullptr, &view, "alpha", "/v1", &other, 0, nullptr), TBS_ST_OK);
    EXPECT_EQ(rgy_add_vault_object(nullptr, &other, "alpha", "/v2", &other, 0, nullptr), TBS_ST_OK);
    EXPECT_EQ(rgy_add_vault_object(nullptr, &view, "alpha", "/v3", &other, 0, nullptr), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(counts_of(RGY_DB_VAULT_OBJECT, RGY_ITEM_LOCAL_PATH),
              (std::map<std::string, int>{{"/v1", 1}, {"/v2", 1}}));
}

TEST_F(RegisteredObjects, AreFoundWithAllThatTheyWereGiven) {
    const auto key = uuid_of(3);
    const char *attributes[] = {"a", "b", "c"};
    ASSERT_EQ(rgy_addinfo_with_owner(RGY_DB_BBASE_OBJECT, nullptr, "east", "me", RGY_ITEM_VAULT_SET, &key, "alpha",
                                     "/local", "/net/alpha/local", nullptr, 0, 3, attributes),
              TBS_ST_OK);
    char hostname[64];
    char local_path[64];
    char global_path[64];
    EXPECT_EQ(rgy_getinfo_by_uuid(RGY_DB_BBASE_OBJECT, nullptr, "east", RGY_ITEM_VAULT_SET, &key, sizeof hostname,
                                  hostname, sizeof local_path, local_path, sizeof global_path, global_path, 0, nullptr),
              TBS_ST_OK);
    EXPECT_STREQ(hostname, "alpha");
    EXPECT_STREQ(local_path, "/local");
    EXPECT_STREQ(global_path, "/net/alpha/local");
    EXPECT_EQ(counts_of(RGY_DB_BBASE_OBJECT, RGY_ITEM_ATTRIBUTES), (std::map<std::string, int>{{"a,b,c", 1}}));
    EXPECT_EQ(counts_of(RGY_DB_BBASE_OBJECT, RGY_ITEM_OWNER), (std::map<std::string, int>{{"me", 1}}));
}

TEST_F(RegisteredObjects, AStampTellsARealChangeOnceAndVoidsWhatIsCached) {
    const auto path_of = [](const tbs_uuid_t &view) {
        char path[64] = "none";
        rgy_getinfo_by_uuid(RGY_DB_VIEW_OBJECT, nullptr, nullptr, RGY_ITEM_VIEW_UUID, &view, 0, nullptr, sizeof path,
                            path, 0, nullptr, 0, nullptr);
        return std::string(path);
    };
    const auto view = uuid_of(4);
    rgy_timestamp_t *stamp = nullptr;
    ASSERT_EQ(rgy_create_timestamp(RGY_DB_VIEW_OBJECT, nullptr, &stamp), TBS_ST_OK);
    ASSERT_NE(stamp, nullptr);
    EXPECT_STREQ(stamp->host, "alpha");
    int32_t changed = 7;
    EXPECT_EQ(rgy_check_timestamp(RGY_DB_VIEW_OBJECT, nullptr, stamp, &changed), TBS_ST_OK);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(path_of(view), "none"); // which is kept for some seconds
    // Over the bare call, which knows nothing of what is kept here: as another process does it.
    ASSERT_EQ(add(RGY_DB_VIEW_OBJECT, "-local_path=/new;-view_uuid=04040404-0404-0404-0404-040404040404;"), TBS_ST_OK);
    EXPECT_EQ(path_of(view), "none");
    EXPECT_EQ(rgy_check_timestamp(RGY_DB_VIEW_OBJECT, nullptr, stamp, &changed), TBS_ST_OK);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(path_of(view), "/new");
    EXPECT_EQ(rgy_check_timestamp(RGY_DB_VIEW_OBJECT, nullptr, stamp, &changed), TBS_ST_OK);
    EXPECT_EQ(changed, 0);
    // A change of another database is none of this one.
    ASSERT_EQ(add(RGY_DB_REGIONS, name_entry("east")), TBS_ST_OK);
    EXPECT_EQ(rgy_check_timestamp(RGY_DB_VIEW_OBJECT, nullptr, stamp, &changed), TBS_ST_OK);
    EXPECT_EQ(changed, 0);
    rgy_destroy_timestamp(&stamp);
}

namespace {

struct TagRights : RegisteredObjects {
    void set_password(const std::string &password) {
        site.write("password", password + "\n");
        const auto outcome =
            run(site, {"/bin/sh", "-c", "'" RVZD_SERVER "' --set-registry-password <'" + site.path("password") + "'"});
        ASSERT_EQ(outcome.status, 0) << outcome.output;
    }
    static tbs_status_t check(const std::string &password) {
        std::array<char, RGY_PASSWORD_SIZE> buffer = {};
        password.copy(buffer.data(), buffer.size() - 1);
        return rgy_chk_tag_priv(nullptr, buffer.data());
    }
    // What the check said and what it told.
    static std::pair<tbs_status_t, std::string> told(const std::string &password) {
        testing::internal::CaptureStderr();
        const auto status = check(password);
        return {status, testing::internal::GetCapturedStderr()};
    }
};

} // namespace

TEST_F(TagRights, AreProvedByTheRightPassword) {
    const auto none = told("secret");
    EXPECT_EQ(none.first, TBS_ST_NOT_FOUND);
    EXPECT_THAT(none.second, testing::EndsWith("Access for privileged modification of the\nregistry was denied.\n"
                                               "The registry does not have a configured password.\n"));
    set_password("secret");
    EXPECT_EQ(told("secret"), (std::pair<tbs_status_t, std::string>{TBS_ST_OK, ""}));
    for (const char *wrong : {"Secret", "secre", "secrets", " secret", "x"}) {
        const auto denied = told(wrong);
        EXPECT_EQ(denied.first, TBS_ST_NO_ACCESS) << wrong;
        EXPECT_THAT(denied.second,
                    testing::EndsWith("Access for privileged modification of the\nregistry was denied.\n"));
    }
}

// A line ends with a line feed, so that one alone cannot be part of a password that is set; it can be sent.
TEST_F(TagRights, TakeAPasswordOfEveryByte) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '\n')
            all += static_cast<char>(byte);
    set_password(all);
    EXPECT_EQ(check(all), TBS_ST_OK);
    for (const size_t position : {size_t{0}, all.size() / 2, all.size() - 1}) {
        auto wrong = all;
        wrong[position] = static_cast<char>(wrong[position] ^ 0x20);
        EXPECT_EQ(check(wrong), TBS_ST_NO_ACCESS) << position;
    }
    EXPECT_EQ(check(all + "\n"), TBS_ST_NO_ACCESS);
    EXPECT_EQ(check(std::string(RGY_PASSWORD_SIZE - 1, '\xff')), TBS_ST_NO_ACCESS);
}

namespace {

struct ServerRoles : RegisteredObjects {
    Child::Options beta;
    std::unique_ptr<Daemon> standby;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\nbeta\n");
        site.configure(std::string("option registry-copy 1\n") + trusted_hosts);
        daemon = std::make_unique<Daemon>(site, std::vector<std::string>{"--listen", "127.0.0.1"});
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
        for (const char *directory : {"beta/host/config", "beta/host/priv", "beta/host/data", "beta/log"})
            std::filesystem::create_directories(site.path(directory));
        std::filesystem::create_symlink(site.path("config"), site.path("beta/config"));
        site.write("beta/host/config/rgy_svr.conf", "standby");
        site.write("beta/host/config/rgy_hosts.conf", "alpha\nbeta\n");
        beta.environment = {"VELIA_ROOT=" + site.path("beta"), "VELIA_HOSTNAME=beta"};
        standby = std::make_unique<Daemon>(site, std::vector<std::string>{"--listen", "127.0.0.2"}, beta);
        ASSERT_TRUE(standby->is_ready()) << standby->output();
    }
    // On the standby's host.
    Outcome become(int32_t type) {
        return run_apart(site, {SYSTEM_CLIENT, "role", std::to_string(type)}, beta.environment);
    }
};

} // namespace

TEST_F(ServerRoles, OfAStandbyGoToMasterAndBack) {
    const auto view = uuid_of(5);
    ASSERT_EQ(rgy_add_view_object(nullptr, "me", &view, "alpha", "/a", 0, nullptr), TBS_ST_OK);
    ASSERT_TRUE(standby->says("Registry backup finished at ")) << standby->output();
    const auto promoted = become(RGY_SVR_MASTER);
    EXPECT_EQ(promoted.status, 0) << promoted.output << promoted.errors << standby->output();
    EXPECT_EQ(promoted.output, "Registry server type is \"master\".\nstatus 0\n");
    EXPECT_EQ(site.read("beta/host/config/rgy_svr.conf"), "master");
    EXPECT_EQ(site.read("beta/host/config/rgy_hosts.conf"), "beta\nbeta\n");
    EXPECT_EQ(site.read("beta/host/config/rgy_hosts.conf.old"), "alpha\nbeta\n");
    const auto other = uuid_of(6);
    EXPECT_EQ(rgy_add_view_object("beta", "me", &view, "alpha", "/a", 0, nullptr), TBS_ST_ALREADY_EXISTS);
    EXPECT_EQ(rgy_add_view_object("beta", "me", &other, "alpha", "/b", 0, nullptr), TBS_ST_OK);
    const auto demoted = become(RGY_SVR_SLAVE);
    EXPECT_EQ(demoted.status, 0) << demoted.output << demoted.errors;
    EXPECT_EQ(site.read("beta/host/config/rgy_svr.conf"), "slave");
    EXPECT_EQ(site.read("beta/host/config/rgy_hosts.conf"), "alpha\nbeta\n");
    EXPECT_NE(rgy_add_view_object("beta", "me", &other, "alpha", "/c", 0, nullptr), TBS_ST_OK);
}

TEST_F(ServerRoles, OfAMasterFromTheStartCannotBeGivenUp) {
    const auto outcome = run_apart(site, {SYSTEM_CLIENT, "role", std::to_string(RGY_SVR_STANDBY)});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "status 1001\n");
    EXPECT_THAT(outcome.errors, testing::HasSubstr("The registry server was not promoted from a STANDBY server.\n"));
    EXPECT_EQ(site.read("host/config/rgy_svr.conf"), "master");
}
