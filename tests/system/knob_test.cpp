// Settings against a real daemon: two processes that write one at once, and a registry that goes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>

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

class Writer {
public:
    Writer(const Site &site, const std::string &name, int first, int count)
        : site_(site), output_("writer-" + std::to_string(first) + ".out"),
          child_({SYSTEM_CLIENT, "knob", name, std::to_string(first), std::to_string(count)}, options()) {}

    Counts counts() {
        EXPECT_EQ(child_.wait(120), 0) << site_.read(output_ + ".errors");
        Counts counts;
        EXPECT_EQ(sscanf(site_.read(output_).c_str(), "done %d failed %d stale %d", &counts.done, &counts.failed,
                         &counts.stale),
                  3);
        return counts;
    }

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

// Two processes write at once, again and again until they have met often enough: one found its stamps out of date, or
// an entry gone that it was about to remove, which ends a write. `check` looks at what they leave each time.
template <class Check>
void write_at_once(const Site &site, const std::string &name, Check &&check) {
    constexpr int meetings_wanted = 40;
    constexpr int rounds_max = 60;
    constexpr int writes = 10;
    Counts all;
    for (int round = 0; round < rounds_max && all.stale + all.failed < meetings_wanted; ++round) {
        Writer first(site, name, 2'000'000, writes);
        Writer second(site, name, 3'000'000, writes);
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
