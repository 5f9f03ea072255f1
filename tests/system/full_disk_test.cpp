// Each thing that is done to a file fails, for want of room or because the disk is bad, whatever is being done with the
// registry: why is told, what was acknowledged is there, and the same command succeeds when it is over. At each of them
// in each way: ./dev kills NUMBER.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <tests/system/support/backup_site.h>
#include <tests/system/support/failing_files.h>
#include <tests/system/support/registry_file.h>
#include <veliaxdr/rgy_role.h>

using namespace velia::system_test;
using testing::AnyOf;
using testing::HasSubstr;

namespace {

using Way = FailingFiles::Way;

struct FullDisk : BackupSite {
    FailingFiles files{site};
    const Words before = {"one", "two"};

    void begin_site() {
        start_alpha();
        add_regions(before);
    }
    Words on_failing_beta() const {
        Words words = on_beta();
        const Words failing = files.environment();
        words.insert(words.end(), failing.begin(), failing.end());
        return words;
    }
    std::unique_ptr<Daemon> started_beta() const {
        Child::Options options;
        options.environment = on_failing_beta();
        auto beta = std::make_unique<Daemon>(site, Words{"--listen", "127.0.0.2"}, options);
        EXPECT_TRUE(beta->is_ready()) << beta->output();
        return beta;
    }
    // How many entries a saved registry has; none where it is not whole.
    std::string saved_entries() const {
        const auto found = server({"--check-registry", saved()}).output;
        const size_t begin = found.find("whole: ");
        return begin == std::string::npos ? "none" : found.substr(begin + 7, found.find(" entries") - begin - 7);
    }
    // Registries that were kept when another one took their place.
    size_t kept() const {
        size_t count = 0;
        for (const auto &entry : std::filesystem::directory_iterator(site.path("host/priv")))
            count += entry.path().string().starts_with(stored() + ".old") ? 1 : 0;
        return count;
    }
    static testing::AssertionResult is_nothing_left_beside(const std::string &name) {
        for (const auto &entry : std::filesystem::directory_iterator(std::filesystem::path(name).parent_path())) {
            const std::string other = entry.path().string();
            if (other.starts_with(name + ".") && !other.ends_with(".made"))
                return testing::AssertionFailure() << other;
        }
        return testing::AssertionSuccess();
    }
};

} // namespace

TEST_F(FullDisk, AtEachStepOfASaveLeavesTheOneBeforeOrTheNewOne) {
    begin_site();
    ASSERT_EQ(save().status, 0);
    const int steps = files.sweep(
        [&](int at, Way way) {
            const size_t entries = names_of(RGY_DB_REGIONS)->size();
            EXPECT_EQ(add_region("at " + std::to_string(at) + " " + std::to_string(static_cast<int>(way))), TBS_ST_OK);
            files.begin(at, way);
            const auto made = save(files.environment());
            const bool has_failed = files.end();
            EXPECT_EQ(made.status, made.errors.empty() ? 0 : 1) << at << made.errors;
            EXPECT_THAT(saved_entries(), AnyOf(std::to_string(entries), std::to_string(entries + 1))) << at;
            if (made.status == 0) {
                EXPECT_EQ(saved_entries(), std::to_string(entries + 1)) << at;
            } else {
                EXPECT_THAT(made.errors, HasSubstr("The registry was not saved in \"" + saved() + "\": ")) << at;
            }
            EXPECT_TRUE(is_nothing_left_beside(saved())) << at;
            EXPECT_EQ(save().status, 0) << at;
            EXPECT_EQ(saved_entries(), std::to_string(entries + 1)) << at;
            return has_failed;
        },
        7);
    EXPECT_GT(steps, 10);
    EXPECT_TRUE(daemon->count("Error") == 0) << daemon->output();
}

TEST_F(FullDisk, AtEachStepOfARestoreLeavesTheRegistryBeforeOrTheRestoredOne) {
    begin_site();
    ASSERT_EQ(save().status, 0);
    const int steps = files.sweep(
        [&](int at, Way way) {
            if (daemon == nullptr)
                start_alpha();
            add_regions({"three"});
            stop(daemon, SIGKILL);
            const size_t former = kept();
            files.begin(at, way);
            const auto restored = restore(files.environment());
            const bool has_failed = files.end();
            EXPECT_EQ(restored.status, restored.errors.empty() ? 0 : 1) << at << restored.errors;
            if (restored.status != 0) {
                EXPECT_THAT(restored.errors, HasSubstr("The registry was not restored from \"" + saved() + "\": "));
            }
            EXPECT_FALSE(std::filesystem::exists(stored() + ".restored")) << at;
            if (restored.status != 0 && restored.errors.find("it stands there") == std::string::npos) {
                EXPECT_EQ(kept(), former) << at << "nothing is kept twice";
            }
            start_alpha();
            const auto names = names_of(RGY_DB_REGIONS);
            EXPECT_TRUE(names == before || (restored.status != 0 && names == (Words{"one", "two", "three"})))
                << at << restored.errors << daemon->output();
            stop(daemon, SIGKILL);
            EXPECT_EQ(restore().status, 0) << at;
            start_alpha();
            EXPECT_EQ(names_of(RGY_DB_REGIONS), before) << at << daemon->output();
            return has_failed;
        },
        17);
    EXPECT_GT(steps, 10);
}

