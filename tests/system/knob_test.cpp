// Settings against a real daemon: two processes that write one at once, and a registry that goes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include <tests/system/support/daemon.h>
#include <tests/system/support/registry_calls.h>
#include <veliaxdr/rvzd_knob.h>

using namespace velia::system_test;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

constexpr uint32_t view_cache_size = 1;
constexpr uint32_t vault_imports = 9;

struct SiteSettings : testing::Test {
    Site site;
    std::unique_ptr<Daemon> daemon;

    void SetUp() override {
        site.write("host/config/rgy_svr.conf", "master");
        site.write("host/config/rgy_hosts.conf", "alpha\n\n");
        site.configure("");
        daemon = std::make_unique<Daemon>(site);
        ASSERT_TRUE(daemon->is_ready()) << daemon->output();
    }
};

struct Setting {
    std::string name; // empty: in the old form
    std::string value;
};

// All entries of site_config.
std::vector<Setting> settings_of_site() {
    std::vector<Setting> settings;
    rgy_cursor_t *cursor = nullptr;
    do {
        int64_t count = 0;
        rgy_entry_t *entry = nullptr;
        const auto status = rgy_get_entry(RGY_DB_SITE_CONFIG, nullptr, nullptr, &cursor, 1, &entry, &count);
        EXPECT_EQ(status, TBS_ST_OK);
        if (status != TBS_ST_OK)
            break;
        if (cursor == nullptr)
            break;
        const auto name = text_of(entry, RGY_ITEM_NAME);
        settings.push_back({name, text_of(entry, name.empty() ? RGY_ITEM_DEFAULT_VIEWSIZE : RGY_ITEM_VALUE)});
        rgy_delete_entry(&entry);
    } while (cursor != nullptr);
    rgy_close_cursor(&cursor);
    return settings;
}

struct Counts {
    int done = 0;
    int failed = 0;
    int stale = 0;
};

