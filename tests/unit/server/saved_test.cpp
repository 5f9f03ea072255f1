// Saving a registry, looking whether a file is a whole one, and restoring it; and files that somebody has put in its
// place.
#include <fstream>

#include <server/registry/copy.h>
#include <server/registry/saved.h>
#include <server/registry/sqlite.h>
#include <server/registry/term.h>
#include <server/registry/trace.h>
#include <tests/unit/server/registry_fixture.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct SavedRegistryTest : RegistryFixture {
    std::string saved() const { return file_name() + ".saved"; }

    void fill(int entries) {
        for (int i = 0; i < entries; ++i)
            ASSERT_EQ(
                add(RGY_DB_REGIONS, "-name=r" + std::to_string(i) + ";-description=" + std::string(400, 'd') + ";"),
                TBS_ST_OK);
    }
    void close() {
        memory.follow(nullptr);
        registry.reset();
        store.reset();
    }
    std::vector<std::string> texts() { return texts_of({RGY_DB_REGIONS, "", "", ""}); }

    // What a failure says; empty where there is none.
    template <class Work>
    static std::string words_of(Work &&work) {
        try {
            work();
            return "";
        } catch (const StoreError &error) {
            return error.what();
        }
    }
    std::string words_of_opening() {
        return words_of([&] { reopen(); });
    }
    static void copy(const std::string &from, const std::string &to) {
        std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    }
    static std::string bytes_of(const std::string &name) {
        std::ifstream file(name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(SavedRegistryTest, HoldsTheMomentAtWhichItWasBegun) {
    fill(1500);
    bool is_asked = false;
    save_registry(file_name(), saved(), [&](uint64_t done, uint64_t total) {
        EXPECT_LT(done, total);
        is_asked = true;
        EXPECT_EQ(add(RGY_DB_VAULT_TAG, "-tag=later" + std::to_string(done) + ";"), TBS_ST_OK);
        EXPECT_EQ(registry->remove(RGY_DB_REGIONS, done, user), TBS_ST_OK);
        return true;
    });
    EXPECT_TRUE(is_asked);
    EXPECT_EQ(check_saved_registry(saved()).entries, 1500u);
    EXPECT_FALSE(std::filesystem::exists(saved() + ".new"));
}

TEST_F(SavedRegistryTest, IsOneFileForItsOwnerAlone) {
    fill(3);
    save_registry(file_name(), saved(), {});
    const auto permissions = std::filesystem::status(saved()).permissions();
    EXPECT_EQ(permissions, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    check_saved_registry(saved());
    for (const char *suffix : {"-wal", "-shm", "-journal"})
        EXPECT_FALSE(std::filesystem::exists(saved() + suffix)) << suffix;
}

TEST_F(SavedRegistryTest, ThatIsGivenUpLeavesWhatWasThere) {
    fill(1500);
    save_registry(file_name(), saved(), {});
    const std::string before = bytes_of(saved());
    EXPECT_EQ(words_of([&] { save_registry(file_name(), saved(), [](uint64_t, uint64_t) { return false; }); }),
              "it was given up");
    EXPECT_EQ(bytes_of(saved()), before);
    EXPECT_FALSE(std::filesystem::exists(saved() + ".new"));
}

TEST_F(SavedRegistryTest, TakesTheNameOfNothingButASavedOne) {
    fill(1);
    std::ofstream(saved()) << "my letters";
    EXPECT_THAT(words_of([&] { save_registry(file_name(), saved(), {}); }), HasSubstr("is not replaced"));
    EXPECT_EQ(bytes_of(saved()), "my letters");
    EXPECT_EQ(words_of([&] { save_registry(file_name(), file_name(), {}); }), "it is the registry itself");
    EXPECT_EQ(words_of([&] { save_registry(file_name() + ".none", saved(), {}); }), "there is no registry here");
}

TEST_F(SavedRegistryTest, CutAtAnyPageIsRefused) {
    fill(60);
    save_registry(file_name(), saved(), {});
    const std::string whole = bytes_of(saved());
    constexpr size_t page = 4096;
    ASSERT_GT(whole.size(), 10 * page);
    for (size_t size = 0; size < whole.size(); size += page) {
        std::ofstream(saved(), std::ios::binary | std::ios::trunc) << whole.substr(0, size);
        EXPECT_NE(words_of([&] { check_saved_registry(saved()); }), "") << size;
        EXPECT_NE(words_of([&] { restore_registry(saved(), file_name()); }), "") << size;
    }
    EXPECT_EQ(texts().size(), 60u);
}

TEST_F(SavedRegistryTest, WithOnePageOfNonsenseIsRefused) {
    fill(60);
    save_registry(file_name(), saved(), {});
    const std::string whole = bytes_of(saved());
    constexpr size_t page = 4096;
    for (size_t at = 0; at < whole.size(); at += page) {
        std::string spoiled = whole;
        spoiled.replace(at, page, std::string(page, '\x7f'));
        std::ofstream(saved(), std::ios::binary | std::ios::trunc) << spoiled;
        EXPECT_NE(words_of([&] { check_saved_registry(saved()); }), "") << at;
    }
}

TEST_F(SavedRegistryTest, OfANewerVersionOfSomethingElseOrOfNoOneIsRefused) {
    fill(1);
    save_registry(file_name(), saved(), {});
    Sqlite(saved()).run("PRAGMA user_version = 2");
    EXPECT_THAT(words_of([&] { restore_registry(saved(), file_name()); }), HasSubstr("newer version"));
    Sqlite(saved()).run("PRAGMA user_version = 0");
    EXPECT_THAT(words_of([&] { check_saved_registry(saved()); }), HasSubstr("is no registry"));
    EXPECT_THAT(words_of([&] { check_saved_registry(saved() + ".none"); }), HasSubstr("No such file"));
    EXPECT_THAT(words_of([&] { check_saved_registry("/"); }), HasSubstr("no regular file"));
    EXPECT_EQ(words_of([&] { restore_registry(file_name(), file_name()); }).empty(), false);
}

TEST_F(SavedRegistryTest, WithAMalformedRecordAStampTooFewOrNoNameIsRefused) {
    fill(1);
    const auto words_with = [&](const char *change) {
        save_registry(file_name(), saved(), {});
        Sqlite(saved()).run(change);
        return words_of([&] { check_saved_registry(saved()); });
    };
    EXPECT_THAT(words_with("UPDATE entry SET text = CAST('nothing' AS BLOB)"), HasSubstr("a malformed record"));
    EXPECT_THAT(words_with("DELETE FROM stamp WHERE db = 3"), HasSubstr("lost its stamps"));
    EXPECT_THAT(words_with("DELETE FROM setting WHERE name = CAST('copy' AS BLOB)"), HasSubstr("lost its name"));
}

TEST_F(SavedRegistryTest, OfAnotherRegistryDoesNotTakeThePlaceOfOneThatStands) {
    fill(1);
    bool is_new_file = false;
    const std::string other = file_name() + ".other";
    open_sqlite_store(other, is_new_file).reset();
    save_registry(other, saved(), {});
    close();
    EXPECT_THAT(words_of([&] { restore_registry(saved(), file_name()); }), HasSubstr("of another registry"));
    reopen();
    EXPECT_EQ(texts().size(), 1u);
}

TEST_F(SavedRegistryTest, IsRestoredInPlaceOfOneThatIsKept) {
    fill(2);
    save_registry(file_name(), saved(), {});
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=later;"), TBS_ST_OK);
    close();
    EXPECT_EQ(restore_registry(saved(), file_name()), file_name() + ".old");
    reopen();
    EXPECT_EQ(texts().size(), 2u);
    close();
    EXPECT_EQ(restore_registry(file_name() + ".old", file_name()), file_name() + ".old.2");
    reopen();
    EXPECT_EQ(texts().size(), 3u);
}

// The log of a daemon that was killed belongs to the registry that is kept, and to no other.
TEST_F(SavedRegistryTest, IsRestoredBesideALogThatWasLeft) {
    fill(2);
    save_registry(file_name(), saved(), {});
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=in the log;"), TBS_ST_OK);
    const std::string log = bytes_of(file_name() + "-wal");
    ASSERT_GT(log.size(), 0u);
    const std::string former = bytes_of(file_name());
    close();
    std::ofstream(file_name(), std::ios::binary) << former;
    std::ofstream(file_name() + "-wal", std::ios::binary) << log;
    const std::string kept = restore_registry(saved(), file_name());
    EXPECT_FALSE(std::filesystem::exists(file_name() + "-wal"));
    reopen();
    EXPECT_EQ(texts().size(), 2u);
    EXPECT_EQ(check_registry(kept).entries, 3u);
}

TEST_F(SavedRegistryTest, IsRestoredInPlaceOfOneThatIsDamaged) {
    fill(2);
    save_registry(file_name(), saved(), {});
    close();
    std::ofstream(file_name(), std::ios::binary) << "nonsense";
    const std::string kept = restore_registry(saved(), file_name());
    EXPECT_EQ(bytes_of(kept), "nonsense");
    reopen();
    EXPECT_EQ(texts().size(), 2u);
}

TEST_F(SavedRegistryTest, IsRestoredWhereThereIsNone) {
    fill(2);
    save_registry(file_name(), saved(), {});
    close();
    for (const char *suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(file_name() + suffix);
    EXPECT_EQ(restore_registry(saved(), file_name()), "");
    reopen();
    EXPECT_EQ(texts().size(), 2u);
}

// Whoever has fetched a later entry, and removes it by its number, means that one.
TEST_F(SavedRegistryTest, IsRestoredWithoutGivingANumberAgainAndUnderAHigherTerm) {
    fill(2);
    store->set_setting(origin_setting, origin_master);
    begin_term(*store, "alpha");
    save_registry(file_name(), saved(), {});
    begin_term(*store, "beta");
    hear_of_term(*store, 7, "gamma");
    close();
    restore_registry(saved(), file_name());
    reopen();
    EXPECT_EQ(term_of(*store).number, 8u);
    EXPECT_EQ(term_of(*store).heard, 0u);
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=after;"), TBS_ST_OK);
    uint64_t last = 0;
    store->scan({RGY_DB_REGIONS, "", "", ""}, 0, [&](uint64_t id, const Record *) {
        last = id;
        return true;
    });
    EXPECT_GT(last, 1000u);
}

TEST_F(SavedRegistryTest, AnOlderFileInItsPlaceIsRefusedAndRestored) {
    fill(2);
    close();
    copy(file_name(), saved());
    reopen();
    ASSERT_EQ(add(RGY_DB_REGIONS, "-name=later;"), TBS_ST_OK);
    close();
    copy(saved(), file_name());
    EXPECT_THAT(words_of_opening(), HasSubstr("older than what was acknowledged"));
    std::filesystem::remove(trace_of_registry(file_name())); // an administrator who knows
    EXPECT_EQ(words_of_opening(), "");
    EXPECT_EQ(texts().size(), 2u);
}

// The log that is not copied with it holds what was acknowledged last.
TEST_F(SavedRegistryTest, TheFileAloneOfARegistryInUseIsRefused) {
    fill(2);
    copy(file_name(), saved());
    EXPECT_THAT(words_of([&] { check_saved_registry(saved()); }), HasSubstr("may lack what its log held"));
    close();
    copy(saved(), file_name());
    EXPECT_THAT(words_of_opening(), HasSubstr("older than what was acknowledged"));
}

TEST_F(SavedRegistryTest, ADamagedFileFromElsewhereIsRefused) {
    fill(60);
    close();
    const std::string whole = bytes_of(file_name());
    std::filesystem::remove(trace_of_registry(file_name()));
    std::ofstream(file_name(), std::ios::binary) << whole.substr(0, whole.size() - 8192);
    EXPECT_THAT(words_of_opening(), testing::AnyOf(HasSubstr("damaged"), HasSubstr("malformed")));
    std::ofstream(file_name(), std::ios::binary) << whole;
    EXPECT_EQ(words_of_opening(), "");
}

TEST_F(SavedRegistryTest, TheTraceTellsHowFarTheRegistryHasCome) {
    fill(2);
    const auto mark = RegistryTrace(file_name()).mark();
    ASSERT_TRUE(mark);
    EXPECT_EQ(mark->changes, store->changes());
    const tbs_uuid_t own = registry->stamps(0).registry;
    EXPECT_TRUE(tbs_uuid_eq(&mark->registry, &own));
    store->together([&] {
        store->set_setting("a", "b");
        EXPECT_EQ(RegistryTrace(file_name()).mark()->changes, mark->changes) << "of what may be taken back";
    });
    EXPECT_EQ(RegistryTrace(file_name()).mark()->changes, store->changes());
    EXPECT_GT(store->changes(), mark->changes);
}

// Of a program of before, or half written; the daemon goes on with it.
TEST_F(SavedRegistryTest, ATraceWithoutAMarkIsGivenOne) {
    for (const char *text : {"There was a registry here.\n", "There was a registry here.\nAcknowledged: nonsense\n"}) {
        close();
        std::ofstream(trace_of_registry(file_name())) << text;
        EXPECT_FALSE(RegistryTrace(file_name()).mark());
        reopen();
        fill(0);
        store->set_setting("a", "b");
        EXPECT_EQ(RegistryTrace(file_name()).mark()->changes, store->changes()) << text;
    }
    close();
    std::ofstream(trace_of_registry(file_name())).close();
    reopen();
    store->set_setting("a", "c");
    EXPECT_FALSE(RegistryTrace(file_name()).mark());
}

TEST_F(SavedRegistryTest, ACheckpointBringsTheLogHome) {
    fill(20);
    const auto size_before = std::filesystem::file_size(file_name());
    store->checkpoint();
    EXPECT_GT(std::filesystem::file_size(file_name()), size_before);
}

TEST(Terms, GrowWithEachMasterAndAboveAllThatWasHeardOf) {
    EXPECT_EQ(term_of_text("12"), 12u);
    for (const char *text : {"", "-1", "1x", "99999999999999999999"})
        EXPECT_EQ(term_of_text(text), 0u) << text;
}

struct TermsOfAStore : RegistryFixture {};

TEST_F(TermsOfAStore, AreHeardOfOnceAndForgottenByAHigherOne) {
    EXPECT_EQ(term_of(*store).number, 0u);
    begin_term(*store, "alpha");
    EXPECT_EQ(term_of(*store).number, 1u);
    EXPECT_FALSE(hear_of_term(*store, 1, "beta"));
    EXPECT_FALSE(term_of(*store).is_superseded());
    EXPECT_TRUE(hear_of_term(*store, 3, "beta"));
    EXPECT_FALSE(hear_of_term(*store, 3, "gamma"));
    EXPECT_TRUE(term_of(*store).is_superseded());
    EXPECT_EQ(term_of(*store).heard_host, "beta");
    reopen();
    EXPECT_TRUE(term_of(*store).is_superseded());
    take_term(*store, 2, "delta");
    EXPECT_TRUE(term_of(*store).is_superseded());
    begin_term(*store, "alpha");
    EXPECT_EQ(term_of(*store).number, 4u);
    EXPECT_EQ(term_of(*store).host, "alpha");
    EXPECT_FALSE(term_of(*store).is_superseded());
}

} // namespace