// Where what stands there has its second name already.
TEST_F(FullDisk, AtTheLastStepsOfARestoreKeepsNothingTwice) {
    begin_site();
    ASSERT_EQ(save().status, 0);
    add_regions({"three"});
    stop(daemon);
    change_registry(site, "PRAGMA journal_mode = DELETE"); // so that the first try does what the others do
    constexpr int first = 33;
    int at = first;
    for (bool has_failed = true; has_failed && at < 200; ++at) {
        files.begin(at, Way::full);
        const auto restored = restore(files.environment());
        has_failed = files.end();
        if (restored.status == 0 || restored.errors.find("it stands there") != std::string::npos)
            break;
        EXPECT_EQ(kept(), 0u) << at << restored.errors;
    }
    RecordProperty("last", at);
    EXPECT_GT(at, first + 5);
    EXPECT_EQ(kept(), 1u) << "it was restored at last";
}

TEST_F(FullDisk, AtEachStepOfACheckSpoilsNothing) {
    begin_site();
    stop(daemon, SIGKILL);
    files.sweep(
        [&](int at, Way way) {
            files.begin(at, way);
            const auto checked = server({"--check-registry"}, files.environment());
            const bool has_failed = files.end();
            EXPECT_EQ(checked.status, checked.errors.empty() ? 0 : 1) << at << checked.errors;
            EXPECT_THAT(server({"--check-registry"}).output, HasSubstr("is whole: 2 entries")) << at;
            return has_failed;
        },
        2);
    start_alpha();
    EXPECT_EQ(names_of(RGY_DB_REGIONS), before);
}

// In the daemon, which makes the copy, and in the tool, which writes it down.
TEST_F(FullDisk, AtEachStepOfASaveThroughTheDaemonLeavesTheOneBeforeOrTheNewOne) {
    start_alpha(files.environment());
    add_regions(before);
    ASSERT_EQ(veliactl({"registry", "save", saved()}).status, DONE);
    for (const bool is_tool_told : {false, true}) {
        const int steps = files.sweep(
            [&](int at, Way way) {
                const size_t entries = names_of(RGY_DB_REGIONS)->size();
                add_regions({"at " + std::to_string(at) + std::to_string(static_cast<int>(way)) +
                             std::to_string(is_tool_told ? 1 : 0)});
                files.begin(at, way);
                const auto made = veliactl({"registry", "save", saved()}, is_tool_told ? files.environment() : Words{});
                const bool has_failed = files.end();
                EXPECT_EQ(made.status, made.errors.empty() ? DONE : FAILED) << at << made.errors;
                EXPECT_THAT(saved_entries(), AnyOf(std::to_string(entries), std::to_string(entries + 1))) << at;
                EXPECT_TRUE(is_nothing_left_beside(saved())) << at;
                const auto again = veliactl({"registry", "save", saved()});
                EXPECT_EQ(again.status, DONE) << at << again.errors;
                EXPECT_EQ(saved_entries(), std::to_string(entries + 1)) << at;
                EXPECT_TRUE(is_nothing_left_beside(stored())) << at;
                return has_failed;
            },
            is_tool_told ? 3 : 17);
        EXPECT_GT(steps, is_tool_told ? 3 : 10);
    }
}

TEST_F(FullDisk, AtEachStepOfAnImportLosesNothingThatWasToldAndDoublesNothing) {
    start_alpha(files.environment());
    size_t imported = 0;
    for (const Words &more : {Words{}, Words{"--atomic"}}) {
        const int steps = files.sweep(
            [&](int at, Way way) {
                constexpr size_t count = 300;
                std::string lines;
                for (size_t i = 0; i < count; ++i)
                    lines += R"({"db":"regions","items":{"name":"n)" + std::to_string(imported + i) + "\"}}\n";
                site.write("site.jsonl", lines);
                Words import = {"registry", "import", site.path("site.jsonl")};
                import.insert(import.end(), more.begin(), more.end());
                files.begin(at, way);
                const auto failed = veliactl(import);
                const bool has_failed = files.end();
                EXPECT_EQ(failed.status, failed.errors.empty() ? DONE : FAILED) << at << failed.errors;
                const auto names = names_of(RGY_DB_REGIONS, 1000);
                EXPECT_TRUE(names) << at;
                const size_t found = names ? names->size() : 0;
                EXPECT_LE(found, imported + count) << at;
                if (failed.status == DONE) {
                    EXPECT_EQ(found, imported + count) << at;
                } else if (!more.empty()) {
                    EXPECT_EQ(found, imported) << at << "all or nothing";
                }
                EXPECT_EQ(veliactl(import).status, DONE) << at << daemon->output();
                imported += count;
                EXPECT_EQ(names_of(RGY_DB_REGIONS, 1000)->size(), imported) << at << ": each once";
                return has_failed;
            },
            17);
        EXPECT_GT(steps, 4);
    }
    stop(daemon, SIGKILL);
    start_alpha();
    EXPECT_EQ(names_of(RGY_DB_REGIONS, 1000)->size(), imported) << "what was acknowledged is there";
    EXPECT_THAT(server({"--check-registry"}).output, HasSubstr("is whole: " + std::to_string(imported) + " entries"));
}