// Two processes start at their own pace; they begin when both are ready.
class Start {
public:
    Start() {
        EXPECT_EQ(pipe2(ready_.data(), O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(begin_.data(), O_CLOEXEC), 0);
    }
    ~Start() {
        for (const int fd : {ready_[0], ready_[1], begin_[0], begin_[1]})
            close(fd);
    }
    Start(const Start &) = delete;
    Start &operator=(const Start &) = delete;

    int ready_fd() const { return ready_[1]; }
    int begin_fd() const { return begin_[0]; }
    void give(int writers) {
        for (char byte = 0; writers > 0; --writers) {
            pollfd ready = {ready_[0], POLLIN, 0};
            ASSERT_EQ(poll(&ready, 1, 60'000), 1);
            ASSERT_EQ(read(ready_[0], &byte, sizeof byte), 1);
        }
        close(std::exchange(begin_[1], -1));
    }

private:
    std::array<int, 2> ready_ = {};
    std::array<int, 2> begin_ = {};
};

class Writer {
public:
    Writer(const Site &site, const std::string &name, int first, int count, const Start &start)
        : site_(site), output_("writer-" + std::to_string(first) + ".out"),
          child_({SYSTEM_CLIENT, "knob", name, std::to_string(first), std::to_string(count),
                  std::to_string(start.ready_fd()), std::to_string(start.begin_fd())},
                 options(start)) {}

    Counts counts() {
        EXPECT_EQ(child_.wait(120), 0) << site_.read(output_ + ".errors");
        Counts counts;
        EXPECT_EQ(sscanf(site_.read(output_).c_str(), "done %d failed %d stale %d", &counts.done, &counts.failed,
                         &counts.stale),
                  3);
        return counts;
    }

private:
    Child::Options options(const Start &start) const {
        Child::Options options;
        options.inherited_fds = {start.ready_fd(), start.begin_fd()};
        options.output_file = site_.path(output_);
        options.error_file = site_.path(output_ + ".errors");
        return options;
    }

    const Site &site_;
    std::string output_;
    Child child_;
};

// Two processes write at once, again and again until they have met often enough: one found its stamps out of date, or
// an entry gone that it was about to remove, which ends a write. `check` looks at what they leave each time.
template <class Check>
void write_at_once(const Site &site, const std::string &name, Check &&check) {
    constexpr int meetings_wanted = 40;
    constexpr int rounds_max = 60;
    constexpr int writes = 10;
    Counts all;
    for (int round = 0; round < rounds_max && all.stale + all.failed < meetings_wanted; ++round) {
        Start start;
        Writer first(site, name, 2'000'000, writes, start);
        Writer second(site, name, 3'000'000, writes, start);
        start.give(2);
        for (Writer *writer : {&first, &second}) {
            const Counts counts = writer->counts();
            all.done += counts.done;
            all.failed += counts.failed;
            all.stale += counts.stale;
        }
        check();
    }
    EXPECT_GE(all.stale + all.failed, meetings_wanted);
    EXPECT_GT(all.done, 0);
    testing::Test::RecordProperty("stale", all.stale);
    testing::Test::RecordProperty("failed", all.failed);
}

} // namespace

TEST_F(SiteSettings, TwoProcessesThatWriteOneAtOnceLeaveOneEntry) {
    write_at_once(site, "fl_vault_max_parallel_replica_imports", [] {
        const auto settings = settings_of_site();
        ASSERT_THAT(settings, SizeIs(1));
        EXPECT_EQ(settings[0].name, "fl_vault_max_parallel_replica_imports");
    });
}

TEST_F(SiteSettings, TwoProcessesThatWriteTheViewCacheSizeLeaveOneEntryInEachForm) {
    write_at_once(site, "view_cache_size", [] {
        auto settings = settings_of_site();
        ASSERT_THAT(settings, SizeIs(2));
        std::sort(settings.begin(), settings.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
        EXPECT_EQ(settings[0].name, "");
        EXPECT_EQ(settings[1].name, "view_cache_size");
    });
}

// The same, as a writer of the library meets it.
TEST_F(SiteSettings, ARivalBetweenTheLookAndTheStampsIsReplacedInAFurtherPass) {
    struct Case {
        const char *name;
        const char *rival;
        int calls; // the writer's questions for stamps before the rival comes
    };
    const Case cases[] = {
        {"fl_vault_max_parallel_replica_imports", "-name=fl_vault_max_parallel_replica_imports;-value=9;", 0},
        {"view_cache_size", "-default_viewsize=3000000;", 0},
        {"view_cache_size", "-name=view_cache_size;-value=3000000;", 0},
        {"view_cache_size", "-name=view_cache_size;-value=3000000;", 1}};
    for (const auto &[name, rival, calls] : cases) {
        SCOPED_TRACE(rival);
        const auto outcome =
            run_apart(site, {SYSTEM_CLIENT, "knob-and-rival", name, "2000000", rival, std::to_string(calls)});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.output, "rival 0\ndone 1 failed 0 stale 1\n");
        const auto settings = settings_of_site();
        size_t count = 0;
        for (const auto &[found, value] : settings)
            if (found == name || (found.empty() && name == std::string("view_cache_size"))) {
                ++count;
                EXPECT_EQ(value, "2000000");
            }
        EXPECT_EQ(count, name == std::string("view_cache_size") ? 2u : 1u);
    }
}

// The window: a writer that looked before another one wrote, and asked for its stamps after it.
TEST_F(SiteSettings, AnAddOfANameThatStandsIsStaleThoughItsStampsAreNew) {
    const std::string entry = "-name=fl_site_name;-value=";
    ASSERT_EQ(add(RGY_DB_SITE_CONFIG, entry + "a;"), TBS_ST_OK);
    const auto handle = own_handle("alpha");
    rgy_dtm_pair_t stamps = {};
    ASSERT_EQ(rvzd_rgy_get_id(handle.get(), RGY_DB_SITE_CONFIG, RGY_PROTOCOL_VERSION, &stamps), TBS_ST_OK);
    EXPECT_EQ(
        rvzd_rgy_add_entry(handle.get(), RGY_DB_SITE_CONFIG, RGY_PROTOCOL_VERSION, &stamps, (entry + "b;").c_str()),
        TBS_ST_STALE_ID);
    EXPECT_THAT(settings_of_site(), SizeIs(1));
}

TEST_F(SiteSettings, AreWrittenReadAndUnset) {
    EXPECT_EQ(rvzd_knoblet_set_integer(view_cache_size, KNOBLET_SITE, nullptr, 2048000), TBS_ST_OK);
    EXPECT_EQ(rvzd_knoblet_set_integer(vault_imports, KNOBLET_SYNC_SITE, "alpha", 4), TBS_ST_OK);
    EXPECT_THAT(settings_of_site(), SizeIs(3));
    int32_t value = 0;
    EXPECT_EQ(rvzd_knob_get_integer(view_cache_size, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 2048000);
    EXPECT_EQ(rvzd_knob_get_integer(vault_imports, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(rvzd_knoblet_unset_value(view_cache_size, KNOBLET_SITE, nullptr), TBS_ST_OK);
    EXPECT_EQ(rvzd_knob_get_integer(view_cache_size, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 4096000);
    EXPECT_THAT(settings_of_site(), SizeIs(1));
}

TEST_F(SiteSettings, WithoutItsRegistryASettingIsAnErrorUnlessTheHostHasAValue) {
    daemon->signal(SIGKILL);
    daemon->wait();
    int32_t value = 77;
    EXPECT_NE(rvzd_knob_get_integer(vault_imports, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 77);
    site.write("host/config/fl_vault_max_parallel_replica_imports", "5\n");
    EXPECT_EQ(rvzd_knob_get_integer(vault_imports, nullptr, &value), TBS_ST_OK);
    EXPECT_EQ(value, 5);
}