TEST_F(FullDisk, AtEachStepOfACopyLeavesTheOneBeforeOrTheNewOne) {
    begin_site();
    Words names = before;
    const int steps = files.sweep(
        [&](int at, Way way) {
            files.begin(at, way);
            const auto copied = server({"--copy-registry"}, on_failing_beta());
            const bool has_failed = files.end();
            EXPECT_EQ(copied.status, copied.errors.empty() ? 0 : 1) << at << copied.errors;
            {
                const auto beta = started_beta();
                EXPECT_TRUE(comes_to_have("beta", names)) << at << beta->output();
            }
            names.push_back("at " + std::to_string(at) + std::to_string(static_cast<int>(way)));
            add_regions({names.back()});
            return has_failed;
        },
        13);
    EXPECT_GT(steps, 10);
}

// A turn of the site, to a host on which it fails and back to it; then the other way round.
struct FullDiskAtATurn : FullDisk {
    Outcome make_master(const char *host) const {
        return veliactl({"site", "master", host, "--output", "jsonl", "--timeout", "10"});
    }
    void expect_one_master(const char *host, const char *other, Words &names, int at) {
        EXPECT_TRUE(eventually([&] { return state_of(host).takes_updates && !state_of(other).takes_updates; })) << at;
        names.push_back("by " + std::string(host) + std::to_string(names.size()));
        EXPECT_EQ(add_region(names.back(), host), TBS_ST_OK) << at;
        EXPECT_TRUE(comes_to_have(other, names)) << at << daemon->output() << standby->output();
    }
    // Where `is_former` the host that gives the mastership away is the one whose files fail.
    void turn_and_back(bool is_former) {
        start_alpha(is_former ? files.environment() : Words{});
        Words names = before;
        add_regions(names);
        standby = started_beta();
        ASSERT_TRUE(comes_to_have("beta", names)) << standby->output();
        const int steps = files.sweep(
            [&](int at, Way way) {
                files.begin(at, way);
                const auto turned = make_master("beta");
                const bool has_failed = files.end();
                EXPECT_TRUE(turned.status == DONE || !(turned.errors + turned.output).empty()) << at;
                const auto again = make_master("beta");
                EXPECT_EQ(again.status, DONE)
                    << at << again.errors << again.output << daemon->output() << standby->output();
                expect_one_master("beta", "alpha", names, at);
                EXPECT_EQ(make_master("alpha").status, DONE) << at;
                expect_one_master("alpha", "beta", names, at);
                return has_failed && !HasFailure();
            },
            13);
        EXPECT_GT(steps, 10);
    }
};

TEST_F(FullDiskAtATurn, OnTheNextMasterLosesNothingAndIsGoneOnWith) {
    turn_and_back(false);
}

TEST_F(FullDiskAtATurn, OnTheFormerMasterLosesNothingAndIsGoneOnWith) {
    turn_and_back(true);
}

// An update that the former master takes after a turn that has failed is nobody else's to throw away.
TEST_F(FullDiskAtATurn, ThatFailsLeavesOneHostThatTakesUpdates) {
    start_alpha();
    Words names = before;
    add_regions(names);
    standby = started_beta();
    ASSERT_TRUE(comes_to_have("beta", names)) << standby->output();
    files.sweep(
        [&](int at, Way way) {
            files.begin(at, way);
            const auto turned = make_master("beta");
            EXPECT_FALSE(state_of("alpha").takes_updates && state_of("beta").takes_updates) << at;
            const char *master = "alpha";
            EXPECT_TRUE(eventually([&] {
                master = state_of("beta").takes_updates ? "beta" : "alpha";
                return state_of(master).takes_updates;
            })) << at;
            const bool has_failed = files.end();
            EXPECT_TRUE(turned.status == FAILED || std::string(master) == "beta")
                << at << turned.errors << turned.output;
            expect_one_master(master, std::string(master) == "beta" ? "alpha" : "beta", names, at);
            EXPECT_EQ(make_master("alpha").status, DONE) << at;
            return has_failed && !HasFailure();
        },
        9);
}
